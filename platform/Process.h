// The running program, as the system knows it.
#pragma once

#include "host/QsHostApi.h"

#include <string>

namespace QsPlatform {

// Absolute path of the program's file; empty when the system does not tell.
QS_HOST_API std::string ProgramFile();

// Gives each of the standard streams that is closed a file of its own on which it fails; otherwise the next file that
// is opened would take its place, and be written into. Call it before any file is opened.
QS_HOST_API void GuardStandardStreams();

// Whether a person sees what is written to stderr.
QS_HOST_API bool StderrIsTerminal();

} // namespace QsPlatform
