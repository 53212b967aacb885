// Class records out of module files.
#include "standalone/ClassRecords.h"

#include "standalone/FileContents.h"
#include "standalone/JsonText.h"
#include "standalone/ObjectFile.h"

#include <QString>
#include <QXmlStreamReader>

#include <algorithm>
#include <cctype>
#include <exception>

namespace QsStandalone {
namespace {

constexpr char recordSection[] = "qsclass";
constexpr std::size_t recordAlignment = 16;
constexpr std::size_t parentCount = 9;
constexpr std::uint64_t maxFileBytes = 256u << 20;

// ------------------------------------------------------------------------------------------------------- the records

// Texts of the file stand quoted in messages: they may hold line ends, and be as long as the file.
std::string Quoted(const QString& text)
{
    return QuoteForMessage(text.toStdString());
}

// The next element's beginning or end; anything else between elements is damage.
QXmlStreamReader::TokenType NextElement(QXmlStreamReader& xml)
{
    const auto token = xml.readNext();
    if (xml.hasError())
        throw SDamage("it is not well-formed: " + Quoted(xml.errorString()));
    if (token == QXmlStreamReader::StartDocument)
        return NextElement(xml);
    const bool known = token == QXmlStreamReader::StartElement || token == QXmlStreamReader::EndElement ||
                       token == QXmlStreamReader::EndDocument;
    if (!known)
        throw SDamage("it holds something other than elements");
    return token;
}

void ExpectStart(QXmlStreamReader& xml, const char* name)
{
    if (NextElement(xml) != QXmlStreamReader::StartElement || (name != nullptr && xml.name() != QLatin1String(name)))
        throw SDamage(std::string("expected <") + (name != nullptr ? name : "class name") + ">");
}

void ExpectEnd(QXmlStreamReader& xml)
{
    if (NextElement(xml) != QXmlStreamReader::EndElement)
        throw SDamage("it holds more than the record has");
}

std::string ReadAttribute(QXmlStreamReader& xml, const char* name)
{
    if (!xml.attributes().hasAttribute(QLatin1String(name)))
        throw SDamage(Quoted(xml.name().toString()) + " lacks \"" + name + "\"");
    return xml.attributes().value(QLatin1String(name)).toString().toStdString();
}

void ExpectAttribute(QXmlStreamReader& xml, const char* name, const char* value)
{
    const std::string found = ReadAttribute(xml, name);
    if (found != value)
        throw SDamage(std::string("expected ") + name + "=\"" + value + "\", found " + QuoteForMessage(found));
}

// <name runtype="type" value="..."/>
std::string ReadValue(QXmlStreamReader& xml, const std::string& name, const char* type)
{
    ExpectStart(xml, name.c_str());
    ExpectAttribute(xml, "runtype", type);
    const std::string value = ReadAttribute(xml, "value");
    ExpectEnd(xml);
    return value;
}

// <variant version="1.0"><Class runtype="type">, and its class name.
std::string OpenRecord(QXmlStreamReader& xml, const char* type)
{
    ExpectStart(xml, "variant");
    ExpectAttribute(xml, "version", "1.0");
    ExpectStart(xml, nullptr);
    const std::string name = xml.name().toString().toStdString();
    const auto isIdentifier = [](unsigned char c) { return c < 0x80 && (std::isalnum(c) != 0 || c == '_'); };
    if (!std::all_of(name.begin(), name.end(), isIdentifier))
        throw SDamage(QuoteForMessage(name) + " is no class name");
    ExpectAttribute(xml, "runtype", type);
    return name;
}

void CloseRecord(QXmlStreamReader& xml)
{
    ExpectEnd(xml);
    ExpectEnd(xml);
    if (NextElement(xml) != QXmlStreamReader::EndDocument)
        throw SDamage("something follows the record");
}

void ReadParents(const QString& text, SClassRecord& record)
{
    QXmlStreamReader xml(text);
    record.className = OpenRecord(xml, "RQsRttiClass");
    for (std::size_t i = 1; i <= parentCount; ++i)
        record.parents.push_back(ReadValue(xml, "m_parent" + std::to_string(i), "CQsStringW"));
    CloseRecord(xml);
}

void ReadVersion(const QString& text, SClassRecord& record)
{
    QXmlStreamReader xml(text);
    const std::string name = OpenRecord(xml, "CQsListVariant");
    if (name != record.className)
        throw SDamage("it belongs to " + QuoteForMessage(name) + ", expected " + QuoteForMessage(record.className));
    const QString version = QString::fromStdString(ReadValue(xml, "m_version", "qs_int32"));
    bool isNumber = false;
    record.version = version.toInt(&isNumber);
    if (!isNumber)
        throw SDamage("m_version is " + Quoted(version) + ", expected a number");
    record.friendlyName = ReadValue(xml, "m_friendlyName", "CQsStringW");
    CloseRecord(xml);
}

// Walks the section from one 16-byte boundary to the next.
class CRecordReader
{
public:
    explicit CRecordReader(std::string bytes) : m_bytes(std::move(bytes)) {}

