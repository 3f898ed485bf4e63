#!/bin/bash
# Writes the crafted seeds of the fuzz corpus into fuzz/corpus/, beside two small real images:
# small well-formed files that reach every kind of box the parser reads, so that the fuzzer starts from inputs
# that already get deep into the tree. Everything is built as hex text and turned into
# bytes at the end, with nothing but bash and coreutils.
set -euo pipefail
out="$(cd "$(dirname "$0")" && pwd)/corpus"
mkdir -p "$out"

u8() { printf '%02x' "$1"; }
u16() { printf '%04x' "$1"; }
u32() { printf '%08x' "$1"; }
u64() { printf '%016x' "$1"; }
str() { printf '%s' "$1" | od -An -tx1 -v | tr -d ' \n'; }
zeros() { printf '%0*d' $(($1 * 2)) 0; }
# box TYPE PAYLOAD-HEX...
box() {
    local type=$1
    shift
    local payload
    payload=$(printf '%s' "$@")
    printf '%s%s%s' "$(u32 $((8 + ${#payload} / 2)))" "$(str "$type")" "$payload"
}
# full TYPE VERSION FLAGS PAYLOAD-HEX...
full() {
    local type=$1 version=$2 flags=$3
    shift 3
    box "$type" "$(u8 "$version")" "$(printf '%06x' "$flags")" "$@"
}
# big TYPE PAYLOAD-HEX...: declared size 1 and the true size in big_size
big() {
    local type=$1
    shift
    local payload
    payload=$(printf '%s' "$@")
    printf '%s%s%s%s' "$(u32 1)" "$(str "$type")" "$(u64 $((16 + ${#payload} / 2)))" "$payload"
}
write() { printf '%b' "$(printf '%s' "$2" | sed 's/../\\x&/g')" >"$out/$1"; }

ftyp=$(box ftyp "$(str isom)" "$(u32 512)" "$(str isom)" "$(str avc1)" "$(str mp41)")

mvhd0=$(full mvhd 0 0 "$(u32 100)" "$(u32 200)" "$(u32 1000)" "$(u32 2000)" "$(u32 0x10000)" \
    "$(u16 0x100)" "$(zeros 10)" "$(u32 0x10000)" "$(zeros 12)" "$(u32 0x10000)" "$(zeros 12)" \
    "$(u32 0x40000000)" "$(zeros 24)" "$(u32 3)")
mvhd1=$(full mvhd 1 0 "$(u64 100)" "$(u64 200)" "$(u32 1000)" "$(u64 2000)" "$(u32 0x10000)" \
    "$(u16 0x100)" "$(zeros 10)" "$(u32 0x10000)" "$(zeros 12)" "$(u32 0x10000)" "$(zeros 12)" \
    "$(u32 0x40000000)" "$(zeros 24)" "$(u32 3)")
