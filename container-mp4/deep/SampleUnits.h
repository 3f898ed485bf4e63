#pragma once

#include "InputDevice.h"
#include "Records.h"
#include "codecs/Units.h"

#include <QByteArray>

#include <functional>
#include <vector>

// Reads the NAL units or OBUs of the samples of one H.264, HEVC or AV1 track, sample after
// sample as the walk hands them over, and checks them against the sync sample marks and the
// decoder configuration. Reads only the length fields and the first bytes of each unit, in
// blocks, so that a sample costs its units and nothing more, whatever its size.
class SampleUnitWalk {
public:
    using Problem = std::function<void(const char *code, Severity severity, quint64 offset,
                                       quint64 size, const QString &message)>;

    // The walk for the stream's codec; codec() false for a stream of another.
    SampleUnitWalk(InputDevice &input, const StreamInfo &info, Problem problem);
    bool reads() const { return known; }

    // The units of the sample, into units.
    void read(const TrackSample &sample, std::vector<SampleUnit> &units);
    // The problems found, one for each code: how many, and the first.
    void finish();

private:
    void readConfiguration(const StreamInfo &info);
    // A unit in the configuration: learnt, and kept to compare with those in band.
    void configurationUnit(const QByteArray &bytes);
    // Whether lengths of the given size tile the sample exactly.
    bool tiles(const TrackSample &sample, int size);
    void checkSync(const TrackSample &sample, const Units::UnitFacts &first, bool seen,
                   bool recoveryPoint);

    // A problem found: counted, and kept where it is the first of its code.
    void found(const char *code, Severity severity, quint64 offset, quint64 size,
               const QString &message);
    struct Found {
        const char *code;
        Severity severity;
        quint64 offset;
        quint64 size;
        QString message;
        quint64 count;
    };
    std::vector<Found> problems;

    InputDevice &input;
    Problem report;
    Units::Codec codec = Units::Codec::H264;
    Units::StreamState state;
    bool known = false;
    int lengthSize = 4;
    // The parameter sets of a configuration that must hold all of them (avc1, hvc1); empty
    // where in-band ones may differ.
    bool compareInBand = false;
    // An encrypted track: its units are listed by their headers only, and not checked.
    bool encrypted = false;
    std::vector<QByteArray> configured;
};
