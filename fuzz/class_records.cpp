// Class records of module files. Bytes that begin as an ELF or a PE file are the file; any other bytes are the texts of
// records, separated by newlines, for the section of a whole file: mutations then reach what the texts say.
#include "fuzz/Fuzz.h"
#include "standalone/ClassRecords.h"
#include "tests/standalone/core_ModuleBytes.h"

#include <QString>

#include <algorithm>
#include <cctype>
#include <set>

using namespace QsStandalone;

namespace {

bool Same(const SClassRecord& a, const SClassRecord& b)
{
    return a.className == b.className && a.parents == b.parents && a.version == b.version &&
           a.friendlyName == b.friendlyName;
}

bool SameRecords(const SModuleFile& a, const SModuleFile& b)
{
    return std::equal(a.classes.begin(), a.classes.end(), b.classes.begin(), b.classes.end(), Same);
}

std::string Utf16Record(const QString& text)
{
    std::string bytes;
    for (const QChar c : text)
    {
        bytes += static_cast<char>(c.unicode() & 0xFF);
        bytes += static_cast<char>(c.unicode() >> 8);
    }
    bytes.append(2, '\0');
    bytes.resize((bytes.size() + 15) / 16 * 16, '\0');
    return bytes;
}

std::string Section(const std::string& texts)
{
    std::string section;
    for (std::size_t begin = 0; begin <= texts.size();)
    {
        const std::size_t end = std::min(texts.find('\n', begin), texts.size());
        section += Utf16Record(QString::fromStdString(texts.substr(begin, end - begin)));
        begin = end + 1;
    }
    return section;
}

QString Escaped(const std::string& text)
{
    QString escaped;
    for (const QChar c : QString::fromStdString(text))
    {
        const bool plain = c.unicode() >= 0x20 && QString("<>&\"'").indexOf(c) < 0;
        escaped += plain ? QString(c) : QString("&#%1;").arg(c.unicode());
    }
    return escaped;
}

// The records of a class as its module announces them.
std::string RecordsOf(const SClassRecord& record)
{
    const QString name = QString::fromStdString(record.className);
    QString parents = "<variant version=\"1.0\"><" + name + " runtype=\"RQsRttiClass\">";
    for (std::size_t i = 0; i < record.parents.size(); ++i)
        parents +=
            QString("<m_parent%1 runtype=\"CQsStringW\" value=\"").arg(i + 1) + Escaped(record.parents[i]) + "\"/>";
    const QString version = "<variant version=\"1.0\"><" + name + " runtype=\"CQsListVariant\"><m_version value=\"" +
                            QString::number(record.version) + "\" runtype=\"qs_int32\"/><m_friendlyName value=\"" +
                            Escaped(record.friendlyName) + "\" runtype=\"CQsStringW\"/>";
    const QString end = "</" + name + "></variant>";
    return Utf16Record(parents + end) + Utf16Record(version + end);
}

void CheckModule(const SModuleFile& module, const std::string& path, std::size_t size)
{
    QS_LAW(module.path == path);
    QS_LAW(module.format == "ELF" || module.format == "PE" || module.format.empty());
    QS_LAW(!module.format.empty() || !module.error.empty());
    QS_LAW(module.error.empty() || (module.error.compare(0, path.size() + 2, path + ": ") == 0 &&
                                    QsFuzz::IsOneLine(module.error) && QsFuzz::IsUtf8(module.error)));
    QS_LAW(module.section == "qsclass" || (module.section.empty() && module.classes.empty()));
    std::set<std::uint64_t> offsets;
    for (const SClassRecord& record : module.classes)
    {
        QS_LAW(record.offset % 16 == 0 && record.offset < size);
        QS_LAW(offsets.empty() || *offsets.rbegin() < record.offset);
        offsets.insert(record.offset);
        QS_LAW(!record.className.empty() && record.parents.size() == 9);
        for (const char c : record.className)
            QS_LAW(std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_');
        QS_LAW(QsFuzz::IsUtf8(record.friendlyName));
        for (const std::string& parent : record.parents)
            QS_LAW(QsFuzz::IsUtf8(parent));
    }
}

// Each class lies where its record says: without what stands before it, it is the first one. With its last byte,
// padding or terminator, written over it is none.
void CheckSection(const SModuleFile& module, const std::string& section, const QsFuzz::CScratchFolder& folder)
{
    QS_LAW(module.format == "PE" && module.section == "qsclass");
    if (module.classes.empty())
        return;
    const SClassRecord& last = module.classes.back();
    const SModuleFile alone = ReadModuleFile(
        folder.Write("alone.bin", PeFile("qsclass", section.substr(static_cast<std::size_t>(last.offset)))));
    QS_LAW(alone.classes.size() == 1 && alone.classes[0].offset == 0 && Same(alone.classes[0], last));
    QS_LAW(alone.error.find(" at byte 0 ") == std::string::npos);
    std::string written = RecordsOf(last);
    written.back() = 1;
    const SModuleFile damaged = ReadModuleFile(folder.Write("damaged.bin", PeFile("qsclass", written)));
    QS_LAW(!damaged.error.empty() && damaged.classes.empty());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const QsFuzz::CScratchFolder folder;
    const std::string bytes = QsFuzz::Text(data, size);
    const bool isFile = bytes.compare(0, 4, "\177ELF") == 0 || bytes.compare(0, 2, "MZ") == 0;
    const std::string section = isFile ? std::string() : Section(bytes);
    const std::string file = isFile ? bytes : PeFile("qsclass", section);
    const std::string path = folder.Write("module.bin", file);
    const SModuleFile module = ReadModuleFile(path);
    CheckModule(module, path, file.size());
    if (!isFile)
        CheckSection(module, section, folder);

    // Announced anew, the same classes are found.
    std::string announced(32, '\0');
    for (const SClassRecord& record : module.classes)
        announced += RecordsOf(record) + std::string(16, '\0');
    const SModuleFile again = ReadModuleFile(folder.Write("again.bin", PeFile("qsclass", announced)));
    QS_LAW(again.error.empty());
    QS_LAW(SameRecords(again, module));

    if (!module.error.empty())
        return 0;
    // What follows the last section means nothing; a file that lost its last byte says so or has lost nothing.
    const SModuleFile longer = ReadModuleFile(folder.Write("longer.bin", file + "qsclass\n"));
    QS_LAW(longer.error.empty() && SameRecords(longer, module));
    const SModuleFile shorter = ReadModuleFile(folder.Write("shorter.bin", file.substr(0, file.size() - 1)));
    QS_LAW(!shorter.error.empty() || (isFile && SameRecords(shorter, module))); // our section ends where the file does
    return 0;
}
