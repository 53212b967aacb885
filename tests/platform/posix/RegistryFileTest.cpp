// The registry's file: what it looks like, what survives killed processes, damage and failing writes.
#include "platform/RegistryControl.h"
#include "platform/posix/Control.h"
#include "tests/platform/RegistryValues.h"
#include "tests/support/OwnRegistry.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr const wchar_t* kPath = L"Software\\QsStimulationTests\\File\\";

std::string Content(const std::string& file)
{
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
}

void Write(const std::string& file, const std::string& text)
{
    std::ofstream(file, std::ios::binary) << text;
}

HKEY Create(HKEY root, const wchar_t* path = kPath)
{
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_SUCCESS, RegCreateKeyW(root, path, &key));
    return key;
}

pid_t InAnotherProcess(const std::function<int()>& work)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(work());
    return child;
}

// The exit code, or minus the signal.
int EndOf(pid_t child)
{
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

class RegistryFile : public testing::Test
{
protected:
    RegistryFile() { fs::create_directories(fs::path(File()).parent_path()); }

    std::string File() const { return QsPlatform::RegistryPlace(HKEY_CURRENT_USER); }

    QsTest::COwnRegistry m_registry;
};

TEST_F(RegistryFile, ReadsAsText)
{
    HKEY key = Create(HKEY_CURRENT_USER);
    SetBytes(key, L"Device-0", REG_SZ, {'L', 0, 'a', 0, 'm', 0, 'p', 0, 0, 0});
    SetBytes(key, L"Level", REG_DWORD, {0x39, 0x30, 0, 0}); // 12345
    SetBytes(key, L"Odd", REG_SZ, {'x', 0});
    SetBytes(key, L"Raw", REG_BINARY, {0x00, 0xAB});
    SetBytes(key, L"Other", 11, {0x01});
    RegCloseKey(key);

    const auto document = QJsonDocument::fromJson(QByteArray::fromStdString(Content(File()))).object();
    EXPECT_EQ(QString("qsstimulation-registry"), document["format"].toString());
    EXPECT_EQ(1, document["version"].toInt());
    const QJsonObject keys = document["keys"].toObject();
    EXPECT_EQ(QStringList("Software\\QsStimulationTests\\File"), keys.keys());
    const QJsonObject values = keys["Software\\QsStimulationTests\\File"].toObject();
    EXPECT_EQ((QJsonObject{{"type", "REG_SZ"}, {"text", "Lamp"}}), values["Device-0"].toObject());
    EXPECT_EQ((QJsonObject{{"type", "REG_DWORD"}, {"number", 12345}}), values["Level"].toObject());
    EXPECT_EQ((QJsonObject{{"type", "REG_SZ"}, {"hex", "7800"}}), values["Odd"].toObject());
    EXPECT_EQ((QJsonObject{{"type", "REG_BINARY"}, {"hex", "00ab"}}), values["Raw"].toObject());
    EXPECT_EQ((QJsonObject{{"type", 11}, {"hex", "01"}}), values["Other"].toObject());
    EXPECT_EQ(5, values.size());
}

TEST_F(RegistryFile, KeepsTheSpellingFirstWritten)
{
    HKEY key = Create(HKEY_CURRENT_USER, L"Soft\\One");
    SetBytes(key, L"Value", REG_BINARY, {1});
    SetBytes(key, L"VALUE", REG_BINARY, {2});
    RegCloseKey(key);
    key = Create(HKEY_CURRENT_USER, L"SOFT\\Two");
    SetBytes(key, L"x", REG_BINARY, {3});
    RegCloseKey(key);

    std::vector<QsPlatform::SRegistryValue> values;
    std::string error = "poison";
    ASSERT_TRUE(QsPlatform::ListRegistry(HKEY_CURRENT_USER, nullptr, values, error));
    EXPECT_EQ("", error);
    ASSERT_EQ(2u, values.size());
    EXPECT_EQ("Soft\\One", values[0].key);
    EXPECT_EQ("Value", values[0].name);
    EXPECT_EQ(static_cast<DWORD>(REG_BINARY), values[0].type);
    EXPECT_EQ((Bytes{2}), values[0].data);
    EXPECT_EQ("Soft\\Two", values[1].key);
}

TEST_F(RegistryFile, ANameThatItCannotHoldIsRefused)
{
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_INVALID_PARAMETER, RegCreateKeyW(HKEY_CURRENT_USER, L"\xFEFFKey", &key));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, RegCreateKeyW(HKEY_CURRENT_USER, L"a\\\\b", &key));
    EXPECT_EQ(ERROR_BAD_PATHNAME, RegCreateKeyW(HKEY_CURRENT_USER, L"\\a", &key));
    EXPECT_EQ(nullptr, key);
    EXPECT_FALSE(fs::exists(File()));
}

