// Read by a compiler that says how it lays out what is named here; never linked, never run.
//
// A table is laid out where a constructor stores its address. The classes add nothing to their bases, so that each
// table has the operations of the base in the base's own words, with or without a body.
#include "beampath/StimulationDeviceAggregator.h"
#include "beampath/StimulationDeviceProxy.h"
#include "calibration/StimulationDeviceCalibration.h"
#include "device/MultilaserStimulationDevice.h"
#include "device/ShutterStimulationDevice.h"

#define QS_LAY_OUT(Class, Base)                                                                                        \
    struct Class : Base                                                                                                \
    {                                                                                                                  \
        Class();                                                                                                       \
    };                                                                                                                 \
    Class::Class() = default

namespace LaidOut {

QS_LAY_OUT(SRoot, IQsInterface);
QS_LAY_OUT(SDevice, IQsStimulationDevice);
QS_LAY_OUT(SPhysDev, IQsStimulationPhysDev);
QS_LAY_OUT(SListener, IQsStimulationDeviceManagerEventListener);
QS_LAY_OUT(SOwner, IQsStimulationDeviceCalibration);
QS_LAY_OUT(SShutter, CQsShutterStimulationDevice);
QS_LAY_OUT(SMultilaser, CQsMultilaserStimulationDevice);
QS_LAY_OUT(SAggregator, CQsStimulationDeviceAggregator);
QS_LAY_OUT(SProxy, CQsStimulationDeviceProxy);
QS_LAY_OUT(SConfiguration, CQsStimulationDeviceConfiguration);

// A record is laid out where its size is asked for.
constexpr std::size_t s_sizes[] = {sizeof(IQsStimulationDevice::SQsStimulationType),
                                   sizeof(IQsStimulationDevice::SQsScanAreaDesc), sizeof(SQsStimulationDeviceInfo),
                                   sizeof(CQsPointBase<double>)};

} // namespace LaidOut
