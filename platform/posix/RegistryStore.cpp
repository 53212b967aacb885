#include "platform/posix/RegistryStore.h"

#include "platform/AtomicFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLockFile>

#include <algorithm>
#include <cstdio>
#include <optional>

namespace QsPlatform {
namespace {

const QLatin1String kFormat("qsstimulation-registry");
constexpr int kVersion = 1;
constexpr int kLockTimeoutMs = 5000;
constexpr int kStaleLockMs = 2000;
constexpr char16_t kByteOrderMark = 0xFEFF;

char16_t Folded(char16_t unit)
{
    return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit - u'A' + u'a') : unit;
}

QString ToQString(const std::u16string& text)
{
    return QString::fromUtf16(text.data(), static_cast<int>(text.size()));
}

std::u16string FromQString(const QString& text)
{
    return text.toStdU16String();
}

// --------------------------------------------------------------------------------------------------------- values

bool IsWellFormed(const std::u16string& text)
{
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        const bool high = text[i] >= 0xD800 && text[i] < 0xDC00;
        const bool low = text[i] >= 0xDC00 && text[i] < 0xE000;
        if (low || (high && (i + 1 == text.size() || text[i + 1] < 0xDC00 || text[i + 1] > 0xDFFF)))
            return false;
        i += high ? 1 : 0;
    }
    return true;
}

// The text of a REG_SZ that text can stand for: reading it back gives the same bytes.
std::optional<QString> TextOf(const SRegistryData& data)
{
    const std::size_t size = data.bytes.size();
    if (data.type != REG_SZ || size < 2 || size % 2 != 0)
        return std::nullopt;
    std::u16string text;
    for (std::size_t i = 0; i < size; i += 2)
        text += static_cast<char16_t>(data.bytes[i] | data.bytes[i + 1] << 8);
    if (text.find(u'\0') != text.size() - 1)
        return std::nullopt;
    text.pop_back();
    // Qt drops a byte-order mark in front.
    if (!IsWellFormed(text) || (!text.empty() && text.front() == kByteOrderMark))
        return std::nullopt;
    return ToQString(text);
}

QJsonObject ToJson(const SRegistryData& data)
{
    if (const auto text = TextOf(data))
        return {{"type", "REG_SZ"}, {"text", *text}};
    if (data.type == REG_DWORD && data.bytes.size() == 4)
    {
        DWORD number = 0;
        for (std::size_t i = 4; i-- > 0;)
            number = number << 8 | data.bytes[i];
        return {{"type", "REG_DWORD"}, {"number", static_cast<double>(number)}};
    }
    const QByteArray bytes(reinterpret_cast<const char*>(data.bytes.data()), static_cast<int>(data.bytes.size()));
    QJsonValue type(static_cast<double>(data.type));
    if (data.type == REG_SZ)
        type = "REG_SZ";
    else if (data.type == REG_DWORD)
        type = "REG_DWORD";
    else if (data.type == REG_BINARY)
        type = "REG_BINARY";
    return {{"type", type}, {"hex", QString::fromLatin1(bytes.toHex())}};
}

bool ToDword(const QJsonValue& value, DWORD& number)
{
    const double real = value.toDouble(-1.0);
    if (!(real >= 0.0 && real <= 4294967295.0))
        return false;
    number = static_cast<DWORD>(real);
    return static_cast<double>(number) == real;
}

bool TypeFromJson(const QJsonValue& value, DWORD& type)
{
    if (!value.isString())
        return ToDword(value, type);
    const QString name = value.toString();
    type = name == "REG_SZ" ? REG_SZ : name == "REG_DWORD" ? REG_DWORD : REG_BINARY;
    return type != REG_BINARY || name == "REG_BINARY";
}

