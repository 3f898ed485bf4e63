#!/usr/bin/env bash
# Makes the small image files of the item tests: a 64x64 test picture (128x128 for the grid)
# from FFmpeg, encoded by libheif's heif-enc, libavif's avifenc and, where it writes AVIF,
# FFmpeg itself, at a low quality so that each file stays a few KB.
#
#   image-heic.heic        HEIC, one image
#   image-avif.avif        AVIF from heif-enc -A, one image
#   image-two.heic         HEIC, two images, each with a thumbnail (thmb)
#   image-thumb.avif       AVIF with a thumbnail
#   image-alpha.avif       AVIF from avifenc with an alpha plane (auxl, auxC)
#   image-grid.avif        AVIF from avifenc, a 2x2 grid of tiles (grid, dimg)
#   image-ffmpeg.avif      AVIF from FFmpeg's muxer, where FFmpeg has one
#
# Needs Debian's ffmpeg, libheif-examples and libavif-bin; the files are kept in the
# repository, so the tests need none of them but heif-info.
set -euo pipefail
cd "$(dirname "$0")"
ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

ff -f lavfi -i testsrc=size=64x64 -frames:v 1 -pix_fmt rgb24 "$work/a.png"
ff -f lavfi -i testsrc=size=64x64 -frames:v 1 -vf hflip -pix_fmt rgb24 "$work/b.png"
ff -f lavfi -i "testsrc=size=64x64,format=rgba,geq=r='r(X,Y)':g='g(X,Y)':b='b(X,Y)':a='X*4'" \
    -frames:v 1 "$work/alpha.png"
ff -f lavfi -i testsrc=size=128x128 -frames:v 1 -pix_fmt rgb24 "$work/big.png"

heif-enc -q 20 -o image-heic.heic "$work/a.png" >/dev/null
heif-enc -A -q 20 -o image-avif.avif "$work/a.png" >/dev/null
heif-enc -q 10 -t 16 -o image-two.heic "$work/a.png" "$work/b.png" >/dev/null
heif-enc -A -q 10 -t 16 -o image-thumb.avif "$work/a.png" >/dev/null
avifenc -s 10 --min 50 --max 63 "$work/alpha.png" image-alpha.avif >/dev/null
avifenc -s 10 --min 50 --max 63 --grid 2x2 "$work/big.png" image-grid.avif >/dev/null
if ffmpeg -hide_banner -muxers 2>/dev/null | grep -qw avif; then
    ff -f lavfi -i testsrc=size=64x64 -frames:v 1 -c:v libaom-av1 -cpu-used 8 -crf 63 \
        -still-picture 1 -fflags +bitexact -flags:v +bitexact -threads 1 image-ffmpeg.avif
fi
ls -l image-*
