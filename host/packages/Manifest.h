#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <optional>
#include <vector>

// A streaming package as its manifest tells it: an MPD of DASH or a playlist of HLS, read
// from the bytes of the manifest alone. Nothing is fetched and no file is opened here: the
// segments are names relative to the manifest's folder, which the caller resolves.
namespace Manifest {

// A file, or a byte range of one, that the manifest names.
struct Segment {
    QString uri;                       // as the manifest gives it, templates filled in
    std::optional<quint64> rangeStart; // a byte range of the file; the whole file without one
    quint64 rangeLength = 0;
    // Its declared time and duration in the representation's time units; absent where the
    // manifest declares none (SegmentBase, an initialization segment).
    std::optional<quint64> time;
    std::optional<quint64> duration;
    // The duration is the one @duration gives every segment, which each may miss by up to
    // half of it; a timeline or an EXTINF gives each segment its own.
    bool nominal = false;
};

// One representation of DASH, or one variant (or rendition) of HLS: its initialization
// segment, if any, and its media segments in order.
struct Representation {
    QString id;     // the Representation@id, or the URI of the variant's playlist
    QString period; // the Period@id or its place; empty for HLS
    QString adaptationSet;
    QString codecs; // as declared; empty without
    quint64 bandwidth = 0;
    quint64 timescale = 1;         // of the declared times
    bool startsWithSap = false;    // every media segment begins with a sync sample
    bool segmentAlignment = false; // of its adaptation set
    std::optional<Segment> initialization;
    std::vector<Segment> segments;
    // SegmentBase: the byte range of the sidx in the one file.
    std::optional<Segment> index;
};

// A problem of the manifest: a stable code and a sentence that names what it concerns.
struct Problem {
    QString code;
    QString message;
};

struct Package {
    QString kind; // "dash" or "hls"
    std::vector<Representation> representations;
    std::vector<Problem> problems;
    // HLS: the media playlists a multivariant playlist names, to be read next, relative to
    // the manifest's folder, each with the variant it stands for.
    std::vector<std::pair<QString, Representation>> playlists;
};

// Manifests longer than this are not read: no real one comes near it.
constexpr qint64 MaxManifestBytes = 4 * 1024 * 1024;
// Segments of all representations together: a template may name any number of them.
constexpr quint64 MaxSegments = 20000;

// Whether a file name is that of a manifest: .mpd or .m3u8 (any case).
bool isManifestName(const QString &fileName);
// Reads an MPD.
Package readMpd(const QByteArray &bytes);
// Reads a playlist of HLS; name is its own URI, for the problem of a playlist that names
// itself and for the id of a media playlist.
Package readPlaylist(const QByteArray &bytes, const QString &name);

} // namespace Manifest
