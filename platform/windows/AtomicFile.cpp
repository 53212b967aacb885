#include "platform/AtomicFile.h"

#include "platform/windows/FilePaths.h"
#include "platform/windows/SystemText.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <io.h>

namespace QsPlatform {

namespace {

std::atomic<void (*)(const char*)> s_hook{nullptr};

void Step(const char* name)
{
    if (const auto hook = s_hook.load())
        hook(name);
}

// A reader, a virus scanner or the search index may have the file open so that it cannot be replaced; they let go soon.
// Whoever replaces it at the same time does, too. For all of them the system has the same two errors that it has for
// what we may not do, so that one takes as long.
template <class Attempt>
DWORD WhileInUse(Attempt attempt)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    for (;;)
    {
        const DWORD failure = attempt();
        if ((failure != ERROR_SHARING_VIOLATION && failure != ERROR_ACCESS_DENIED) ||
            std::chrono::steady_clock::now() >= end)
            return failure;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

DWORD ErrorUnless(BOOL done)
{
    return done ? static_cast<DWORD>(ERROR_SUCCESS) : GetLastError();
}

bool IsMissing(DWORD failure)
{
    return failure == ERROR_FILE_NOT_FOUND || failure == ERROR_PATH_NOT_FOUND;
}

bool IsTaken(DWORD failure)
{
    return failure == ERROR_ALREADY_EXISTS || failure == ERROR_FILE_EXISTS;
}

// -------------------------------------------------------------------------------------------------- permissions

using Permissions = std::vector<unsigned char>; // as the system has them in memory; none where there are none

Permissions PermissionsOf(const std::wstring& path)
{
    Permissions permissions;
    DWORD size = 0;
    while (!GetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, permissions.data(),
                             static_cast<DWORD>(permissions.size()), &size))
    {
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER || size <= permissions.size())
            return {};
        permissions.resize(size);
    }
    return permissions;
}

// ---------------------------------------------------------------------------------------------- temporary files

// Temporary files are named .<name>.<process>-<number>.tmp. Nobody can remove one while its writer lives, since the
// writer has it open and does not share that; what a killed process left can be removed.
std::wstring TemporaryPrefix(const std::wstring& file)
{
    constexpr std::size_t longest = 200; // names of files end at 255 characters
    return L"." + file.substr(FolderOf(file).size(), longest) + L".";
}

const std::wstring temporarySuffix = L".tmp";

bool IsTemporary(const std::wstring& name, const std::wstring& prefix)
{
    return name.size() > prefix.size() + temporarySuffix.size() && name.compare(0, prefix.size(), prefix) == 0 &&
           name.compare(name.size() - temporarySuffix.size(), temporarySuffix.size(), temporarySuffix) == 0 &&
           name.find_first_not_of(L"0123456789-", prefix.size()) == name.size() - temporarySuffix.size();
}

void RemoveLeftBehind(const std::wstring& file)
{
    const std::wstring folder = FolderOf(file), prefix = TemporaryPrefix(file);
    WIN32_FIND_DATAW found{};
    const HANDLE search = FindFirstFileW((folder + prefix + L"*" + temporarySuffix).c_str(), &found);
    if (search == INVALID_HANDLE_VALUE)
        return;
    do
        if (IsTemporary(found.cFileName, prefix))
            DeleteFileW((folder + found.cFileName).c_str());
    while (FindNextFileW(search, &found));
    FindClose(search);
}

// A temporary file; gone with the object unless it has been given its name.
class CTemporaryFile
{
public:
    ~CTemporaryFile()
    {
        if (!m_file.IsOpen())
            return;
        m_file.Close();
        if (!m_placed)
            DeleteFileW(m_path.c_str());
    }
    CTemporaryFile() = default;
    CTemporaryFile(const CTemporaryFile&) = delete;
    CTemporaryFile& operator=(const CTemporaryFile&) = delete;

