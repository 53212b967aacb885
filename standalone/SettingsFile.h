// Settings files: a store of levels and values as JSON with an end sum. docs/formats.md describes them to the byte.
#pragma once

#include "standalone/JsonText.h"
#include "standalone/SettingsTree.h"

#include <cstddef>
#include <memory>
#include <string>

namespace QsStandalone {

constexpr std::size_t s_deepestSettings = 64; // levels in each other
constexpr std::size_t s_longestSettings = std::size_t{256} << 20;

// The file's text, of about `expected` bytes. Empty, with one line, for a store that is too deep or too large to be
// read again.
std::string WriteSettings(const SQsLiteLevel& root, bool compact, std::size_t expected, std::string& error);

// Null, with the fault, for what is no settings file. `fits`: whether the end sum does; when it does not, the fault
// says so. A file without an end sum was edited by hand and fits.
SQsLiteLevel::Level ParseSettings(const std::string& text, bool& fits, SJsonFault& fault);

enum class ESettingsFile
{
    Whole,
    Missing,
    Unreadable, // it is there and is no file, or the system does not let it be read
    Damaged     // cut, altered, or no settings file at all
};

// Anything but Whole leaves `root` as it was; `error` then says why, in one line. The text of the last whole file is
// kept with its store: a file that still has exactly these bytes gives the same store again, without a parse.
ESettingsFile ReadSettingsFile(const std::string& path, bool check, SQsLiteLevel::Level& root, std::string& error);

// Replaces the file atomically. One that is there and is not whole is kept aside first; `backup`: a whole one too.
// False, with one line, when that fails; then the old file is as it was.
bool SaveSettingsFile(const std::string& path, const SQsLiteLevel::Level& root, bool compact, bool sync, bool backup,
                      std::string& error);

} // namespace QsStandalone
