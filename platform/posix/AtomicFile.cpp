#include "platform/AtomicFile.h"

#include "platform/posix/FilePaths.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace QsPlatform {

namespace {

std::atomic<void (*)(const char*)> s_hook{nullptr};

void Step(const char* name)
{
    if (const auto hook = s_hook.load())
        hook(name);
}

std::string ReasonOf(int code)
{
    return std::generic_category().message(code);
}

class CDescriptor
{
public:
    explicit CDescriptor(int descriptor) : m_descriptor(descriptor) {}
    ~CDescriptor()
    {
        if (m_descriptor >= 0)
            close(m_descriptor);
    }
    CDescriptor(const CDescriptor&) = delete;
    CDescriptor& operator=(const CDescriptor&) = delete;

    int Get() const { return m_descriptor; }
    bool IsOpen() const { return m_descriptor >= 0; }

private:
    int m_descriptor;
};

// Temporary files are named .<name>.<process>-<number>.tmp. Its writer holds a lock on it for as long as it lives,
// which tells what a killed process left from what another one is writing.
std::string TemporaryPrefix(const fs::path& file)
{
    constexpr std::size_t longest = 200; // names of files end at 255 bytes
    return "." + file.filename().string().substr(0, longest) + ".";
}

constexpr const char* temporarySuffix = ".tmp";

bool IsTemporary(const std::string& name, const std::string& prefix)
{
    const std::size_t suffix = std::string(temporarySuffix).size();
    return name.size() > prefix.size() + suffix && name.compare(0, prefix.size(), prefix) == 0 &&
           name.compare(name.size() - suffix, suffix, temporarySuffix) == 0 &&
           name.find_first_not_of("0123456789-", prefix.size()) == name.size() - suffix;
}

void RemoveLeftBehind(const fs::path& file)
{
    const std::string prefix = TemporaryPrefix(file);
    std::error_code error;
    for (fs::directory_iterator entry(FolderOf(file), error); !error && entry != fs::directory_iterator();
         entry.increment(error))
    {
        if (!IsTemporary(entry->path().filename().string(), prefix))
            continue;
        const CDescriptor left(open(entry->path().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (left.IsOpen() && flock(left.Get(), LOCK_EX | LOCK_NB) == 0)
            unlink(entry->path().c_str());
    }
}

// A temporary file; gone with the object unless it has been given its name.
class CTemporaryFile
{
public:
    ~CTemporaryFile()
    {
        if (m_descriptor < 0)
            return;
        if (!m_placed)
            unlink(m_path.c_str());
        close(m_descriptor);
    }
    CTemporaryFile() = default;
    CTemporaryFile(const CTemporaryFile&) = delete;
    CTemporaryFile& operator=(const CTemporaryFile&) = delete;

    int Descriptor() const { return m_descriptor; }

    // 0 or the system's error, as the others.
    int Create(const fs::path& target, mode_t mode)
    {
        static std::atomic<unsigned> s_number{0};
        constexpr int mostTries = 1000;
        for (int i = 0; i < mostTries; ++i)
        {
            m_path = FolderOf(target) / (TemporaryPrefix(target) + std::to_string(getpid()) + "-" +
                                         std::to_string(++s_number) + temporarySuffix);
            m_descriptor = open(m_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
            if (m_descriptor < 0 && errno != EEXIST)
                return errno;
            if (m_descriptor < 0)
                continue;
            Step("created");
            // One that clears away may have had it before we held it: then it is gone, and another one is made. Where
            // the file system has no such locks nobody else gets one either.
            struct stat state
            {};
            while (flock(m_descriptor, LOCK_EX) != 0 && errno == EINTR)
                ;
            Step("locked");
            if (fstat(m_descriptor, &state) == 0 && state.st_nlink > 0)
                return 0;
            close(m_descriptor);
            m_descriptor = -1;
        }
        return EEXIST;
    }

    int Write(const char* bytes, std::size_t count) const
    {
        constexpr std::size_t mostAtOnce = std::size_t{1} << 16;
        while (count > 0)
        {
            const ssize_t written = write(m_descriptor, bytes, std::min(count, mostAtOnce));
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0)
                return written < 0 ? errno : ENOSPC;
            bytes += written;
            count -= static_cast<std::size_t>(written);
            Step("wrote");
        }
        return 0;
    }

    // Some network file systems tell only when a file is closed that it did not fit; ours stays open for its lock.
    int Flush(EFlush flush) const
    {
        if (flush == EFlush::ToDisk && fsync(m_descriptor) != 0)
            return errno;
        Step("flushed");
        const int copy = fcntl(m_descriptor, F_DUPFD_CLOEXEC, 0);
        return copy >= 0 && close(copy) == 0 ? 0 : errno;
    }

    int Place(const fs::path& target)
    {
        if (rename(m_path.c_str(), target.c_str()) != 0)
            return errno;
        m_placed = true;
        Step("renamed");
        return 0;
    }

private:
    fs::path m_path;
    int m_descriptor = -1;
    bool m_placed = false;
};

int FlushFolder(const fs::path& folder)
{
    const CDescriptor descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!descriptor.IsOpen())
        return errno == EACCES ? 0 : errno; // a folder may be written into and not read
    if (fsync(descriptor.Get()) != 0 && errno != EINVAL && errno != ENOTSUP) // a file system that cannot
        return errno;
    Step("flushed folder");
    return 0;
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
    const fs::path target = BehindLinks(fs::u8path(path));
    if (!target.has_filename())
        return fail("expected the path of a file");
    struct stat old
    {};
    const bool exists = lstat(target.c_str(), &old) == 0;
    if (!exists && errno != ENOENT)
        return fail(ReasonOf(errno));
    if (exists && !S_ISREG(old.st_mode))
        return fail(S_ISDIR(old.st_mode) ? "expected a file, found a folder" : "expected a file, found something else");
    if (exists && access(target.c_str(), W_OK) != 0) // the folder alone would let it be replaced
        return fail(ReasonOf(errno));

    RemoveLeftBehind(target);
    CTemporaryFile temporary;
    constexpr mode_t forNew = 0666, forMyself = 0600;
    int failure = temporary.Create(target, exists ? forMyself : forNew);
    if (failure != 0)
        return fail(ReasonOf(failure));
    if (exists)
    {
        // An owner that we cannot give it is no reason to write nothing; its permissions then hold for ours.
        if ((old.st_uid != geteuid() || old.st_gid != getegid()) &&
            fchown(temporary.Descriptor(), old.st_uid, old.st_gid) != 0)
            Step("kept our owner");
        if (fchmod(temporary.Descriptor(), old.st_mode & 07777) != 0)
            return fail(ReasonOf(errno));
        Step("permitted");
    }
    failure = temporary.Write(static_cast<const char*>(bytes), count);
    if (failure == 0)
        failure = temporary.Flush(flush);
    if (failure == 0)
        failure = temporary.Place(target);
    if (failure == 0 && flush == EFlush::ToDisk)
        failure = FlushFolder(FolderOf(target));
    return failure == 0 || fail(ReasonOf(failure));
}

std::FILE* OpenToRead(const std::string& path)
{
    return std::fopen(path.c_str(), "rbe");
}

bool KeepFileAside(const std::string& path, const std::string& suffix, std::string& kept, std::string& error)
{
    const fs::path file = BehindLinks(fs::u8path(path));
    constexpr int mostKept = 10000;
    for (int n = 1; n < mostKept; ++n)
    {
        const fs::path aside = file.string() + suffix + (n > 1 ? std::to_string(n) : std::string());
        if (link(file.c_str(), aside.c_str()) == 0)
        {
            kept = aside.string();
            return true;
        }
        if (errno == EEXIST)
            continue;
        // A file system without second names, or a file that we may not give one.
        struct stat taken
        {};
        if (errno != ENOENT && lstat(aside.c_str(), &taken) != 0 && rename(file.c_str(), aside.c_str()) == 0)
        {
            kept = aside.string();
            return true;
        }
        error = path + ": cannot be kept aside: " + ReasonOf(errno);
        return false;
    }
    error = path + ": cannot be kept aside: expected fewer than " + std::to_string(mostKept) + " files kept already";
    return false;
}

} // namespace QsPlatform
