// A registry of the program's own, what is in a registry, and processes that share one.
#include "platform/RegistryControl.h"
#include "platform/Folders.h"
#include "tests/platform/RegistryValues.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/OwnRegistry.h"

#include <gmock/gmock.h>

#include <string>
#include <tuple>
#include <vector>

using QsPlatform::ListRegistry;
using QsPlatform::SRegistryValue;
using QsPlatform::UseOwnRegistry;
using QsTest::CChildProcess;
using QsTest::COwnRegistry;

namespace {

constexpr const wchar_t* kPath = L"Software\\QsStimulationTests\\Control";

HKEY Create(HKEY root, const wchar_t* path = kPath)
{
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_SUCCESS, RegCreateKeyW(root, path, &key));
    return key;
}

void Put(HKEY root, const wchar_t* path, const wchar_t* name, const Bytes& bytes, DWORD type = REG_BINARY)
{
    HKEY key = Create(root, path);
    EXPECT_EQ(ERROR_SUCCESS, SetBytes(key, name, type, bytes));
    RegCloseKey(key);
}

// None when the key or the value is missing.
Bytes ValueIn(HKEY root, const wchar_t* name)
{
    HKEY key = nullptr;
    if (RegOpenKeyW(root, kPath, &key) != ERROR_SUCCESS)
        return {};
    const Bytes bytes = ValueOf(key, name);
    RegCloseKey(key);
    return bytes;
}

using Listed = std::tuple<std::string, std::string, DWORD, Bytes>;

std::vector<Listed> List(HKEY root, const wchar_t* subKey)
{
    std::vector<SRegistryValue> values(1);
    std::string error = "poison";
    EXPECT_TRUE(ListRegistry(root, subKey, values, error)) << error;
    EXPECT_EQ("", error);
    std::vector<Listed> listed;
    for (const SRegistryValue& value : values)
        listed.emplace_back(value.key, value.name, value.type, value.data);
    return listed;
}

class RegistryControl : public testing::Test
{
protected:
    COwnRegistry m_registry;
};

TEST_F(RegistryControl, ListsInTheOrderOfKeysAndNames)
{
    Put(HKEY_CURRENT_USER, L"Soft\\b", L"2", {2});
    Put(HKEY_CURRENT_USER, L"Soft\\B\\below", L"x", {7, 0}, REG_SZ);
    Put(HKEY_CURRENT_USER, L"Soft\\b", L"Z", {4});
    Put(HKEY_CURRENT_USER, L"Soft\\b", L"a", {3, 0, 0, 0}, REG_DWORD);
    Put(HKEY_CURRENT_USER, L"Soft\\a\\deep\\deeper", L"", {1}, 11);
    Put(HKEY_CURRENT_USER, L"Soft\\c", L"", {});
    Put(HKEY_CURRENT_USER, L"Softer", L"elsewhere", {9});
    Put(HKEY_LOCAL_MACHINE, L"Soft\\b", L"of the machine", {9});
    const std::vector<Listed> expected{{"Soft\\a\\deep\\deeper", "", 11, {1}},    {"Soft\\b", "2", REG_BINARY, {2}},
                                       {"Soft\\b", "a", REG_DWORD, {3, 0, 0, 0}}, {"Soft\\b", "Z", REG_BINARY, {4}},
                                       {"Soft\\b\\below", "x", REG_SZ, {7, 0}},   {"Soft\\c", "", REG_BINARY, {}}};
    EXPECT_EQ(expected, List(HKEY_CURRENT_USER, L"Soft"));
    EXPECT_EQ(expected, List(HKEY_CURRENT_USER, L"Soft\\"));
    std::vector<Listed> all = expected;
    all.emplace_back("Softer", "elsewhere", DWORD{REG_BINARY}, Bytes{9});
    EXPECT_EQ(all, List(HKEY_CURRENT_USER, nullptr));
    EXPECT_EQ(all, List(HKEY_CURRENT_USER, L""));
    EXPECT_EQ(1u, List(HKEY_LOCAL_MACHINE, L"Soft").size());
}

TEST_F(RegistryControl, OfAMissingKeyThereIsNothing)
{
    EXPECT_EQ(std::vector<Listed>{}, List(HKEY_CURRENT_USER, L"Missing\\Key"));
    EXPECT_EQ(std::vector<Listed>{}, List(HKEY_LOCAL_MACHINE, nullptr));
}

