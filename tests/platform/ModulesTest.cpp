// Files of code: those that are loaded, and loading them.
#include "platform/ModuleFile.h"
#include "platform/Process.h"
#include "platform/Win32.h"
#include "tests/platform/System.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <cstdint>

namespace fs = std::filesystem;
using QsPlatform::IsModuleFileLoaded;
using QsPlatform::LoadModuleFile;
using QsPlatform::ModuleFileOfAddress;
using QsPlatform::ModuleSymbol;
using QsTest::CTemporaryFolder;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

void* Nothing(void*)
{
    return nullptr;
}

// A module of the test's own, with what it needs beside it: no other test has loaded it.
std::string ModuleIn(const CTemporaryFolder& folder, const std::string& name = "module")
{
    const fs::path original = fs::u8path(QS_TEST_MODULE);
    const std::string copy = folder.File(name + original.extension().u8string());
    fs::create_directories(LongName(copy).parent_path());
    fs::copy_file(original, LongName(copy));
    const fs::path needed = fs::u8path(QS_TEST_NEEDED);
    std::error_code isThere;
    fs::copy_file(needed, LongName(copy).parent_path() / needed.filename(), isThere);
    return copy;
}

class CLoaded
{
public:
    explicit CLoaded(const std::string& path) : m_module(LoadModuleFile(path, m_error))
    {
        EXPECT_NE(nullptr, m_module) << m_error;
    }
    ~CLoaded() { Leave(); }
    CLoaded(const CLoaded&) = delete;
    CLoaded& operator=(const CLoaded&) = delete;

    void Leave()
    {
        if (m_module != nullptr)
            Unload(m_module);
        m_module = nullptr;
    }
    void* Get() const { return m_module; }
    int Number() const
    {
        void* const symbol = ModuleSymbol(m_module, "QsPlatformTestNumber");
        return symbol != nullptr ? reinterpret_cast<int (*)()>(symbol)() : 0;
    }

private:
    std::string m_error;
    void* m_module;
};

// ------------------------------------------------------------------------------------------------------------- files

TEST(ModuleFile, IsLoadedOnceWhateverItsNameIs)
{
    const CTemporaryFolder folder;
    for (const char* const name : {"plain", "J\xC3\xBCrgen \xE4\xB8\xAD\xF0\x9F\x98\x80/with \xC5\x82"})
    {
        const std::string path = ModuleIn(folder, name);
        EXPECT_FALSE(IsModuleFileLoaded(path));
        CLoaded first(path);
        EXPECT_EQ(42, first.Number());
        EXPECT_EQ(nullptr, ModuleSymbol(first.Get(), "NotThere"));
        EXPECT_TRUE(IsModuleFileLoaded(path));
        CLoaded again(path);
        EXPECT_EQ(first.Get(), again.Get());
        EXPECT_TRUE(fs::equivalent(fs::u8path(path),
                                   fs::u8path(ModuleFileOfAddress(ModuleSymbol(first.Get(), "QsPlatformTestNumber")))));
        first.Leave();
        EXPECT_TRUE(IsModuleFileLoaded(path));
        again.Leave();
        EXPECT_FALSE(IsModuleFileLoaded(path));
    }
}

TEST(ModuleFile, MayLieInADeepFolder)
{
    const CTemporaryFolder folder;
    const std::string deep = std::string(100, 'a') + "/" + std::string(100, 'b') + "/" + std::string(100, 'c') + "/";
    fs::create_directory(LongName(folder.File(deep.substr(0, 100))));
    fs::create_directory(LongName(folder.File(deep.substr(0, 201))));
    fs::create_directory(LongName(folder.File(deep.substr(0, 302))));
    const std::string path = ModuleIn(folder, deep + "module");
    {
        CLoaded module(path);
        EXPECT_EQ(42, module.Number());
        EXPECT_TRUE(IsModuleFileLoaded(path));
        EXPECT_EQ(Wide(path), Wide(ModuleFileOfAddress(ModuleSymbol(module.Get(), "QsPlatformTestNumber"))));
    }
    EXPECT_FALSE(IsModuleFileLoaded(path));
    EXPECT_TRUE(fs::remove(LongName(path)));
    EXPECT_TRUE(fs::remove(LongName(path).parent_path() / fs::u8path(QS_TEST_NEEDED).filename()));
    for (const std::size_t length : {302u, 201u, 100u})
        EXPECT_TRUE(fs::remove(LongName(folder.File(deep.substr(0, length)))));
}

