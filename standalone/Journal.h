// Journal of what the simulated devices did, with times taken where light is really on or off.
//
// Every simulated device, the host's shutters and the plug-ins' devices alike, writes here: its calls, and the moments
// at which its light came on and went off. Reports take their measured times from it, never from what was asked.
#pragma once

#include "host/QsHostApi.h"

#include <cstdint>
#include <string>
#include <vector>

namespace QsStandalone {

enum class EJournalKind
{
    Call,   // an operation of the device was entered; `text` names it with its arguments
    Return, // and left, with `status`
    LightOn,
    LightOff,
    Fault // an injected fault took effect; `text` says which
};

struct SJournalEntry
{
    double timeMs = 0.0; // QS_GetTimeCounter
    std::uint64_t thread = 0;
    EJournalKind kind = EJournalKind::Call;
    std::string device;
    std::string text;
    int status = 0;
};

// One process-wide journal. [any thread]
class QS_HOST_API CQsJournal
{
public:
    static void Call(const std::string& device, const std::string& text);
    static void Return(const std::string& device, const std::string& text, int status);
    static void LightOn(const std::string& device, const std::string& text = {});
    static void LightOff(const std::string& device, const std::string& text = {});
    static void Fault(const std::string& device, const std::string& text);

    static std::vector<SJournalEntry> Entries();
    static std::size_t Count();
    static std::vector<SJournalEntry> EntriesFrom(std::size_t first);
    static void Clear(); // entries only; what is lit stays known
    // Devices whose light is on now.
    static std::vector<std::string> LitDevices();
    // Off: entries are not kept (lit devices still are), for benchmarks. On at first.
    static void SetRecording(bool record);
    // Ask before building a text for a call that must cost nothing while nothing is kept.
    static bool IsRecording();
};

} // namespace QsStandalone