TEST_F(RegistryControl, ListsLargeValuesAndNamesInAnyScript)
{
    const Bytes large(100000, 0x77);
    Put(HKEY_CURRENT_USER, L"\x4E2D\\J\x00FCrgen", L"\x0142\x00F3", large);
    EXPECT_EQ((std::vector<Listed>{{"\xE4\xB8\xAD\\J\xC3\xBCrgen", "\xC5\x82\xC3\xB3", DWORD{REG_BINARY}, large}}),
              List(HKEY_CURRENT_USER, nullptr));
}

TEST_F(RegistryControl, KeepsTheSpellingFirstWritten)
{
    Put(HKEY_CURRENT_USER, L"Soft\\One", L"Value", {1});
    Put(HKEY_CURRENT_USER, L"SOFT\\ONE", L"VALUE", {2});
    EXPECT_EQ((std::vector<Listed>{{"Soft\\One", "Value", DWORD{REG_BINARY}, {2}}}), List(HKEY_CURRENT_USER, nullptr));
}

TEST_F(RegistryControl, NamesWithALoneSurrogateComeBack)
{
    HKEY key = Create(HKEY_CURRENT_USER, L"Lone\xD800Key");
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(key, L"\xDC01value", REG_BINARY, {6}));
    EXPECT_EQ((Bytes{6}), ValueOf(key, L"\xDC01value"));
    RegCloseKey(key);
    EXPECT_EQ(ERROR_SUCCESS, RegOpenKeyW(HKEY_CURRENT_USER, L"lone\xD800KEY", &key));
    RegCloseKey(key);
}

TEST_F(RegistryControl, APathThatBeginsWithABackslashIsNone)
{
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_BAD_PATHNAME, RegCreateKeyW(HKEY_CURRENT_USER, L"\\a", &key));
    EXPECT_EQ(ERROR_BAD_PATHNAME, RegOpenKeyW(HKEY_CURRENT_USER, L"\\a", &key));
    EXPECT_EQ(nullptr, key);
    std::vector<SRegistryValue> values(1);
    std::string error;
    EXPECT_FALSE(ListRegistry(HKEY_CURRENT_USER, L"\\a", values, error));
    EXPECT_TRUE(values.empty());
    EXPECT_EQ(0u, error.find(QsPlatform::RegistryPlace(HKEY_CURRENT_USER)));
}

TEST_F(RegistryControl, TellsWhereItIs)
{
    const std::string user = QsPlatform::RegistryPlace(HKEY_CURRENT_USER);
    const std::string machine = QsPlatform::RegistryPlace(HKEY_LOCAL_MACHINE);
    EXPECT_NE("", user);
    EXPECT_NE("", machine);
    EXPECT_NE(user, machine);
    EXPECT_EQ("", QsPlatform::RegistryPlace(nullptr));
}

TEST_F(RegistryControl, TheSettingsFolderLiesBesideIt)
{
    EXPECT_EQ(m_registry.Folder() + "/user/settings", QsPlatform::UserSettingsFolder());
    UseOwnRegistry("");
    const std::string own = QsPlatform::UserSettingsFolder();
    EXPECT_NE(0u, own.find(m_registry.Folder()));
    EXPECT_TRUE(std::filesystem::u8path(own).is_absolute()) << own;
}

TEST_F(RegistryControl, EachFolderNamesARegistryOfItsOwn)
{
    const std::string first = m_registry.Folder();
    Put(HKEY_CURRENT_USER, kPath, L"value", {1});
    Put(HKEY_LOCAL_MACHINE, kPath, L"value", {2});
    {
        const COwnRegistry other;
        EXPECT_EQ(Bytes{}, ValueIn(HKEY_CURRENT_USER, L"value"));
        EXPECT_EQ(Bytes{}, ValueIn(HKEY_LOCAL_MACHINE, L"value"));
        Put(HKEY_CURRENT_USER, kPath, L"value", {3});
        UseOwnRegistry(first);
        EXPECT_EQ((Bytes{1}), ValueIn(HKEY_CURRENT_USER, L"value"));
        EXPECT_EQ((Bytes{2}), ValueIn(HKEY_LOCAL_MACHINE, L"value"));
        UseOwnRegistry(other.Folder());
        EXPECT_EQ((Bytes{3}), ValueIn(HKEY_CURRENT_USER, L"value"));
    }
    UseOwnRegistry("");
    EXPECT_EQ(Bytes{}, ValueIn(HKEY_CURRENT_USER, L"value"));
    UseOwnRegistry(first);
    EXPECT_EQ((Bytes{1}), ValueIn(HKEY_CURRENT_USER, L"value"));
}

