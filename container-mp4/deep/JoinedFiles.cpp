#include "DeepAnalysis.h"

#include "ContainerMP4.h"

// Joined files: the tracks, their movie fragment defaults and the runs gathered so far stay;
// what belongs to the walk of one file starts afresh, so that each file's boxes are counted,
// placed and budgeted in that file alone.
void ContainerMP4::continueWithFile(int file)
{
    // The fragments of the other files find their tracks by track_ID: those of the first
    // file's tkhd are read there, once, before its bytes are left behind.
    bool unnamed = false;
    for (int stream = 0; stream < streams.size(); ++stream)
        unnamed = unnamed || (trackContexts[size_t(stream)].trackHeader.present &&
                              (!streams[stream]->track || streams[stream]->track->trackId == 0));
    if (unnamed && switchToFile(0)) {
        for (int stream = 0; stream < streams.size(); ++stream) {
            const TableBox &header = trackContexts[size_t(stream)].trackHeader;
            TrackFacts &facts =
                streams[stream]->track ? *streams[stream]->track : streams[stream]->track.emplace();
            if (header.present && facts.trackId == 0)
                facts.trackId = TrackBoxes::trackId(input, header);
        }
    }
    // The references and fragments of the file before end with its boxes.
    checkSegmentsAtEnd();
    switchToFile(file);
    siblingCounts.clear();
    workDone = 0;
    walkStopped = false;
    if (deep) {
        deep->file = file;
        deep->moofCount = 0;
        deep->fragment = FragmentWalk();
    }
}
