#include "tests/support/Conformance.h"

#include "device/MultilaserStimulationDevice.h"
#include "device/ShutterStimulationDevice.h"
#include "manager/StimulationManager.h"
#include "standalone/DeviceManager.h"
#include "tests/support/DeviceFixture.h"
#include "tests/support/FakeDevice.h"
#include "tests/support/OwnRegistry.h"

#include <gmock/gmock.h>

#include <limits>
#include <ostream>
#include <stdexcept>
#include <thread>

using QsTest::CQsFakeDevice;
using QsTest::CQsUncountedFakeDevice;
using QsTest::DevicePtr;
using QsTest::SConformance;
using QsTest::Violations;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

namespace QsTest {

static void PrintTo(const SConformance& subject, std::ostream* stream)
{
    *stream << subject.name;
}

} // namespace QsTest

namespace {

template <class T>
DevicePtr Counted()
{
    T* const device = new (__FILE__, __LINE__) T(L"device");
    device->AddRef();
    return DevicePtr(device, [](IQsStimulationDevice* p) { CQsRTTI::Release(p); });
}

DevicePtr AttachedShutter()
{
    DevicePtr device = QsTest::CreateDevice("CQsShutterStimulationDevice");
    if (auto* const shutter = dynamic_cast<CQsShutterStimulationDevice*>(device.get()))
        shutter->AttachShutter(7);
    return device;
}

DevicePtr IdentifiedMultilaser()
{
    auto device = std::make_shared<CQsMultilaserStimulationDevice>();
    device->SetLogDevId(9);
    return device;
}

// The devices as they are in use: there is a manager, and the host has the shutter.
class Surroundings
{
public:
    Surroundings()
    {
        QsStandalone::SShutterSetup shutter;
        shutter.logDevId = 7;
        shutter.physDevId = 70;
        shutter.name = "Lamp";
        std::string error;
        EXPECT_TRUE(QsStandalone::CQsDeviceManager::AddShutter(shutter, error)) << error;
        CQsStimulationDeviceManager::GetInstance();
    }

private:
    QsTest::COwnRegistry m_registry;
};

class DeviceConformance : public testing::TestWithParam<SConformance>
{
    Surroundings m_surroundings;
};

} // namespace

