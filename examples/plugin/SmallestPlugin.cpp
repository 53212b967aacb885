// A lamp that is switched on and off: the smallest device that stimulates.
//
// CQsMultilaserStimulationDevice already answers every operation with "not implemented" or a neutral value, so a
// plug-in overrides only what its hardware does. A device that is made by the class system derives from CQsClass as
// well.
#include "device/ClassRegistration.h"
#include "device/MultilaserStimulationDevice.h"
#include "device/WaitTime.h"
#include "platform/Win32.h"

#include <cstring>

class CQsExampleLamp : public CQsMultilaserStimulationDevice, public CQsClass
{
public:
    // CQsClass
    const CQsClassInfo* GetClass() const override;
    IQsInterface* QueryInterface(const char* name) override
    {
        if (name == nullptr || std::strcmp(name, "IQsStimulationDevice") != 0)
            return nullptr;
        AddRef();
        return static_cast<IQsStimulationDevice*>(this);
    }

    CQsStringW GetUniqueName() const override { return L"CQsExampleLamp"; }
    CQsStringW GetLocalizedStringForUI(unsigned int stringId) override { return stringId == 0 ? L"Example lamp" : L""; }
    bool IsHWConnected() override { return true; }
    bool IsVisible() override { return true; }
    int SetActive(bool) override { return QS_OK; }
    unsigned int StimulationModeGet() override { return 3; }

    int StimulationBegin(const SQsStimulationType& type) override
    {
        if (type.uiType != eStimContinuous && type.uiType != eStimTimed)
            return -2;
        ResetEvent(m_stop);
        m_begin = QS_GetTimeCounter();
        Switch(true);
        if (type.uiType == eStimTimed)
        {
            WaitForSingleObject(m_stop, QsStimulationWaitMs(type.dDurationMs)); // an abort ends it early
            Switch(false);
        }
        return QS_OK;
    }

    int StimulationEnd(double* begins, double* ends, std::uint64_t count) override
    {
        Switch(false);
        for (std::uint64_t i = 0; i < count; ++i)
        {
            if (begins != nullptr)
                begins[i] = i == 0 ? m_begin : -1.0;
            if (ends != nullptr)
                ends[i] = i == 0 ? QS_GetTimeCounter() : -1.0;
        }
        return QS_OK;
    }

    int StimulationAbort() override
    {
        Switch(false);
        SetEvent(m_stop);
        return QS_OK;
    }

protected:
    ~CQsExampleLamp() override { CloseHandle(m_stop); }

private:
    void Switch(bool) {} // here a driver would talk to its lamp

    HANDLE m_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    double m_begin = -1.0;
};

QS_REGISTER_STIMULATION_CLASS(CQsExampleLamp, "Example lamp");

const CQsClassInfo* CQsExampleLamp::GetClass() const
{
    return &sm_classCQsExampleLamp;
}
