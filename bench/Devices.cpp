#include "bench/Devices.h"

#include "bench/Paired.h"
#include "device/MultilaserStimulationDevice.h"
#include "device/ShutterStimulationDevice.h"
#include "standalone/DeviceManager.h"

#include <algorithm>
#include <random>

namespace QsBench {

namespace {

class CNamedDevice : public CQsMultilaserStimulationDevice
{
public:
    explicit CNamedDevice(CQsStringW name) : m_name(std::move(name)) {}
    CQsStringW GetUniqueName() const override { return m_name; }
    bool IsVisible() override { return true; }

private:
    CQsStringW m_name;
};

class CFireDevice : public CNamedDevice
{
public:
    CFireDevice(SFireRecord& record, double dExposureMs)
        : CNamedDevice(L"Fires"), m_record(record), m_dExposureMs(dExposureMs)
    {}
    unsigned StimulationModeGet() override { return s_modeRepeatedPatterns; }
    unsigned StimulationAreaGetCount() override { return 1; }
    double GetStimulationExposureTimeCombined(std::uint64_t) override { return m_dExposureMs; }
    int StimulationBegin(const SQsStimulationType&) override
    {
        m_record.fires = 0;
        m_record.dBegunNs = NowNs();
        return QS_OK;
    }
    int StimulationFire(const SQsStimulationType&, double*, double*) override
    {
        ++m_record.fires;
        return QS_OK;
    }
    int StimulationEnd(double*, double*, std::uint64_t) override
    {
        m_record.dEndNs = NowNs();
        return QS_OK;
    }
    int StimulationAbort() override { return QS_OK; }

private:
    SFireRecord& m_record;
    double m_dExposureMs;
};

class CStartDevice : public CNamedDevice
{
public:
    CStartDevice(CQsStringW name, double& dBeginNs, std::function<void()> work)
        : CNamedDevice(std::move(name)), m_dBeginNs(dBeginNs), m_work(std::move(work))
    {}
    unsigned StimulationModeGet() override { return 3; }
    unsigned StimulationAreaGetCount() override { return 0; }
    int StimulationReady(bool, bool) override { return QS_OK; }
    int StimulationBegin(const SQsStimulationType&) override
    {
        m_dBeginNs = NowNs();
        if (m_work)
            m_work();
        return QS_OK;
    }
    int StimulationEnd(double*, double*, std::uint64_t) override { return QS_OK; }
    int StimulationAbort() override { return QS_OK; }

private:
    double& m_dBeginNs;
    std::function<void()> m_work;
};

} // namespace

CRegistered::CRegistered(std::vector<IQsStimulationDevice*> devices) : m_devices(std::move(devices))
{
    CQsStimulationDeviceManager& manager = *CQsStimulationDeviceManager::GetInstance();
    for (IQsStimulationDevice* const device : m_devices)
        manager.RegisterSimpleStimulationDevice(device);
    manager.Update();
}

CRegistered::~CRegistered()
{
    CQsStimulationDeviceManager& manager = *CQsStimulationDeviceManager::GetInstance();
    for (IQsStimulationDevice* const device : m_devices)
        manager.UnregisterSimpleStimulationDevice(device);
    manager.Update();
}

bool CRegistered::IsListed() const
{
    return CQsStimulationDeviceManager::GetInstance()->GetDeviceCount() == m_devices.size();
}

CShutters::CShutters(unsigned count) : m_count(count)
{
    for (unsigned i = 0; i < count; ++i)
    {
        QsStandalone::SShutterSetup setup;
        setup.logDevId = IdOf(i);
        setup.name = "Shutter " + std::to_string(i);
        std::string error;
        if (!QsStandalone::CQsDeviceManager::AddShutter(setup, error))
            return;
        IQsInterface* const object =
            CQsRTTI::CreateAndQuery("CQsShutterStimulationDevice", "IQsStimulationDevice", __FILE__, __LINE__);
        auto* const device = dynamic_cast<IQsStimulationDevice*>(object);
        if (device == nullptr)
        {
            CQsRTTI::Release(object);
            return;
        }
        m_devices.push_back(device);
        // The class's type information stays in the module; its table of operations does not need it.
        if (static_cast<CQsShutterStimulationDevice*>(device)->AttachShutter(setup.logDevId) != QS_OK)
            return;
    }
}

CShutters::~CShutters()
{
    for (IQsStimulationDevice* const device : m_devices)
    {
        CQsStimulationDeviceManager::GetInstance()->UnregisterSimpleStimulationDevice(device);
        CQsRTTI::Release(device);
    }
    QsStandalone::CQsDeviceManager::Reset();
}

std::unique_ptr<IQsStimulationDevice> MakeFireDevice(SFireRecord& record, double dExposureMs)
{
    return std::make_unique<CFireDevice>(record, dExposureMs);
}

std::unique_ptr<IQsStimulationDevice> MakeStartDevice(double& dBeginNs)
{
    return std::make_unique<CStartDevice>(L"Starts", dBeginNs, nullptr);
}

std::unique_ptr<IQsStimulationDevice> MakeWorkDevice(unsigned logDevId, double& dBeginNs, std::function<void()> work)
{
    auto device = std::make_unique<CStartDevice>(CQsStringW::Format(L"Works_%d", static_cast<int>(logDevId)), dBeginNs,
                                                 std::move(work));
    device->SetLogDevId(logDevId);
    return device;
}

std::unique_ptr<IQsStimulationDevice> MakeNamedDevice(const CQsStringW& name, unsigned logDevId)
{
    auto device = std::make_unique<CNamedDevice>(name);
    device->SetLogDevId(logDevId);
    return device;
}

std::vector<CQsStringW> RandomNames(unsigned count)
{
    std::vector<CQsStringW> names;
    for (unsigned i = 0; i < count; ++i)
        names.push_back(CQsStringW::Format(L"Laser_%04d", static_cast<int>(i)));
    std::shuffle(names.begin(), names.end(), std::mt19937(1));
    return names;
}

} // namespace QsBench
