// Devices of the stimulation beampaths.
#include "manager/StimulationManager.h"

void CQsStimulationDeviceManager::SetStimulationBeampathsDirty()
{
    m_bBeampathsDirty = true;
}

int CQsStimulationDeviceManager::GetActiveStimulationBeampathId()
{
    return m_activeBeampathId;
}

void CQsStimulationDeviceManager::SetActiveStimulationBPId(int beampathId)
{
    if (m_activeBeampathId.exchange(beampathId) != beampathId)
        FireCallbackForChange(eChangeActiveBeampath);
}

IQsStimulationDevice* CQsStimulationDeviceManager::GetStimulationDeviceInterfaceForBeampath(int beampathId)
{
    if (!m_bDatabaseMode)
        return nullptr;
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockBeampath);
    const auto entry = m_beampathDevices.find(beampathId);
    return entry != m_beampathDevices.end() ? entry->second : nullptr;
}

// The device with one more reference, taken before a rebuild of the beampaths can drop it; null when there is none.
IQsStimulationDevice* CQsStimulationDeviceManager::ReferencedBeampathDevice(int beampathId)
{
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockBeampath);
    IQsStimulationDevice* const device = GetStimulationDeviceInterfaceForBeampath(beampathId);
    CQsRTTI::AddRef(device);
    return device;
}
