// A plug-in with one class that works and others that fail in different ways.
#include "ProbeDevice.h"

#include <stdexcept>

extern QS_EXPORT CQsClassInfo sm_classCQsProbe;

class CQsProbe : public CProbeBase
{
public:
    const CQsClassInfo* GetClass() const override { return &sm_classCQsProbe; }
};
QS_REGISTER_STIMULATION_CLASS(CQsProbe, "Probe device");

// Creates and keeps another object of the registry while it is made itself.
class CQsNestingProbe : public CProbeBase
{
public:
    CQsNestingProbe() : m_inner(CQsRTTI::CreateAndQuery("CQsProbe", "IQsStimulationDevice", "no file", -1))
    {
        if (m_inner == nullptr)
            throw std::runtime_error("no inner object");
    }
    ~CQsNestingProbe() override { CQsRTTI::Release(m_inner); }
    const CQsClassInfo* GetClass() const override { return nullptr; }

private:
    IQsInterface* m_inner;
};
QS_REGISTER_STIMULATION_CLASS(CQsNestingProbe, "Nesting probe");

class CQsThrowingProbe : public CProbeBase
{
public:
    CQsThrowingProbe() { throw std::runtime_error("no hardware"); }
    const CQsClassInfo* GetClass() const override { return nullptr; }
};
QS_REGISTER_STIMULATION_CLASS(CQsThrowingProbe, "Throwing probe");
