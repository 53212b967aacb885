#include "platform/FileLock.h"

#include "platform/posix/FilePaths.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>

namespace {

// 0, or the system's error; EWOULDBLOCK when another one had it all the time.
int Lock(int folder, unsigned longestMs)
{
    // The system's call that waits does so for ever, also for a process that is stopped.
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(longestMs);
    while (flock(folder, LOCK_EX | LOCK_NB) != 0)
    {
        const int failure = errno;
        if ((failure != EWOULDBLOCK && failure != EINTR) || std::chrono::steady_clock::now() >= end)
            return failure;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return 0;
}

} // namespace

QsPlatform::CFolderLock::CFolderLock(const std::string& file, unsigned longestMs, std::string& error)
{
    const auto fail = [&](const std::string& reason) { error = file + ": cannot be locked: " + reason; };
    // Where the file is written: whoever comes over a link excludes who comes without.
    const std::filesystem::path real = BehindLinks(std::filesystem::u8path(file));
    if (!real.has_filename())
    {
        fail("expected the path of a file");
        return;
    }
    const int folder = open(FolderOf(real).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int failure = folder < 0 ? errno : Lock(folder, longestMs);
    if (failure == 0)
    {
        m_handle = folder;
        return;
    }
    if (folder >= 0)
        close(folder);
    fail("its folder: " + (failure == EWOULDBLOCK
                               ? "expected free within " + std::to_string(longestMs) + " ms, found in use"
                               : std::generic_category().message(failure)));
}

QsPlatform::CFolderLock::~CFolderLock()
{
    if (!IsHeld())
        return;
    // Closing alone would leave the lock with a child that was made meanwhile and has the descriptor, too.
    flock(static_cast<int>(m_handle), LOCK_UN);
    close(static_cast<int>(m_handle));
}
