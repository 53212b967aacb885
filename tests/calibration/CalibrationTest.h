// A calibration with an owner, a settings file and the log.
#pragma once

#include "calibration/StimulationDeviceCalibration.h"
#include "standalone/HostControl.h"
#include "tests/calibration/Snapshots.h"
#include "tests/support/FakeCalibrationOwner.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Numbers.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

namespace QsTest {

using Calibration = CQsStimulationDeviceCalibration;
using Matrix = std::vector<double>;

constexpr const wchar_t* s_unit = L"StimulationDeviceCalibration";

inline const Matrix& Identity()
{
    static const Matrix identity = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    return identity;
}

// A plausible measured matrix, DMD <- camera, and its inverse to the digits given; neither follows from the other here.
inline Matrix CamToDMD()
{
    return {0.98, 0.05, 12.5, -0.04, 1.02, -7.25, 0, 0, 1};
}
inline Matrix DMDToCam()
{
    return {1.0184, -0.0499, -13.09, 0.0399, 0.9784, 6.59, 0, 0, 1};
}

// The getters fill a vector that the caller gives; here it holds something else before.
using Getter = int (Calibration::*)(Matrix&);
inline Matrix Get(Calibration& calibration, Getter getter)
{
    Matrix matrix(17, s_unwritten);
    EXPECT_EQ(0, (calibration.*getter)(matrix));
    return matrix;
}
inline Matrix CalibrationC2D(Calibration& c)
{
    return Get(c, &Calibration::GetCalibrationCamToDMD);
}
inline Matrix CalibrationD2C(Calibration& c)
{
    return Get(c, &Calibration::GetCalibrationDMDToCam);
}
inline Matrix MappingC2D(Calibration& c)
{
    return Get(c, &Calibration::GetMappingCamToDMD);
}
inline Matrix MappingD2C(Calibration& c)
{
    return Get(c, &Calibration::GetMappingDMDToCam);
}
inline Matrix Rotation(Calibration& c)
{
    return Get(c, &Calibration::GetRotationMatrix);
}
inline Matrix Flip(Calibration& c)
{
    return Get(c, &Calibration::GetFlipMatrix);
}
inline Matrix Translation(Calibration& c)
{
    return Get(c, &Calibration::GetTranslationVector);
}

inline void FillCurrent(Calibration& calibration, const SHardware& hardware)
{
    CQsStimulationDeviceConfiguration* const current = calibration.AccessConfigurationCurrent();
    current->Clear();
    hardware.Fill(*current);
    calibration.UnaccessConfigurationCurrent(current);
}

inline bool IsCalibratedValid(Calibration& calibration)
{
    CQsStimulationDeviceConfiguration* const calibrated = calibration.AccessConfigurationCalibrated();
    const bool bValid = calibrated->IsValid();
    calibration.UnaccessConfigurationCalibrated(calibrated);
    return bValid;
}

// With an owner whose settings file is in a folder of the test and does not exist yet.
class CalibrationTest : public ::testing::Test
{
protected:
    CalibrationTest() { m_owner.file = CQsStringW::FromUtf8(m_folder.File("settings.qs")); }
    ~CalibrationTest() override
    {
        EXPECT_TRUE(CLockCalls::Held().empty());
        EXPECT_EQ(0u, QsStandalone::DeviceManagerLock().depth);
        QsStandalone::RefuseDeviceManagerLock(false);
    }

    std::string File() const { return m_folder.File("settings.qs"); }

    CTemporaryFolder m_folder;
    CFakeCalibrationOwner m_owner;
    Calibration m_calibration{&m_owner};
    Calibration m_orphan{nullptr}; // without an owner
};

// ------------------------------------------------------------------------------------------------ the file from
// outside

// A saved calibration: the first two rows of both matrices, alternating (DMD to camera, camera to DMD) six times.
struct SSaved
{
    std::wstring key;
    Matrix dmdToCam = DMDToCam();
    Matrix camToDMD = CamToDMD();
};

// Writes a settings file that holds these calibrations in this order, each entry with both values.
inline void WriteSaved(const CFakeCalibrationOwner& owner, const std::vector<SSaved>& saved)
{
    CQsLiteVariantW writer;
    for (const CQsStringW& level : {owner.section, owner.device, CQsStringW(L"Definition"), CQsStringW(L"Calibration")})
        writer.OpenLevel(level.c_str());
    for (const SSaved& one : saved)
    {
        writer.OpenLevel(one.key.c_str());
        for (std::size_t i = 0; i < 6; ++i)
        {
            writer.OpenLevel(L"");
            writer.SetDouble(L"m_pdCalibrationMatrixDMDToCam", one.dmdToCam[i]);
            writer.SetDouble(L"m_pdCalibrationMatrixCamToDMD", one.camToDMD[i]);
            writer.CloseLevel();
        }
        writer.CloseLevel();
    }
    ASSERT_EQ(0, CQsLiteVariantR(writer).SaveToFile(owner.file.c_str(), false, true, false));
}

// The settings file, with the level of the device's definition entered.
class CSettings
{
public:
    explicit CSettings(const CFakeCalibrationOwner& owner)
    {
        m_status = m_tree.LoadFromFile(owner.file.c_str(), true, false);
        m_bOpen = m_status == 0 && m_tree.EnterLevel(owner.section.c_str()) &&
                  m_tree.EnterLevel(owner.device.c_str()) && m_tree.EnterLevel(L"Definition");
    }
    int Status() const { return m_status; }
    bool IsOpen() const { return m_bOpen; }
    CQsLiteVariantR& Tree() { return m_tree; }

    // Names of the saved keys, in order.
    std::vector<std::wstring> Keys()
    {
        std::vector<std::wstring> keys;
        if (!m_bOpen || !m_tree.EnterLevel(L"Calibration"))
            return keys;
        for (std::size_t i = 0; i < m_tree.GetEntryCount(); ++i)
            keys.push_back(m_tree.GetEntryName(i).Std());
        m_tree.LeaveLevel();
        return keys;
    }

private:
    CQsLiteVariantR m_tree;
    int m_status = 0;
    bool m_bOpen = false;
};

} // namespace QsTest
