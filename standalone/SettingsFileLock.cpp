// The lock of a settings file: that of its folder.
#include "host/QsSystem.h"
#include "platform/FileLock.h"

namespace {

constexpr unsigned longestMs = 5000; // many saves of a large file

} // namespace

struct CQsSettingsFileLock::SLock
{
    std::string error;
    QsPlatform::CFolderLock folder;

    explicit SLock(const std::string& file) : folder(file, longestMs, error) {}
};

CQsSettingsFileLock::CQsSettingsFileLock(const wchar_t* path) : m_lock(new SLock(CQsStringW(path).ToUtf8()))
{
    if (!IsHeld())
        DiagOutputExW(L"Settings", __LINE__, L"%hs", m_lock->error.c_str());
}

CQsSettingsFileLock::~CQsSettingsFileLock() = default;

bool CQsSettingsFileLock::IsHeld() const
{
    return m_lock->folder.IsHeld();
}