tkhd() { # VERSION WIDTH HEIGHT
    local times
    if [ "$1" = 1 ]; then times="$(u64 1)$(u64 2)$(u32 1)$(u32 0)$(u64 2000)"; else
        times="$(u32 1)$(u32 2)$(u32 1)$(u32 0)$(u32 2000)"; fi
    full tkhd "$1" 3 "$times" "$(zeros 8)" "$(u16 0)" "$(u16 0)" "$(u16 0x100)" "$(u16 0)" \
        "$(u32 0x10000)" "$(zeros 12)" "$(u32 0x10000)" "$(zeros 12)" "$(u32 0x40000000)" \
        "$(u32 $(($2 << 16)))" "$(u32 $(($3 << 16)))"
}
mdhd() { # VERSION
    if [ "$1" = 1 ]; then
        full mdhd 1 0 "$(u64 1)" "$(u64 2)" "$(u32 25)" "$(u64 50)" "$(u16 0x55c4)" "$(u16 0)"
    else
        full mdhd 0 0 "$(u32 1)" "$(u32 2)" "$(u32 25)" "$(u32 50)" "$(u16 0x55c4)" "$(u16 0)"
    fi
}
hdlr() { full hdlr 0 0 "$(u32 0)" "$(str "$1")" "$(zeros 12)" "$(str "$2")" "00"; }
vmhd=$(full vmhd 0 1 "$(u16 0)" "$(zeros 6)")
smhd=$(full smhd 0 0 "$(u16 0)" "$(u16 0)")
dinf=$(box dinf "$(full dref 0 0 "$(u32 1)" "$(full 'url ' 0 1)")")
avcC=$(box avcC "01640015ffe1" "$(u16 4)" "67640015" "01" "$(u16 2)" "68ee")
pasp=$(box pasp "$(u32 1)" "$(u32 1)")
visual() { # TYPE EXTRA-BOXES-HEX
    box "$1" "$(zeros 6)" "$(u16 1)" "$(u16 0)" "$(u16 0)" "$(zeros 12)" "$(u16 64)" "$(u16 48)" \
        "$(u32 0x480000)" "$(u32 0x480000)" "$(u32 0)" "$(u16 1)" "$(u8 4)$(str x264)$(zeros 27)" \
        "$(u16 24)" "$(u16 0xffff)" "$2"
}
stsd_avc=$(full stsd 0 0 "$(u32 1)" "$(visual avc1 "$avcC$pasp")")
stsd_two=$(full stsd 0 0 "$(u32 2)" "$(visual avc1 "$avcC")" "$(visual mp4v "")")
esds=$(full esds 0 0 "03190000000411401500000000000000000000000005021190060102")
stsd_audio=$(full stsd 0 0 "$(u32 1)" "$(box mp4a "$(zeros 6)" "$(u16 1)" "$(zeros 8)" \
    "$(u16 2)" "$(u16 16)" "$(zeros 4)" "$(u32 $((44100 << 16)))" "$esds")")

# Six samples in two chunks, a B-frame-free GOP with key frames 1 and 4.
stts=$(full stts 0 0 "$(u32 2)" "$(u32 4)" "$(u32 2)" "$(u32 2)" "$(u32 3)")
stss=$(full stss 0 0 "$(u32 2)" "$(u32 1)" "$(u32 4)")
stsc=$(full stsc 0 0 "$(u32 2)" "$(u32 1)" "$(u32 4)" "$(u32 1)" "$(u32 2)" "$(u32 2)" "$(u32 1)")
stco=$(full stco 0 0 "$(u32 2)" "$(u32 600)" "$(u32 700)")
co64=$(full co64 0 0 "$(u32 2)" "$(u64 600)" "$(u64 700)")
stsz=$(full stsz 0 0 "$(u32 0)" "$(u32 6)" "$(u32 10)" "$(u32 20)" "$(u32 30)" "$(u32 5)" \
    "$(u32 6)" "$(u32 7)")
stsz_const=$(full stsz 0 0 "$(u32 12)" "$(u32 6)")
elst0=$(box edts "$(full elst 0 0 "$(u32 1)" "$(u32 2000)" "$(u32 0)" "$(u16 1)" "$(u16 0)")")
elst1=$(box edts "$(full elst 1 0 "$(u32 2)" "$(u64 1000)" "$(u64 0xffffffffffffffff)" \
    "$(u16 1)" "$(u16 0)" "$(u64 1000)" "$(u64 0)" "$(u16 1)" "$(u16 0)")")
mdat=$(box mdat "$(zeros 40)")

video_trak() { # VERSION STSD CHUNK-OFFSETS SAMPLE-SIZES EDITS
    box trak "$(tkhd "$1" 64 48)" "$5" "$(box mdia "$(mdhd "$1")" "$(hdlr vide VideoHandler)" \
        "$(box minf "$vmhd" "$dinf" "$(box stbl "$2" "$stts" "$stss" "$stsc" "$3" "$4")")")"
}
audio_trak=$(box trak "$(tkhd 0 0 0)" "$(box mdia "$(mdhd 0)" "$(hdlr soun SoundHandler)" \
    "$(box minf "$smhd" "$dinf" "$(box stbl "$stsd_audio" "$stts" "$stsc" "$stco" \
    "$stsz_const")")")")
udta=$(box udta "$(full meta 0 0 "$(hdlr mdir '')" "$(box ilst "$(box desc \
    "$(box data "$(u32 1)" "$(u32 0)" "$(str Lavf)")")")")")

