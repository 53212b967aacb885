// A call into the owner of a calibration: its result, or `failed` when it throws.
#pragma once

#include "device/GuardedCall.h"

#define QS_OWNER_CALL(failed, operation, call)                                                                         \
    QsGuardedCall(failed, L"StimulationDeviceCalibration", __LINE__, L"CQsStimulationDeviceCalibration", operation,    \
                  [&] { return call; })
