#!/usr/bin/env bash
# Makes the small streaming packages of the package tests with FFmpeg: 1.2 s of tiny H.264
# with B-frames and AAC, cut into segments of 0.4 s, so that each package stays a few KB.
# Single-threaded encoders and bit-exact flags keep the bytes the same from run to run with
# the same FFmpeg.
#
#   package-dash-template/   DASH, a segment template with $Number$ and no timeline
#   package-dash-timeline/   DASH, a segment template with a segment timeline
#   package-dash-single/     DASH, one file per representation: a segment list of byte ranges
#   package-hls/             HLS with fMP4 segments: EXT-X-MAP and EXTINF
set -euo pipefail
cd "$(dirname "$0")"
ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }
video=(-f lavfi -i testsrc=size=32x24:rate=10:duration=1.2)
audio=(-f lavfi -i sine=frequency=440:sample_rate=8000:duration=1.2)
plain=(-fflags +bitexact -flags:v +bitexact -flags:a +bitexact -threads 1 -map_metadata -1)
x264=(-c:v libx264 -preset ultrafast -crf 45 -pix_fmt yuv420p -g 4 -keyint_min 4 -sc_threshold 0
      -bf 2 -x264-params b-adapt=0:b-pyramid=none -bsf:v filter_units=remove_types=6)
media=("${video[@]}" "${audio[@]}" "${x264[@]}" -c:a aac -b:a 8k "${plain[@]}")

rm -rf package-dash-template package-dash-timeline package-dash-single package-hls
mkdir package-dash-template package-dash-timeline package-dash-single package-hls
ff "${media[@]}" -seg_duration 0.4 -use_template 1 -use_timeline 0 -f dash \
    package-dash-template/package.mpd
ff "${media[@]}" -seg_duration 0.4 -use_template 1 -use_timeline 1 -f dash \
    package-dash-timeline/package.mpd
ff "${media[@]}" -seg_duration 0.4 -single_file 1 -f dash package-dash-single/package.mpd
ff "${media[@]}" -hls_time 0.4 -hls_segment_type fmp4 -hls_playlist_type vod -f hls \
    package-hls/package.m3u8
ls -l package-*
