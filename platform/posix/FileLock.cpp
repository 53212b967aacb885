#include "platform/FileLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>

QsPlatform::CFolderLock::CFolderLock(const std::string& file, unsigned longestMs)
{
    std::error_code error;
    const std::filesystem::path real = std::filesystem::weakly_canonical(file, error);
    if (error)
        return;
    const int folder = open(real.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0)
        return;
    // The system's call waits for ever, also for a process that is stopped.
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(longestMs);
    while (flock(folder, LOCK_EX | LOCK_NB) != 0)
    {
        if ((errno != EWOULDBLOCK && errno != EINTR) || std::chrono::steady_clock::now() >= end)
        {
            close(folder);
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    m_handle = folder;
}

QsPlatform::CFolderLock::~CFolderLock()
{
    if (IsHeld())
        close(static_cast<int>(m_handle));
}
