#include "standalone/SettingsFile.h"

#include "platform/AtomicFile.h"
#include "platform/ThreadSafety.h"
#include "standalone/FileContents.h"
#include "standalone/HostControl.h"

#include <filesystem>
#include <system_error>

namespace QsStandalone {

namespace {

using Level = SQsLiteLevel::Level;

// The last file that was read or written whole.
struct SKept
{
    CQsMutex lock;
    std::shared_ptr<const std::string> text QS_GUARDED_BY(lock);
    Level root QS_GUARDED_BY(lock);
};

SKept& Kept()
{
    static SKept& kept = *new SKept; // never destroyed: threads may read files until the process ends
    return kept;
}

void Keep(std::string&& text, const Level& root)
{
    constexpr std::size_t longest = std::size_t{32} << 20; // a larger one is not worth its memory
    if (text.size() > longest)
        return;
    auto shared = std::make_shared<const std::string>(std::move(text));
    Level keptRoot = root;
    SKept& kept = Kept();
    const CQsScopedLock<CQsMutex> guard(kept.lock);
    kept.text.swap(shared); // what was kept goes after the lock
    kept.root.swap(keptRoot);
}

Level KeptFor(const std::string& text)
{
    std::shared_ptr<const std::string> keptText;
    Level root;
    {
        SKept& kept = Kept();
        const CQsScopedLock<CQsMutex> guard(kept.lock);
        keptText = kept.text;
        root = kept.root;
    }
    return keptText != nullptr && *keptText == text ? root : nullptr;
}

struct SRead
{
    ESettingsFile state = ESettingsFile::Missing;
    bool fits = true; // of Whole: the end sum does
    std::string text;
    Level root;
    std::string error;
};

SRead ReadFile(const std::string& path)
{
    namespace fs = std::filesystem;
    SRead read;
    if (!ReadFileContents(path, s_longestSettings, read.text, read.error))
    {
        std::error_code ignored;
        const fs::file_status status = fs::status(fs::u8path(path), ignored);
        const bool tooLong =
            fs::is_regular_file(status) && fs::file_size(fs::u8path(path), ignored) > s_longestSettings;
        read.state = status.type() == fs::file_type::not_found ? ESettingsFile::Missing
                     : tooLong && !ignored                     ? ESettingsFile::Damaged
                                                               : ESettingsFile::Unreadable;
        return read;
    }
    read.root = KeptFor(read.text);
    if (read.root == nullptr)
    {
        SJsonFault fault;
        read.root = ParseSettings(read.text, read.fits, fault);
        if (read.root == nullptr || !read.fits)
            read.error = fault.InFile(path);
    }
    read.state = read.root != nullptr ? ESettingsFile::Whole : ESettingsFile::Damaged;
    return read;
}

bool KeepAside(const std::string& path, const std::string& why, std::string& error)
{
    std::string kept;
    if (!QsPlatform::KeepFileAside(path, ".damaged", kept, error))
        return false;
    DiagOutputExW(L"Settings", __LINE__, L"%hs; kept as %hs", why.c_str(), kept.c_str());
    return true;
}

} // namespace

void ForgetLastSettingsFile()
{
    Keep({}, nullptr);
}

ESettingsFile ReadSettingsFile(const std::string& path, bool check, Level& root, std::string& error)
{
    SRead read = ReadFile(path);
    if (read.state == ESettingsFile::Whole && !read.fits && check)
        read.state = ESettingsFile::Damaged;
    if (read.state != ESettingsFile::Whole)
    {
        error = read.error;
        return read.state;
    }
    root = read.root;
    if (read.fits)
        Keep(std::move(read.text), read.root);
    return ESettingsFile::Whole;
}

bool SaveSettingsFile(const std::string& path, const Level& root, bool compact, bool sync, bool backup,
                      std::string& error)
{
    const QsPlatform::EFlush flush = sync ? QsPlatform::EFlush::ToDisk : QsPlatform::EFlush::ToSystem;
    const SRead old = ReadFile(path);
    if (old.state == ESettingsFile::Unreadable)
    {
        error = old.error;
        return false;
    }
    constexpr std::size_t leastReserve = std::size_t{1} << 16;
    std::string text = WriteSettings(*root, compact, old.text.size() + leastReserve, error);
    if (text.empty())
    {
        error = path + ": " + error;
        return false;
    }
    if ((old.state == ESettingsFile::Damaged || !old.fits) && !KeepAside(path, old.error, error))
        return false;
    if (backup && old.state == ESettingsFile::Whole &&
        !QsPlatform::ReplaceFileContents(path + ".bak", old.text.data(), old.text.size(), flush, error))
        return false;
    if (!QsPlatform::ReplaceFileContents(path, text.data(), text.size(), flush, error))
        return false;
    Keep(std::move(text), root);
    return true;
}

} // namespace QsStandalone
