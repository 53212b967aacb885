// Several calibrations that keep what they save in one file: devices of one microscope, and programs beside each other.
#include "tests/calibration/CalibrationTest.h"
#include "tests/support/ChildProcess.h"

#include <thread>

namespace QsTest {
namespace {

constexpr int s_saves = 25;

CQsStringW Key(const wchar_t* device, int i)
{
    return CQsStringW::Format(L"%s %d", device, i);
}

// What a device saves under its keys, one after the other. False when a save failed.
bool SaveAll(const CQsStringW& file, const wchar_t* device)
{
    CFakeCalibrationOwner owner;
    owner.file = file;
    owner.device = device;
    Calibration calibration(&owner);
    bool bSaved = true;
    for (int i = 0; i < s_saves; ++i)
        bSaved = calibration.SaveCalibrationMatrices(Key(device, i)) == 0 && bSaved;
    return bSaved;
}

std::size_t KeysOf(const CQsStringW& file, const wchar_t* device)
{
    CFakeCalibrationOwner owner;
    owner.file = file;
    owner.device = device;
    return CSettings(owner).Keys().size();
}

// Saves all that a device has into the file, as soon as the parent has come to the folder.
QS_CHILD_PROCESS(SavesAll)
{
    if (!Meet(arguments.at(1), "child", "parent"))
        return 2;
    return SaveAll(CQsStringW::FromUtf8(arguments.at(0)), L"child") ? 0 : 1;
}

} // namespace

class SharedFile : public CalibrationTest
{};

TEST_F(SharedFile, LosesNothingWhenTwoDevicesSaveAtOnce)
{
    bool bFirst = false;
    bool bSecond = false;
    std::thread first([&] { bFirst = SaveAll(m_owner.file, L"first"); });
    std::thread second([&] { bSecond = SaveAll(m_owner.file, L"second"); });
    first.join();
    second.join();
    EXPECT_TRUE(bFirst);
    EXPECT_TRUE(bSecond);
    EXPECT_EQ(static_cast<std::size_t>(s_saves), KeysOf(m_owner.file, L"first"));
    EXPECT_EQ(static_cast<std::size_t>(s_saves), KeysOf(m_owner.file, L"second"));
}

TEST_F(SharedFile, LosesNothingWhenTwoProgramsSaveAtOnce)
{
    const CTemporaryFolder meeting;
    CChildProcess child("SavesAll", {File(), meeting.Path()});
    ASSERT_TRUE(Meet(meeting.Path(), "parent", "child"));
    EXPECT_TRUE(SaveAll(m_owner.file, L"parent"));
    EXPECT_EQ(0, child.Wait());
    EXPECT_EQ(static_cast<std::size_t>(s_saves), KeysOf(m_owner.file, L"child"));
    EXPECT_EQ(static_cast<std::size_t>(s_saves), KeysOf(m_owner.file, L"parent"));
}

TEST_F(SharedFile, IsLeftAloneWhileAnotherOneHoldsItForTooLong)
{
    ASSERT_EQ(0, m_calibration.SaveCalibrationMatrices(L"before"));
    const CQsSettingsFileLock held(m_owner.file.c_str());
    ASSERT_TRUE(held.IsHeld());
    EXPECT_EQ(-9, m_calibration.SaveCalibrationMatrices(L"meanwhile"));
    EXPECT_EQ(std::vector<std::wstring>{L"before"}, CSettings(m_owner).Keys());
}

// The name of a level ends at a zero: the calibration would be saved under another key, in the place of that key's own.
TEST_F(SharedFile, TakesNoKeyWithAZeroInIt)
{
    ASSERT_EQ(0, m_calibration.SaveCalibrationMatrices(L"A"));
    EXPECT_EQ(-9, m_calibration.SaveCalibrationMatrices(CQsStringW(std::wstring(L"A\0B", 3))));
    EXPECT_EQ(std::vector<std::wstring>{L"A"}, CSettings(m_owner).Keys());
}

} // namespace QsTest
