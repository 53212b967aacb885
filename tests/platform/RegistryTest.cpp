#include "tests/platform/RegistryValues.h"
#include "tests/support/OwnRegistry.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

constexpr const wchar_t* kPath = L"Software\\QsStimulationTests\\Registry\\";

class Registry : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_CURRENT_USER, kPath, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                                 KEY_ALL_ACCESS, nullptr, &m_key, nullptr));
    }
    void TearDown() override { EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(m_key)); }

    HKEY m_key = nullptr;

private:
    QsTest::COwnRegistry m_registry;
};

bool EndsInTerminator(const Bytes& text)
{
    const std::size_t size = text.size();
    return size == 0 || (size % 2 == 0 && text[size - 1] == 0 && text[size - 2] == 0);
}

void ExpectRoundTrip(HKEY key, DWORD type, const Bytes& bytes)
{
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(key, L"value", type, bytes));
    const SQueried read = Query(key, L"value");
    EXPECT_EQ(ERROR_SUCCESS, read.status);
    EXPECT_EQ(type, read.type);
    ASSERT_EQ(bytes.size(), read.size);
    EXPECT_EQ(bytes, Bytes(read.data.begin(), read.data.begin() + static_cast<std::ptrdiff_t>(read.size)));
    if (type != REG_SZ || EndsInTerminator(bytes))
    {
        EXPECT_EQ(0xA5, read.data[read.size]) << "written beyond the size";
    }
}

TEST_F(Registry, MissingKeyIsNotOpened)
{
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegOpenKeyW(HKEY_CURRENT_USER, L"Software\\QsStimulationTests\\Missing", &key));
    EXPECT_EQ(nullptr, key);
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegOpenKeyW(m_key, L"Missing", &key));
}

TEST_F(Registry, CreatedKeyOpensWithAndWithoutTrailingBackslashAndInAnyCase)
{
    for (const wchar_t* path : {L"Software\\QsStimulationTests\\Registry", L"Software\\QsStimulationTests\\Registry\\",
                                L"SOFTWARE\\qsstimulationtests\\rEGISTRY\\"})
    {
        HKEY key = nullptr;
        ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyW(HKEY_CURRENT_USER, path, &key));
        EXPECT_EQ(ERROR_SUCCESS, SetBytes(key, L"value", REG_BINARY, {1, 2, 3}));
        EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
        EXPECT_EQ((Bytes{1, 2, 3}), ValueOf(m_key, L"value"));
        EXPECT_EQ(ERROR_SUCCESS, SetBytes(m_key, L"value", REG_BINARY, {9}));
    }
}

TEST_F(Registry, CreatingAKeyMakesThoseAboveIt)
{
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyW(m_key, L"A\\B\\C", &key));
    RegCloseKey(key);
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyW(m_key, L"a\\b", &key));
    HKEY below = nullptr;
    EXPECT_EQ(ERROR_SUCCESS, RegOpenKeyW(key, L"C", &below));
    RegCloseKey(below);
    RegCloseKey(key);
}

TEST_F(Registry, CreatingTellsWhetherTheKeyIsNew)
{
    for (const DWORD expected : {DWORD{REG_CREATED_NEW_KEY}, DWORD{REG_OPENED_EXISTING_KEY}})
    {
        HKEY key = nullptr;
        DWORD disposition = 0xDEADBEEF;
        ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(m_key, L"New", 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS,
                                                 nullptr, &key, &disposition));
        EXPECT_EQ(expected, disposition);
        RegCloseKey(key);
    }
}

TEST_F(Registry, CreatingAnExistingKeyKeepsItsValues)
{
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(m_key, L"value", REG_BINARY, {7}));
    HKEY again = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyW(HKEY_CURRENT_USER, kPath, &again));
    EXPECT_EQ((Bytes{7}), ValueOf(again, L"value"));
    RegCloseKey(again);
}

