// The diagnostic log and its sinks.
#include "standalone/DiagnosticLog.h"

#include "platform/ThreadSafety.h"

#include <QDateTime>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>

namespace fs = std::filesystem;

namespace QsStandalone {
namespace {

// A log file that is rotated. Not shared between threads.
class CLogFile
{
public:
    bool Open(const std::string& path, std::uint64_t maxBytes, unsigned keep, std::string& error)
    {
        m_name = path;
        m_path = fs::u8path(path);
        m_maxBytes = maxBytes;
        m_keep = keep;
        errno = 0;
        if (Reopen())
            return true;
        const std::string reason = errno != 0 ? std::generic_category().message(errno) : "cannot be opened";
        error = path + ": the log cannot be written: " + reason;
        return false;
    }

    void Write(const std::string& line)
    {
        // After a failure every line tries anew, in case there is room again.
        if (!m_stream.is_open() && !Reopen())
            return Failed();
        if (m_isFile && m_maxBytes != 0 && m_size > 0 && m_size + line.size() > m_maxBytes)
            Rotate();
        m_stream.write(line.data(), static_cast<std::streamsize>(line.size()));
        m_stream.flush();
        if (m_stream)
        {
            m_size += line.size();
            return;
        }
        // No torn line stays behind.
        m_stream.close();
        std::error_code ignored;
        if (fs::is_regular_file(m_path, ignored))
            fs::resize_file(m_path, m_size, ignored);
        Failed();
    }

private:
    bool Reopen()
    {
        std::error_code code;
        m_stream.clear();
        // Opening a pipe would wait for its reader, and a full one would hold up whoever logs.
        const fs::file_status before = fs::status(m_path, code);
        if (fs::exists(before) && !fs::is_regular_file(before) && !fs::is_character_file(before))
        {
            errno = fs::is_directory(before) ? EISDIR : EINVAL;
            return false;
        }
        m_stream.open(m_path, std::ios::binary | std::ios::app);
        m_isFile = fs::is_regular_file(m_path, code);
        const std::uintmax_t size = m_isFile ? fs::file_size(m_path, code) : 0;
        m_size = code ? 0 : size;
        return m_stream.is_open();
    }

    fs::path Numbered(unsigned number) const
    {
        fs::path path = m_path;
        path += "." + std::to_string(number);
        return path;
    }

    void Rotate()
    {
        m_stream.close();
        std::error_code code;
        fs::remove(m_keep > 0 ? Numbered(m_keep) : m_path, code);
        for (unsigned number = m_keep; number > 1; --number)
            fs::rename(Numbered(number - 1), Numbered(number), code); // there may be fewer yet
        if (m_keep > 0)
            fs::rename(m_path, Numbered(1), code);
        Reopen(); // where renaming was refused, the file goes on
    }

    void Failed()
    {
        if (m_reported)
            return;
        m_reported = true;
        std::fprintf(stderr, "%s: the log cannot be written any more\n", m_name.c_str());
        std::fflush(stderr);
    }

    std::string m_name;
    fs::path m_path;
    std::uint64_t m_maxBytes = 0;
    unsigned m_keep = 0;
    bool m_isFile = false; // a device is never renamed
    std::ofstream m_stream;
    std::uint64_t m_size = 0;
    bool m_reported = false;
};

struct SLog
{
    std::atomic<ELogLevel> level{ELogLevel::Normal};
    std::atomic<bool> hasSink{false};

    CQsMutex lock;
    bool toStderr QS_GUARDED_BY(lock) = false;
    bool toMemory QS_GUARDED_BY(lock) = false;
    std::vector<SLogLine> memory QS_GUARDED_BY(lock);
    std::unique_ptr<CLogFile> file QS_GUARDED_BY(lock);

    void SinksChanged() QS_REQUIRES(lock) { hasSink = toStderr || toMemory || file != nullptr; }
};

// Never destroyed: modules log until the process has ended.
SLog& Log()
{
    static SLog& log = *new SLog;
    return log;
}

// One line of text, whatever the message holds.
std::string TextLine(const SLogLine& line)
{
    std::string text = line.unit.ToUtf8() + ":" + std::to_string(line.line) + " " + line.text.ToUtf8();
    for (char& c : text)
        if (c == '\n' || c == '\r')
            c = ' ';
    return QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs).toStdString() + " " + text + "\n";
}

void Write(SLogLine&& line)
{
    SLog& log = Log();
    const CQsScopedLock<CQsMutex> guard(log.lock);
    line.timeMs = QS_GetTimeCounter(); // under the lock, so that times never run backwards in the log
    if (log.toStderr || log.file)
    {
        const std::string text = TextLine(line);
        if (log.toStderr)
        {
            std::fwrite(text.data(), 1, text.size(), stderr);
            std::fflush(stderr);
        }
        if (log.file)
            log.file->Write(text);
    }
    if (log.toMemory)
        log.memory.push_back(std::move(line));
}

} // namespace

void CQsDiagnosticLog::SetLevel(ELogLevel level)
{
    Log().level = level;
}

ELogLevel CQsDiagnosticLog::GetLevel()
{
    return Log().level;
}

void CQsDiagnosticLog::ToStderr(bool on)
{
    SLog& log = Log();
    const CQsScopedLock<CQsMutex> guard(log.lock);
    log.toStderr = on;
    log.SinksChanged();
}

void CQsDiagnosticLog::ToMemory(bool on)
{
    SLog& log = Log();
    const CQsScopedLock<CQsMutex> guard(log.lock);
    log.toMemory = on;
    if (!on)
        log.memory = {};
    log.SinksChanged();
}

std::vector<SLogLine> CQsDiagnosticLog::MemoryLines()
{
    SLog& log = Log();
    const CQsScopedLock<CQsMutex> guard(log.lock);
    return log.memory;
}

bool CQsDiagnosticLog::ToFile(const std::string& path, std::uint64_t maxBytes, unsigned keep, std::string& error)
{
    std::unique_ptr<CLogFile> file;
    if (!path.empty())
    {
        file = std::make_unique<CLogFile>();
        if (!file->Open(path, maxBytes, keep, error))
            return false;
    }
    SLog& log = Log();
    const CQsScopedLock<CQsMutex> guard(log.lock);
    log.file = std::move(file);
    log.SinksChanged();
    return true;
}

} // namespace QsStandalone

using QsStandalone::ELogLevel;

void DiagOutputExW(const wchar_t* unit, int line, const wchar_t* format, ...)
{
    const QsStandalone::SLog& log = QsStandalone::Log();
    if (!log.hasSink.load(std::memory_order_relaxed) || log.level.load(std::memory_order_relaxed) == ELogLevel::Off)
        return;
    std::va_list arguments;
    va_start(arguments, format);
    try
    {
        QsStandalone::SLogLine entry;
        entry.unit = unit;
        entry.line = line;
        entry.text = CQsStringW::FormatV(format, arguments);
        QsStandalone::Write(std::move(entry));
    }
    catch (...) // a line that cannot be kept is lost; what it reports on goes on
    {}
    va_end(arguments);
}

bool QS_DiagIsDetailed()
{
    const QsStandalone::SLog& log = QsStandalone::Log();
    return log.level.load(std::memory_order_relaxed) == ELogLevel::Detailed &&
           log.hasSink.load(std::memory_order_relaxed);
}