TEST_P(DeviceConformance, KeepsEveryPromiseOfTheInterface)
{
    EXPECT_THAT(Violations(GetParam()), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Devices, DeviceConformance,
    testing::Values(
        SConformance{"Shutter", [] { return QsTest::CreateDevice("CQsShutterStimulationDevice"); }, true, true},
        SConformance{"AttachedShutter", &AttachedShutter, true, true},
        SConformance{"Aggregator", [] { return QsTest::CreateDevice("CQsStimulationDeviceAggregator"); }, false, false},
        SConformance{"Proxy", [] { return QsTest::CreateDevice("CQsStimulationDeviceProxy"); }, true, true},
        SConformance{"Multilaser", [] { return std::make_shared<CQsMultilaserStimulationDevice>(); }, true, false},
        SConformance{"IdentifiedMultilaser", &IdentifiedMultilaser, true, false},
        SConformance{"Fake", &Counted<CQsFakeDevice>, false, false},
        SConformance{"ExtendedFake", &Counted<QsTest::CQsFakeDeviceEx>, false, false},
        SConformance{"UncountedFake", [] { return std::make_shared<CQsUncountedFakeDevice>(L"x"); }, false, false}),
    [](const testing::TestParamInfo<SConformance>& subject) { return subject.param.name; });

// ----------------------------------------------------------------------------------------- devices wrong on purpose

namespace {

class CWrong : public CQsUncountedFakeDevice
{
public:
    CWrong() : CQsUncountedFakeDevice(L"wrong") {}
};

class COddStatus : public CWrong
{
    int StimulationAreaUpload() override { return 5; }
};

class CUnsteadyName : public CWrong
{
    CQsStringW GetUniqueName() const override { return CQsStringW::Format(L"name %d", ++m_asked); }
    mutable int m_asked = 0;
};

class CUnknownType : public CWrong
{
    EQsStimulationDeviceType GetStimulationDeviceType() const override
    {
        return static_cast<EQsStimulationDeviceType>(3);
    }
};

class CNegativeExposure : public CWrong
{
    double GetAcquisitionExposureTime() override { return -2.0; }
};

class CNanExposure : public CWrong
{
    double GetStimulationExposureTimeCombined(std::uint64_t) override
    {
        return std::numeric_limits<double>::quiet_NaN();
    }
};

class CThrowsOnNull : public CWrong
{
    bool StimulationIsReady(bool, CQsStringW* pReason) override
    {
        if (pReason == nullptr)
            throw std::invalid_argument("reason");
        return true;
    }
};

class CThrowsInBegin : public CWrong
{
    int StimulationBegin(const SQsStimulationType&) override { throw std::runtime_error("no light"); }
};

class CLeavesElementsUnset : public CWrong
{
    int StimulationEnd(double* begins, double* ends, std::uint64_t) override
    {
        if (begins != nullptr)
            *begins = 1.0;
        if (ends != nullptr)
            *ends = 2.0;
        return 0;
    }
};

class CWritesBehindTheArray : public CWrong
{
    int StimulationEnd(double* begins, double* ends, std::uint64_t count) override
    {
        // Only where both are given, so that the other checks do not run over their single elements.
        for (std::uint64_t i = 0; begins != nullptr && ends != nullptr && i <= count; ++i)
            begins[i] = ends[i] = -1.0;
        return 0;
    }
};

class CEndsBeforeItBegins : public CWrong
{
public:
    CEndsBeforeItBegins() { endTimes = {{9.0, 8.0}}; }
};

class CFiresWithoutTimes : public CWrong
{
    int StimulationFire(const SQsStimulationType&, double*, double*) override { return 0; }
};

class CAcceptsAnyKind : public CWrong
{};

class CAbortBreaksTheNextBegin : public CWrong
{
    int StimulationAbort() override
    {
        iBeginResult = -9;
        return 0;
    }
};

class CDoesNotWait : public CWrong
{};

class CWaitsButHearsNoAbort : public CWrong
{
    int StimulationBegin(const SQsStimulationType& type) override
    {
        std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(type.dDurationMs));
        return 0;
    }
};

class CClearsInfo : public CWrong
{
    int GetStimulationDeviceInfo(SQsStimulationDeviceInfo& out) const override
    {
        out.vecLogDevIds = {1};
        out.vecPhysDevIds = {2};
        return 0;
    }
};

class CInfoWithoutPhysicalDevice : public CWrong
{
    int GetStimulationDeviceInfo(SQsStimulationDeviceInfo& out) const override
    {
        out.vecLogDevIds.push_back(1);
        return 0;
    }
};

class CInfoInSpiteOfFailure : public CWrong
{
    int GetStimulationDeviceInfo(SQsStimulationDeviceInfo& out) const override
    {
        out.vecLogDevIds.push_back(0);
        out.vecPhysDevIds.push_back(0);
        return -12;
    }
};

class CAnswersTheRoot : public CQsFakeDevice
{
public:
    using CQsFakeDevice::CQsFakeDevice;
    IQsInterface* QueryInterface(const char* name) override
    {
        if (std::string(name) != "IQsInterface")
            return CQsFakeDevice::QueryInterface(name);
        AddRef();
        return static_cast<IQsStimulationDevice*>(this);
    }
};

class CIgnoresCase : public CQsFakeDevice
{
public:
    using CQsFakeDevice::CQsFakeDevice;
    IQsInterface* QueryInterface(const char* name) override
    {
        const bool otherCase = std::string(name) == "iqsstimulationdevice";
        return CQsFakeDevice::QueryInterface(otherCase ? "IQsStimulationDevice" : name);
    }
};

class CLeaksAReference : public CQsFakeDevice
{
public:
    using CQsFakeDevice::CQsFakeDevice;
    IQsInterface* QueryInterface(const char* name) override
    {
        AddRef();
        IQsInterface* const answer = CQsFakeDevice::QueryInterface(name);
        if (answer != nullptr)
            Release();
        return answer;
    }
};

class CAnswersWithoutReference : public CQsFakeDevice
{
public:
    using CQsFakeDevice::CQsFakeDevice;
    IQsInterface* QueryInterface(const char* name) override
    {
        return std::string(name) == "IQsStimulationDevice" ? static_cast<IQsStimulationDevice*>(this) : nullptr;
    }
};

struct SWrongDevice
{
    SConformance subject;
    const char* violation;
};

void PrintTo(const SWrongDevice& wrong, std::ostream* stream)
{
    *stream << wrong.subject.name;
}

template <class T>
SWrongDevice Plain(const char* name, const char* violation, bool bRefusesUnknownKinds = false, bool bWaitsTimed = false)
{
    return {{name, [] { return std::make_shared<T>(); }, bRefusesUnknownKinds, bWaitsTimed}, violation};
}

template <class T>
SWrongDevice Queried(const char* name, const char* violation)
{
    return {{name, &Counted<T>, false, false}, violation};
}

class WrongDevice : public testing::TestWithParam<SWrongDevice>
{};

} // namespace

