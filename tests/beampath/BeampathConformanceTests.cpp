// What the device interface promises of every device, checked on beampaths and sub-beampaths that drive something.
#include "tests/support/BeampathFixture.h"
#include "tests/support/Conformance.h"

using namespace QsTest;
using ::testing::IsEmpty;

class BeampathConformance : public BeampathTest
{
public:
    // Of a fresh beampath 42 for each check.
    static std::vector<std::string> OfBeampath(bool bWaitsTimed)
    {
        SConformance subject;
        subject.make = []
        {
            const auto beampath = MakeAggregator();
            EXPECT_EQ(0, beampath->SetStimulationBPId(s_beampath));
            return beampath.reference;
        };
        subject.bWaitsTimed = bWaitsTimed;
        return Violations(subject);
    }
    // Of a fresh stand-in for sub-beampath 51.
    static std::vector<std::string> OfSubbeampath(bool bWaitsTimed)
    {
        SConformance subject;
        subject.make = []
        {
            const auto proxy = MakeProxy();
            EXPECT_EQ(0, proxy->SetStimulationSubbeampathId(s_firstSubbeampath));
            return proxy.reference;
        };
        subject.bRefusesUnknownKinds = true;
        subject.bWaitsTimed = bWaitsTimed;
        return Violations(subject);
    }
};

TEST_F(BeampathConformance, HoldsForABeampathOfOneDevice)
{
    MakeBeampath(1);
    EXPECT_THAT(OfBeampath(false), IsEmpty());
}

TEST_F(BeampathConformance, HoldsForABeampathOfOneLightPath)
{
    MakeBeampathOf({L""});
    EXPECT_THAT(OfBeampath(true), IsEmpty());
}

TEST_F(BeampathConformance, HoldsForABeampathOfSeveralDevicesAndLightPaths)
{
    MakeBeampathOf({L"A", L"", L"B"});
    EXPECT_THAT(OfBeampath(false), IsEmpty());
}

TEST_F(BeampathConformance, HoldsForASubbeampathWithADevice)
{
    MakeBeampath(1);
    EXPECT_THAT(OfSubbeampath(false), IsEmpty());
}

TEST_F(BeampathConformance, HoldsForASubbeampathWithoutADevice)
{
    MakeBeampathOf({L""});
    EXPECT_THAT(OfSubbeampath(true), IsEmpty());
}
