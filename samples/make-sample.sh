#!/usr/bin/env bash
# Makes samples/sample.mp4, the file ./run shows when given none: one second of 64x48
# H.264 video at 5 fps and AAC audio. Bit-exact flags and no metadata keep the bytes the
# same from run to run with the same FFmpeg; the x264 settings SEI is dropped to keep
# the file small.
set -euo pipefail
cd "$(dirname "$0")"
ffmpeg -hide_banner -loglevel error -nostdin -y \
    -f lavfi -i testsrc=size=64x48:rate=5 \
    -f lavfi -i sine=frequency=440:sample_rate=8000 \
    -t 1 -map 0:v -map 1:a \
    -c:v libx264 -preset ultrafast -crf 40 -pix_fmt yuv420p -bsf:v filter_units=remove_types=6 \
    -c:a aac -b:a 16k \
    -fflags +bitexact -flags:v +bitexact -flags:a +bitexact -map_metadata -1 \
    sample.mp4
ls -l sample.mp4