    // 0 or the system's error, as the others.
    DWORD Create(const std::wstring& target, DWORD attributes)
    {
        static std::atomic<unsigned> s_number{0};
        constexpr int mostTries = 1000;
        for (int i = 0; i < mostTries; ++i)
        {
            m_path = FolderOf(target) + TemporaryPrefix(target) + std::to_wstring(GetCurrentProcessId()) + L"-" +
                     std::to_wstring(++s_number) + temporarySuffix;
            // Readers are let in: when it has its name they may come before it is closed.
            m_file.Take(CreateFileW(m_path.c_str(), GENERIC_WRITE | DELETE, FILE_SHARE_READ, nullptr, CREATE_NEW,
                                    attributes, nullptr));
            const DWORD failure = ErrorUnless(m_file.IsOpen());
            if (failure == ERROR_SUCCESS)
            {
                Step("created");
                Step("locked");
            }
            if (!IsTaken(failure))
                return failure;
        }
        return ERROR_FILE_EXISTS;
    }

    // Those of the folder hold for a file that is made in it. Only where the old file has others must they be given,
    // since not every file system and not every network folder lets us.
    DWORD Permit(const Permissions& wanted) const
    {
        if (wanted.empty() || wanted == PermissionsOf(m_path))
            return ERROR_SUCCESS;
        Permissions copy = wanted;
        return ErrorUnless(SetFileSecurityW(m_path.c_str(), DACL_SECURITY_INFORMATION, copy.data()));
    }

    DWORD Write(const char* bytes, std::size_t count) const
    {
        constexpr std::size_t mostAtOnce = std::size_t{1} << 16;
        while (count > 0)
        {
            DWORD written = 0;
            if (!WriteFile(m_file.Get(), bytes, static_cast<DWORD>(std::min(count, mostAtOnce)), &written, nullptr))
                return GetLastError();
            if (written == 0)
                return ERROR_DISK_FULL;
            bytes += written;
            count -= written;
            Step("wrote");
        }
        return ERROR_SUCCESS;
    }

    DWORD Flush(EFlush flush) const
    {
        if (flush == EFlush::ToDisk && !FlushFileBuffers(m_file.Get()))
            return GetLastError();
        Step("flushed");
        return ERROR_SUCCESS;
    }

    // By its handle, since between closing it and giving it its name somebody could take it for one left behind.
    DWORD Place(const std::wstring& target)
    {
        const std::size_t length = target.size() * sizeof(wchar_t);
        std::vector<unsigned char> memory(sizeof(FILE_RENAME_INFO) + length);
        auto* const rename = reinterpret_cast<FILE_RENAME_INFO*>(memory.data());
        rename->ReplaceIfExists = TRUE;
        rename->FileNameLength = static_cast<DWORD>(length);
        std::memcpy(rename->FileName, target.c_str(), length);
        const DWORD failure = WhileInUse(
            [&]
            {
                return ErrorUnless(SetFileInformationByHandle(m_file.Get(), FileRenameInfo, rename,
                                                              static_cast<DWORD>(memory.size())));
            });
        if (failure != ERROR_SUCCESS)
            return failure;
        m_placed = true;
        Step("renamed");
        return ERROR_SUCCESS;
    }

    // The system's journal up to here, the new name with it.
    DWORD FlushName() const
    {
        if (!FlushFileBuffers(m_file.Get()))
            return GetLastError();
        Step("flushed folder");
        return ERROR_SUCCESS;
    }

private:
    std::wstring m_path;
    CHandle m_file;
    bool m_placed = false;
};

// Why a file that is there may not be written; the folder alone would let it be replaced.
DWORD RefusalOf(const std::wstring& target, DWORD attributes)
{
    if ((attributes & FILE_ATTRIBUTE_READONLY) != 0)
        return ERROR_ACCESS_DENIED;
    return WhileInUse(
        [&]
        {
            constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
            const CHandle file(
                CreateFileW(target.c_str(), GENERIC_WRITE, shareAll, nullptr, OPEN_EXISTING, 0, nullptr));
            const DWORD failure = ErrorUnless(file.IsOpen());
            // Somebody else's use is told after our right has been looked at; a file that is gone is no refusal.
            return failure == ERROR_SHARING_VIOLATION || IsMissing(failure) ? static_cast<DWORD>(ERROR_SUCCESS)
                                                                            : failure;
        });
}

} // namespace

void OnFileReplacementStep(void (*hook)(const char* step))
{
    s_hook.store(hook);
}