bool FromJson(const QJsonValue& value, SRegistryData& data)
{
    const QJsonObject object = value.toObject();
    if (object.size() != 2 || !TypeFromJson(object["type"], data.type))
        return false;
    if (data.type == REG_SZ && object["text"].isString())
    {
        for (const char16_t unit : FromQString(object["text"].toString()) + u'\0')
        {
            data.bytes.push_back(static_cast<unsigned char>(unit & 0xFF));
            data.bytes.push_back(static_cast<unsigned char>(unit >> 8));
        }
        return true;
    }
    DWORD number = 0;
    if (data.type == REG_DWORD && ToDword(object["number"], number))
    {
        for (unsigned shift = 0; shift < 32; shift += 8)
            data.bytes.push_back(static_cast<unsigned char>(number >> shift & 0xFF));
        return true;
    }
    if (!object["hex"].isString())
        return false;
    const QByteArray hex = object["hex"].toString().toUtf8();
    const QByteArray bytes = QByteArray::fromHex(hex);
    data.bytes.assign(bytes.begin(), bytes.end());
    return bytes.toHex() == hex.toLower();
}

// ----------------------------------------------------------------------------------------------------------- files

// A key without values stands in the file only when no key below it shows that it is there.
void WriteKeys(const SRegistryNode& node, const QString& path, QJsonObject& keys)
{
    if (!path.isEmpty() && (!node.values.empty() || node.keys.empty()))
    {
        QJsonObject values;
        for (const auto& [name, data] : node.values)
            values.insert(ToQString(name), ToJson(data));
        keys.insert(path, values);
    }
    for (const auto& [name, child] : node.keys)
        WriteKeys(child, path.isEmpty() ? ToQString(name) : path + '\\' + ToQString(name), keys);
}

QByteArray ToText(const SRegistryNode& root)
{
    QJsonObject keys;
    WriteKeys(root, {}, keys);
    QJsonObject rootValues;
    for (const auto& [name, data] : root.values)
        rootValues.insert(ToQString(name), ToJson(data));
    QJsonObject document{{"format", kFormat}, {"version", kVersion}, {"keys", keys}};
    if (!rootValues.isEmpty())
        document.insert("values", rootValues);
    return QJsonDocument(document).toJson();
}

// The place of the first value that is not one, or empty.
QString ReadValues(const QJsonValue& json, SRegistryNode& node)
{
    if (!json.isObject())
        return "expected an object of values";
    const QJsonObject values = json.toObject();
    for (auto it = values.begin(); it != values.end(); ++it)
    {
        SRegistryData data;
        const std::u16string name = FromQString(it.key());
        if (!FromJson(it.value(), data))
            return "value \"" + it.key() + "\": expected a type with its text, number or hex digits";
        if (!IsRegistryName(name) || !node.values.emplace(name, std::move(data)).second)
            return "value \"" + it.key() + "\": expected a name that occurs once, whatever its case";
    }
    return {};
}

QString ReadText(const QByteArray& text, SRegistryNode& root)
{
    QJsonParseError parse;
    const QJsonDocument json = QJsonDocument::fromJson(text, &parse);
    if (parse.error != QJsonParseError::NoError)
        return QString("byte %1: %2").arg(parse.offset).arg(parse.errorString());
    const QJsonObject document = json.object();
    if (document["format"].toString() != kFormat || document["version"].toDouble() != kVersion)
        return QString("expected format \"%1\", version %2").arg(kFormat).arg(kVersion);
    if (!document["keys"].isObject())
        return "expected an object of keys";
    if (document.contains("values"))
    {
        const QString wrong = ReadValues(document["values"], root);
        if (!wrong.isEmpty())
            return wrong;
    }
    const QJsonObject keys = document["keys"].toObject();
    for (auto it = keys.begin(); it != keys.end(); ++it)
    {
        RegistryPath path;
        bool made = false;
        if (!SplitRegistryPath(FromQString(it.key()), path) || path.empty())
            return "key \"" + it.key() + "\": expected at most 512 names between backslashes";
        const QString wrong = ReadValues(it.value(), MakeRegistryKey(root, path, made));
        if (!wrong.isEmpty())
            return "key \"" + it.key() + "\", " + wrong;
    }
    return {};
}

bool MoveAside(const QString& file, const std::string& error)
{
    for (int n = 1; n < 10000; ++n)
    {
        const QString aside = QString("%1.damaged-%2").arg(file).arg(n);
        if (QFileInfo::exists(aside) || !QFile::rename(file, aside))
            continue;
        std::fprintf(stderr, "%s; kept as %s\n", error.c_str(), QFile::encodeName(aside).constData());
        return true;
    }
    return false;
}

} // namespace

