// The light path between the simulated devices and cameras of this module: which mirrors a camera sees lit now.
//
// Cameras are known by their names. A device puts its light in when it comes on and takes it out when it goes off; a
// camera looks when it grabs. [any thread]
#pragma once

#include "host/QsPicture.h"
#include "host/QsSystem.h"

#include <memory>
#include <vector>

// Lit mirrors of a chip; never changed once it is on the bench.
using ChipLight = std::shared_ptr<const SQsRLEPicBuf>;

class CQsOpticalBench
{
public:
    // `source` stands for the device and has one light at most; null: it is dark.
    static void Light(const void* source, const CQsStringW& camera, ChipLight light);
    static std::vector<ChipLight> Seen(const CQsStringW& camera);
};
