// Class records read out of a module file, ELF or PE, without running code of it.
#pragma once

#include "host/QsHostApi.h"

#include <cstdint>
#include <string>
#include <vector>

namespace QsStandalone {

struct SClassRecord
{
    std::string className;
    std::vector<std::string> parents; // as many as the record has, empty ones included
    int version = 0;
    std::string friendlyName;
    std::uint64_t offset = 0; // of the first record inside the section [byte]
};

struct SModuleFile
{
    std::string path;
    std::string format;  // "ELF" or "PE"; empty when the file is neither
    std::string section; // name of the section that holds the records; empty when there is none
    std::vector<SClassRecord> classes;
    std::string
        error; // one line when the file is damaged, truncated or foreign; then `classes` holds what was readable
};

// Never throws and never loads the file as code. A module without records is no error.
QS_HOST_API SModuleFile ReadModuleFile(const std::string& path);

} // namespace QsStandalone