write video-track.mp4 "$ftyp$(box moov "$mvhd0" "$(video_trak 0 "$stsd_avc" "$stco" "$stsz" "$elst0")")$mdat"
write video-version1-co64.mp4 "$ftyp$mdat$(box moov "$mvhd1" "$(video_trak 1 "$stsd_two" "$co64" \
    "$stsz_const" "$elst1")" "$udta")"
write video-and-audio.mp4 "$ftyp$(box moov "$mvhd0" "$(video_trak 0 "$stsd_avc" "$stco" "$stsz" "")" \
    "$audio_trak")$(big mdat "$(zeros 24)")"
write fragmented.mp4 "$ftyp$(box moov "$mvhd0" "$(box mvex "$(full mehd 0 0 "$(u32 50)")" \
    "$(full trex 0 0 "$(u32 1)" "$(u32 1)" "$(u32 0)" "$(u32 0)" "$(u32 0)")")")$(box styp \
    "$(str msdh)" "$(u32 0)" "$(str msdh)" "$(str msix)")$(full sidx 0 0 "$(zeros 24)")$(box moof \
    "$(full mfhd 0 0 "$(u32 1)")" "$(box traf "$(full tfhd 0 0 "$(u32 1)")" "$(full tfdt 0 0 \
    "$(u32 0)")" "$(full trun 0 1 "$(u32 1)" "$(u32 8)")")")$(box mdat "$(zeros 8)")"
write odd-headers.mp4 "$(box free)$(box skip "$(zeros 3)")$(box uuid "$(str 0123456789abcdef)" \
    "$(str payload)")$(big mdat "$(zeros 4)")$(box wxyz "$(str 'unknown type')")$(u32 0)$(str free)$(zeros 5)"
# QuickTime's boxes of drawing and loading, 3GPP's codec boxes, the SDP of hint tracks,
# spherical video, spatial audio and uuid boxes known by their usertype.
sound() { # TYPE BOXES-HEX
    box "$1" "$(zeros 6)" "$(u16 1)" "$(zeros 8)" "$(u16 1)" "$(u16 16)" "$(zeros 4)" \
        "$(u32 $((8000 << 16)))" "$2"
}
d263=$(box d263 "$(str FFMP)" "000a00" "$(box bitr "$(u32 64000)" "$(u32 128000)")")
damr=$(box damr "$(str FFMP)" "00" "$(u16 0x81ff)" "0001")
sv3d=$(box sv3d "$(full svhd 0 0 "$(str Tool)00")" "$(box proj "$(full prhd 0 0 "$(zeros 12)")" \
    "$(full equi 0 0 "$(zeros 16)")")")
sa3d=$(box SA3D "0000" "$(u32 1)" "0000" "$(u32 2)" "$(u32 0)" "$(u32 1)")
stsd_legacy=$(full stsd 0 0 "$(u32 4)" "$(visual s263 "$d263")" \
    "$(visual avc1 "$avcC$(full st3d 0 0 01)$sv3d")" "$(sound samr "$damr")" "$(sound mp4a "$sa3d")")
xtra=$(box Xtra "$(u32 31)" "$(u32 4)" "$(str WM/X)" "$(u32 1)" "$(u32 14)" "$(u16 21)" "$(u64 7)" \
    "$(u32 9)")
legacy_trak=$(box trak "$(tkhd 0 64 48)" "$(box load "$(zeros 16)")" \
    "$(box clip "$(box crgn "$(u16 10)" "$(zeros 8)")")" \
    "$(box matt "$(full kmat 0 0 "$(u32 8)" "$(str 'raw ')")")" \
    "$(box udta "$(box hnti "$(box 'sdp ' "$(str 'a=x')")")")" \
    "$(box mdia "$(mdhd 0)" "$(hdlr vide VideoHandler)" "$(box minf "$vmhd" "$dinf" \
    "$(box stbl "$stsd_legacy" "$stts" "$stss" "$stsc" "$stco" "$stsz")")")")