bool SRegistryNameLess::operator()(const std::u16string& a, const std::u16string& b) const
{
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                        [](char16_t x, char16_t y) { return Folded(x) < Folded(y); });
}

bool IsRegistryName(const std::u16string& name)
{
    return name.empty() || name.front() != kByteOrderMark; // Qt drops it in front
}

bool SplitRegistryPath(const std::u16string& path, RegistryPath& parts)
{
    parts.clear();
    for (std::size_t begin = 0; begin < path.size();)
    {
        const std::size_t end = std::min(path.find(u'\\', begin), path.size());
        parts.push_back(path.substr(begin, end - begin));
        if (parts.size() > kDeepestKey || parts.back().empty() || !IsRegistryName(parts.back()))
            return false;
        begin = end + 1;
    }
    return true;
}

const SRegistryNode* FindRegistryKey(const SRegistryNode& root, const RegistryPath& path)
{
    const SRegistryNode* node = &root;
    for (const std::u16string& name : path)
    {
        const auto found = node->keys.find(name);
        if (found == node->keys.end())
            return nullptr;
        node = &found->second;
    }
    return node;
}

SRegistryNode& MakeRegistryKey(SRegistryNode& root, const RegistryPath& path, bool& made)
{
    SRegistryNode* node = &root;
    for (const std::u16string& name : path)
    {
        const auto [place, isNew] = node->keys.try_emplace(name);
        made = made || isNew;
        node = &place->second;
    }
    return *node;
}

ERegistryFile ReadRegistryFile(const std::string& file, SRegistryNode& root, std::string& error)
{
    root = {};
    const QString name = QFile::decodeName(file.c_str());
    const QFileInfo info(name);
    if (info.exists() && !info.isFile()) // opening a pipe would wait for its writer
    {
        error = file + ": expected a file, found a folder, a pipe or a device";
        return ERegistryFile::Unreadable;
    }
    QFile source(name);
    if (!source.open(QIODevice::ReadOnly))
    {
        if (!QFileInfo::exists(name))
            return ERegistryFile::Missing;
        error = file + ": " + source.errorString().toStdString();
        return ERegistryFile::Unreadable;
    }
    const QByteArray text = source.readAll();
    if (source.error() != QFileDevice::NoError)
    {
        error = file + ": " + source.errorString().toStdString();
        return ERegistryFile::Unreadable;
    }
    const QString wrong = ReadText(text, root);
    if (wrong.isEmpty())
        return ERegistryFile::Whole;
    root = {};
    error = file + ": not a readable registry store: " + wrong.toStdString();
    return ERegistryFile::Damaged;
}

LSTATUS ChangeRegistryFile(const std::string& file, const std::function<bool(SRegistryNode&)>& change)
{
    const QString name = QFile::decodeName(file.c_str());
    if (!QDir().mkpath(QFileInfo(name).path()))
        return ERROR_WRITE_FAULT;
    const QString lockName = name + ".lock";
    if (QFileInfo::exists(lockName) && !QFileInfo(lockName).isFile()) // it is read to see who holds it
        return ERROR_WRITE_FAULT;
    QLockFile lock(lockName);
    // For a lock file that a killed process left before it wrote its number there. A living holder on this system is
    // never robbed of its lock by this: it also holds one on the open file.
    lock.setStaleLockTime(kStaleLockMs);
    if (!lock.tryLock(kLockTimeoutMs))
        return lock.error() == QLockFile::LockFailedError ? ERROR_ACCESS_DENIED : ERROR_WRITE_FAULT;

    SRegistryNode root;
    std::string error;
    const ERegistryFile state = ReadRegistryFile(file, root, error);
    if (state == ERegistryFile::Unreadable)
        return ERROR_WRITE_FAULT;
    if (!change(root))
        return ERROR_SUCCESS;
    if (state == ERegistryFile::Damaged && !MoveAside(name, error))
        return ERROR_WRITE_FAULT;
    const QByteArray text = ToText(root);
    const auto size = static_cast<std::size_t>(text.size());
    return ReplaceFileContents(file, text.constData(), size, EFlush::ToDisk, error) ? ERROR_SUCCESS : ERROR_WRITE_FAULT;
}

} // namespace QsPlatform
