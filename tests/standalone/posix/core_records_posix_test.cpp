// Class records in what only these systems have.
#include "standalone/ClassRecords.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <sys/stat.h>

using QsStandalone::ReadModuleFile;
using QsStandalone::SModuleFile;
using QsTest::ContentsOf;
using QsTest::CTemporaryFolder;

TEST(ClassRecords, AreNotLookedForInAPipe)
{
    const CTemporaryFolder folder;
    const std::string pipe = folder.File("pipe.so");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const SModuleFile module = ReadModuleFile(pipe);
    EXPECT_THAT(module.error, testing::StartsWith(pipe + ": expected a file, found a pipe"));
    EXPECT_TRUE(module.classes.empty());
}

// The section table stands at the end of an ELF file, so that every cut loses part of it.
TEST(ClassRecords, AreNotTakenFromAModuleThatWasCutOffAnywhere)
{
    const CTemporaryFolder folder;
    const std::string whole = ContentsOf(QS_PROBES "/Probe/ProbeModule.so");
    ASSERT_GT(whole.size(), 1000u);
    const std::size_t step = std::max<std::size_t>(whole.size() / 2000, 1);
    for (std::size_t length = 0; length < whole.size(); length += length < 200 ? 1 : step)
    {
        const SModuleFile module = ReadModuleFile(folder.Write("module.bin", whole.substr(0, length)));
        ASSERT_NE(module.error, "") << length;
        EXPECT_EQ(module.error.find('\n'), std::string::npos) << module.error;
        ASSERT_TRUE(module.classes.empty()) << length;
    }
}
