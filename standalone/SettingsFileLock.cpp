// The lock of a settings file: that of its folder.
#include "host/QsSystem.h"
#include "platform/FileLock.h"

namespace {

constexpr unsigned longestMs = 5000; // many saves of a large file

} // namespace

struct CQsSettingsFileLock::SLock
{
    QsPlatform::CFolderLock folder;
};

CQsSettingsFileLock::CQsSettingsFileLock(const wchar_t* path)
    : m_lock(new SLock{{CQsStringW(path).ToUtf8(), longestMs}})
{
    if (!IsHeld())
    {
        DiagOutputExW(L"Settings", __LINE__,
                      L"%s: cannot be changed: expected its folder free within %u ms, found it "
                      L"missing, closed to us or in use",
                      path != nullptr ? path : L"", longestMs);
    }
}

CQsSettingsFileLock::~CQsSettingsFileLock() = default;

bool CQsSettingsFileLock::IsHeld() const
{
    return m_lock->folder.IsHeld();
}
