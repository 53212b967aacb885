#include "platform/windows/FilePaths.h"

#include "platform/windows/SystemText.h"

#include <QFileInfo>

#include <cstring>

namespace QsPlatform {

namespace {

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Nothing of the content: neither a right to it nor a reader in its way is asked for.
HANDLE OpenForItsNature(const std::wstring& path, DWORD flags)
{
    return CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, shareAll, nullptr, OPEN_EXISTING,
                       FILE_FLAG_BACKUP_SEMANTICS | flags, nullptr);
}

// Also what is kept elsewhere until somebody reads it has such a mark; that is no link.
bool IsLink(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0)
        return false;
    const CHandle link(OpenForItsNature(path, FILE_FLAG_OPEN_REPARSE_POINT));
    FILE_ATTRIBUTE_TAG_INFO mark{};
    return link.IsOpen() && GetFileInformationByHandleEx(link.Get(), FileAttributeTagInfo, &mark, sizeof mark) &&
           (mark.ReparseTag == IO_REPARSE_TAG_SYMLINK || mark.ReparseTag == IO_REPARSE_TAG_MOUNT_POINT);
}

// Empty when the system does not tell.
std::wstring NameOf(HANDLE file)
{
    std::wstring name(MAX_PATH, L'\0');
    for (;;)
    {
        const DWORD room = static_cast<DWORD>(name.size());
        const DWORD length = GetFinalPathNameByHandleW(file, name.data(), room, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
        name.resize(length);
        if (length < room) // without its terminator; else with it
            return name;
    }
}

} // namespace

bool EndsInFileName(const std::string& path)
{
    if (path.empty() || path.back() == '/' || path.back() == '\\' || path.back() == ':')
        return false;
    const std::wstring full = SystemPath(path);
    return full.find(L':', full.find_last_of(L'\\') + 1) == std::wstring::npos;
}

std::wstring BehindLinks(std::wstring systemPath)
{
    constexpr int mostLinks = 63; // as the system's own limit
    for (int i = 0; i < mostLinks && IsLink(systemPath); ++i)
    {
        const CHandle there(OpenForItsNature(systemPath, 0));
        if (there.IsOpen())
        {
            const std::wstring name = NameOf(there.Get());
            return name.empty() ? systemPath : name;
        }
        const QString target = QFileInfo(QString::fromStdWString(systemPath)).symLinkTarget();
        if (target.isEmpty())
            break;
        systemPath = SystemPath(target.toStdString());
    }
    return systemPath;
}

bool SFileIdentity::operator==(const SFileIdentity& other) const
{
    return id.VolumeSerialNumber == other.id.VolumeSerialNumber &&
           std::memcmp(&id.FileId, &other.id.FileId, sizeof id.FileId) == 0;
}

bool IdentityOf(const std::wstring& systemPath, SFileIdentity& identity, DWORD& failure)
{
    const CHandle file(OpenForItsNature(systemPath, 0));
    if (file.IsOpen() && GetFileInformationByHandleEx(file.Get(), FileIdInfo, &identity.id, sizeof identity.id))
        return true;
    failure = GetLastError();
    identity = {};
    BY_HANDLE_FILE_INFORMATION old{};
    if (!file.IsOpen() || !GetFileInformationByHandle(file.Get(), &old)) // a file system with short numbers only
        return false;
    identity.id.VolumeSerialNumber = old.dwVolumeSerialNumber;
    const DWORD number[] = {old.nFileIndexLow, old.nFileIndexHigh};
    std::memcpy(&identity.id.FileId, number, sizeof number);
    return true;
}

} // namespace QsPlatform
