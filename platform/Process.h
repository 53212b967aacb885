// The running program, as the system knows it.
#pragma once

#include "host/QsHostApi.h"

#include <string>

namespace QsPlatform {

// Absolute path of the program's file; empty when the system does not tell.
QS_HOST_API std::string ProgramFile();

// Whether a person sees what is written to stderr.
QS_HOST_API bool StderrIsTerminal();

} // namespace QsPlatform
