// Devices that are measured with, and their time at the manager.
#pragma once

#include "manager/StimulationManager.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace QsBench {

// Registers the devices with the manager as simple ones and updates it, and takes them out again in the end.
class CRegistered
{
public:
    explicit CRegistered(std::vector<IQsStimulationDevice*> devices);
    ~CRegistered();
    CRegistered(const CRegistered&) = delete;
    CRegistered& operator=(const CRegistered&) = delete;

    bool IsListed() const; // the manager lists them and nothing else

private:
    std::vector<IQsStimulationDevice*> m_devices;
};

// Simulated shutters without latency, each with a stimulation device. The host's other shutters are removed in the end.
class CShutters
{
public:
    explicit CShutters(unsigned count);
    ~CShutters();
    CShutters(const CShutters&) = delete;
    CShutters& operator=(const CShutters&) = delete;

    bool IsComplete() const { return m_devices.size() == m_count; }
    const std::vector<IQsStimulationDevice*>& Devices() const { return m_devices; }
    static std::uint32_t IdOf(unsigned index) { return index + 1; }

private:
    unsigned m_count;
    std::vector<IQsStimulationDevice*> m_devices;
};

// Fires at once, in mode 7, and takes the times at which its begin ends and its end begins.
struct SFireRecord
{
    double dBegunNs = 0.0;
    double dEndNs = 0.0;
    unsigned fires = 0;
};
std::unique_ptr<IQsStimulationDevice> MakeFireDevice(SFireRecord& record, double dExposureMs);

// Takes the time at which its begin is entered.
std::unique_ptr<IQsStimulationDevice> MakeStartDevice(double& dBeginNs);

// The same with an identity, and with `work` to do in its begin. It is ready.
std::unique_ptr<IQsStimulationDevice> MakeWorkDevice(unsigned logDevId, double& dBeginNs, std::function<void()> work);

// A device that has a name and, when `logDevId` is not 0, an identity.
std::unique_ptr<IQsStimulationDevice> MakeNamedDevice(const CQsStringW& name, unsigned logDevId);

// `count` different names in random order, the same ones in each run.
std::vector<CQsStringW> RandomNames(unsigned count);

} // namespace QsBench