piff_traf=$(box traf "$(full tfhd 0 0 "$(u32 1)")" \
    "$(box uuid a2394f525a9b4f14a2446c427c648df4 00000000 "$(u32 1)" "$(zeros 8)")" \
    "$(box uuid 6d1d9b0542d544e680e2141daff757b2 01000000 "$(u64 1)" "$(u64 2)")" \
    "$(box uuid d4807ef2ca3946958e5426cb9e46a79f 00000000 01 "$(u32 3)" "$(u32 4)")")
write legacy-boxes.mov "$ftyp$(box uuid be7acfcb97a942e89c71999491e3afac "$(str '<x/>')")$(box moov \
    "$mvhd0" "$legacy_trak" "$(box ctab "$(zeros 6)" "$(u16 0)" "$(zeros 8)")" \
    "$(box udta "$xtra" "$(box hnti "$(box 'rtp ' "$(str 'sdp v=0')")")")")$(box moof \
    "$(full mfhd 0 0 "$(u32 1)")" "$piff_traf")$mdat"
write empty.mp4 ""

# QuickTime: a sound description of version 1 whose wave atom holds frma, mp4a, esds and a
# terminator; a time code track (tmcd entry, gmhd with gmin and tcmi); a QuickTime meta without
# version and flags; lists of atoms ending in terminators.
wave=$(box wave "$(box frma "$(str mp4a)")" "$(box mp4a "$(u32 0)")" "$esds" "$(u32 0)")
stsd_qt_sound=$(full stsd 0 0 "$(u32 1)" "$(box mp4a "$(zeros 6)" "$(u16 1)" "$(u16 1)" \
    "$(zeros 6)" "$(u16 2)" "$(u16 16)" "$(u16 0xfffe)" "$(u16 0)" "$(u32 $((44100 << 16)))" \
    "$(u32 1024)" "$(u32 0)" "$(u32 2)" "$(u32 2)" "$wave" "$(u32 0)")")
qt_sound_trak=$(box trak "$(tkhd 0 0 0)" "$(box mdia "$(mdhd 0)" "$(hdlr soun SoundHandler)" \
    "$(box minf "$smhd" "$dinf" "$(box stbl "$stsd_qt_sound" "$stts" "$stsc" "$stco" \
    "$stsz_const")")")")
stsd_tmcd=$(full stsd 0 0 "$(u32 1)" "$(box tmcd "$(zeros 6)" "$(u16 1)" "$(u32 0)" "$(u32 0)" \
    "$(u32 25)" "$(u32 1)" "$(u8 25)" "$(u8 0)" "$(box name "$(u16 2)" "$(u16 0)" "$(str tc)")")")
gmhd=$(box gmhd "$(full gmin 0 0 "$(u16 0x40)" "$(u16 0x8000)" "$(u16 0x8000)" "$(u16 0x8000)" \
    "$(u16 0)" "$(u16 0)")" "$(box tmcd "$(full tcmi 0 0 "$(u16 0)" "$(u16 0)" "$(u16 12)" \
    "$(u16 0)" "$(zeros 6)" "$(zeros 6)" "$(u8 5)" "$(str Times)")")")
tmcd_trak=$(box trak "$(tkhd 0 0 0)" "$(box mdia "$(mdhd 0)" "$(hdlr tmcd TimeCodeHandler)" \
    "$(box minf "$gmhd" "$dinf" "$(box stbl "$stsd_tmcd" "$stts" "$stsc" "$stco" \
    "$stsz_const")")")")
qt_udta=$(box udta "$(box meta "$(hdlr mdta '')" "$(u32 0)")" "$(u32 0)")
ftyp_qt=$(box ftyp "$(str 'qt  ')" "$(u32 512)" "$(str 'qt  ')")
write quicktime-wave-timecode.mov "$ftyp_qt$(box moov "$mvhd0" "$qt_sound_trak" "$tmcd_trak" \
    "$qt_udta")$mdat"

