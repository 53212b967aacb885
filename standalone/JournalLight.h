// The light of one of the host's own devices, for callers that cannot afford a search by name at every switch.
#pragma once

#include <atomic>
#include <string>

namespace QsStandalone {

// What CQsJournal::IsRecording answers, for a caller to whom a function call is dear.
extern std::atomic<bool> g_journalRecords;

// Writes the same entries, and changes the same lit state, as CQsJournal::LightOn and LightOff with the device's name.
// While nothing is recorded a switch is one atomic store. [any thread]
class CQsJournalLight
{
public:
    explicit CQsJournalLight(std::string device);

    void On() { Switch(true); }
    void Off() { Switch(false); }

private:
    void Switch(bool on);

    std::string m_device;
    std::atomic<bool>& m_lit; // the journal's, and never freed
};

} // namespace QsStandalone
