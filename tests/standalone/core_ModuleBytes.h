// Module files made byte by byte.
#pragma once

#include <cstdint>
#include <string>

// Bytes of a file under construction; grows with zeros as it is written to.
class CFileBytes
{
public:
    CFileBytes& Put(std::size_t offset, std::uint64_t number, unsigned count)
    {
        for (unsigned i = 0; i < count; ++i)
            PutText(offset + i, std::string(1, static_cast<char>(number >> (8 * i) & 0xFF)));
        return *this;
    }
    CFileBytes& PutText(std::size_t offset, const std::string& text)
    {
        if (m_bytes.size() < offset + text.size())
            m_bytes.resize(offset + text.size(), '\0');
        m_bytes.replace(offset, text.size(), text);
        return *this;
    }
    const std::string& Get() const { return m_bytes; }

private:
    std::string m_bytes;
};

// UTF-16LE with a terminator, zero-filled to the next 16 bytes.
inline std::string RecordBytes(const std::string& ascii)
{
    std::string bytes;
    for (const char c : ascii)
        (bytes += c) += '\0';
    bytes.append(2, '\0');
    bytes.resize((bytes.size() + 15) / 16 * 16, '\0');
    return bytes;
}

inline std::string ParentsText(const std::string& cls, const std::string& second = "")
{
    std::string text = "<variant version=\"1.0\"><" + cls + " runtype=\"RQsRttiClass\">";
    for (int i = 1; i <= 9; ++i)
        text += "<m_parent" + std::to_string(i) + " runtype=\"CQsStringW\" value=\"" +
                (i == 1 ? "IQsStimulationDevice" : (i == 2 ? second : "")) + "\"/>";
    return text + "</" + cls + "></variant>";
}

inline std::string VersionText(const std::string& cls, const std::string& version, const std::string& friendly)
{
    return "<variant version=\"1.0\"><" + cls + " runtype=\"CQsListVariant\"><m_version value=\"" + version +
           "\" runtype=\"qs_int32\"/><m_friendlyName value=\"" + friendly + "\" runtype=\"CQsStringW\"/></" + cls +
           "></variant>";
}

inline std::string ClassBytes(const std::string& cls, const std::string& friendly)
{
    return RecordBytes(ParentsText(cls)) + RecordBytes(VersionText(cls, "1", friendly));
}

// A 64-bit PE library with a code section and the section `name`, which holds `contents`.
inline std::string PeFile(const std::string& name, std::string contents)
{
    constexpr std::size_t header = 0x80;
    constexpr std::size_t optional = header + 24;
    constexpr std::size_t table = optional + 240;
    contents.resize((contents.size() + 0x1FF) / 0x200 * 0x200, '\0');

    CFileBytes file;
    file.PutText(0, "MZ").Put(0x3C, header, 4);
    file.PutText(header, std::string("PE\0\0", 4));
    file.Put(header + 4, 0x8664, 2).Put(header + 6, 2, 2).Put(header + 20, 240, 2).Put(header + 22, 0x2022, 2);
    file.Put(optional, 0x20B, 2).Put(optional + 16, 0x1000, 4).Put(optional + 20, 0x1000, 4);
    file.Put(optional + 24, 0x180000000u, 8).Put(optional + 32, 0x1000, 4).Put(optional + 36, 0x200, 4);
    file.Put(optional + 40, 6, 2).Put(optional + 48, 6, 2).Put(optional + 56, 0x10000, 4).Put(optional + 60, 0x400, 4);
    file.Put(optional + 68, 2, 2).Put(optional + 108, 16, 4);
    file.PutText(table, ".text").Put(table + 8, 1, 4).Put(table + 12, 0x1000, 4).Put(table + 16, 0x200, 4);
    file.Put(table + 20, 0x400, 4).Put(table + 36, 0x60000020, 4);
    file.PutText(table + 40, name).Put(table + 48, contents.size(), 4).Put(table + 52, 0x2000, 4);
    file.Put(table + 56, contents.size(), 4).Put(table + 60, 0x600, 4).Put(table + 76, 0xC0000040, 4);
    file.PutText(0x400, std::string(0x200, '\xC3')).PutText(0x600, contents);
    return file.Get();
}

// A 64-bit ELF library with the section `name`, which holds `contents`; its table of sections stands at the end.
inline std::string ElfFile(const std::string& name, std::string contents)
{
    constexpr std::size_t header = 64;
    constexpr std::size_t sectionHeader = 64;
    const std::string names = std::string(1, '\0') + name + std::string(1, '\0') + ".shstrtab" + std::string(1, '\0');
    const std::size_t namesAt = header + contents.size();
    const std::size_t table = (namesAt + names.size() + 7) / 8 * 8;

    CFileBytes file;
    file.PutText(0, "\177ELF").Put(4, 2, 1).Put(5, 1, 1).Put(6, 1, 1); // 64 bits, little-endian
    file.Put(16, 3, 2).Put(18, 62, 2).Put(20, 1, 4).Put(0x28, table, 8);
    file.Put(0x34, header, 2).Put(0x3A, sectionHeader, 2).Put(0x3C, 3, 2).Put(0x3E, 2, 2);
    file.PutText(header, contents).PutText(namesAt, names);
    const std::size_t records = table + sectionHeader; // behind the header that stands for no section
    file.Put(records, 1, 4).Put(records + 4, 1, 4).Put(records + 8, 3, 8).Put(records + 16, 0x1000, 8);
    file.Put(records + 24, header, 8).Put(records + 32, contents.size(), 8).Put(records + 48, 16, 8);
    const std::size_t texts = records + sectionHeader;
    file.Put(texts, 2 + name.size(), 4).Put(texts + 4, 3, 4).Put(texts + 24, namesAt, 8);
    file.Put(texts + 32, names.size(), 8).Put(texts + 48, 1, 8).Put(texts + 56, 0, 8);
    return file.Get();
}
