// The owner of a calibration: answers what a test tells it, remembers what it was asked and what was held then, and can
// fail or throw.
//
// Set what it answers before another thread uses the calibration.
#pragma once

#include "calibration/StimulationDeviceCalibration.h"
#include "tests/support/FakeDevice.h"
#include "tests/support/LockCalls.h"

#include <map>
#include <stdexcept>

namespace QsTest {

class CFakeCalibrationOwner final : public IQsStimulationDeviceCalibration
{
public:
    struct SHeld
    {
        std::vector<CRITICAL_SECTION*> sections;
        unsigned globalDepth = 0;
    };

    // --- answers
    std::vector<EQsWatchedDeviceType> watched{eWatchedFilterChangers, eWatchedObjective, eWatchedManualZoom,
                                              eWatchedLights,         eWatchedCamera,    eWatchedCameraRotation,
                                              eWatchedMicroscope,     eWatchedReserved};
    CQsStringW file;
    CQsStringW section = L"Devices";
    CQsStringW device = L"Mirrors";
    double flip[4] = {1.0, 0.0, 0.0, 1.0};
    int flipStatus = 0;
    CQsRectBase<int> frame;
    int formatStatus = 0;
    std::string throwing; // name of the operation that throws; "all"

    // --- what it was asked
    CCallLog calls; // names of the operations; "OnCalibrationStateChanged 4"
    std::vector<EQsCalibrationState> states;
    SQsGrabberFormatValue formatGiven; // as GetCameraFormat was called
    std::map<std::string, SHeld> held; // at the last call of each operation
    std::function<void(const std::string& operation)> onCall;

    void GetWatchedDeviceTypes(std::vector<EQsWatchedDeviceType>& types) override
    {
        Call("GetWatchedDeviceTypes");
        types = watched;
    }
    void OnCalibrationStateChanged(EQsCalibrationState state) override
    {
        states.push_back(state);
        Call("OnCalibrationStateChanged");
    }
    CQsStringW GetCalibrationFileName() override
    {
        Call("GetCalibrationFileName");
        return file;
    }
    CQsStringW GetCalibrationSectionName() override
    {
        Call("GetCalibrationSectionName");
        return section;
    }
    CQsStringW GetCalibrationDeviceName() override
    {
        Call("GetCalibrationDeviceName");
        return device;
    }
    int GetCameraFlipReference(double* a, double* b, double* c, double* d) override
    {
        *a = flip[0];
        *b = flip[1];
        *c = flip[2];
        *d = flip[3];
        Call("GetCameraFlipReference");
        return flipStatus;
    }
    int GetCameraFormat(SQsGrabberFormatValue& format) override
    {
        formatGiven = format;
        format.rcFormat = frame;
        Call("GetCameraFormat");
        return formatStatus;
    }

private:
    void Call(const std::string& operation)
    {
        held[operation] = {CLockCalls::Held(), CLockCalls::GlobalDepth()};
        calls.Add(operation);
        if (onCall)
            onCall(operation);
        if (throwing == operation || throwing == "all")
            throw std::runtime_error("the device is gone");
    }
};

} // namespace QsTest