# A compressed movie: the movie box of video-track.mp4 in a zlib stream of one stored block,
# which bash can write, with its Adler-32 checksum. The free box makes the size even, which
# the fuzz target takes for deep analysis.
adler32() { # HEX
    local hex=$1 a=1 b=0 i
    for ((i = 0; i < ${#hex}; i += 2)); do
        a=$(((a + 16#${hex:i:2}) % 65521))
        b=$(((b + a) % 65521))
    done
    u32 $((b << 16 | a))
}
le16() { printf '%02x%02x' $(($1 & 255)) $(($1 >> 8)); }
inner_moov=$(box moov "$mvhd0" "$(video_trak 0 "$stsd_avc" "$stco" "$stsz" "")")
inner_size=$((${#inner_moov} / 2))
stored="7801$(u8 1)$(le16 $inner_size)$(le16 $((inner_size ^ 0xffff)))$inner_moov$(adler32 "$inner_moov")"
write compressed-movie.mov "$ftyp_qt$(box moov "$(box cmov "$(box dcom "$(str zlib)")" \
    "$(box cmvd "$(u32 $inner_size)" "$stored")")")$mdat$(box free "$(zeros 1)")"
# Files of items, as heif-enc and avifenc write them (tests/data/make-image-files.sh): a HEIC
# with thumbnails and an AVIF grid, which reach the item boxes, their properties and idat.
data="$(cd "$(dirname "$0")/../tests/data" && pwd)"
cp "$data/image-two.heic" "$out/images-with-thumbnails.heic"
cp "$data/image-grid.avif" "$out/image-grid.avif"
# Manifests of packages: an MPD with a template, a timeline, a list and a segment base, a
# multivariant playlist and a media playlist with byte ranges.
cat >"$out/package.mpd" <<'MPD'
<?xml version="1.0"?>
<MPD mediaPresentationDuration="PT1.2S"><BaseURL>media/</BaseURL><Period id="p" start="PT0S">
<AdaptationSet segmentAlignment="true" startWithSAP="1" codecs="avc1.4d400a">
<SegmentTemplate timescale="10240" initialization="init-$RepresentationID$.m4s"
 media="$RepresentationID$-$Number%05d$-$Time$-$Bandwidth$.m4s" startNumber="1">
<SegmentTimeline><S t="0" d="4096" r="1"/><S d="2048" r="-1"/><S t="20000" d="10"/>
</SegmentTimeline></SegmentTemplate>
<Representation id="v" bandwidth="13880"/>
<Representation id="w" bandwidth="8000"><SegmentTemplate duration="4096"
 media="$$$Number$.m4s"/></Representation></AdaptationSet>
<AdaptationSet><Representation id="a"><SegmentList timescale="8000" duration="3072">
<Initialization sourceURL="a-init.mp4" range="0-99"/><SegmentURL media="a1.m4s"/>
<SegmentURL mediaRange="100-199"/></SegmentList></Representation>
<Representation id="b"><BaseURL>b.mp4</BaseURL><SegmentBase indexRange="800-899">
<Initialization range="0-799"/></SegmentBase></Representation></AdaptationSet></Period></MPD>
MPD
printf '%s\n' '#EXTM3U' '#EXT-X-STREAM-INF:BANDWIDTH=800,CODECS="avc1.4d400a,mp4a.40.2"' \
    'video/media.m3u8' '#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="a",URI="audio.m3u8"' \
    >"$out/multivariant.m3u8"
printf '%s\n' '#EXTM3U' '#EXT-X-VERSION:7' '#EXT-X-MAP:URI="all.mp4",BYTERANGE="700@0"' \
    '#EXTINF:0.4,' '#EXT-X-BYTERANGE:300@700' 'all.mp4' '#EXTINF:0.4,' '#EXT-X-BYTERANGE:200' \
    'all.mp4' '#EXTINF:0.4,' 'part2.m4s' '#EXT-X-ENDLIST' >"$out/media.m3u8"
# The small real files of H.264, HEVC and AV1, each followed by a free box that makes its size
# a multiple of 4, so that the fuzz target reads the units of their samples.
for name in track-h264-bframes deep-hevc deep-av1; do
    hex=$(od -An -tx1 -v "$data/$name.mp4" | tr -d ' \n')
    pad=$(((4 - (${#hex} / 2 + 8) % 4) % 4))
    write "units-$name.mp4" "$hex$(box free "$(printf '%0*s' $((pad * 2)) '' | tr ' ' 0)")"
done
