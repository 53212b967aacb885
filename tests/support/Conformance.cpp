#include "tests/support/Conformance.h"

#include "standalone/HostControl.h"
#include "tests/support/DeviceFixture.h"

#include <array>
#include <chrono>
#include <cmath>
#include <cstring>
#include <future>
#include <set>
#include <thread>

namespace QsTest {
namespace {

using Device = IQsStimulationDevice;
using Clock = std::chrono::steady_clock;

constexpr int s_notImplemented = -2;

class CChecker
{
public:
    explicit CChecker(const SConformance& subject) : m_subject(subject) {}

    std::vector<std::string> Run()
    {
        Guard("identity", [&] { Identity(); });
        Guard("queries", [&] { Queries(); });
        Guard("null arguments", [&] { NullArguments(); });
        Guard("areas", [&] { Areas(); });
        Guard("times of an end", [&] { TimesOfEnd(); });
        Guard("times of a fire", [&] { TimesOfFire(); });
        Guard("unknown kinds", [&] { UnknownKinds(); });
        Guard("idle abort", [&] { IdleAbort(); });
        Guard("timed wait", [&] { TimedWait(); });
        Guard("device info", [&] { DeviceInfo(); });
        Guard("class", [&] { Class(); });
        return m_found;
    }

private:
    template <class Check>
    void Guard(const char* what, Check check)
    {
        try
        {
            check();
        }
        catch (...)
        {
            m_found.push_back(std::string(what) + ": an operation threw");
        }
    }

    void Expect(bool ok, const std::string& violation)
    {
        if (!ok)
            m_found.push_back(violation);
    }

    void Status(const char* operation, int status)
    {
        static const std::set<int> known = {0, -2, -4, -8, -9, -12, -13};
        Expect(known.count(status) != 0,
               std::string(operation) + ": status " + std::to_string(status) + " is none of the interface's");
    }

    void Milliseconds(const char* operation, double value)
    {
        Expect(std::isfinite(value) && value >= 0.0,
               std::string(operation) + ": " + std::to_string(value) + " is no time");
    }

    DevicePtr Make()
    {
        DevicePtr device = m_subject.make();
        Expect(device != nullptr, "no device was made");
        if (device == nullptr)
            throw std::runtime_error("no device");
        return device;
    }

    void Identity()
    {
        const DevicePtr device = Make();
        const CQsStringW name = device->GetUniqueName();
        Expect(device->GetUniqueName() == name, "GetUniqueName: another name at the second call");
        Expect(device->GetStimulationDeviceType() <= Device::eStimDevMultilaser,
               "GetStimulationDeviceType: unknown type");
        for (const unsigned id : {0u, 1u, 0xFFFFFFFFu})
            device->GetLocalizedStringForUI(id);
        device->IsHWConnected();
        device->IsVisible();
        device->GetLaserPowerControl();
        Status("SetActive", device->SetActive(true));
        Status("SetActive", device->SetActive(false));
        Expect(device->GetUniqueName() == name, "SetActive: changed the name");
    }

    void Queries()
    {
        const DevicePtr device = Make();
        for (const unsigned id : {0u, 1u, 2u, 3u, 4u, 0xFFFFFFFFu})
        {
            const bool enabled = device->IsFeatureEnabled(id);
            Expect(device->IsFeatureEnabled(id) == enabled, "IsFeatureEnabled: another answer at the second call");
            device->IsFeatureSupported(id);
        }
        Milliseconds("GetAcquisitionExposureTime", device->GetAcquisitionExposureTime());
        for (const std::uint64_t index : {std::uint64_t{0}, ~std::uint64_t{0}})
            Milliseconds("GetStimulationExposureTimeCombined", device->GetStimulationExposureTimeCombined(index));
        device->StimulationModeGet();
        Status("HWSequencerEnable", device->HWSequencerEnable(true));
        Status("HWSequencerEnable", device->HWSequencerEnable(false));
        Status("StimulationReady", device->StimulationReady(false, false));
    }

