// The host's metaformats library: regions of interest and experiments.
#pragma once

#include "host/QsSystem.h"

// A region of interest as far as stimulation reads it.
class CQsRoiObject
{
public:
    CQsRoiObject() = default;
    CQsRoiObject(unsigned kind, int patternIndex) : m_kind(kind), m_patternIndex(patternIndex) {}

    unsigned GetKind() const { return m_kind; }
    // Stimulation pattern of the region; negative when it belongs to none.
    int GetPatternIndex() const { return m_patternIndex; }

private:
    unsigned m_kind = 0;
    int m_patternIndex = -1;
};

// Description of an experiment; belongs to the host, only handed through.
struct SQsExperiment;
