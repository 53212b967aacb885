// Sections of an object file, ELF or PE, found through its headers alone.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace QsStandalone {

// What is wrong with a file or a record, in a few words.
struct SDamage : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

enum class EObjectFormat
{
    None,
    Elf,
    Pe
};

struct SSection
{
    bool found = false;
    std::uint64_t offset = 0; // in the file [byte]
    std::uint64_t size = 0;   // lies inside the file
};

EObjectFormat FormatOf(const std::string& file);
// The first section of that name. Throws SDamage when the headers, the section table or a section reach beyond the
// file's end, or the headers are none of a little-endian file of 32 or 64 bits. Takes no memory, whatever the file
// holds.
SSection FindSection(const std::string& file, const std::string& name);

} // namespace QsStandalone
