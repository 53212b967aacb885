#include "stimhost/Text.h"

#include "host/QsSystem.h"

#include <QFile>
#include <QSaveFile>
#include <QString>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace Stimhost {

std::string Number(double value, int decimals)
{
    if (!std::isfinite(value))
        return "-";
    char text[400]; // the longest double has 309 digits before the point
    const auto result = std::to_chars(text, text + sizeof(text), value, std::chars_format::fixed, decimals);
    return result.ec == std::errc() ? std::string(text, result.ptr) : std::string("-");
}

std::string Exact(double value)
{
    if (!std::isfinite(value))
        return "-";
    char text[32];
    const auto result = std::to_chars(text, text + sizeof(text), value);
    return std::string(text, result.ptr);
}

std::string Padded(const std::string& text, std::size_t width, bool right)
{
    const auto characters = static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
    const std::string space(characters < width ? width - characters : 0, ' ');
    return right ? space + text : text + space;
}

std::string ToUtf8(const CQsStringW& text)
{
    return text.ToUtf8();
}

CQsStringW FromUtf8(const std::string& text)
{
    return CQsStringW::FromUtf8(text);
}

static std::string s_outputFault; // why stdout could not be written; the first time counts

void Print(const std::string& text)
{
    errno = 0;
    if ((std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) &&
        s_outputFault.empty())
        s_outputFault = errno != 0 ? std::generic_category().message(errno) : "the output is gone";
}

int CodeAfterOutput(int code)
{
    if (s_outputFault.empty())
        return code;
    Complain("stdout cannot be written: " + s_outputFault);
    return code == eExitDone ? eExitBadUse : code;
}

static bool s_silent = false;

void Say(const std::string& text)
{
    if (!s_silent)
        Print(text);
}

void KeepSilent()
{
    s_silent = true;
}

void Complain(const std::string& line)
{
    const std::string text = "stimhost: " + line + "\n";
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

bool WriteWholeFile(const std::string& path, const std::string& text, std::string& error)
{
    const QString name = QString::fromStdString(path);
    const auto size = static_cast<qint64>(text.size());
    std::error_code ignored;
    const std::filesystem::file_status status = std::filesystem::status(std::filesystem::u8path(path), ignored);
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status))
    {
        // A file must not take the place of a device or a pipe.
        QFile device(name);
        if (device.open(QIODevice::WriteOnly | QIODevice::Unbuffered) && device.write(text.data(), size) == size)
            return true;
        error = path + ": cannot be written: " + device.errorString().toStdString();
        return false;
    }
    QSaveFile file(name);
    // The flush is not superfluous: committing overlooks that the last buffer did not fit on the disk.
    if (file.open(QIODevice::WriteOnly) && file.write(text.data(), size) == size && file.flush() && file.commit())
        return true;
    error = path + ": cannot be written: " + file.errorString().toStdString();
    return false;
}

bool WriteOrComplain(const std::string& path, const std::string& text)
{
    std::string error;
    const bool written = WriteWholeFile(path, text, error);
    if (!written)
        Complain(error);
    return written;
}

CJson::CJson() : m_writer(m_text)
{
    m_writer.SetIndent(' ', 2);
}

void CJson::Key(const char* key)
{
    if (key != nullptr)
        m_writer.Key(key);
}

CJson& CJson::Object(const char* key)
{
    Key(key);
    m_writer.StartObject();
    return *this;
}

CJson& CJson::EndObject()
{
    m_writer.EndObject();
    return *this;
}

CJson& CJson::Array(const char* key)
{
    Key(key);
    m_writer.StartArray();
    return *this;
}

CJson& CJson::EndArray()
{
    m_writer.EndArray();
    return *this;
}

CJson& CJson::Text(const char* key, const std::string& value)
{
    Key(key);
    return Element(value);
}

CJson& CJson::Integer(const char* key, long long value)
{
    Key(key);
    return Whole(value);
}

CJson& CJson::Flag(const char* key, bool value)
{
    Key(key);
    m_writer.Bool(value);
    return *this;
}

CJson& CJson::Time(const char* key, double ms)
{
    Key(key);
    return Element(ms);
}

CJson& CJson::Null(const char* key)
{
    Key(key);
    m_writer.Null();
    return *this;
}

CJson& CJson::Real(const char* key, double value)
{
    if (!std::isfinite(value))
        return Null(key);
    Key(key);
    const std::string text = Exact(value);
    m_writer.RawValue(text.data(), text.size(), rapidjson::kNumberType);
    return *this;
}

CJson& CJson::Reals(const char* key, const double* values, std::size_t count)
{
    Array(key);
    for (std::size_t i = 0; i < count; ++i)
        Real(nullptr, values[i]);
    return EndArray();
}

CJson& CJson::Pair(const char* key, double x, double y)
{
    const double numbers[] = {x, y};
    return Reals(key, numbers, 2);
}

CJson& CJson::Element(const std::string& value)
{
    m_writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
    return *this;
}

CJson& CJson::Element(double ms)
{
    if (!std::isfinite(ms))
    {
        m_writer.Null();
        return *this;
    }
    const std::string text = Number(ms);
    m_writer.RawValue(text.data(), text.size(), rapidjson::kNumberType);
    return *this;
}

CJson& CJson::Whole(long long value)
{
    m_writer.Int64(value);
    return *this;
}

std::string CJson::Take()
{
    return std::string(m_text.GetString(), m_text.GetSize()) + "\n";
}

} // namespace Stimhost