TEST_P(WrongDevice, IsRejectedForWhatIsWrong)
{
    EXPECT_THAT(Violations(GetParam().subject), Contains(HasSubstr(GetParam().violation)));
}

INSTANTIATE_TEST_SUITE_P(
    Devices, WrongDevice,
    testing::Values(Plain<COddStatus>("OddStatus", "StimulationAreaUpload: status 5"),
                    Plain<CUnsteadyName>("UnsteadyName", "GetUniqueName: another name"),
                    Plain<CUnknownType>("UnknownType", "GetStimulationDeviceType: unknown type"),
                    Plain<CNegativeExposure>("NegativeExposure", "GetAcquisitionExposureTime: -2"),
                    Plain<CNanExposure>("NanExposure", "GetStimulationExposureTimeCombined"),
                    Plain<CThrowsOnNull>("ThrowsOnNull", "null arguments: an operation threw"),
                    Plain<CThrowsInBegin>("ThrowsInBegin", "unknown kinds: an operation threw"),
                    Plain<CLeavesElementsUnset>("LeavesElementsUnset", "element 1 of 3 is neither a time nor -1.0"),
                    Plain<CWritesBehindTheArray>("WritesBehindTheArray", "element 3 of 3 is behind the array"),
                    Plain<CEndsBeforeItBegins>("EndsBeforeItBegins", "the end lies before the begin"),
                    Plain<CFiresWithoutTimes>("FiresWithoutTimes", "StimulationFire: an output is neither"),
                    Plain<CAcceptsAnyKind>("AcceptsAnyKind", "accepts the unknown kind 99", true),
                    Plain<CAbortBreaksTheNextBegin>("AbortBreaksTheNextBegin", "changes what the next begin answers"),
                    Plain<CDoesNotWait>("DoesNotWait", "returns before the duration has passed", false, true),
                    Plain<CWaitsButHearsNoAbort>("WaitsButHearsNoAbort", "does not end a waiting begin", false, true),
                    Plain<CClearsInfo>("ClearsInfo", "GetStimulationDeviceInfo: does not append"),
                    Plain<CInfoWithoutPhysicalDevice>("InfoWithoutPhysicalDevice", "not in pairs"),
                    Plain<CInfoInSpiteOfFailure>("InfoInSpiteOfFailure", "fails and appends"),
                    Queried<CAnswersTheRoot>("AnswersTheRoot", "QueryInterface: answers \"IQsInterface\""),
                    Queried<CIgnoresCase>("IgnoresCase", "QueryInterface: answers \"iqsstimulationdevice\""),
                    Queried<CLeaksAReference>("LeaksAReference", "takes a reference for \"\""),
                    Queried<CAnswersWithoutReference>("AnswersWithoutReference", "does not hold one reference more")),
    [](const testing::TestParamInfo<SWrongDevice>& wrong) { return wrong.param.subject.name; });
