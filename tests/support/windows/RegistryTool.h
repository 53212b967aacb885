// The user's and the machine's real registry, and what the system's own tool finds in it.
#pragma once

#include "platform/RegistryControl.h"

#include <optional>
#include <string>
#include <vector>

namespace QsTest {

// A line of the tool: what it prints for the name, the type and the data of a value.
struct SToolValue
{
    std::string name;
    std::string type;
    std::string data;
    bool operator==(const SToolValue& other) const
    {
        return name == other.name && type == other.type && data == other.data;
    }
};
void PrintTo(const SToolValue& value, std::ostream* stream);

// The values of one key of a real root as the tool prints them; none when it finds no such key.
std::optional<std::vector<SToolValue>> AskRegistryTool(HKEY root, const std::string& key);

// A key of a real root that is missing during the scope, and afterwards as it was before.
class CBorrowedKey
{
public:
    CBorrowedKey(HKEY root, const std::wstring& path);
    ~CBorrowedKey();
    CBorrowedKey(const CBorrowedKey&) = delete;
    CBorrowedKey& operator=(const CBorrowedKey&) = delete;

    // False where this user may not write below the root.
    bool MayBeMade() const { return m_mayBeMade; }

private:
    void Remove() const;

    const HKEY m_root;
    const std::wstring m_path;
    std::vector<QsPlatform::SRegistryValue> m_values; // what was there
    std::vector<std::wstring> m_missing;              // keys that were not, the deepest first
    bool m_mayBeMade = false;
};

} // namespace QsTest