TEST_F(RegistryFile, MachineAndUserHaveFilesOfTheirOwn)
{
    RegCloseKey(Create(HKEY_LOCAL_MACHINE));
    EXPECT_FALSE(fs::exists(File()));
    EXPECT_TRUE(fs::exists(QsPlatform::RegistryPlace(HKEY_LOCAL_MACHINE)));
    EXPECT_NE(File(), QsPlatform::RegistryPlace(HKEY_LOCAL_MACHINE));
}

TEST_F(RegistryFile, FoldersComeFromTheEnvironmentUnlessTheyAreSet)
{
    QsPlatform::UseOwnRegistry("");
    setenv("QS_REGISTRY_DIR", "/tmp/user", 1);
    unsetenv("QS_MACHINE_REGISTRY_DIR");
    EXPECT_EQ("/tmp/user", fs::path(QsPlatform::RegistryPlace(HKEY_CURRENT_USER)).parent_path());
    EXPECT_EQ("/tmp/user", fs::path(QsPlatform::RegistryPlace(HKEY_LOCAL_MACHINE)).parent_path());
    setenv("QS_MACHINE_REGISTRY_DIR", "/tmp/machine", 1);
    EXPECT_EQ("/tmp/machine", fs::path(QsPlatform::RegistryPlace(HKEY_LOCAL_MACHINE)).parent_path());
    unsetenv("QS_REGISTRY_DIR");
    setenv("XDG_CONFIG_HOME", "/tmp/config", 1);
    EXPECT_EQ("/tmp/config/qsstimulation", fs::path(QsPlatform::RegistryPlace(HKEY_CURRENT_USER)).parent_path());
}

TEST_F(RegistryFile, RefusalStopsOpeningCreatingAndWritingOfThatRootAlone)
{
    HKEY open = Create(HKEY_LOCAL_MACHINE);
    SetBytes(open, L"value", REG_BINARY, {1});
    QsPlatform::RefuseRegistry(HKEY_LOCAL_MACHINE, true);
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_ACCESS_DENIED, RegOpenKeyW(HKEY_LOCAL_MACHINE, kPath, &key));
    EXPECT_EQ(ERROR_ACCESS_DENIED, RegCreateKeyW(HKEY_LOCAL_MACHINE, kPath, &key));
    EXPECT_EQ(ERROR_ACCESS_DENIED, SetBytes(open, L"value", REG_BINARY, {2}));
    EXPECT_EQ(nullptr, key);
    RegCloseKey(Create(HKEY_CURRENT_USER));
    QsPlatform::RefuseRegistry(HKEY_LOCAL_MACHINE, false);
    EXPECT_EQ((Bytes{1}), ValueOf(open, L"value"));
    EXPECT_EQ(ERROR_SUCCESS, SetBytes(open, L"value", REG_BINARY, {2}));
    RegCloseKey(open);
}