TEST_F(RegistryControl, AKeyThatIsOpenStaysWhereItIs)
{
    const std::string first = m_registry.Folder();
    HKEY key = Create(HKEY_CURRENT_USER);
    const COwnRegistry other;
    EXPECT_EQ(ERROR_SUCCESS, SetBytes(key, L"value", REG_BINARY, {1}));
    EXPECT_EQ(Bytes{}, ValueIn(HKEY_CURRENT_USER, L"value"));
    RegCloseKey(key);
    UseOwnRegistry(first);
    EXPECT_EQ((Bytes{1}), ValueIn(HKEY_CURRENT_USER, L"value"));
    UseOwnRegistry(other.Folder());
}

TEST_F(RegistryControl, ItsFolderMayHaveALongNameInAnyScript)
{
    Put(HKEY_CURRENT_USER, kPath, L"value", {'r'});
    const std::string folder = m_registry.Folder() + "/J\xC3\xBCrgen \xE4\xB8\xAD\xF0\x9F\x98\x80";
    const std::string longOne = folder + "/" + std::string(120, 'a') + "/" + std::string(120, 'b');
    for (const std::string& name : {folder, longOne + "c", longOne + "d"})
    {
        UseOwnRegistry(name);
        EXPECT_EQ(Bytes{}, ValueIn(HKEY_CURRENT_USER, L"value"));
        Put(HKEY_CURRENT_USER, kPath, L"value", {static_cast<std::uint8_t>(name.back())});
        Put(HKEY_LOCAL_MACHINE, kPath, L"value", {9});
    }
    UseOwnRegistry(longOne + "c");
    EXPECT_EQ(Bytes{'c'}, ValueIn(HKEY_CURRENT_USER, L"value"));
    QsPlatform::RemoveRegistriesIn(m_registry.Folder()); // as is done before the folders are removed
    std::filesystem::remove_all(std::filesystem::u8path(folder));
    UseOwnRegistry(longOne + "d");
    EXPECT_EQ(Bytes{}, ValueIn(HKEY_CURRENT_USER, L"value"));
    UseOwnRegistry(m_registry.Folder());
    EXPECT_EQ(Bytes{'r'}, ValueIn(HKEY_CURRENT_USER, L"value")); // is not one in it
    UseOwnRegistry("");
    QsPlatform::RemoveRegistriesIn(m_registry.Folder());
}

// --------------------------------------------------------------------------------------------------------- processes

QS_CHILD_PROCESS(ReadsTheRegistry) // its folder
{
    UseOwnRegistry(arguments.at(0));
    return ValueIn(HKEY_CURRENT_USER, L"value") == Bytes{1, 2, 3} && ValueIn(HKEY_LOCAL_MACHINE, L"value") == Bytes{4}
               ? 42
               : 1;
}

constexpr int kValues = 40;

QS_CHILD_PROCESS(WritesManyValues) // the registry's folder, its own name and that of the other one
{
    UseOwnRegistry(arguments.at(0));
    HKEY key = nullptr;
    if (RegCreateKeyW(HKEY_CURRENT_USER, kPath, &key) != ERROR_SUCCESS ||
        !QsTest::Meet(arguments.at(0), arguments.at(1), arguments.at(2)))
        return 1;
    const auto letter = static_cast<wchar_t>(arguments.at(1)[0]);
    for (int i = 0; i < kValues; ++i)
        if (SetBytes(key, (letter + std::to_wstring(i)).c_str(), REG_BINARY, {static_cast<BYTE>(i)}) != ERROR_SUCCESS)
            return 2;
    return 42;
}

TEST_F(RegistryControl, AnotherProcessReadsWhatThisOneWrote)
{
    Put(HKEY_CURRENT_USER, kPath, L"value", {1, 2, 3});
    Put(HKEY_LOCAL_MACHINE, kPath, L"value", {4});
    EXPECT_EQ(42, CChildProcess("ReadsTheRegistry", {m_registry.Folder()}).Wait());
}

TEST_F(RegistryControl, TwoProcessesWritingAtOnceLoseNothing)
{
    CChildProcess first("WritesManyValues", {m_registry.Folder(), "a", "b"});
    CChildProcess second("WritesManyValues", {m_registry.Folder(), "b", "a"});
    EXPECT_EQ(42, first.Wait());
    EXPECT_EQ(42, second.Wait());
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyW(HKEY_CURRENT_USER, kPath, &key));
    for (const wchar_t letter : {L'a', L'b'})
        for (int i = 0; i < kValues; ++i)
            EXPECT_EQ(Bytes{static_cast<BYTE>(i)}, ValueOf(key, (letter + std::to_wstring(i)).c_str())) << i;
    RegCloseKey(key);
}

} // namespace
