#!/usr/bin/env bash
# Makes the small real files of the track tests with FFmpeg: a few frames of tiny video,
# so that each file stays a few KB, with key frames every 4 frames.
#
#   track-h264-bframes.mp4     H.264 with B-frames, moov behind mdat
#   track-h264-faststart.mp4   H.264 without B-frames, moov in front of mdat
#   track-mpeg4.mp4            MPEG-4 Visual, moov behind mdat
#   track-aac-h264.mp4         AAC audio as the first track and H.264 video as the second
#
# Bit-exact flags keep the bytes the same from run to run with the same FFmpeg; the x264
# settings SEI is dropped to keep the files small.
set -euo pipefail
cd "$(dirname "$0")"
ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }
video=(-f lavfi -i testsrc=size=32x24:rate=10:duration=1.2)
audio=(-f lavfi -i sine=frequency=440:sample_rate=8000:duration=1.2)
plain=(-fflags +bitexact -flags:v +bitexact -flags:a +bitexact -map_metadata -1)
x264=(-c:v libx264 -preset ultrafast -crf 45 -pix_fmt yuv420p -g 4 -keyint_min 4
      -sc_threshold 0 -bsf:v filter_units=remove_types=6)

ff "${video[@]}" "${x264[@]}" -bf 2 -x264-params b-adapt=0:b-pyramid=none \
    "${plain[@]}" track-h264-bframes.mp4
ff "${video[@]}" "${x264[@]}" -bf 0 -movflags +faststart "${plain[@]}" track-h264-faststart.mp4
ff "${video[@]}" -c:v mpeg4 -q:v 31 -g 4 -bf 0 "${plain[@]}" track-mpeg4.mp4
ff "${video[@]}" "${audio[@]}" -map 1:a -map 0:v "${x264[@]}" -bf 0 -c:a aac -b:a 8k \
    "${plain[@]}" track-aac-h264.mp4
ls -l track-*.mp4
