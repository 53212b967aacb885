#include "standalone/DiagnosticLog.h"
#include "standalone/HostControl.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <thread>

using QsStandalone::CQsDiagnosticLog;
using QsStandalone::ELogLevel;
using QsStandalone::SLogLine;
using QsTest::ContentsOf;
using QsTest::CTemporaryFolder;
using ::testing::HasSubstr;

namespace {

double TwelveAndAHalf()
{
    return 12.5;
}

std::size_t LinesIn(const std::string& text)
{
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

} // namespace

TEST(DiagnosticLog, KeepsUnitLineTextAndTimeInMemory)
{
    QsStandalone::SetTimeCounter(&TwelveAndAHalf);
    CQsDiagnosticLog::ToMemory(true);
    DiagOutputExW(L"Unit", 42, L"%s %hs %d", L"wide", "narrow", 7);
    DiagOutputExW(nullptr, 0, nullptr);
    const std::vector<SLogLine> lines = CQsDiagnosticLog::MemoryLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].unit, L"Unit");
    EXPECT_EQ(lines[0].line, 42);
    EXPECT_EQ(lines[0].text, L"wide narrow 7");
    EXPECT_EQ(lines[0].timeMs, 12.5);
    CQsDiagnosticLog::ToMemory(false);
    CQsDiagnosticLog::ToMemory(true);
    EXPECT_TRUE(CQsDiagnosticLog::MemoryLines().empty());
}

TEST(DiagnosticLog, IsSilentWhenOffAndDetailedOnlyWhenAsked)
{
    EXPECT_EQ(CQsDiagnosticLog::GetLevel(), ELogLevel::Normal);
    CQsDiagnosticLog::ToMemory(true);
    EXPECT_FALSE(QS_DiagIsDetailed());
    CQsDiagnosticLog::SetLevel(ELogLevel::Off);
    DiagOutputExW(L"U", 1, L"dropped");
    EXPECT_TRUE(CQsDiagnosticLog::MemoryLines().empty());
    CQsDiagnosticLog::SetLevel(ELogLevel::Detailed);
    EXPECT_TRUE(QS_DiagIsDetailed());
    DiagOutputExW(L"U", 1, L"kept");
    EXPECT_EQ(CQsDiagnosticLog::MemoryLines().size(), 1u);
    CQsDiagnosticLog::ToMemory(false);
    EXPECT_FALSE(QS_DiagIsDetailed()); // nowhere to keep them
}

TEST(DiagnosticLog, WritesOneUtf8LinePerMessageToTheFile)
{
    const CTemporaryFolder folder;
    std::string error = "unset";
    ASSERT_TRUE(CQsDiagnosticLog::ToFile(folder.File("host.log"), 0, 0, error)) << error;
    DiagOutputExW(L"Unit", 3, L"caf\u00E9\nsecond\rthird");
    ASSERT_TRUE(CQsDiagnosticLog::ToFile("", 0, 0, error));
    DiagOutputExW(L"Unit", 4, L"after the end");
    const std::string text = ContentsOf(folder.File("host.log"));
    EXPECT_EQ(LinesIn(text), 1u);
    EXPECT_THAT(text, ::testing::EndsWith(" Unit:3 caf\xC3\xA9 second third\n"));
}

TEST(DiagnosticLog, AppendsToAFileThatIsThere)
{
    const CTemporaryFolder folder;
    folder.Write("host.log", "old\n");
    std::string error;
    ASSERT_TRUE(CQsDiagnosticLog::ToFile(folder.File("host.log"), 0, 0, error));
    DiagOutputExW(L"U", 1, L"new");
    EXPECT_THAT(ContentsOf(folder.File("host.log")), ::testing::StartsWith("old\n"));
    EXPECT_EQ(LinesIn(ContentsOf(folder.File("host.log"))), 2u);
}

