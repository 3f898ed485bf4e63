#!/usr/bin/env bash
# Makes the small fragmented files of the deep-analysis tests with FFmpeg: a second of tiny
# H.264 video with B-frames and AAC sound, fragmented at every key frame (every 4 frames).
# Single-threaded encoders and bit-exact flags keep the bytes the same from run to run.
#
#   frag-empty-moov.mp4       -movflags frag_keyframe+empty_moov: every sample in a moof
#   frag-base-moof.mp4        the same with default-base-is-moof
#   frag-cmaf.mp4             -movflags cmaf: negative composition offsets in trun version 1
#   frag-dash-init.m4s        the video initialization segment of the dash muxer
#   frag-dash-segment.m4s     its first media segment: styp, sidx, moof, mdat and no moov
set -euo pipefail
cd "$(dirname "$0")"
ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }
video=(-f lavfi -i testsrc=size=32x24:rate=10:duration=1.2)
audio=(-f lavfi -i sine=frequency=440:sample_rate=8000:duration=1.2)
plain=(-fflags +bitexact -flags:v +bitexact -flags:a +bitexact -threads 1 -map_metadata -1)
codecs=(-c:v libx264 -preset ultrafast -crf 45 -pix_fmt yuv420p -g 4 -keyint_min 4
        -sc_threshold 0 -bf 2 -x264-params b-adapt=0:b-pyramid=none
        -bsf:v filter_units=remove_types=6 -c:a aac -b:a 8k)

ff "${video[@]}" "${audio[@]}" "${codecs[@]}" "${plain[@]}" \
    -movflags frag_keyframe+empty_moov frag-empty-moov.mp4
ff "${video[@]}" "${audio[@]}" "${codecs[@]}" "${plain[@]}" \
    -movflags frag_keyframe+empty_moov+default_base_moof frag-base-moof.mp4
ff "${video[@]}" "${audio[@]}" "${codecs[@]}" "${plain[@]}" -movflags cmaf+frag_keyframe \
    frag-cmaf.mp4
dash=$(mktemp -d)
trap 'rm -rf "$dash"' EXIT
ff "${video[@]}" "${codecs[@]}" "${plain[@]}" -f dash -seg_duration 0.8 "$dash/out.mpd"
cp "$dash/init-stream0.m4s" frag-dash-init.m4s
cp "$dash/chunk-stream0-00001.m4s" frag-dash-segment.m4s
ls -l frag-*
