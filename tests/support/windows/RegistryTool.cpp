#include "tests/support/windows/RegistryTool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <ostream>

namespace QsTest {

namespace {

bool Exists(HKEY root, const std::wstring& path)
{
    HKEY key = nullptr;
    if (RegOpenKeyW(root, path.c_str(), &key) != ERROR_SUCCESS)
        return false;
    RegCloseKey(key);
    return true;
}

std::wstring Wide(const std::string& utf8)
{
    return std::filesystem::u8path(utf8).wstring();
}

} // namespace

void PrintTo(const SToolValue& value, std::ostream* stream)
{
    *stream << value.name << " = " << value.data << " (" << value.type << ")";
}

std::optional<std::vector<SToolValue>> AskRegistryTool(HKEY root, const std::string& key)
{
    const std::string command = "reg query \"" + QsPlatform::RegistryPlace(root) + "\\" + key + "\" 2>nul";
    std::FILE* const output = _popen(command.c_str(), "rt");
    if (output == nullptr)
        return std::nullopt;
    std::string text;
    for (int c = std::fgetc(output); c != EOF; c = std::fgetc(output))
        text += static_cast<char>(c);
    if (_pclose(output) != 0)
        return std::nullopt;

    // A line with a value begins with four spaces, and has as many before the type and before the data.
    const std::string gap = "    ";
    std::vector<SToolValue> values;
    for (std::size_t begin = 0; begin < text.size();)
    {
        const std::size_t end = std::min(text.find_first_of("\r\n", begin), text.size());
        const std::string line = text.substr(begin, end - begin);
        begin = end + 1;
        const std::size_t type = line.find(gap + "REG_", gap.size());
        if (line.compare(0, gap.size(), gap) != 0 || type == std::string::npos)
            continue;
        const std::size_t data = std::min(line.find(gap, type + gap.size()), line.size());
        values.push_back({line.substr(gap.size(), type - gap.size()),
                          line.substr(type + gap.size(), data - type - gap.size()),
                          data < line.size() ? line.substr(data + gap.size()) : std::string()});
    }
    return values;
}

CBorrowedKey::CBorrowedKey(HKEY root, const std::wstring& path) : m_root(root), m_path(path)
{
    std::string error;
    EXPECT_TRUE(QsPlatform::ListRegistry(root, path.c_str(), m_values, error)) << error;
    for (std::wstring key = path; !key.empty() && !Exists(root, key);)
    {
        m_missing.push_back(key);
        key.resize(key.find_last_of(L'\\') == std::wstring::npos ? 0 : key.find_last_of(L'\\'));
    }
    HKEY made = nullptr;
    m_mayBeMade = RegCreateKeyW(root, path.c_str(), &made) == ERROR_SUCCESS;
    RegCloseKey(made);
    Remove();
}

void CBorrowedKey::Remove() const
{
    RegDeleteTreeW(m_root, m_path.c_str());
    for (const std::wstring& key : m_missing)
        RegDeleteKeyW(m_root, key.c_str()); // one that has got other keys stays
}

CBorrowedKey::~CBorrowedKey()
{
    Remove();
    for (const QsPlatform::SRegistryValue& value : m_values)
    {
        HKEY key = nullptr;
        EXPECT_EQ(ERROR_SUCCESS, RegCreateKeyW(m_root, Wide(value.key).c_str(), &key));
        EXPECT_EQ(ERROR_SUCCESS, RegSetValueExW(key, Wide(value.name).c_str(), 0, value.type, value.data.data(),
                                                static_cast<DWORD>(value.data.size())));
        RegCloseKey(key);
    }
}

} // namespace QsTest
