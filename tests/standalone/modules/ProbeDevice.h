// A counted object that answers one interface name, for modules that tests load.
#pragma once

#include "device/ClassRegistration.h"

#include <cstring>

class CProbeBase : public CQsClass
{
public:
    IQsInterface* QueryInterface(const char* name) override
    {
        if (name == nullptr || std::strcmp(name, "IQsStimulationDevice") != 0)
            return nullptr;
        AddRef();
        return this;
    }
};
