// What the fuzz targets share: laws that end the process when they do not hold, and a file for readers of files.
//
// A target is one file with LLVMFuzzerTestOneInput. With Clang it is a fuzzer (./dev fuzz); everywhere else
// ReplayMain.cpp feeds it its seeds once, as a test.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

#define QS_LAW(condition)                                                                                              \
    do                                                                                                                 \
    {                                                                                                                  \
        if (!(condition))                                                                                              \
            QsFuzz::Broken(#condition, __FILE__, __LINE__);                                                            \
    } while (false)

namespace QsFuzz {

[[noreturn]] inline void Broken(const char* law, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: broken law: %s\n", file, line, law);
    std::abort();
}

inline std::string Text(const std::uint8_t* data, std::size_t size)
{
    return std::string(reinterpret_cast<const char*>(data), size);
}

// A message for people: one line, of printable characters, that is not longer than a screen or two.
inline bool IsOneLine(const std::string& text)
{
    constexpr std::size_t screens = 4096;
    for (const char c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            return false;
    return !text.empty() && text.size() <= screens;
}

// UTF-8 of code points up to U+10FFFF without surrogates, each in its shortest form.
inline bool IsUtf8(const std::string& text)
{
    const std::size_t size = text.size();
    for (std::size_t i = 0; i < size;)
    {
        const auto byte = [&](std::size_t at) -> std::uint32_t { return static_cast<unsigned char>(text[at]); };
        const std::uint32_t lead = byte(i);
        const std::size_t more = lead < 0x80 ? 0 : lead >> 5 == 6 ? 1 : lead >> 4 == 14 ? 2 : lead >> 3 == 30 ? 3 : 4;
        if (more == 4 || i + more >= size)
            return false;
        std::uint32_t code = more == 0 ? lead : lead & (0x3Fu >> more);
        for (std::size_t k = 1; k <= more; ++k)
        {
            if (byte(i + k) >> 6 != 2)
                return false;
            code = code << 6 | (byte(i + k) & 0x3F);
        }
        constexpr std::uint32_t least[] = {0, 0x80, 0x800, 0x10000};
        if (code < least[more] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
            return false;
        i += more + 1;
    }
    return true;
}

// A folder in the system's folder of temporary files, removed when the program ends.
class CScratchFolder
{
public:
    CScratchFolder()
        : m_path(std::filesystem::temp_directory_path() / ("qs-fuzz-" + std::to_string(std::random_device{}())))
    {
        std::filesystem::create_directories(m_path);
    }
    ~CScratchFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    CScratchFolder(const CScratchFolder&) = delete;
    CScratchFolder& operator=(const CScratchFolder&) = delete;

    const std::filesystem::path& Path() const { return m_path; }

    // The file of that name, with these bytes.
    std::string Write(const char* name, const std::string& bytes) const
    {
        const std::filesystem::path file = m_path / name;
        std::ofstream stream(file, std::ios::binary);
        stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!stream.flush())
            Broken("the scratch file can be written", __FILE__, __LINE__);
        return file.u8string();
    }

private:
    std::filesystem::path m_path;
};

inline std::string BytesOf(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

} // namespace QsFuzz