    void NullArguments()
    {
        const DevicePtr device = Make();
        Status("GetStimulationExposureTime", device->GetStimulationExposureTime(nullptr, 0));
        Status("StimulationAreaGet", device->StimulationAreaGet(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
        device->StimulationIsReady(true, nullptr);
        CQsStringW message;
        Status("StimulationValidate", device->StimulationValidate(nullptr, message));
        Status("StimulationFire", device->StimulationFire(Request(1), nullptr, nullptr));
        Status("StimulationEnd", device->StimulationEnd(nullptr, nullptr, 0));
        Status("StimulationEnd", device->StimulationEnd(nullptr, nullptr, 3));
        double time = s_unwritten;
        Status("StimulationEnd", device->StimulationEnd(&time, nullptr, 1));
        Status("StimulationEnd", device->StimulationEnd(nullptr, &time, 1));
    }

    void Areas()
    {
        const DevicePtr device = Make();
        const std::vector<CQsRoiObject> regions(2);
        const Device::SQsScanAreaDesc scanArea;
        for (const Device::SQsScanAreaDesc* area : {static_cast<const Device::SQsScanAreaDesc*>(nullptr), &scanArea})
        {
            Status("StimulationAreaSet", device->StimulationAreaSet(regions, {}, area, {}, {}));
            Status("StimulationAreaAppendAsPattern", device->StimulationAreaAppendAsPattern(regions, {}, area, {}, {}));
        }
        Status("StimulationAreaUpload", device->StimulationAreaUpload());
        device->StimulationAreaIsUpToDate();
        Status("StimulationROIPrepare", device->StimulationROIPrepare(0));
        Status("StimulationROIPrepare", device->StimulationROIPrepare(0xFFFFFFFFu));
        const unsigned count = device->StimulationAreaGetCount();
        Expect(device->StimulationAreaGetCount() == count, "StimulationAreaGetCount: another count at the second call");
    }

    static bool IsTime(double value) { return value == -1.0 || (std::isfinite(value) && value >= 0.0); }

    // Either the device reports times, then every element says one or -1.0, or it leaves all of them alone. Element 0
    // may be written whatever the count.
    void TimesOfEnd()
    {
        for (const unsigned count : {0u, 1u, 3u})
        {
            const DevicePtr device = Make();
            Status("StimulationBegin", device->StimulationBegin(Request(1)));
            std::array<double, 5> begins;
            std::array<double, 5> ends;
            begins.fill(s_unwritten);
            ends.fill(s_unwritten);
            Status("StimulationEnd", device->StimulationEnd(begins.data(), ends.data(), count));
            const bool untouched = begins[0] == s_unwritten && ends[0] == s_unwritten;
            for (std::size_t i = 0; i < begins.size(); ++i)
            {
                const std::string element =
                    "StimulationEnd: element " + std::to_string(i) + " of " + std::to_string(count);
                const bool written = begins[i] != s_unwritten || ends[i] != s_unwritten;
                if (i >= count && i > 0)
                    Expect(!written, element + " is behind the array and was written");
                else if (untouched)
                    Expect(!written, element + " was written, element 0 was not");
                else
                    Expect(IsTime(begins[i]) && IsTime(ends[i]), element + " is neither a time nor -1.0");
            }
            if (!untouched && begins[0] > 0.0 && ends[0] > 0.0)
                Expect(ends[0] >= begins[0], "StimulationEnd: the end lies before the begin");
        }
    }

    void TimesOfFire()
    {
        const DevicePtr device = Make();
        double begin = s_unwritten;
        double end = s_unwritten;
        const int status = device->StimulationFire(Request(3), &begin, &end);
        Status("StimulationFire", status);
        const bool leftAlone = begin == s_unwritten && end == s_unwritten;
        Expect((leftAlone && status == s_notImplemented) || (IsTime(begin) && IsTime(end)),
               "StimulationFire: an output is neither a time nor -1.0");
        device->StimulationEnd(nullptr, nullptr, 0);
    }

    void UnknownKinds()
    {
        for (const unsigned kind : {0u, 99u, 0xFFFFFFFFu})
        {
            const DevicePtr device = Make();
            const int status = device->StimulationBegin(Request(kind, 1.0));
            Status("StimulationBegin", status);
            if (m_subject.bRefusesUnknownKinds)
                Expect(status != 0, "StimulationBegin: accepts the unknown kind " + std::to_string(kind));
            device->StimulationEnd(nullptr, nullptr, 0);
        }
    }

    void IdleAbort()
    {
        const DevicePtr fresh = Make();
        const int expected = fresh->StimulationBegin(Request(2, 1.0));
        fresh->StimulationEnd(nullptr, nullptr, 0);

        const DevicePtr aborted = Make();
        Status("StimulationAbort", aborted->StimulationAbort());
        Status("StimulationAbort", aborted->StimulationAbort());
        Expect(aborted->StimulationBegin(Request(2, 1.0)) == expected,
               "StimulationAbort: on an idle device it changes what the next begin answers");
        Status("StimulationEnd", aborted->StimulationEnd(nullptr, nullptr, 0));
        Status("StimulationAbort", aborted->StimulationAbort());
    }

    void TimedWait()
    {
        if (!m_subject.bWaitsTimed)
            return;
        const DevicePtr device = Make();
        device->StimulationAbort();
        const Clock::time_point start = Clock::now();
        Expect(device->StimulationBegin(Request(2, 20.0)) == 0, "StimulationBegin: refuses a timed stimulation");
        Expect(Clock::now() - start >= std::chrono::milliseconds(20),
               "StimulationBegin: returns before the duration has passed");
        device->StimulationEnd(nullptr, nullptr, 0);

        // Aborts are repeated, since one that comes before the device waits is lost.
        constexpr std::chrono::milliseconds duration(3000);
        const Clock::time_point begun = Clock::now();
        auto begin = std::async(std::launch::async,
                                [&]
                                {
                                    device->StimulationBegin(Request(2, static_cast<double>(duration.count())));
                                    return Clock::now();
                                });
        while (begin.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready &&
               Clock::now() - begun < std::chrono::minutes(1))
            device->StimulationAbort();
        Expect(begin.get() - begun < duration, "StimulationAbort: does not end a waiting begin");
        device->StimulationEnd(nullptr, nullptr, 0);
    }

    void DeviceInfo()
    {
        const DevicePtr device = Make();
        SQsStimulationDeviceInfo info{{11}, {22}};
        const int status = device->GetStimulationDeviceInfo(info);
        Status("GetStimulationDeviceInfo", status);
        Expect(!info.vecLogDevIds.empty() && info.vecLogDevIds[0] == 11 && !info.vecPhysDevIds.empty() &&
                   info.vecPhysDevIds[0] == 22,
               "GetStimulationDeviceInfo: does not append");
        Expect(info.vecLogDevIds.size() == info.vecPhysDevIds.size(),
               "GetStimulationDeviceInfo: logical and physical devices are not in pairs");
        Expect(status == 0 || info.vecLogDevIds.size() == 1, "GetStimulationDeviceInfo: fails and appends");
    }

    void Class()
    {
        const DevicePtr device = Make();
        if (const CQsClassInfo* const info = device->GetClass())
        {
            Expect(info->GetParent(0) != nullptr && std::strcmp(info->GetParent(0), "IQsStimulationDevice") == 0,
                   "GetClass: the first parent is not the interface");
            Expect(info->GetConstructor() != nullptr, "GetClass: no constructor");
        }
        auto* const object = dynamic_cast<CQsClass*>(device.get());
        if (object == nullptr)
            return;
        const unsigned references = QsStandalone::ReferenceCount(device.get());
        for (const char* name : {"IQsInterface", "iqsstimulationdevice", ""})
        {
            IQsInterface* const answer = object->QueryInterface(name);
            Expect(answer == nullptr, std::string("QueryInterface: answers \"") + name + "\"");
            Expect(QsStandalone::ReferenceCount(device.get()) == references,
                   std::string("QueryInterface: takes a reference for \"") + name + "\"");
            while (QsStandalone::ReferenceCount(device.get()) > references)
                object->Release();
        }
        IQsInterface* const answer = object->QueryInterface("IQsStimulationDevice");
        Expect(answer == static_cast<IQsInterface*>(device.get()), "QueryInterface: does not answer its own interface");
        Expect(QsStandalone::ReferenceCount(device.get()) == references + 1,
               "QueryInterface: the answer does not hold one reference more");
        while (QsStandalone::ReferenceCount(device.get()) > references)
            object->Release();
    }

    const SConformance& m_subject;
    std::vector<std::string> m_found;
};

} // namespace

std::vector<std::string> Violations(const SConformance& subject)
{
    return CChecker(subject).Run();
}

} // namespace QsTest
