#!/usr/bin/env bash
# Makes the small real files of the header box tests with FFmpeg.
#
# header-versions.mp4: five seconds of 16x16 H.264 video at 1 fps and one second of AAC
# audio. A movie and video time scale of 10^9 carries the durations past 32 bits, so the
# movie header, the video track's header, edit list and media header are written in
# version 1, while the shorter audio track keeps version 0 for its track header and edit
# list, and its media header with the time scale of the sample rate. The creation time
# gives the headers a date. Bit-exact flags keep the bytes the same from run to run with
# the same FFmpeg; the x264 settings SEI is dropped to keep the file small.
set -euo pipefail
cd "$(dirname "$0")"
ffmpeg -hide_banner -loglevel error -nostdin -y \
    -f lavfi -i testsrc=size=16x16:rate=1:duration=5 \
    -f lavfi -i sine=frequency=440:sample_rate=8000:duration=1 \
    -map 0:v -map 1:a \
    -c:v libx264 -preset ultrafast -crf 51 -pix_fmt yuv420p -bsf:v filter_units=remove_types=6 \
    -c:a aac -b:a 8k \
    -movie_timescale 1000000000 -video_track_timescale 1000000000 \
    -fflags +bitexact -flags:v +bitexact -flags:a +bitexact -map_metadata -1 \
    -metadata creation_time=2024-01-02T03:04:05Z \
    header-versions.mp4
ls -l header-versions.mp4
