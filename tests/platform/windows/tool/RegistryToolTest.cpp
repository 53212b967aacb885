// What the registry calls write is what the system's own tool finds, in the real roots.
#include "tests/support/windows/RegistryTool.h"

#include "tests/platform/RegistryValues.h"

#include <gmock/gmock.h>

using QsTest::AskRegistryTool;
using QsTest::CBorrowedKey;
using QsTest::SToolValue;

namespace {

constexpr wchar_t kPath[] = L"Software\\Corvane\\QsStimulationTests\\Tool";

class RegistryTool : public testing::TestWithParam<HKEY>
{};

TEST_P(RegistryTool, FindsTypesAndData)
{
    const CBorrowedKey borrowed(GetParam(), kPath);
    if (!borrowed.MayBeMade())
        GTEST_SKIP() << "this user may not write there";
    EXPECT_EQ(std::nullopt, AskRegistryTool(GetParam(), "Software\\Corvane\\QsStimulationTests\\Tool"));
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyW(GetParam(), L"Software\\Corvane\\QsStimulationTests\\Tool\\", &key));
    EXPECT_EQ(ERROR_SUCCESS, SetBytes(key, L"Text", REG_SZ, {'L', 0, 'a', 0, 'm', 0, 'p', 0, ' ', 0, '1', 0, 0, 0}));
    EXPECT_EQ(ERROR_SUCCESS, SetBytes(key, L"Text without terminator", REG_SZ, {'x', 0, 'y', 0}));
    EXPECT_EQ(ERROR_SUCCESS, SetBytes(key, L"Number", REG_DWORD, {0x78, 0x56, 0x34, 0x12}));
    EXPECT_EQ(ERROR_SUCCESS, SetBytes(key, L"Bytes", REG_BINARY, {0x00, 0xAB, 0x10}));
    RegCloseKey(key);

    const auto found = AskRegistryTool(GetParam(), "Software\\Corvane\\QsStimulationTests\\Tool");
    ASSERT_TRUE(found.has_value());
    EXPECT_THAT(*found, testing::UnorderedElementsAre(SToolValue{"Text", "REG_SZ", "Lamp 1"},
                                                      SToolValue{"Text without terminator", "REG_SZ", "xy"},
                                                      SToolValue{"Number", "REG_DWORD", "0x12345678"},
                                                      SToolValue{"Bytes", "REG_BINARY", "00AB10"}));
}

TEST_P(RegistryTool, FindsNothingOfARegistryOfTheProgramsOwn)
{
    const CBorrowedKey borrowed(GetParam(), kPath);
    QsPlatform::UseOwnRegistry("C:/QsStimulationTests/own");
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyW(GetParam(), kPath, &key));
    EXPECT_EQ(ERROR_SUCCESS, SetBytes(key, L"Number", REG_DWORD, {1, 0, 0, 0}));
    RegCloseKey(key);
    EXPECT_EQ(std::nullopt, AskRegistryTool(GetParam(), "Software\\Corvane\\QsStimulationTests\\Tool"));
    const std::string root = GetParam() == HKEY_CURRENT_USER ? "user" : "machine";
    const auto found =
        AskRegistryTool(HKEY_CURRENT_USER, "Software\\QsStimulation\\Registries\\C:/QsStimulationTests/own\\" + root +
                                               "\\Software\\Corvane\\QsStimulationTests\\Tool");
    QsPlatform::UseOwnRegistry("");
    RegDeleteTreeW(HKEY_CURRENT_USER, L"Software\\QsStimulation\\Registries\\C:/QsStimulationTests/own");
    ASSERT_TRUE(found.has_value());
    EXPECT_THAT(*found, testing::ElementsAre(SToolValue{"Number", "REG_DWORD", "0x1"}));
}

INSTANTIATE_TEST_SUITE_P(Roots, RegistryTool, testing::Values(HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE),
                         [](const testing::TestParamInfo<HKEY>& root)
                         { return root.param == HKEY_CURRENT_USER ? "User" : "Machine"; });

} // namespace