TEST(DiagnosticLog, RotatesBeforeTheFileWouldPassItsSizeAndDropsTheOldest)
{
    const CTemporaryFolder folder;
    const std::string log = folder.File("host.log");
    std::string error;
    ASSERT_TRUE(CQsDiagnosticLog::ToFile(log, 200, 2, error));
    for (int i = 0; i < 10; ++i)
        DiagOutputExW(L"U", i, L"%0100d", i); // each line more than half of the size: one in each file
    EXPECT_THAT(ContentsOf(log), HasSubstr("U:9 "));
    EXPECT_THAT(ContentsOf(log + ".1"), HasSubstr("U:8 "));
    EXPECT_THAT(ContentsOf(log + ".2"), HasSubstr("U:7 "));
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::u8path(log + ".3")));
    for (const std::string& file : {log, log + ".1", log + ".2"})
        EXPECT_EQ(LinesIn(ContentsOf(file)), 1u) << file;
}

TEST(DiagnosticLog, KeepsOnlyTheCurrentFileWhenNoOlderOneIsWanted)
{
    const CTemporaryFolder folder;
    std::string error;
    ASSERT_TRUE(CQsDiagnosticLog::ToFile(folder.File("host.log"), 200, 0, error));
    for (int i = 0; i < 3; ++i)
        DiagOutputExW(L"U", i, L"%0100d", i);
    EXPECT_THAT(ContentsOf(folder.File("host.log")), HasSubstr("U:2 "));
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::u8path(folder.File("host.log.1"))));
}

TEST(DiagnosticLog, TellsInOneLineWhyAFileCannotBeOpenedAndGoesOnAsBefore)
{
    const CTemporaryFolder folder;
    std::string error;
    ASSERT_TRUE(CQsDiagnosticLog::ToFile(folder.File("good.log"), 0, 0, error));
    for (const std::string& path : {folder.File("no/such/folder.log"), folder.Path()})
    {
        error = "unset";
        EXPECT_FALSE(CQsDiagnosticLog::ToFile(path, 0, 0, error));
        EXPECT_THAT(error, ::testing::StartsWith(path + ": "));
        EXPECT_EQ(LinesIn(error), 0u);
    }
    DiagOutputExW(L"U", 1, L"still there");
    EXPECT_THAT(ContentsOf(folder.File("good.log")), HasSubstr("still there"));
}

TEST(DiagnosticLog, GoesToStderrWhenAsked)
{
    CQsDiagnosticLog::ToStderr(true);
    ::testing::internal::CaptureStderr();
    DiagOutputExW(L"U", 1, L"caf\u00E9");
    EXPECT_THAT(::testing::internal::GetCapturedStderr(), ::testing::EndsWith(" U:1 caf\xC3\xA9\n"));
    CQsDiagnosticLog::ToStderr(false);
    ::testing::internal::CaptureStderr();
    DiagOutputExW(L"U", 1, L"dropped");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST(DiagnosticLog, LosesNoLineOfSeveralThreads)
{
    constexpr int threads = 4;
    constexpr int lines = 200;
    const CTemporaryFolder folder;
    std::string error;
    CQsDiagnosticLog::ToMemory(true);
    ASSERT_TRUE(CQsDiagnosticLog::ToFile(folder.File("host.log"), 0, 0, error));
    std::vector<std::thread> writers;
    for (int t = 0; t < threads; ++t)
        writers.emplace_back(
            [t]
            {
                for (int i = 0; i < lines; ++i)
                    DiagOutputExW(L"Thread", t, L"%d", i);
            });
    for (std::thread& writer : writers)
        writer.join();

    // Each thread's lines stand in its own order, and times never run backwards.
    std::vector<int> next(threads, 0);
    double last = 0.0;
    for (const SLogLine& line : CQsDiagnosticLog::MemoryLines())
    {
        EXPECT_EQ(QS_wtoi(line.text.c_str()), next[static_cast<std::size_t>(line.line)]++);
        EXPECT_GE(line.timeMs, last);
        last = line.timeMs;
    }
    EXPECT_THAT(next, ::testing::Each(lines));
    EXPECT_EQ(LinesIn(ContentsOf(folder.File("host.log"))), static_cast<std::size_t>(threads * lines));
}