TEST_F(RegistryFile, TwoProcessesWritingAtOnceLoseNothing)
{
    constexpr int kValues = 40;
    const auto writer = [](wchar_t letter)
    {
        HKEY key = nullptr;
        if (RegCreateKeyW(HKEY_CURRENT_USER, kPath, &key) != ERROR_SUCCESS)
            return 1;
        for (int i = 0; i < kValues; ++i)
            if (SetBytes(key, (letter + std::to_wstring(i)).c_str(), REG_BINARY, {static_cast<BYTE>(i)}) != 0)
                return 2;
        return 42;
    };
    const pid_t first = InAnotherProcess([&] { return writer(L'a'); });
    const pid_t second = InAnotherProcess([&] { return writer(L'b'); });
    EXPECT_EQ(42, EndOf(first));
    EXPECT_EQ(42, EndOf(second));
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyW(HKEY_CURRENT_USER, kPath, &key));
    for (const wchar_t letter : {L'a', L'b'})
        for (int i = 0; i < kValues; ++i)
            EXPECT_EQ(Bytes{static_cast<BYTE>(i)}, ValueOf(key, (letter + std::to_wstring(i)).c_str())) << i;
    RegCloseKey(key);
}

TEST_F(RegistryFile, IsWholeAfterAWriterIsKilledAtAnyMoment)
{
    // The larger is so large that its write takes a while.
    const Bytes small(2000, 0x11);
    const Bytes large(60000, 0x22);
    HKEY key = Create(HKEY_CURRENT_USER);
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(key, L"value", REG_BINARY, small));
    for (int round = 0; round < 15; ++round)
    {
        const pid_t child = InAnotherProcess(
            [&]
            {
                for (;;)
                    if (SetBytes(key, L"value", REG_BINARY, large) != 0 ||
                        SetBytes(key, L"value", REG_BINARY, small) != 0)
                        return 1;
            });
        usleep(static_cast<useconds_t>(1500 + 1700 * round)); // any moment will do
        kill(child, SIGKILL);
        ASSERT_EQ(-SIGKILL, EndOf(child));
        SQueried read = Query(key, L"value", 100000);
        ASSERT_EQ(ERROR_SUCCESS, read.status);
        read.data.resize(read.size);
        ASSERT_TRUE(read.data == small || read.data == large);
        // A dead writer's lock does not stand in the way.
        ASSERT_EQ(ERROR_SUCCESS, SetBytes(key, L"after", REG_BINARY, {static_cast<BYTE>(round)}));
    }
    RegCloseKey(key);
}

TEST_F(RegistryFile, ADamagedOneReadsAsEmptyAndIsKeptAsideByTheFirstWrite)
{
    for (const std::string& content : std::vector<std::string>{
             "not json", "", "[]", "{}", R"({"format":"other","version":1,"keys":{}})",
             R"({"format":"qsstimulation-registry","version":2,"keys":{}})",
             R"({"format":"qsstimulation-registry","version":1})",
             R"({"format":"qsstimulation-registry","version":1,"keys":{"a\\\\b":{}}})",
             R"({"format":"qsstimulation-registry","version":1,"keys":{"a":{"v":{"type":"REG_SZ"}}}})",
             R"({"format":"qsstimulation-registry","version":1,"keys":{"a":{"v":{"type":"REG_X","hex":""}}}})",
             R"({"format":"qsstimulation-registry","version":1,"keys":{"a":{"v":{"type":3,"hex":"0g"}}}})",
             R"({"format":"qsstimulation-registry","version":1,"keys":{"a":{"v":{"type":4,"number":-1}}}})",
             R"({"format":"qsstimulation-registry","version":1,"keys":{"a":{"v":{"type":4,"number":1.5}}}})",
             R"({"format":"qsstimulation-registry","version":1,)"
             R"("keys":{"a":{"v":{"type":3,"hex":""},"V":{"type":3,"hex":""}}}})"})
    {
        SCOPED_TRACE(content);
        const QsTest::COwnRegistry own;
        const std::string file = File();
        fs::create_directories(fs::path(file).parent_path());
        Write(file, content);
        Write(file + ".damaged-1", "an older one");

        HKEY key = nullptr;
        EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegOpenKeyW(HKEY_CURRENT_USER, L"a", &key));
        std::vector<QsPlatform::SRegistryValue> values(1);
        std::string error;
        EXPECT_FALSE(QsPlatform::ListRegistry(HKEY_CURRENT_USER, nullptr, values, error));
        EXPECT_TRUE(values.empty());
        EXPECT_THAT(error, testing::StartsWith(file + ": "));
        EXPECT_THAT(error, testing::Not(testing::HasSubstr("\n")));
        EXPECT_EQ(content, Content(file));

        testing::internal::CaptureStderr();
        key = Create(HKEY_CURRENT_USER, L"a");
        const std::string line = testing::internal::GetCapturedStderr();
        EXPECT_EQ(ERROR_SUCCESS, SetBytes(key, L"value", REG_BINARY, {1}));
        EXPECT_EQ((Bytes{1}), ValueOf(key, L"value"));
        RegCloseKey(key);
        EXPECT_THAT(line, testing::HasSubstr(file + ".damaged-2"));
        EXPECT_EQ(line.size() - 1, line.find('\n'));
        EXPECT_EQ(content, Content(file + ".damaged-2"));
        EXPECT_EQ("an older one", Content(file + ".damaged-1"));
    }
}

