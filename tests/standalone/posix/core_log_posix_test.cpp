// The diagnostic log on a device that is always full.
#include "standalone/DiagnosticLog.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>

using QsStandalone::CQsDiagnosticLog;
using testing::HasSubstr;

TEST(DiagnosticLog, ReportsAFullDiskOnceAndGoesOnElsewhere)
{
    std::string error;
    CQsDiagnosticLog::ToMemory(true);
    ASSERT_TRUE(CQsDiagnosticLog::ToFile("/dev/full", 1000, 1, error)) << error;
    ::testing::internal::CaptureStderr();
    for (int i = 0; i < 5; ++i)
        DiagOutputExW(L"U", i, L"line");
    const std::string reported = ::testing::internal::GetCapturedStderr();
    EXPECT_THAT(reported, HasSubstr("/dev/full"));
    EXPECT_EQ(std::count(reported.begin(), reported.end(), '\n'), 1);
    EXPECT_EQ(CQsDiagnosticLog::MemoryLines().size(), 5u);
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
}