TEST_F(Registry, TextComesBackByteForByte)
{
    ExpectRoundTrip(m_key, REG_SZ, {'L', 0, 'a', 0, 'm', 0, 'p', 0, 0, 0});
    ExpectRoundTrip(m_key, REG_SZ, {0, 0});                                 // empty text
    ExpectRoundTrip(m_key, REG_SZ, {});                                     // nothing at all
    ExpectRoundTrip(m_key, REG_SZ, {'x', 0});                               // no terminator
    ExpectRoundTrip(m_key, REG_SZ, {'x', 0, 0, 0, 0, 0});                   // two terminators
    ExpectRoundTrip(m_key, REG_SZ, {'x', 0, 0, 0, 'y', 0, 0, 0});           // a terminator inside
    ExpectRoundTrip(m_key, REG_SZ, {0x3D, 0xD8, 0x00, 0xDE, 0, 0});         // a surrogate pair
    ExpectRoundTrip(m_key, REG_SZ, {0x3D, 0xD8, 'y', 0, 0, 0});             // high surrogate alone
    ExpectRoundTrip(m_key, REG_SZ, {0x00, 0xDE, 'y', 0, 0, 0});             // low surrogate alone
    ExpectRoundTrip(m_key, REG_SZ, {0xFF, 0xFE, 'y', 0, 0, 0});             // U+FEFF in front
    ExpectRoundTrip(m_key, REG_SZ, {'y', 0, 0xFF, 0xFE, 0, 0});             // and behind
    ExpectRoundTrip(m_key, REG_SZ, {'"', 0, '\\', 0, '\n', 0, 1, 0, 0, 0}); // what text files escape
}

TEST_F(Registry, ATextWithoutTerminatorGetsOneBehindItsSizeWhereThereIsRoom)
{
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(m_key, L"value", REG_SZ, {'x', 0, 'y', 0}));
    const SQueried roomy = Query(m_key, L"value", 6);
    EXPECT_EQ(ERROR_SUCCESS, roomy.status);
    EXPECT_EQ(4u, roomy.size);
    EXPECT_EQ((Bytes{'x', 0, 'y', 0, 0, 0, 0xA5}), roomy.data);
    const SQueried tight = Query(m_key, L"value", 5);
    EXPECT_EQ(ERROR_SUCCESS, tight.status);
    EXPECT_EQ(4u, tight.size);
    EXPECT_EQ((Bytes{'x', 0, 'y', 0, 0xA5, 0xA5}), tight.data);
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(m_key, L"value", REG_BINARY, {'x', 0}));
    EXPECT_EQ((Bytes{'x', 0, 0xA5, 0xA5, 0xA5}), Query(m_key, L"value", 4).data);
}

TEST_F(Registry, EveryCodeUnitComesBackInsideAText)
{
    Bytes bytes;
    for (unsigned unit = 1; unit <= 0xFFFF; unit += 1)
        if (unit % 33 == 0 || unit >= 0xFF00 || unit < 0x300) // a part, to stay below the query's room
        {
            if (unit >= 0xD800 && unit < 0xE000)
                continue;
            bytes.insert(bytes.end(), {static_cast<std::uint8_t>(unit & 0xFF), static_cast<std::uint8_t>(unit >> 8)});
        }
    bytes.insert(bytes.end(), {0, 0});
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(m_key, L"units", REG_SZ, bytes));
    SQueried read = Query(m_key, L"units", 100000);
    ASSERT_EQ(ERROR_SUCCESS, read.status);
    read.data.resize(read.size);
    EXPECT_EQ(bytes, read.data);
}

TEST_F(Registry, NumbersAndBytesOfEverySizeComeBack)
{
    ExpectRoundTrip(m_key, REG_DWORD, {0, 0, 0, 0});
    ExpectRoundTrip(m_key, REG_DWORD, {0x78, 0x56, 0x34, 0x12});
    ExpectRoundTrip(m_key, REG_DWORD, {0xFF, 0xFF, 0xFF, 0xFF});
    ExpectRoundTrip(m_key, REG_DWORD, {0x00, 0x00, 0x00, 0x80});
    for (const DWORD type : std::initializer_list<DWORD>{0, REG_SZ, REG_BINARY, REG_DWORD, 11, 0xFFFFFFFF})
        for (std::size_t size = 0; size <= 9; ++size)
        {
            SCOPED_TRACE(testing::Message() << "type " << type << ", size " << size);
            Bytes bytes;
            for (std::size_t i = 0; i < size; ++i)
                bytes.push_back(static_cast<std::uint8_t>(0xF0 + 7 * i));
            ExpectRoundTrip(m_key, type, bytes);
        }
}

