// Exclusion between all threads and processes that change the files of one folder.
#pragma once

#include "host/QsHostApi.h"

#include <string>

namespace QsPlatform {

class QS_HOST_API CFolderLock
{
public:
    // Waits up to `longestMs` for the lock of the folder that holds the file (UTF-8), behind symbolic links; the file
    // need not be there. Not recursive. Nothing is left behind: a process that ends gives the lock back.
    CFolderLock(const std::string& file, unsigned longestMs, std::string& error);
    ~CFolderLock();
    CFolderLock(const CFolderLock&) = delete;
    CFolderLock& operator=(const CFolderLock&) = delete;

    // False, with one line in `error`, when the path names no file, the folder is missing, cannot be read or is on a
    // file system without locks, or another one had it all the time.
    bool IsHeld() const { return m_handle != s_none; }

private:
    static constexpr long long s_none = -1;
    long long m_handle = s_none;
};

} // namespace QsPlatform
