// What the manager tells its host while it works: change codes and optical-configuration commands, with their times.
#pragma once

#include <string>
#include <vector>

class CQsStimulationDeviceManager;

namespace Stimhost {

struct SSignal
{
    double timeMs = 0.0;  // QS_GetTimeCounter
    bool command = false; // an optical-configuration command, else a change code
    unsigned value = 0;
};

std::string SignalText(const SSignal& signal);                // "8", "OC 1"
std::string SignalsText(const std::vector<SSignal>& signals); // "8, OC 1, OC 2"; "none"

// Listens from its making on. Several listen side by side.
class CSignalListener
{
public:
    explicit CSignalListener(CQsStimulationDeviceManager& manager);
    CSignalListener(const CSignalListener&) = delete;
    CSignalListener& operator=(const CSignalListener&) = delete;

    std::vector<SSignal> Take(); // those since the last time, in their order

private:
    std::size_t m_next;
};

} // namespace Stimhost
