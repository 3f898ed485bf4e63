#!/usr/bin/env bash
# Makes the large benchmark inputs in bench/inputs/ (never committed): a 64-second seed
# of tiny H.264 video and one of AAC, looped with stream copy into long files.
#   a.mp4  1 hour of video only, moov at the end (216,000 samples)
#   b.mp4  6 hours of video + AAC (1,296,000 video samples, ~1M audio samples)
#   c.mp4  b.mp4 with the moov in front
#   d.mp4  a.mp4 fragmented
#   e.mp4  the first 2,000 s of a.mp4 fragmented at its key frames (every 2 s)
#   package/package.mpd  the same 2,000 s as a DASH package of 1,000 segments
set -euo pipefail
cd "$(dirname "$0")"
mkdir -p inputs
cd inputs
ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }

[ -f seed-video.mp4 ] || ff -f lavfi -i testsrc2=size=32x32:rate=60 -t 64 \
    -c:v libx264 -preset ultrafast -tune zerolatency -bf 2 -x264-params bframes=2:keyint=120:min-keyint=120:scenecut=0 \
    -g 120 -pix_fmt yuv420p seed-video.mp4
[ -f seed-audio.m4a ] || ff -f lavfi -i sine=frequency=440:sample_rate=44100 -t 64 \
    -c:a aac -b:a 32k seed-audio.m4a

[ -f a.mp4 ] || ff -stream_loop 56 -i seed-video.mp4 -t 3600 -c copy a.mp4
[ -f b.mp4 ] || ff -stream_loop 337 -i seed-video.mp4 -stream_loop 337 -i seed-audio.m4a \
    -map 0:v -map 1:a -t 21600 -c copy b.mp4
[ -f c.mp4 ] || ff -i b.mp4 -map 0 -c copy -movflags +faststart c.mp4
[ -f d.mp4 ] || ff -i a.mp4 -map 0 -c copy -movflags +frag_keyframe+empty_moov d.mp4
[ -f e.mp4 ] || ff -i a.mp4 -t 2000 -map 0 -c copy -movflags +frag_keyframe+empty_moov e.mp4
[ -f package/package.mpd ] || { mkdir -p package && ff -i a.mp4 -t 2000 -map 0 -c copy \
    -seg_duration 2 -use_template 1 -use_timeline 1 -f dash package/package.mpd; }
ls -l a.mp4 b.mp4 c.mp4 d.mp4 e.mp4 package/package.mpd
