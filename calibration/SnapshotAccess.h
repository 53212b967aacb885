// Access to one of a calibration's two snapshots, to the end of a scope.
#pragma once

#include "calibration/StimulationDeviceCalibration.h"

class CQsSnapshotAccess
{
public:
    enum EWhich
    {
        eCurrent,
        eCalibrated
    };

    CQsSnapshotAccess(CQsStimulationDeviceCalibration& calibration, EWhich eWhich)
        : m_calibration(calibration), m_eWhich(eWhich),
          m_pSnapshot(eWhich == eCurrent ? calibration.AccessConfigurationCurrent()
                                         : calibration.AccessConfigurationCalibrated())
    {}
    ~CQsSnapshotAccess()
    {
        if (m_eWhich == eCurrent)
            m_calibration.UnaccessConfigurationCurrent(m_pSnapshot);
        else
            m_calibration.UnaccessConfigurationCalibrated(m_pSnapshot);
    }
    CQsSnapshotAccess(const CQsSnapshotAccess&) = delete;
    CQsSnapshotAccess& operator=(const CQsSnapshotAccess&) = delete;

    CQsStimulationDeviceConfiguration* operator->() const { return m_pSnapshot; }
    CQsStimulationDeviceConfiguration& operator*() const { return *m_pSnapshot; }

private:
    CQsStimulationDeviceCalibration& m_calibration;
    const EWhich m_eWhich;
    CQsStimulationDeviceConfiguration* const m_pSnapshot;
};
