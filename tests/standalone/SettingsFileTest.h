// Whole settings files in tests, and the folder that they are in.
#pragma once

#include "standalone/DiagnosticLog.h"
#include "tests/standalone/SettingsTest.h"
#include "tests/support/TemporaryFolder.h"

#include <filesystem>

inline std::vector<std::string> NamesIn(const std::string& folder)
{
    std::vector<std::string> names;
    for (const std::filesystem::directory_entry& entry :
         std::filesystem::directory_iterator(std::filesystem::u8path(folder)))
        names.push_back(entry.path().filename().u8string());
    return names;
}

inline void Fill(CQsLiteVariantW& writer, double number)
{
    writer.OpenLevel(L"Section");
    writer.SetString(L"text", L"\u00e4 \\ \"quoted\"");
    for (int i = 0; i < 2; ++i)
    {
        writer.OpenLevel(L"");
        writer.SetDouble(L"v", number + i);
        writer.SetUnsigned(L"u", 7);
        writer.CloseLevel();
    }
    writer.SetBinary(L"b", "xyz", 3);
    writer.SetDouble(L"nan", OfBits(0x7ff8000000000000u));
    writer.SetBool(L"f", false);
}

inline std::string ContentOf(double number, bool compact = false)
{
    const QsTest::CTemporaryFolder folder;
    CQsLiteVariantW writer;
    Fill(writer, number);
    EXPECT_EQ(0, Save(CQsLiteVariantR(writer), folder.File("file"), compact));
    return QsTest::ContentsOf(folder.File("file"));
}

// A store with one entry, to see that a failed load leaves it.
class CUntouched
{
public:
    CUntouched() : m_store((m_writer.SetDouble(L"untouched", 4.0), m_writer)) {}

    CQsLiteVariantR& Store() { return m_store; }
    bool Is() const { return m_store.GetEntryCount() == 1 && m_store.GetDouble(L"untouched", 0.0) == 4.0; }

private:
    CQsLiteVariantW m_writer;
    CQsLiteVariantR m_store;
};

// Something else than a file has that path: it is neither read nor replaced, with one line for each.
inline void ExpectNoFile(const std::string& path)
{
    using QsStandalone::CQsDiagnosticLog;
    CUntouched untouched;
    CQsDiagnosticLog::ToMemory(false);
    CQsDiagnosticLog::ToMemory(true);
    EXPECT_EQ(-9, Load(untouched.Store(), path));
    EXPECT_EQ(-9, Save(untouched.Store(), path));
    ASSERT_EQ(2u, CQsDiagnosticLog::MemoryLines().size());
    for (const QsStandalone::SLogLine& line : CQsDiagnosticLog::MemoryLines())
        EXPECT_THAT(line.text.ToUtf8(), testing::StartsWith(path + ": expected a file, found a "));
    EXPECT_TRUE(untouched.Is());
}
