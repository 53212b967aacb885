// A device module whose light is a file that outlives the process, "1" while it is lit: what a killed program leaves
// behind can be seen. LAMP_FILE names the file, LAMP_FAULT what goes wrong.
#include "device/ClassRegistration.h"
#include "device/MultilaserStimulationDevice.h"
#include "device/WaitTime.h"
#include "platform/Win32.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace {

void Light(bool on)
{
    if (const char* file = std::getenv("LAMP_FILE"))
        std::ofstream(file) << (on ? '1' : '0');
}

bool HasFault(const char* fault)
{
    const char* wanted = std::getenv("LAMP_FAULT");
    return wanted != nullptr && std::strcmp(wanted, fault) == 0;
}

} // namespace

class CQsTestLamp : public CQsMultilaserStimulationDevice, public CQsClass
{
public:
    CQsTestLamp() : m_stop(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~CQsTestLamp() override { CloseHandle(m_stop); }

    const CQsClassInfo* GetClass() const override;
    IQsInterface* QueryInterface(const char* name) override
    {
        if (name == nullptr || std::strcmp(name, "IQsStimulationDevice") != 0)
            return nullptr;
        AddRef();
        return static_cast<IQsStimulationDevice*>(this);
    }
    CQsStringW GetUniqueName() const override { return L"Lamp"; }
    CQsStringW GetLocalizedStringForUI(unsigned int) override { return L"Lamp"; }
    bool IsHWConnected() override { return true; }
    bool IsVisible() override { return true; }
    int SetActive(bool) override { return QS_OK; }
    unsigned int StimulationModeGet() override { return 3; }

    int StimulationBegin(const SQsStimulationType& type) override
    {
        ResetEvent(m_stop);
        Light(true);
        if (HasFault("begin throws"))
            throw std::runtime_error("lamp");
        if (type.uiType == eStimTimed)
        {
            WaitForSingleObject(m_stop, QsStimulationWaitMs(type.dDurationMs));
            Light(false);
        }
        return QS_OK;
    }
    int StimulationEnd(double*, double*, std::uint64_t) override
    {
        if (HasFault("end throws"))
            throw std::runtime_error("lamp");
        Light(false);
        return QS_OK;
    }
    int StimulationAbort() override
    {
        if (HasFault("abort throws"))
            throw std::runtime_error("lamp");
        if (HasFault("abort is slow"))
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
        if (HasFault("abort hangs"))
            std::this_thread::sleep_for(std::chrono::minutes(10));
        Light(false);
        SetEvent(m_stop);
        return QS_OK;
    }

private:
    HANDLE m_stop;
};

QS_REGISTER_STIMULATION_CLASS(CQsTestLamp, "Test lamp");

const CQsClassInfo* CQsTestLamp::GetClass() const
{
    return &sm_classCQsTestLamp;
}
