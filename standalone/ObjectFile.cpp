// A library for object files reads symbols, relocations and resources too, and a damaged count in one of these makes it
// take hundreds of megabytes. Here nothing is read but the headers and the section table, each number checked against
// the file.
#include "standalone/ObjectFile.h"

namespace QsStandalone {
namespace {

// Little-endian numbers of the file, which must be there.
class CBytes
{
public:
    explicit CBytes(const std::string& bytes) : m_bytes(bytes) {}

    std::uint64_t Number(std::uint64_t offset, unsigned count) const
    {
        Need(offset, count, "the headers reach beyond the end of the file");
        std::uint64_t number = 0;
        for (unsigned i = count; i-- > 0;)
            number = (number << 8) | static_cast<unsigned char>(m_bytes[static_cast<std::size_t>(offset) + i]);
        return number;
    }

    // Text that ends with a zero byte, or after `most` bytes.
    std::string Text(std::uint64_t offset, std::uint64_t most) const
    {
        const auto begin = static_cast<std::size_t>(offset);
        const auto count = static_cast<std::size_t>(most);
        const std::size_t zero = m_bytes.substr(begin, count).find('\0');
        return m_bytes.substr(begin, zero == std::string::npos ? count : zero);
    }

    void Need(std::uint64_t offset, std::uint64_t count, const char* otherwise) const
    {
        if (offset > m_bytes.size() || count > m_bytes.size() - offset)
            throw SDamage(otherwise);
    }

private:
    const std::string& m_bytes;
};

constexpr char tableBeyondEnd[] = "the section table reaches beyond the end of the file";
constexpr char sectionBeyondEnd[] = "a section reaches beyond the end of the file";

SSection FindElfSection(const std::string& file, const std::string& wanted)
{
    const CBytes bytes(file);
    const std::uint64_t bits = bytes.Number(4, 1);
    if (bits != 1 && bits != 2)
        throw SDamage("the ELF header names neither 32 nor 64 bits");
    if (bytes.Number(5, 1) != 1)
        throw SDamage("the ELF header does not name little-endian numbers");
    const bool is64 = bits == 2;
    const unsigned word = is64 ? 8 : 4;
    const std::uint64_t headerSize = is64 ? 64 : 40;
    const std::uint64_t table = bytes.Number(is64 ? 0x28 : 0x20, word);
    const std::uint64_t entry = bytes.Number(is64 ? 0x3A : 0x2E, 2);
    const std::uint64_t count = bytes.Number(is64 ? 0x3C : 0x30, 2);
    const std::uint64_t namesIndex = bytes.Number(is64 ? 0x3E : 0x32, 2);
    if (table == 0 || count == 0)
        throw SDamage("the ELF file has no section table");
    if (entry != headerSize)
        throw SDamage("the ELF header gives a wrong size of section headers");
    bytes.Need(table, headerSize * count, tableBeyondEnd);
    if (namesIndex >= count)
        throw SDamage("the ELF file has no section names");

    // Section header: name, type, flags, address, offset, size.
    const auto rangeOf = [&](std::uint64_t index)
    {
        constexpr std::uint64_t takesNoRoom = 8;
        const std::uint64_t header = table + headerSize * index;
        SSection section{true, bytes.Number(header + (is64 ? 0x18 : 0x10), word),
                         bytes.Number(header + (is64 ? 0x20 : 0x14), word)};
        if (bytes.Number(header + 4, 4) == takesNoRoom)
            section.offset = section.size = 0;
        else
            bytes.Need(section.offset, section.size, sectionBeyondEnd);
        return section;
    };
    const SSection names = rangeOf(namesIndex);
    SSection found;
    for (std::uint64_t i = 1; i < count; ++i) // the first header stands for no section
    {
        const SSection section = rangeOf(i);
        const std::uint64_t name = bytes.Number(table + headerSize * i, 4);
        const std::uint64_t room = name < names.size ? names.size - name : 0;
        if (!found.found && room > wanted.size() && bytes.Text(names.offset + name, wanted.size() + 1) == wanted)
            found = section;
    }
    return found;
}

SSection FindPeSection(const std::string& file, const std::string& wanted)
{
    constexpr std::uint64_t headerSize = 40;
    constexpr std::uint64_t nameSize = 8;
    const CBytes bytes(file);
    const std::uint64_t header = bytes.Number(0x3C, 4);
    if (bytes.Number(header, 4) != 0x4550)
        throw SDamage("a DOS file without a PE header");
    const std::uint64_t count = bytes.Number(header + 6, 2);
    const std::uint64_t optionalSize = bytes.Number(header + 20, 2);
    const std::uint64_t kind = bytes.Number(header + 24, 2);
    if (kind != 0x10B && kind != 0x20B)
        throw SDamage("the PE header names neither 32 nor 64 bits");
    const std::uint64_t table = header + 24 + optionalSize;
    bytes.Need(table, headerSize * count, tableBeyondEnd);
    SSection found;
    for (std::uint64_t i = 0; i < count; ++i)
    {
        const std::uint64_t entry = table + headerSize * i;
        const SSection section{true, bytes.Number(entry + 20, 4), bytes.Number(entry + 16, 4)};
        bytes.Need(section.offset, section.size, sectionBeyondEnd);
        if (!found.found && bytes.Text(entry, nameSize) == wanted)
            found = section;
    }
    return found;
}

} // namespace

EObjectFormat FormatOf(const std::string& file)
{
    if (file.compare(0, 4, "\177ELF") == 0)
        return EObjectFormat::Elf;
    return file.compare(0, 2, "MZ") == 0 ? EObjectFormat::Pe : EObjectFormat::None;
}

SSection FindSection(const std::string& file, const std::string& name)
{
    return FormatOf(file) == EObjectFormat::Elf ? FindElfSection(file, name) : FindPeSection(file, name);
}

} // namespace QsStandalone
