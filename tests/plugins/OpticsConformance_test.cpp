// The promises of the device interface, kept by every class of the module, with something to light and without.
#include "standalone/HostControl.h"
#include "standalone/PluginManager.h"
#include "tests/support/Conformance.h"

#include <gmock/gmock.h>

using QsTest::SConformance;

namespace {

QsTest::DevicePtr Make(const char* className, const char* settings)
{
    static const QsStandalone::SModuleFile file = QsStandalone::CQsModules::ScanFile(QS_SIMULATED_DEVICES);
    EXPECT_EQ("", file.error);
    QsStandalone::SetDeviceSettings(className, settings);
    return QsTest::CreateDevice(className);
}

SConformance Subject(const char* name, const char* className, const char* settings, bool waits)
{
    return {name, [className, settings] { return Make(className, settings); }, true, waits};
}

class SimulatedDeviceConformance : public testing::TestWithParam<SConformance>
{};

} // namespace

TEST_P(SimulatedDeviceConformance, KeepsEveryPromiseOfTheInterface)
{
    EXPECT_THAT(QsTest::Violations(GetParam()), testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Devices, SimulatedDeviceConformance,
                         testing::Values(Subject("Pattern", "CQsSimPatternDevice", "{}", true),
                                         Subject("Confocal", "CQsSimConfocalDevice", "{}", true),
                                         Subject("Generic", "CQsSimGenericDevice", "{}", true),
                                         Subject("Micromirror", "CQsSimMicromirrorDevice", R"({"areas": 1})", true),
                                         Subject("MicromirrorWithoutAreas", "CQsSimMicromirrorDevice", "{}", false),
                                         Subject("Galvo", "CQsSimGalvoDevice", R"({"areas": 1})", true),
                                         Subject("GalvoWithoutAreas", "CQsSimGalvoDevice", "{}", false)),
                         [](const testing::TestParamInfo<SConformance>& subject) { return subject.param.name; });