TEST_F(RegistryFile, AFolderThatCannotBeMadeIsAWriteFault)
{
    const std::string file = m_registry.Folder() + "/plain";
    Write(file, "a file, not a folder");
    QsPlatform::UseOwnRegistry(file + "/below");
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_WRITE_FAULT, RegCreateKeyW(HKEY_CURRENT_USER, kPath, &key));
    EXPECT_EQ(nullptr, key);
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegOpenKeyW(HKEY_CURRENT_USER, kPath, &key));
    EXPECT_EQ("a file, not a folder", Content(file));
}

TEST_F(RegistryFile, KeysAreAtMost512LevelsDeep)
{
    std::wstring deepest = L"k";
    for (int level = 2; level <= 512; ++level)
        deepest += L"\\k";
    HKEY key = Create(HKEY_CURRENT_USER, deepest.c_str());
    EXPECT_EQ(ERROR_SUCCESS, SetBytes(key, L"value", REG_BINARY, {7}));
    HKEY below = nullptr;
    EXPECT_EQ(ERROR_INVALID_PARAMETER, RegCreateKeyW(key, L"k", &below));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, RegOpenKeyW(key, L"k", &below));
    EXPECT_EQ(nullptr, below);
    EXPECT_EQ((Bytes{7}), ValueOf(key, L"value"));
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, RegCreateKeyW(HKEY_CURRENT_USER, (deepest + L"\\k").c_str(), &below));
}

TEST_F(RegistryFile, AFileWithADeeperKeyIsDamaged)
{
    std::string deep = "k";
    for (int level = 2; level <= 300000; ++level)
        deep += "\\\\k";
    Write(File(), R"({"format": "qsstimulation-registry", "version": 1, "keys": {")" + deep + R"(": {}}})");
    std::vector<QsPlatform::SRegistryValue> values;
    std::string error;
    EXPECT_FALSE(QsPlatform::ListRegistry(HKEY_CURRENT_USER, nullptr, values, error));
    EXPECT_THAT(error, testing::HasSubstr("512"));
}

TEST_F(RegistryFile, APipeInItsPlaceIsNotWaitedFor)
{
    ASSERT_EQ(0, mkfifo(File().c_str(), 0600));
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_WRITE_FAULT, RegCreateKeyW(HKEY_CURRENT_USER, kPath, &key));
    std::vector<QsPlatform::SRegistryValue> values;
    std::string error;
    EXPECT_FALSE(QsPlatform::ListRegistry(HKEY_CURRENT_USER, nullptr, values, error));
    EXPECT_THAT(error, testing::HasSubstr(File()));
    EXPECT_TRUE(fs::is_fifo(File()));
}

TEST_F(RegistryFile, APipeInPlaceOfItsLockIsNotWaitedFor)
{
    ASSERT_EQ(0, mkfifo((File() + ".lock").c_str(), 0600));
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_WRITE_FAULT, RegCreateKeyW(HKEY_CURRENT_USER, kPath, &key));
}