TEST(ModuleFile, IsKnownByEveryPathToIt)
{
    const CTemporaryFolder folder;
    const std::string path = ModuleIn(folder);
    const std::string second = folder.File("second" + fs::u8path(path).extension().u8string());
    fs::create_hard_link(fs::u8path(path), fs::u8path(second));
    const std::string copy = ModuleIn(folder, "copy");
    CLoaded module(path);
    EXPECT_TRUE(IsModuleFileLoaded(folder.Path() + "/./" + fs::u8path(path).filename().u8string()));
    EXPECT_TRUE(IsModuleFileLoaded(second));
    EXPECT_FALSE(IsModuleFileLoaded(copy)); // the same content is another file
}

TEST(ModuleFile, ThatIsNoneGetsOneLine)
{
    const CTemporaryFolder folder;
    const std::string damaged = folder.Write("damaged.dll", "not a module\n");
    const std::string whole = ModuleIn(folder);
    const std::string cut = folder.Write("cut.dll", QsTest::ContentsOf(whole).substr(0, 40));
    for (const std::string& path : {damaged, cut, folder.File("missing.dll"), folder.Path()})
    {
        std::string error;
        EXPECT_EQ(nullptr, LoadModuleFile(path, error));
        EXPECT_THAT(error, StartsWith(path + ": "));
        EXPECT_THAT(error, Not(HasSubstr("\n")));
        EXPECT_FALSE(IsModuleFileLoaded(path));
    }
    std::string error;
    EXPECT_EQ(nullptr, LoadModuleFile("", error));
    EXPECT_FALSE(IsModuleFileLoaded(""));
}

TEST(ModuleFile, WithoutWhatItNeedsIsNotLoaded)
{
    const CTemporaryFolder folder;
    const std::string path = ModuleIn(folder);
    ASSERT_TRUE(fs::remove(fs::u8path(folder.Path()) / fs::u8path(QS_TEST_NEEDED).filename()));
    std::string error;
    EXPECT_EQ(nullptr, LoadModuleFile(path, error));
    EXPECT_THAT(error, StartsWith(path + ": "));
    EXPECT_THAT(error, Not(HasSubstr("\n")));
}

TEST(ModuleFile, OfAnAddressIsTheOneThatHoldsIt)
{
    const std::string own = ModuleFileOfAddress(reinterpret_cast<const void*>(&Nothing));
    EXPECT_EQ(Wide(QsPlatform::ProgramFile()), fs::u8path(own).wstring()); // as the system writes it
    const std::string host = ModuleFileOfAddress(reinterpret_cast<const void*>(&LoadModuleFile));
    EXPECT_THAT(host, HasSubstr("qshost."));
    EXPECT_TRUE(IsModuleFileLoaded(host));
    int local = 0;
    EXPECT_EQ("", ModuleFileOfAddress(&local));
    EXPECT_EQ("", ModuleFileOfAddress(nullptr));
}

// ----------------------------------------------------------------------------------------------- GetModuleHandleExW

HMODULE Poison()
{
    return reinterpret_cast<HMODULE>(std::uintptr_t{0x5A5A});
}

std::string HostFile()
{
    return ModuleFileOfAddress(reinterpret_cast<const void*>(&LoadModuleFile));
}

std::string NameOf(const std::string& path)
{
    return fs::u8path(path).filename().u8string();
}

constexpr DWORD kUnchanged = GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;

