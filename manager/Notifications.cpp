// Callbacks and listeners.
#include "manager/StimulationManager.h"

void CQsStimulationDeviceManager::AddCallbackForChange(ChangeCallback callback)
{
    m_changeCallbacks.Insert(callback);
}

void CQsStimulationDeviceManager::RemoveCallbackForChange(ChangeCallback callback)
{
    m_changeCallbacks.Erase(callback);
}

void CQsStimulationDeviceManager::AddCallbackForDeviceStateChange(DeviceStateCallback callback)
{
    m_deviceStateCallbacks.Insert(callback);
}

void CQsStimulationDeviceManager::RemoveCallbackForDeviceStateChange(DeviceStateCallback callback)
{
    m_deviceStateCallbacks.Erase(callback);
}

void CQsStimulationDeviceManager::AddCallbackForStimulationOCCommand(OCCommandCallback callback)
{
    m_ocCommandCallbacks.Insert(callback);
}

void CQsStimulationDeviceManager::RemoveCallbackForStimulationOCCommand(OCCommandCallback callback)
{
    m_ocCommandCallbacks.Erase(callback);
}

void CQsStimulationDeviceManager::FireCallbackForChange(unsigned code)
{
    for (const ChangeCallback callback : m_changeCallbacks.Snapshot())
        callback(code);
}

void CQsStimulationDeviceManager::FireCallbackForDeviceStateChange(IQsStimulationDevice* device, unsigned state)
{
    // Devices announce from threads of their own, also while a host thread waits, holding R, for their stimulation.
    const CQsRegistryLock::CStateAnnouncement lock(m_lockR);
    if (device == nullptr || ActiveEntryDevice() != device)
        return;
    for (const DeviceStateCallback callback : m_deviceStateCallbacks.Snapshot())
        callback(device, state);
}

void CQsStimulationDeviceManager::FireCallbackForStimulationOCCommand(EQsStimulationManagerOCCommand command)
{
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockOC);
    const CQsRegistryLock::CHoldingScope holding; // the worker of another stimulation may wait for the lock
    for (const OCCommandCallback callback : m_ocCommandCallbacks.Snapshot())
        callback(command);
}

void CQsStimulationDeviceManager::RegisterStimulationDeviceManagerEventListener(
    IQsStimulationDeviceManagerEventListener* listener)
{
    m_listeners.Insert(listener);
}

void CQsStimulationDeviceManager::UnregisterStimulationDeviceManagerEventListener(
    IQsStimulationDeviceManagerEventListener* listener)
{
    m_listeners.Erase(listener);
    // Its owner destroys it next. Who is inside a beampath may need R to come out.
    while (m_listeners.IsOtherThreadInside(listener))
        LendRegistryWhile(0, [this, listener] { m_listeners.WaitForLeaving(listener); });
}

int CQsStimulationDeviceManager::NotifyStimulationDeviceManagerEventListeners()
{
    return m_listeners.Notify();
}
