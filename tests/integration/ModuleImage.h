// A module's file as the system's loader sees it, ELF or PE of 64 bits. Knows nothing of the host's own reader.
//
// Reads beyond the end of the file throw std::out_of_range.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

struct SImageSection
{
    std::string name;
    bool loaded = false; // is in the process's memory
    bool writable = false;
    bool executable = false;
    std::uint64_t address = 0; // relative to the image
    std::string bytes;         // as they stand in the file
};

class CModuleImage
{
public:
    explicit CModuleImage(std::string file);

    bool IsElf() const { return m_isElf; }
    const std::vector<SImageSection>& Sections() const { return m_sections; }
    // Names that other modules can link to, as they stand in the file.
    const std::set<std::string>& ExportedNames() const { return m_exports; }

private:
    std::uint64_t Number(std::uint64_t offset, unsigned bytes) const;
    std::string Text(std::uint64_t offset) const; // up to a zero byte
    std::string Bytes(std::uint64_t offset, std::uint64_t count) const;

    void ReadElf();
    void ReadElfSymbols(std::uint64_t symbols, std::uint64_t size, std::uint64_t names);
    void ReadPe();
    void ReadPeExports(std::uint64_t directory);
    std::uint64_t OffsetInPe(std::uint64_t address) const;

    std::string m_file;
    bool m_isElf = false;
    std::vector<SImageSection> m_sections;
    std::vector<std::uint64_t> m_offsets; // of the sections in the file
    std::set<std::string> m_exports;
};