    void Run(SModuleFile& module)
    {
        while (SkipZeros())
        {
            SClassRecord record;
            record.offset = m_offset;
            try
            {
                ReadParents(NextText(), record);
                ReadVersion(NextText(), record);
                module.classes.push_back(std::move(record));
            }
            catch (const SDamage& damage)
            {
                if (module.error.empty())
                    module.error = module.path + ": class record at byte " + std::to_string(m_begin) +
                                   " of section \"" + recordSection + "\": " + damage.what();
            }
        }
    }

private:
    // To the next boundary that does not begin with an empty text; false at the end.
    bool SkipZeros()
    {
        while (m_offset < m_bytes.size() && Unit(m_offset) == 0)
            m_offset += recordAlignment;
        return m_offset < m_bytes.size();
    }

    char16_t Unit(std::size_t offset) const
    {
        const auto byte = [this](std::size_t at) -> unsigned
        { return at < m_bytes.size() ? static_cast<unsigned char>(m_bytes[at]) : 0; };
        return static_cast<char16_t>(byte(offset) | (byte(offset + 1) << 8));
    }

    // The text here; moves to the boundary behind it.
    QString NextText()
    {
        m_begin = m_offset;
        QString text;
        std::size_t end = m_offset;
        for (; end + 1 < m_bytes.size() && Unit(end) != 0; end += 2)
            text += QChar(Unit(end));
        const bool terminated = end + 1 < m_bytes.size();
        const std::size_t boundary = (end + 2 + recordAlignment - 1) / recordAlignment * recordAlignment;
        m_offset = std::min(boundary, m_bytes.size());
        if (!terminated)
            throw SDamage("it has no end");
        for (; end < m_offset; ++end)
            if (m_bytes[end] != 0)
                throw SDamage("its padding is not zero");
        return text;
    }

    std::string m_bytes;
    std::size_t m_offset = 0;
    std::size_t m_begin = 0;
};

void Read(SModuleFile& module)
{
    std::string file;
    if (!ReadFileContents(module.path, maxFileBytes, file, module.error))
        return;
    if (file.empty())
        throw SDamage("the file is empty");
    const EObjectFormat format = FormatOf(file);
    if (format == EObjectFormat::None)
        throw SDamage("neither an ELF nor a PE file");
    module.format = format == EObjectFormat::Elf ? "ELF" : "PE";
    const SSection section = FindSection(file, recordSection);
    if (!section.found)
        return;
    module.section = recordSection;
    CRecordReader(file.substr(static_cast<std::size_t>(section.offset), static_cast<std::size_t>(section.size)))
        .Run(module);
}

} // namespace

SModuleFile ReadModuleFile(const std::string& path)
{
    SModuleFile module;
    try
    {
        module.path = path;
        Read(module);
    }
    catch (const std::exception& e)
    {
        module.error = path + ": " + e.what();
        std::replace(module.error.begin(), module.error.end(), '\n', ' ');
    }
    return module;
}

} // namespace QsStandalone