TEST_F(Registry, ValueNamesIgnoreCaseAndMayBeAnything)
{
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(m_key, L"Device-0", REG_BINARY, {1}));
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(m_key, L"DEVICE-0", REG_BINARY, {2}));
    EXPECT_EQ((Bytes{2}), ValueOf(m_key, L"device-0"));
    for (const wchar_t* name : {L"", L"with \\ and \"",
                                L"\x00DC"
                                L"ber\x4E2D",
                                L" ", L"type"})
    {
        ASSERT_EQ(ERROR_SUCCESS, SetBytes(m_key, name, REG_BINARY, {3, 4}));
        EXPECT_EQ((Bytes{3, 4}), ValueOf(m_key, name));
    }
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(m_key, L"", REG_BINARY, {5}));
    EXPECT_EQ((Bytes{5}), ValueOf(m_key, nullptr)); // no name is the unnamed value
}

TEST_F(Registry, MissingValueIsNotFound)
{
    const SQueried read = Query(m_key, L"missing");
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, read.status);
    EXPECT_EQ(0xA5, read.data[0]);
}

TEST_F(Registry, QueryTellsTheSizeWithoutData)
{
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(m_key, L"value", REG_BINARY, {1, 2, 3, 4, 5}));
    DWORD type = 0xDEADBEEF;
    DWORD size = 0xDEADBEEF;
    EXPECT_EQ(ERROR_SUCCESS, RegQueryValueExW(m_key, L"value", nullptr, &type, nullptr, &size));
    EXPECT_EQ(static_cast<DWORD>(REG_BINARY), type);
    EXPECT_EQ(5u, size);
    EXPECT_EQ(ERROR_SUCCESS, RegQueryValueExW(m_key, L"value", nullptr, nullptr, nullptr, nullptr));
}

TEST_F(Registry, TooSmallABufferTellsTheNeededSizeAndStaysUntouched)
{
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(m_key, L"value", REG_BINARY, {1, 2, 3, 4, 5}));
    const SQueried read = Query(m_key, L"value", 4);
    EXPECT_EQ(ERROR_MORE_DATA, read.status);
    EXPECT_EQ(5u, read.size);
    EXPECT_EQ(Bytes(5, 0xA5), read.data);
    EXPECT_EQ(ERROR_SUCCESS, Query(m_key, L"value", 5).status);
}

TEST_F(Registry, DataWithoutSizeIsAnInvalidParameter)
{
    BYTE data[4] = {0xA5, 0xA5, 0xA5, 0xA5};
    EXPECT_EQ(ERROR_INVALID_PARAMETER, RegQueryValueExW(m_key, L"value", nullptr, nullptr, data, nullptr));
    EXPECT_EQ(0xA5, data[0]);
}

TEST_F(Registry, RootsAreApart)
{
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(m_key, L"value", REG_BINARY, {1}));
    HKEY machine = nullptr;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegOpenKeyW(HKEY_LOCAL_MACHINE, kPath, &machine));
}

TEST_F(Registry, ClosedKeyIsAnInvalidHandle)
{
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyW(HKEY_CURRENT_USER, kPath, &key));
    ASSERT_EQ(ERROR_SUCCESS, RegCloseKey(key));
    EXPECT_EQ(ERROR_INVALID_HANDLE, RegCloseKey(key));
    EXPECT_EQ(ERROR_INVALID_HANDLE, Query(key, L"value").status);
    EXPECT_EQ(ERROR_INVALID_HANDLE, SetBytes(key, L"value", REG_BINARY, {1}));
    EXPECT_EQ(ERROR_INVALID_HANDLE, RegCloseKey(nullptr));
}

TEST_F(Registry, ValuesOutliveTheKeyThatWroteThem)
{
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyW(m_key, L"Sub", &key));
    ASSERT_EQ(ERROR_SUCCESS, SetBytes(key, L"value", REG_BINARY, {8}));
    RegCloseKey(key);
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyW(m_key, L"Sub", &key));
    EXPECT_EQ((Bytes{8}), ValueOf(key, L"value"));
    RegCloseKey(key);
}

} // namespace
