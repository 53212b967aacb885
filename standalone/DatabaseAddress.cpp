// Where a device database is, as text.
#include "standalone/DeviceDatabase.h"
#include "standalone/JsonText.h"

#include <QByteArray>

#include <algorithm>
#include <cctype>

namespace QsStandalone {

namespace {

constexpr const char* s_filePrefix = "sqlite:";
constexpr const char* s_serverPrefix = "postgresql://";

bool StartsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool IsHex(char c)
{
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

// False for a '%' without two digits behind it, and for the null character, which no database takes.
bool Decode(const std::string& encoded, std::string& text)
{
    for (std::size_t i = encoded.find('%'); i != std::string::npos; i = encoded.find('%', i + 1))
        if (i + 2 >= encoded.size() || !IsHex(encoded[i + 1]) || !IsHex(encoded[i + 2]))
            return false;
    text = QByteArray::fromPercentEncoding(QByteArray::fromStdString(encoded)).toStdString();
    return text.find('\0') == std::string::npos;
}

std::string Encode(const std::string& text)
{
    return QByteArray::fromStdString(text).toPercentEncoding().toStdString();
}

bool ParsePort(const std::string& text, unsigned& port)
{
    const bool digits = !text.empty() && text.size() <= 5 &&
                        std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
    const unsigned long number = digits ? std::stoul(text) : 0;
    if (number < 1 || number > 65535)
        return false;
    port = static_cast<unsigned>(number);
    return true;
}

// Splits "HOST", "HOST:PORT", "[ADDRESS]" or "[ADDRESS]:PORT". Messages never show what may be part of a password.
bool ParseHost(const std::string& text, SDeviceDatabaseSetup& setup, std::string& fault)
{
    const bool isBracketed = !text.empty() && text.front() == '[';
    const std::size_t bracket = isBracketed ? text.find(']') : 0;
    const std::size_t colon = text.find(':', bracket);
    const std::size_t end = isBracketed ? bracket : std::min(colon, text.size());
    const std::size_t begin = isBracketed ? 1 : 0;
    if (bracket == std::string::npos || end <= begin || !Decode(text.substr(begin, end - begin), setup.host) ||
        (isBracketed && bracket + 1 != text.size() && colon != bracket + 1))
        fault = "the name or address of a host";
    else if (colon != std::string::npos && !ParsePort(text.substr(colon + 1), setup.port))
        fault = "a port from 1 to 65535";
    return fault.empty();
}

bool ParseServer(const std::string& text, SDeviceDatabaseSetup& setup, std::string& fault)
{
    const std::size_t slash = std::min(text.find('/'), text.size());
    const std::string authority = text.substr(0, slash);
    const std::string database = slash < text.size() ? text.substr(slash + 1) : std::string();
    const std::size_t at = authority.rfind('@');
    if (at != std::string::npos)
    {
        const std::string login = authority.substr(0, at);
        const std::size_t colon = std::min(login.find(':'), login.size());
        const std::string password = colon < login.size() ? login.substr(colon + 1) : std::string();
        if (colon == 0 || !Decode(login.substr(0, colon), setup.user) || !Decode(password, setup.password))
        {
            fault = "a user and a password, percent-encoded,";
            return false;
        }
    }
    if (!ParseHost(at != std::string::npos ? authority.substr(at + 1) : authority, setup, fault))
        return false;
    if (database.empty() || database.find_first_of("/?#") != std::string::npos || !Decode(database, setup.database))
        fault = "the name of a database";
    return fault.empty();
}

} // namespace

bool ParseDeviceDatabase(const std::string& text, SDeviceDatabaseSetup& setup, std::string& error)
{
    SDeviceDatabaseSetup parsed;
    if (StartsWith(text, s_filePrefix))
    {
        parsed.kind = SDeviceDatabaseSetup::EKind::Sqlite;
        parsed.file = text.substr(std::string(s_filePrefix).size());
        if (parsed.file.empty() || parsed.file.find('\0') != std::string::npos)
        {
            error = "expected the path of a file behind \"sqlite:\", found none";
            return false;
        }
    }
    else if (StartsWith(text, s_serverPrefix))
    {
        parsed.kind = SDeviceDatabaseSetup::EKind::PostgreSql;
        std::string fault;
        if (!ParseServer(text.substr(std::string(s_serverPrefix).size()), parsed, fault))
        {
            error = "expected " + fault +
                    " in \"postgresql://[USER[:PASSWORD]@]HOST[:PORT]/DATABASE\", found something "
                    "else";
            return false;
        }
    }
    else
    {
        // What stands behind a colon may be a password.
        const std::size_t colon = text.find(':');
        error = "expected \"sqlite:PATH\" or \"postgresql://[USER[:PASSWORD]@]HOST[:PORT]/DATABASE\", found " +
                (colon == std::string::npos ? QuoteForMessage(text)
                                            : "a text that begins with " + QuoteForMessage(text.substr(0, colon + 1)));
        return false;
    }
    setup = parsed;
    return true;
}

std::string DeviceDatabaseText(const SDeviceDatabaseSetup& setup)
{
    if (setup.kind == SDeviceDatabaseSetup::EKind::Sqlite)
        return s_filePrefix + setup.file;
    const bool isAddress = setup.host.find(':') != std::string::npos;
    return s_serverPrefix + (setup.user.empty() ? std::string() : Encode(setup.user) + "@") +
           (isAddress ? "[" + setup.host + "]" : Encode(setup.host)) + ":" + std::to_string(setup.port) + "/" +
           Encode(setup.database);
}

} // namespace QsStandalone
