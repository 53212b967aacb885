// Programs that are killed while they save a calibration.
#include "platform/AtomicFile.h"
#include "tests/calibration/CalibrationTest.h"
#include "tests/support/ChildProcess.h"

#include <algorithm>
#include <filesystem>

namespace QsTest {
namespace {

constexpr const wchar_t* s_older = L"older";
constexpr const wchar_t* s_newer = L"newer";

std::vector<std::string> g_steps;
std::size_t g_stepsLeft = 0;

void NoteStep(const char* step)
{
    g_steps.push_back(step);
}

void KillAtStep(const char*)
{
    if (--g_stepsLeft == 0)
        KillThisProcess();
}

// A matrix whose elements all differ, none of them from 0.
Matrix Numbered(double first)
{
    return {first, first + 1, first + 2, first + 3, first + 4, first + 5, 0, 0, 1};
}

void Measure(Calibration& calibration, double first)
{
    calibration.SetCalibrationCamToDMD(Numbered(first));
    calibration.SetCalibrationDMDToCam(Numbered(first + 10));
}

// Saves the newer key into the file, and is killed after so many steps.
QS_CHILD_PROCESS(SavesAndIsKilled)
{
    CFakeCalibrationOwner owner;
    owner.file = CQsStringW::FromUtf8(arguments.at(0));
    g_stepsLeft = std::stoul(arguments.at(1));
    QsPlatform::OnFileReplacementStep(KillAtStep);
    Calibration calibration(&owner);
    Measure(calibration, 300);
    calibration.SaveCalibrationMatrices(s_newer);
    return 0;
}

} // namespace

class KilledSave : public CalibrationTest
{
protected:
    // The key's both matrices are those that Measure made of `first`.
    bool IsWhole(const wchar_t* key, double first)
    {
        Calibration loaded(&m_owner);
        return loaded.LoadCalibrationMatrices(key) == 0 && CalibrationC2D(loaded) == Numbered(first) &&
               CalibrationD2C(loaded) == Numbered(first + 10);
    }

    bool IsSaved(const wchar_t* key)
    {
        const std::vector<std::wstring> keys = CSettings(m_owner).Keys();
        return std::find(keys.begin(), keys.end(), key) != keys.end();
    }

    std::size_t FilesInFolder() const
    {
        const std::filesystem::directory_iterator files(std::filesystem::u8path(m_folder.Path()));
        return static_cast<std::size_t>(std::distance(begin(files), end(files)));
    }

    // Ends as the process that saves the newer key is killed after so many steps; false when it was not.
    bool SaveInAProcessThatIsKilled(std::size_t afterSteps) const
    {
        CChildProcess child("SavesAndIsKilled", {File(), std::to_string(afterSteps)});
        return !child.Wait().has_value();
    }
};

TEST_F(KilledSave, LosesNoOlderKeyAndLeavesTheNewOneWholeOrNotAtAll)
{
    Measure(m_calibration, 100);
    ASSERT_EQ(0, m_calibration.SaveCalibrationMatrices(s_older));
    const std::string before = ContentsOf(File());

    Measure(m_calibration, 300);
    g_steps.clear();
    QsPlatform::OnFileReplacementStep(NoteStep);
    ASSERT_EQ(0, m_calibration.SaveCalibrationMatrices(s_newer));
    QsPlatform::OnFileReplacementStep(nullptr);
    const std::vector<std::string> steps = g_steps;
    const auto renamed = std::find(steps.begin(), steps.end(), "renamed");
    ASSERT_NE(steps.end(), renamed);
    const std::size_t lastUnseen = static_cast<std::size_t>(renamed - steps.begin());
    ASSERT_GT(lastUnseen, 0u);

    constexpr std::size_t leastKills = 50;
    const std::size_t rounds = (leastKills + steps.size() - 1) / steps.size();
    for (std::size_t i = 0; i < rounds * steps.size(); ++i)
    {
        const std::size_t step = i % steps.size();
        SCOPED_TRACE("killed after step " + std::to_string(step) + ", " + steps[step]);
        m_folder.Write("settings.qs", before);
        ASSERT_FALSE(IsSaved(s_newer));
        ASSERT_TRUE(SaveInAProcessThatIsKilled(step + 1));

        EXPECT_TRUE(IsWhole(s_older, 100));
        const bool isThere = IsSaved(s_newer);
        EXPECT_EQ(step >= lastUnseen, isThere);
        EXPECT_EQ(isThere, IsWhole(s_newer, 300));
        EXPECT_EQ(isThere ? 1u : 2u, FilesInFolder()); // the temporary file of the dead one stays

        // The next save does not wait for the dead one, and clears away what that left.
        Calibration next(&m_owner);
        Measure(next, 500);
        ASSERT_EQ(0, next.SaveCalibrationMatrices(L"next"));
        EXPECT_TRUE(IsWhole(s_older, 100));
        EXPECT_TRUE(IsWhole(L"next", 500));
        EXPECT_EQ(isThere, IsWhole(s_newer, 300));
        EXPECT_EQ(1u, FilesInFolder());
    }
}

} // namespace QsTest
