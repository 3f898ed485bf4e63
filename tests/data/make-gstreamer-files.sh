#!/usr/bin/env bash
# Makes the small real files of other writers than FFmpeg with GStreamer's muxers: half a
# second of tiny video, with sound where the muxer takes it, so that each file stays a few KB.
# They go to gstreamer/, apart from the FFmpeg files, as the tests take them apart.
# GStreamer writes the time of muxing into the movie headers, so the bytes differ from run to
# run; the tests compare the files with ffprobe, never with golden reports.
#
#   gst-h264-aac.mp4        mp4mux: H.264 with B-frames and AAC
#   gst-h264-aac-frag.mp4   mp4mux, fragmented (fragment-duration): H.264 and AAC
#   gst-h264-opus.mp4       mp4mux: H.264 and Opus
#   gst-av1.mp4             mp4mux: AV1 (av1enc), when GStreamer has it
#   gst-h264-aac.mov        qtmux: H.264 and AAC (the sample entries end with a terminator)
#   gst-h264-aac-frag.mov   qtmux, fragmented: H.264 and AAC
#   gst-h264-pcm.mov        qtmux: H.264 and 16-bit big-endian PCM
#   gst-hevc-aac.mov        qtmux: HEVC (x265enc) and AAC, when GStreamer has it
set -euo pipefail
cd "$(dirname "$0")"
mkdir -p gstreamer
cd gstreamer
gst() { gst-launch-1.0 -q "$@" >/dev/null; }
has() { gst-inspect-1.0 "$1" >/dev/null 2>&1; }
video="videotestsrc num-buffers=5 pattern=ball ! video/x-raw,width=32,height=24,framerate=10/1"
audio="audiotestsrc num-buffers=4 samplesperbuffer=1024 ! audio/x-raw,rate=8000,channels=1"
h264="x264enc speed-preset=ultrafast key-int-max=4 bframes=2 b-adapt=false threads=1
      sliced-threads=false ! h264parse"
# avenc_aac is GStreamer's wrapper of FFmpeg's AAC encoder; voaacenc serves without it.
if has avenc_aac; then aac="avenc_aac bitrate=16000 ! aacparse"; else aac="voaacenc ! aacparse"; fi
both() { echo "$video ! $h264 ! mux.video_0 $audio ! $1 ! mux.audio_0"; }

# shellcheck disable=SC2046 # the pipelines are words for gst-launch
gst $(both "$aac") mp4mux name=mux ! filesink location=gst-h264-aac.mp4
# shellcheck disable=SC2046
gst $(both "$aac") mp4mux name=mux fragment-duration=200 ! filesink location=gst-h264-aac-frag.mp4
# shellcheck disable=SC2086
gst $video ! $h264 ! mux.video_0 audiotestsrc num-buffers=10 ! \
    audio/x-raw,rate=48000,channels=1 ! opusenc bitrate=6000 ! mux.audio_0 \
    mp4mux name=mux ! filesink location=gst-h264-opus.mp4
# shellcheck disable=SC2046
gst $(both "$aac") qtmux name=mux ! filesink location=gst-h264-aac.mov
# shellcheck disable=SC2046
gst $(both "$aac") qtmux name=mux fragment-duration=200 ! filesink location=gst-h264-aac-frag.mov
# shellcheck disable=SC2046
gst $(both "audioconvert ! audio/x-raw,format=S16BE") qtmux name=mux ! \
    filesink location=gst-h264-pcm.mov
if has x265enc; then
    # shellcheck disable=SC2086
    gst $video ! x265enc speed-preset=ultrafast key-int-max=4 \
        option-string=bframes=2:pools=none:frame-threads=1:log-level=none ! h265parse ! \
        mux.video_0 $audio ! $aac ! mux.audio_0 qtmux name=mux ! \
        filesink location=gst-hevc-aac.mov
else
    echo "make-gstreamer-files.sh: no x265enc; gst-hevc-aac.mov not made" >&2
fi
if has av1enc; then
    # shellcheck disable=SC2086
    gst $video ! av1enc cpu-used=8 target-bitrate=10 keyframe-max-dist=4 threads=1 ! av1parse ! \
        mux.video_0 mp4mux name=mux ! filesink location=gst-av1.mp4
else
    echo "make-gstreamer-files.sh: no av1enc; gst-av1.mp4 not made" >&2
fi
