// Cannot be loaded: it needs a function that nobody has.
#include "ProbeDevice.h"

extern "C" int QsTestFunctionThatNobodyHas();

class CQsUnresolved : public CProbeBase
{
public:
    CQsUnresolved() : m_value(QsTestFunctionThatNobodyHas()) {}
    const CQsClassInfo* GetClass() const override { return nullptr; }
    int GetValue() const { return m_value; }

private:
    int m_value;
};
QS_REGISTER_STIMULATION_CLASS(CQsUnresolved, "Unresolved device");