TEST_F(RegistryFile, SomethingElseInItsPlaceIsAWriteFault)
{
    fs::create_directory(File());
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_WRITE_FAULT, RegCreateKeyW(HKEY_CURRENT_USER, kPath, &key));
    EXPECT_TRUE(fs::is_directory(File()));
}

TEST_F(RegistryFile, AFullDiskLeavesTheOldContent)
{
    HKEY key = Create(HKEY_CURRENT_USER);
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(key, L"value", REG_BINARY, {1}));
    const std::string before = Content(File());
    // A limit on the size of files stands in for a disk without room.
    const pid_t child = InAnotherProcess(
        [&]
        {
            signal(SIGXFSZ, SIG_IGN);
            const rlimit limit{1000, 1000};
            setrlimit(RLIMIT_FSIZE, &limit);
            return SetBytes(key, L"value", REG_BINARY, Bytes(5000, 2)) == ERROR_WRITE_FAULT ? 42 : 1;
        });
    EXPECT_EQ(42, EndOf(child));
    EXPECT_EQ(before, Content(File()));
    EXPECT_EQ(ERROR_SUCCESS, SetBytes(key, L"value", REG_BINARY, {2}));
    RegCloseKey(key);
}

TEST_F(RegistryFile, AWriterThatHoldsTheLockTooLongIsAccessDenied)
{
    HKEY key = Create(HKEY_CURRENT_USER);
    const std::string lock = File() + ".lock";
    const pid_t holder = InAnotherProcess(
        [&]
        {
            for (std::uint8_t i = 0;; ++i)
                if (SetBytes(key, L"held", REG_BINARY, Bytes(200000, i)) != ERROR_SUCCESS)
                    return 1;
        });
    // Frozen at a moment at which it holds the lock.
    bool held = false;
    for (int attempt = 0; attempt < 20000 && !held; ++attempt)
    {
        kill(holder, SIGSTOP);
        int status = 0;
        waitpid(holder, &status, WUNTRACED);
        held = fs::exists(lock) && fs::file_size(lock) > 0;
        if (!held)
            kill(holder, SIGCONT);
    }
    ASSERT_TRUE(held);
    const std::string before = Content(File());
    EXPECT_EQ(ERROR_ACCESS_DENIED, SetBytes(key, L"mine", REG_BINARY, {1}));
    EXPECT_EQ(before, Content(File()));
    kill(holder, SIGKILL);
    EXPECT_EQ(-SIGKILL, EndOf(holder));
    EXPECT_EQ(ERROR_SUCCESS, SetBytes(key, L"mine", REG_BINARY, {1}));
    RegCloseKey(key);
}

TEST_F(RegistryFile, ALockThatACrashLeftDoesNotStandInTheWay)
{
    HKEY key = Create(HKEY_CURRENT_USER);
    const std::string lock = File() + ".lock";
    Write(lock, ""); // of a process that died before it could sign
    EXPECT_EQ(ERROR_SUCCESS, SetBytes(key, L"value", REG_BINARY, {1}));
    EXPECT_FALSE(fs::exists(lock));
    RegCloseKey(key);
}

TEST_F(RegistryFile, AWriteThatChangesNothingLeavesTheFileAlone)
{
    HKEY key = Create(HKEY_CURRENT_USER);
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(key, L"value", REG_BINARY, {1}));
    const auto old = fs::file_time_type::clock::now() - std::chrono::hours(1);
    fs::last_write_time(File(), old);
    const auto before = fs::last_write_time(File());
    EXPECT_EQ(ERROR_SUCCESS, SetBytes(key, L"value", REG_BINARY, {1}));
    EXPECT_EQ(before, fs::last_write_time(File()));
    EXPECT_EQ(ERROR_SUCCESS, SetBytes(key, L"value", REG_BINARY, {2}));
    EXPECT_NE(before, fs::last_write_time(File()));
    RegCloseKey(key);
}

} // namespace
