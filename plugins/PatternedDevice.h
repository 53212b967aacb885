// Base of the simulated devices with a micromirror chip, which also take patterns from image files.
#pragma once

#include "host/QsPluginManager.h"
#include "plugins/SimulatedDevice.h"

class CQsSimPatternedDevice : public CQsSimulatedDevice, public IQsStimulationDeviceEx
{
public:
    const CQsClassInfo* GetClass() const override { return CQsSimulatedDevice::GetClass(); }
    IQsInterface* QueryInterface(const char* name) override;

    // The pattern becomes one more area of the device. -4 for a null argument; -9 for an empty name, for a name that is
    // taken and not to be overwritten, and for an image that cannot be read or, one to one, does not fit the chip: the
    // log says which. Then nothing changes. Mirrors of at least half the full brightness are on.
    int AddPatternFromImage(const wchar_t* imageFile, const wchar_t* patternName, bool loadOneToOne,
                            bool overwriteExisting) override;

protected:
    CQsSimPatternedDevice(const CQsClassInfo& info, const SSimulatedDeviceSettings& settings,
                          const CQsSizeBase<int>& chip)
        : CQsSimulatedDevice(info, settings), m_chip(chip)
    {}

    const CQsSizeBase<int>& Chip() const { return m_chip; } // mirrors

private:
    int AddPattern(const CQsStringW& file, const CQsStringW& name, bool oneToOne, bool overwrite);
    int Refuse(const CQsStringW& file, const std::string& reason) const;

    const CQsSizeBase<int> m_chip;
};
