// The lock is a pipe that nobody connects to. Only one process can have a pipe of a name that admits one instance, the
// system takes it back with the handle, in whatever thread it is closed and however the process ends, and nothing of it
// is ever in the folder. A mutex of the system would belong to the thread that took it; a semaphore would stay taken
// after a crash as long as somebody waits for it; a file would stay after a power cut. The name is the folder's own
// number on its volume, so that every path to the folder leads to the same lock, for all users of the machine.
// Other machines that reach the folder over a network are not excluded.
#include "platform/FileLock.h"

#include "platform/windows/FilePaths.h"
#include "platform/windows/SystemText.h"

#include <chrono>
#include <thread>

namespace QsPlatform {

namespace {

std::wstring PipeName(const SFileIdentity& folder)
{
    constexpr wchar_t digits[] = L"0123456789abcdef";
    std::wstring name = L"\\\\.\\pipe\\QsStimulation.FolderLock.";
    const auto append = [&](const void* bytes, std::size_t count)
    {
        for (const auto* byte = static_cast<const unsigned char*>(bytes); count > 0; ++byte, --count)
            name += {digits[*byte >> 4], digits[*byte & 15]};
    };
    append(&folder.id.VolumeSerialNumber, sizeof folder.id.VolumeSerialNumber);
    name += L'.';
    append(&folder.id.FileId, sizeof folder.id.FileId);
    return name;
}

// 0, or the system's error; ERROR_PIPE_BUSY when another one had it all the time.
DWORD Lock(const std::wstring& name, unsigned longestMs, HANDLE& pipe)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(longestMs);
    for (;;)
    {
        pipe = CreateNamedPipeW(name.c_str(), PIPE_ACCESS_INBOUND | FILE_FLAG_FIRST_PIPE_INSTANCE,
                                PIPE_TYPE_BYTE | PIPE_REJECT_REMOTE_CLIENTS, 1, 0, 0, 0, nullptr);
        if (pipe != INVALID_HANDLE_VALUE)
            return ERROR_SUCCESS;
        const DWORD failure = GetLastError();
        if (failure != ERROR_ACCESS_DENIED && failure != ERROR_PIPE_BUSY) // both say that there is one
            return failure;
        if (std::chrono::steady_clock::now() >= end)
            return ERROR_PIPE_BUSY;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace

CFolderLock::CFolderLock(const std::string& file, unsigned longestMs, std::string& error)
{
    const auto fail = [&](const std::string& reason) { error = file + ": cannot be locked: " + reason; };
    if (!EndsInFileName(file))
    {
        fail("expected the path of a file");
        return;
    }
    // Where the file is written: whoever comes over a link excludes who comes without.
    const std::wstring folder = FolderOf(BehindLinks(SystemPath(file)));
    const DWORD attributes = GetFileAttributesW(folder.c_str());
    DWORD failure = attributes == INVALID_FILE_ATTRIBUTES          ? GetLastError()
                    : (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0 ? static_cast<DWORD>(ERROR_DIRECTORY)
                                                                   : static_cast<DWORD>(ERROR_SUCCESS);
    SFileIdentity identity;
    HANDLE pipe = INVALID_HANDLE_VALUE;
    if (failure == ERROR_SUCCESS && IdentityOf(folder, identity, failure))
        failure = Lock(PipeName(identity), longestMs, pipe);
    if (pipe != INVALID_HANDLE_VALUE)
        m_handle = reinterpret_cast<long long>(pipe);
    else
        fail("its folder: " + (failure == ERROR_PIPE_BUSY
                                   ? "expected free within " + std::to_string(longestMs) + " ms, found in use"
                                   : ReasonOf(failure)));
}

CFolderLock::~CFolderLock()
{
    if (IsHeld())
        CloseHandle(reinterpret_cast<HANDLE>(m_handle));
}

} // namespace QsPlatform
