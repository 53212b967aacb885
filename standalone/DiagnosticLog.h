// Where the diagnostic log goes, and how much of it.
#pragma once

#include "host/QsSystem.h"

#include <cstdint>
#include <string>
#include <vector>

namespace QsStandalone {

enum class ELogLevel
{
    Off,    // nothing
    Normal, // everything but detailed messages
    Detailed
};

struct SLogLine
{
    double timeMs = 0.0;
    CQsStringW unit;
    int line = 0;
    CQsStringW text;
};

// One process-wide log; level Normal and no sink at first. [any thread]
class QS_HOST_API CQsDiagnosticLog
{
public:
    static void SetLevel(ELogLevel level);
    static ELogLevel GetLevel();
    static void ToStderr(bool on);
    static void ToMemory(bool on); // off also drops what was kept
    static std::vector<SLogLine> MemoryLines();
    // Appends UTF-8 lines to a file. A file that would pass maxBytes is renamed to "<path>.1", older ones to .2 and so
    // on up to `keep`, the oldest goes; maxBytes 0: it is never renamed. An empty path ends it. False, with one line,
    // when the file cannot be opened: then the log goes on as before. A disk that fills up later is reported once on
    // stderr, the log goes on in its other sinks, and in the file when there is room again.
    static bool ToFile(const std::string& path, std::uint64_t maxBytes, unsigned keep, std::string& error);
};

} // namespace QsStandalone
