// Text on its way to the system and back: UTF-8 with us, UTF-16 there.
#pragma once

#include "platform/Win32.h"

#include <string>

namespace QsPlatform {

// What is no text becomes U+FFFD.
std::wstring ToWide(const std::string& utf8);
std::string ToUtf8(const std::wstring& wide);

// The path as the system's calls take it: absolute, and in the form without limit when it is too long for the usual
// one.
std::wstring SystemPath(const std::string& path);
// The folder that holds the file, of a path of that kind.
std::wstring FolderOf(const std::wstring& systemPath);
// The path in the usual form however long it is.
std::wstring UsualForm(const std::wstring& systemPath);
// The path as our own code writes it: UTF-8, with slashes.
std::string PlainPath(const std::wstring& systemPath);

// What the system's error means: one line, in English whatever the user's language.
std::string ReasonOf(DWORD code);

// Closes it.
class CHandle
{
public:
    explicit CHandle(HANDLE handle = INVALID_HANDLE_VALUE) : m_handle(handle) {}
    ~CHandle() { Close(); }
    CHandle(const CHandle&) = delete;
    CHandle& operator=(const CHandle&) = delete;

    HANDLE Get() const { return m_handle; }
    bool IsOpen() const { return m_handle != INVALID_HANDLE_VALUE && m_handle != nullptr; }
    void Close();
    void Take(HANDLE handle);
    void Release() { m_handle = INVALID_HANDLE_VALUE; } // it is somebody else's to close

private:
    HANDLE m_handle;
};

} // namespace QsPlatform
