// A folder that is gone when the test is over.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

class CTemporaryFolder
{
public:
    CTemporaryFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "qs_core_XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("no temporary folder");
        m_path = name;
    }
    ~CTemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    CTemporaryFolder(const CTemporaryFolder&) = delete;
    CTemporaryFolder& operator=(const CTemporaryFolder&) = delete;

    std::string File(const std::string& name) const { return m_path + "/" + name; }
    const std::string& Path() const { return m_path; }

    std::string Write(const std::string& name, const std::string& contents) const
    {
        std::ofstream stream(File(name), std::ios::binary);
        stream.write(contents.data(), static_cast<std::streamsize>(contents.size()));
        if (!stream.flush())
            throw std::runtime_error("cannot write " + File(name));
        return File(name);
    }

private:
    std::string m_path;
};

inline std::string ContentsOf(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}