TEST(GetModuleHandleExW, FindsALoadedModuleByPathAndByBareName)
{
    HMODULE byPath = Poison();
    HMODULE byName = Poison();
    EXPECT_NE(FALSE, GetModuleHandleExW(kUnchanged, Wide(HostFile()).c_str(), &byPath));
    EXPECT_NE(FALSE, GetModuleHandleExW(kUnchanged, Wide(NameOf(HostFile())).c_str(), &byName));
    EXPECT_NE(nullptr, byPath);
    EXPECT_EQ(byPath, byName);
    const CTemporaryFolder folder;
    const std::string path = ModuleIn(folder);
    const CLoaded module(path);
    EXPECT_NE(FALSE, GetModuleHandleExW(kUnchanged, Wide(path).c_str(), &byPath));
    EXPECT_EQ(module.Get(), byPath);
}

TEST(GetModuleHandleExW, FindsAModuleByAnAddressInIt)
{
    HMODULE byAddress = Poison();
    const auto* address = reinterpret_cast<const wchar_t*>(&LoadModuleFile);
    EXPECT_NE(FALSE, GetModuleHandleExW(kUnchanged | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, address, &byAddress));
    HMODULE byPath = Poison();
    EXPECT_NE(FALSE, GetModuleHandleExW(kUnchanged, Wide(HostFile()).c_str(), &byPath));
    EXPECT_EQ(byPath, byAddress);
}

TEST(GetModuleHandleExW, FindsTheProgram)
{
    HMODULE none = Poison();
    HMODULE byName = Poison();
    HMODULE byPath = Poison();
    HMODULE byAddress = Poison();
    const std::string program = QsPlatform::ProgramFile();
    EXPECT_NE(FALSE, GetModuleHandleExW(kUnchanged, nullptr, &none));
    EXPECT_NE(FALSE, GetModuleHandleExW(kUnchanged, Wide(NameOf(program)).c_str(), &byName));
    EXPECT_NE(FALSE, GetModuleHandleExW(kUnchanged, Wide(program).c_str(), &byPath));
    const auto* address = reinterpret_cast<const wchar_t*>(&Nothing);
    EXPECT_NE(FALSE, GetModuleHandleExW(kUnchanged | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, address, &byAddress));
    EXPECT_NE(nullptr, none);
    EXPECT_EQ(none, byName);
    EXPECT_EQ(none, byPath);
    EXPECT_EQ(none, byAddress);
}

TEST(GetModuleHandleExW, AnswersNullForWhatIsNotLoaded)
{
    const CTemporaryFolder folder;
    const std::wstring file = Wide(folder.Write("file", "no module"));
    for (const wchar_t* const name : {L"libnot-there.so", L"/not/there.so", file.c_str(), L"x\xD800"})
    {
        HMODULE module = Poison();
        EXPECT_EQ(FALSE, GetModuleHandleExW(kUnchanged, name, &module));
        EXPECT_EQ(nullptr, module);
    }
    HMODULE module = Poison();
    int local = 0;
    const auto* address = reinterpret_cast<const wchar_t*>(&local);
    EXPECT_EQ(FALSE, GetModuleHandleExW(kUnchanged | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, address, &module));
    EXPECT_EQ(nullptr, module);
    EXPECT_EQ(FALSE, GetModuleHandleExW(kUnchanged, Wide(NameOf(HostFile())).c_str(), nullptr));
}

TEST(GetModuleHandleExW, LeavesTheUseCountAloneWhenAskedTo)
{
    const CTemporaryFolder folder;
    const std::string path = ModuleIn(folder);
    const std::wstring wide = Wide(path);
    HMODULE module = Poison();
    {
        const CLoaded loaded(path);
        for (int i = 0; i < 3; ++i)
            ASSERT_NE(FALSE, GetModuleHandleExW(kUnchanged, wide.c_str(), &module));
        EXPECT_EQ(loaded.Get(), module);
    }
    EXPECT_EQ(FALSE, GetModuleHandleExW(kUnchanged, wide.c_str(), &module));
    {
        const CLoaded loaded(path);
        ASSERT_NE(FALSE, GetModuleHandleExW(0, wide.c_str(), &module)); // one use more
    }
    EXPECT_NE(FALSE, GetModuleHandleExW(kUnchanged, wide.c_str(), &module));
    Unload(module);
    EXPECT_EQ(FALSE, GetModuleHandleExW(kUnchanged, wide.c_str(), &module));
}

} // namespace
