#!/usr/bin/env bash
# Makes the small real files of the deep-analysis tests with FFmpeg: a second of tiny video
# or sound, so that each file stays a few KB, in the codecs and containers that deep
# analysis decodes. Single-threaded encoders and bit-exact flags keep the bytes the same
# from run to run with the same FFmpeg.
#
#   deep-hevc.mp4          HEVC with B-frames (hvcC, ctts, sdtp)
#   deep-av1.mp4           AV1 (av1C)
#   deep-vp9.mp4           VP9 (vpcC)
#   deep-opus.mp4          Opus (dOps)
#   deep-ac3.mp4           AC-3 (dac3)
#   deep-aac.m4a           AAC with title and artist (esds, udta/meta/ilst)
#   deep-h264-aac.mov      QuickTime: H.264 with B-frames and AAC, with a title
#   deep-edits.mp4         H.264 with B-frames and AAC, the video starting late (an empty edit)
#   deep-cenc.mp4          H.264 and AAC protected with cenc (sinf, tenc, senc with subsamples)
#   deep-dash.mp4          H.264 in fragments for DASH (sidx, prft, mfra with tfra and mfro)
#   deep-metadata.mov      QuickTime: MPEG-4 Visual with a time code track (tref, gmhd, tcmi),
#                          a chapter text track, Nero chapters (chpl) and tags by key (keys)
#   deep-h263.3gp          3GPP: H.263 (s263, d263) and AAC
#   deep-rtphint.mp4       H.264 High 4:2:2 (the avcC tail) and AAC with RTP hint tracks
#                          (hmhd, rtp  entries, hnti with the SDP of each track)
#   deep-ima.mov           QuickTime: MPEG-4 Visual and IMA ADPCM, a sound entry of version 1
#                          with its channel layout (chan)
#   deep-pcm.mov           QuickTime: little-endian PCM (sowt, chan)
set -euo pipefail
cd "$(dirname "$0")"
ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }
video=(-f lavfi -i testsrc=size=32x24:rate=10:duration=1.2)
audio=(-f lavfi -i sine=frequency=440:sample_rate=8000:duration=1.2)
plain=(-fflags +bitexact -flags:v +bitexact -flags:a +bitexact -threads 1)
x264=(-c:v libx264 -preset ultrafast -crf 45 -pix_fmt yuv420p -g 4 -keyint_min 4 -sc_threshold 0
      -bf 2 -x264-params b-adapt=0:b-pyramid=none -bsf:v filter_units=remove_types=6)
tags=(-metadata title=Sample -metadata artist=Sarvelinth)
# A fixed key and key ID; with bit-exact flags the IVs are the same from run to run too.
cenc=(-encryption_scheme cenc-aes-ctr -encryption_key 00112233445566778899aabbccddeeff
      -encryption_kid 00112233445566778899aabbccddeeff)

ff "${video[@]}" -c:v libx265 -preset ultrafast -crf 45 -tag:v hvc1 \
    -x265-params log-level=none:keyint=4:bframes=2:pools=none:frame-threads=1 \
    "${plain[@]}" -map_metadata -1 deep-hevc.mp4
ff "${video[@]}" -c:v libaom-av1 -cpu-used 8 -crf 63 -g 4 "${plain[@]}" -map_metadata -1 \
    deep-av1.mp4
ff "${video[@]}" -c:v libvpx-vp9 -deadline realtime -crf 63 -b:v 0 -g 4 "${plain[@]}" \
    -map_metadata -1 deep-vp9.mp4
ff "${audio[@]}" -c:a libopus -b:a 6k "${plain[@]}" -map_metadata -1 deep-opus.mp4
ff -f lavfi -i sine=frequency=440:sample_rate=32000:duration=0.3 -c:a ac3 -b:a 32k \
    "${plain[@]}" -map_metadata -1 deep-ac3.mp4
ff "${audio[@]}" -c:a aac -b:a 8k "${plain[@]}" "${tags[@]}" deep-aac.m4a
ff "${video[@]}" "${audio[@]}" "${x264[@]}" -c:a aac -b:a 8k "${plain[@]}" \
    -metadata title=Sample deep-h264-aac.mov
ff -itsoffset 0.3 "${video[@]}" "${audio[@]}" "${x264[@]}" -c:a aac -b:a 8k "${plain[@]}" \
    -map_metadata -1 deep-edits.mp4
ff "${video[@]}" "${audio[@]}" "${x264[@]}" -c:a aac -b:a 8k "${plain[@]}" -map_metadata -1 \
    "${cenc[@]}" deep-cenc.mp4
# prft from the packets' times rather than the clock, so that the file does not change.
ff "${video[@]}" "${x264[@]}" "${plain[@]}" -map_metadata -1 -movflags +dash+frag_keyframe \
    -write_prft pts deep-dash.mp4
chapters=$(mktemp)
trap 'rm -f "$chapters"' EXIT
printf '%s\n' ';FFMETADATA1' title=Chaptered \
    '[CHAPTER]' TIMEBASE=1/1000 START=0 END=600 title=One \
    '[CHAPTER]' TIMEBASE=1/1000 START=600 END=1200 title=Two >"$chapters"
ff "${video[@]}" -f ffmetadata -i "$chapters" -map 0 -map_metadata 1 -map_chapters 1 -c:v mpeg4 \
    -q:v 31 "${plain[@]}" -timecode 01:00:00:00 -metadata artist=Sarvelinth \
    -movflags use_metadata_tags deep-metadata.mov
ff -f lavfi -i testsrc=size=128x96:rate=10:duration=1.2 "${audio[@]}" -c:v h263 -q:v 31 -g 4 \
    -c:a aac -b:a 8k "${plain[@]}" -map_metadata -1 deep-h263.3gp
ff "${video[@]}" "${audio[@]}" -c:v libx264 -preset veryfast -crf 45 -pix_fmt yuv422p -g 4 -bf 0 \
    -bsf:v filter_units=remove_types=6 -c:a aac -b:a 8k "${plain[@]}" -map_metadata -1 \
    -movflags rtphint deep-rtphint.mp4
ff "${video[@]}" "${audio[@]}" -c:v mpeg4 -q:v 31 -c:a adpcm_ima_qt "${plain[@]}" \
    -map_metadata -1 deep-ima.mov
ff -f lavfi -i sine=frequency=440:sample_rate=8000:duration=0.3 -c:a pcm_s16le "${plain[@]}" \
    -map_metadata -1 -f mov deep-pcm.mov
ls -l deep-*