bool ReplaceFileContents(const std::string& path, const void* bytes, std::size_t count, EFlush flush,
                         std::string& error)
{
    const auto fail = [&](const std::string& reason)
    {
        error = path + ": cannot be written: " + reason;
        return false;
    };
    if (!EndsInFileName(path))
        return fail("expected the path of a file");
    const std::wstring target = BehindLinks(SystemPath(path));
    if (target.compare(0, 4, L"\\\\.\\") == 0)
        return fail("expected a file, found something else");
    const DWORD attributes = GetFileAttributesW(target.c_str());
    const bool exists = attributes != INVALID_FILE_ATTRIBUTES;
    if (!exists && GetLastError() != ERROR_FILE_NOT_FOUND)
        return fail(ReasonOf(GetLastError()));
    if (exists && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        return fail("expected a file, found a folder");
    DWORD failure = exists ? RefusalOf(target, attributes) : ERROR_SUCCESS;
    if (failure != ERROR_SUCCESS)
        return fail(ReasonOf(failure));

    RemoveLeftBehind(target);
    CTemporaryFile temporary;
    constexpr DWORD kept = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE |
                           FILE_ATTRIBUTE_NOT_CONTENT_INDEXED | FILE_ATTRIBUTE_ENCRYPTED;
    const DWORD keptHere = exists ? attributes & kept : 0;
    failure = temporary.Create(target, keptHere != 0 ? keptHere : static_cast<DWORD>(FILE_ATTRIBUTE_NORMAL));
    if (failure == ERROR_SUCCESS && exists)
    {
        failure = temporary.Permit(PermissionsOf(target));
        Step("permitted");
    }
    if (failure == ERROR_SUCCESS)
        failure = temporary.Write(static_cast<const char*>(bytes), count);
    if (failure == ERROR_SUCCESS)
        failure = temporary.Flush(flush);
    if (failure == ERROR_SUCCESS)
        failure = temporary.Place(target);
    if (failure == ERROR_SUCCESS && flush == EFlush::ToDisk)
        failure = temporary.FlushName();
    return failure == ERROR_SUCCESS || fail(ReasonOf(failure));
}

std::FILE* OpenToRead(const std::string& path)
{
    const std::wstring file = SystemPath(path);
    CHandle opened;
    constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    WhileInUse(
        [&]
        {
            opened.Take(CreateFileW(file.c_str(), GENERIC_READ, shareAll, nullptr, OPEN_EXISTING, 0, nullptr));
            const DWORD failure = ErrorUnless(opened.IsOpen());
            return failure == ERROR_SHARING_VIOLATION ? failure : static_cast<DWORD>(ERROR_SUCCESS); // no use to wait
        });
    if (!opened.IsOpen())
        return nullptr;
    const int number = _open_osfhandle(reinterpret_cast<std::intptr_t>(opened.Get()), _O_RDONLY | _O_BINARY);
    if (number == -1)
        return nullptr;
    opened.Release(); // the number's from here on
    std::FILE* const stream = _fdopen(number, "rb");
    if (stream == nullptr)
        _close(number);
    return stream;
}

bool KeepFileAside(const std::string& path, const std::string& suffix, std::string& kept, std::string& error)
{
    const std::wstring named = SystemPath(path);
    const std::wstring file = BehindLinks(named);
    const std::string plain = file == named ? path : PlainPath(file);
    constexpr int mostKept = 10000;
    for (int n = 1; n < mostKept; ++n)
    {
        const std::string aside = plain + suffix + (n > 1 ? std::to_string(n) : std::string());
        const std::wstring second = SystemPath(aside);
        DWORD failure = WhileInUse([&] { return ErrorUnless(CreateHardLinkW(second.c_str(), file.c_str(), nullptr)); });
        if (IsTaken(failure))
            continue;
        // A file system without second names, or a file that we may not give one.
        if (failure != ERROR_SUCCESS && !IsMissing(failure))
            failure = WhileInUse([&] { return ErrorUnless(MoveFileExW(file.c_str(), second.c_str(), 0)); });
        if (IsTaken(failure))
            continue;
        if (failure == ERROR_SUCCESS)
            kept = aside;
        else
            error = path + ": cannot be kept aside: " + ReasonOf(failure);
        return failure == ERROR_SUCCESS;
    }
    error = path + ": cannot be kept aside: expected fewer than " + std::to_string(mostKept) + " files kept already";
    return false;
}

} // namespace QsPlatform
