#include "platform/windows/SystemText.h"

#include <algorithm>

namespace QsPlatform {

namespace {

constexpr wchar_t anyLength[] = L"\\\\?\\";
constexpr wchar_t anyLengthShare[] = L"\\\\?\\UNC\\";

bool BeginsWith(const std::wstring& text, const wchar_t* beginning)
{
    return text.compare(0, std::wstring(beginning).size(), beginning) == 0;
}

} // namespace

std::wstring ToWide(const std::string& utf8)
{
    const int size = static_cast<int>(utf8.size());
    const int length = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, wide.data(), length);
    return wide;
}

std::string ToUtf8(const std::wstring& wide)
{
    const int length = static_cast<int>(wide.size());
    const int size = WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, utf8.data(), size, nullptr, nullptr);
    return utf8;
}

std::wstring SystemPath(const std::string& path)
{
    const std::wstring wide = ToWide(path);
    std::wstring full;
    DWORD room = MAX_PATH;
    for (;;)
    {
        full.resize(room);
        const DWORD length = GetFullPathNameW(wide.c_str(), room, full.data(), nullptr);
        if (length == 0)
            return wide;
        if (length < room)
        {
            full.resize(length);
            break;
        }
        room = length; // with its terminator
    }
    // What is put behind such a path must fit as well: names of temporary files, *.
    constexpr std::size_t longestUsual = MAX_PATH - 60;
    const bool hasOwnForm = BeginsWith(full, anyLength) || BeginsWith(full, L"\\\\.\\");
    if (full.size() <= longestUsual || hasOwnForm)
        return full;
    return BeginsWith(full, L"\\\\") ? anyLengthShare + full.substr(2) : anyLength + full;
}

std::wstring FolderOf(const std::wstring& systemPath)
{
    const std::size_t end = systemPath.find_last_of(L'\\');
    return end == std::wstring::npos ? L"." : systemPath.substr(0, end + 1); // "C:" alone would be another folder
}

std::wstring UsualForm(const std::wstring& systemPath)
{
    if (BeginsWith(systemPath, anyLengthShare))
        return L"\\\\" + systemPath.substr(std::wstring(anyLengthShare).size());
    // A path by the number of its volume has no other form.
    const bool hasDrive = BeginsWith(systemPath, anyLength) && systemPath.compare(5, 1, L":") == 0;
    return hasDrive ? systemPath.substr(std::wstring(anyLength).size()) : systemPath;
}

std::string PlainPath(const std::wstring& systemPath)
{
    std::wstring path = UsualForm(systemPath);
    if (!BeginsWith(path, anyLength)) // which has no slashes
        std::replace(path.begin(), path.end(), L'\\', L'/');
    return ToUtf8(path);
}

std::string ReasonOf(DWORD code)
{
    constexpr DWORD longest = 1024;
    wchar_t text[longest];
    constexpr DWORD flags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK;
    DWORD length =
        FormatMessageW(flags, nullptr, code, MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), text, longest, nullptr);
    if (length == 0) // a system without English texts
        length = FormatMessageW(flags, nullptr, code, 0, text, longest, nullptr);
    std::wstring reason(text, length);
    reason.erase(reason.find_last_not_of(L" .\r\n\t") + 1);
    return reason.empty() ? "error " + std::to_string(code) : ToUtf8(reason);
}

void CHandle::Close()
{
    if (IsOpen())
        CloseHandle(m_handle);
    m_handle = INVALID_HANDLE_VALUE;
}

void CHandle::Take(HANDLE handle)
{
    Close();
    m_handle = handle;
}

} // namespace QsPlatform
