// A folder that is gone when the test is over. Paths are UTF-8, with slashes on every system.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>

namespace QsTest {

class CTemporaryFolder
{
public:
    CTemporaryFolder()
    {
        const std::filesystem::path base = std::filesystem::temp_directory_path();
        std::random_device random;
        constexpr int mostTries = 100;
        for (int i = 0; i < mostTries; ++i)
        {
            const std::filesystem::path folder = base / ("qs_test_" + std::to_string(random()));
            if (!std::filesystem::create_directory(folder)) // another one's
                continue;
            std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
            m_path = folder.generic_u8string();
            return;
        }
        throw std::runtime_error("no temporary folder");
    }
    ~CTemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(std::filesystem::u8path(m_path), ignored);
    }
    CTemporaryFolder(const CTemporaryFolder&) = delete;
    CTemporaryFolder& operator=(const CTemporaryFolder&) = delete;

    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

    // Writes the bytes as they are, and returns the file's path.
    std::string Write(const std::string& name, const std::string& contents) const
    {
        std::ofstream stream(std::filesystem::u8path(File(name)), std::ios::binary);
        stream.write(contents.data(), static_cast<std::streamsize>(contents.size()));
        if (!stream.flush())
            throw std::runtime_error("cannot write " + File(name));
        return File(name);
    }

private:
    std::string m_path;
};

// The bytes of the file; none when it cannot be read.
inline std::string ContentsOf(const std::string& path)
{
    std::ifstream stream(std::filesystem::u8path(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

} // namespace QsTest
