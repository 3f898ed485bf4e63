#pragma once

#include "Records.h"
#include "SyntaxReader.h"

// The head of the video usability information, alike in H.264 and HEVC: the sample aspect
// ratio, overscan, the video signal type with its colour description, and the chroma
// sample location. The colour description goes to facts. The two standards name the matrix
// field differently: matrixName is the codec's own.
void videoUsabilityHead(SyntaxReader &r, VideoFacts &facts, const char *matrixName);
