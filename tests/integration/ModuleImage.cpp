#include "tests/integration/ModuleImage.h"

#include <stdexcept>

CModuleImage::CModuleImage(std::string file) : m_file(std::move(file))
{
    m_isElf = m_file.compare(0, 4, "\177ELF") == 0;
    if (m_isElf)
        ReadElf();
    else if (m_file.compare(0, 2, "MZ") == 0)
        ReadPe();
    else
        throw std::runtime_error("neither an ELF nor a PE file");
}

std::uint64_t CModuleImage::Number(std::uint64_t offset, unsigned bytes) const
{
    std::uint64_t number = 0;
    for (unsigned i = bytes; i-- > 0;)
        number = number << 8 | static_cast<unsigned char>(m_file.at(offset + i));
    return number;
}

std::string CModuleImage::Text(std::uint64_t offset) const
{
    std::string text;
    for (; m_file.at(offset) != '\0'; ++offset)
        text += m_file[offset];
    return text;
}

std::string CModuleImage::Bytes(std::uint64_t offset, std::uint64_t count) const
{
    if (offset + count > m_file.size())
        throw std::out_of_range("a section reaches beyond the end of the file");
    return m_file.substr(offset, count);
}

void CModuleImage::ReadElf()
{
    if (Number(4, 1) != 2 || Number(5, 1) != 1)
        throw std::runtime_error("expected an ELF file of 64 bits, little-endian");
    constexpr std::uint64_t takesNoRoom = 8, dynamicSymbols = 11;
    const std::uint64_t table = Number(0x28, 8);
    const std::uint64_t entry = Number(0x3A, 2);
    const std::uint64_t count = Number(0x3C, 2);
    const std::uint64_t names = Number(table + entry * Number(0x3E, 2) + 0x18, 8);
    for (std::uint64_t i = 1; i < count; ++i)
    {
        const std::uint64_t header = table + entry * i;
        const std::uint64_t type = Number(header + 4, 4);
        const std::uint64_t flags = Number(header + 8, 8);
        const std::uint64_t offset = Number(header + 0x18, 8);
        const std::uint64_t size = Number(header + 0x20, 8);
        m_sections.push_back({Text(names + Number(header, 4)), (flags & 2) != 0, (flags & 1) != 0, (flags & 4) != 0,
                              Number(header + 0x10, 8), type == takesNoRoom ? std::string() : Bytes(offset, size)});
        m_offsets.push_back(offset);
        if (type == dynamicSymbols)
            ReadElfSymbols(offset, size, Number(table + entry * Number(header + 0x28, 4) + 0x18, 8));
    }
}

void CModuleImage::ReadElfSymbols(std::uint64_t symbols, std::uint64_t size, std::uint64_t names)
{
    constexpr std::uint64_t entry = 24;
    for (std::uint64_t symbol = symbols; symbol < symbols + size; symbol += entry)
    {
        const bool isLocal = Number(symbol + 4, 1) >> 4 == 0;
        const bool isHidden = (Number(symbol + 5, 1) & 3) != 0;
        const bool isDefined = Number(symbol + 6, 2) != 0;
        if (isDefined && !isLocal && !isHidden)
            m_exports.insert(Text(names + Number(symbol, 4)));
    }
}

void CModuleImage::ReadPe()
{
    const std::uint64_t header = Number(0x3C, 4);
    const std::uint64_t optional = header + 24;
    if (Number(header, 4) != 0x4550 || Number(optional, 2) != 0x20B)
        throw std::runtime_error("expected a PE file of 64 bits");
    const std::uint64_t table = optional + Number(header + 20, 2);
    const std::uint64_t count = Number(header + 6, 2);
    for (std::uint64_t i = 0; i < count; ++i)
    {
        const std::uint64_t entry = table + 40 * i;
        const std::uint64_t flags = Number(entry + 36, 4);
        const std::string name = Bytes(entry, 8);
        const std::uint64_t offset = Number(entry + 20, 4);
        const bool discarded = (flags & 0x02000000) != 0;
        m_sections.push_back({name.substr(0, name.find('\0')), !discarded, (flags & 0x80000000) != 0,
                              (flags & 0x20000000) != 0, Number(entry + 12, 4), Bytes(offset, Number(entry + 16, 4))});
        m_offsets.push_back(offset);
    }
    if (Number(optional + 108, 4) > 0 && Number(optional + 112, 4) != 0)
        ReadPeExports(OffsetInPe(Number(optional + 112, 4)));
}

void CModuleImage::ReadPeExports(std::uint64_t directory)
{
    const std::uint64_t count = Number(directory + 24, 4);
    const std::uint64_t names = OffsetInPe(Number(directory + 32, 4));
    for (std::uint64_t i = 0; i < count; ++i)
        m_exports.insert(Text(OffsetInPe(Number(names + 4 * i, 4))));
}

std::uint64_t CModuleImage::OffsetInPe(std::uint64_t address) const
{
    for (std::size_t i = 0; i < m_sections.size(); ++i)
        if (address >= m_sections[i].address && address - m_sections[i].address < m_sections[i].bytes.size())
            return m_offsets[i] + (address - m_sections[i].address);
    throw std::out_of_range("an address in no section");
}
