// What tests must see or change behind the manager's public surface.
#pragma once

#include "manager/StimulationManager.h"

struct CQsStimulationDeviceManagerTestAccess
{
    using Manager = CQsStimulationDeviceManager;

    // The system never destroys the manager; tests do, to show what its end does. End a running worker first.
    static void DeleteInstance() { delete Manager::InstanceIfExists(); }

    // --- beampaths, as the device database would give them. References stay the caller's.
    static void SetBeampathDevices(Manager& manager, const std::map<int, IQsStimulationDevice*>& devices)
    {
        CQsScopedLock<CQsRecursiveMutex> lock(manager.m_lockBeampath);
        manager.m_beampathDevices = devices;
    }
    static void SetActiveBeampathId(Manager& manager, int beampathId) { manager.m_activeBeampathId = beampathId; }
    static void SetActiveStimulationBPId(Manager& manager, int beampathId)
    {
        manager.SetActiveStimulationBPId(beampathId);
    }
    static bool AreBeampathsDirty(const Manager& manager)
    {
        return manager.m_beampathMarks != manager.m_beampathMarksBuilt;
    }
    // As the rebuild of the beampaths leaves the marks.
    static void CleanBeampaths(Manager& manager) { manager.m_beampathMarksBuilt = manager.m_beampathMarks.load(); }
    // The table as it stands, without a refresh.
    static std::map<int, IQsStimulationDevice*> BeampathDevices(Manager& manager)
    {
        CQsScopedLock<CQsRecursiveMutex> lock(manager.m_lockBeampath);
        return manager.m_beampathDevices;
    }
    static std::map<CQsStringW, int> BeampathIdsByName(Manager& manager)
    {
        CQsScopedLock<CQsRecursiveMutex> lock(manager.m_lockBeampath);
        return manager.m_beampathIdsByName;
    }
    // The lookup of a system-active optical configuration, which no host's value reaches.
    static int FindSystemActiveBeampath(Manager& manager, const CQsStringW& name)
    {
        CQsScopedLock<CQsRecursiveMutex> lock(manager.m_lockOCNames);
        return manager.FindSystemActiveBeampath(name);
    }
    static bool IsDatabaseMode(const Manager& manager) { return manager.m_bDatabaseMode; }

    // --- recently used names
    static std::vector<CQsStringW> Mru(const Manager& manager)
    {
        CQsScopedLock<CQsMutex> lock(manager.m_lockMru);
        return manager.m_mru;
    }
    static void SetMru(Manager& manager, const std::vector<CQsStringW>& names)
    {
        CQsScopedLock<CQsMutex> lock(manager.m_lockMru);
        manager.m_mru = names;
    }
    static CQsStringW MruGet(const Manager& manager, unsigned index) { return manager.MruGet(index); }
    // The list's own text, which a change of the list moves or destroys.
    static const wchar_t* MruText(const Manager& manager, std::size_t index)
    {
        CQsScopedLock<CQsMutex> lock(manager.m_lockMru);
        return manager.m_mru.at(index).c_str();
    }
    static void MruSet(Manager& manager, const wchar_t* name) { manager.MruSet(name); }
    static void MruLoad(Manager& manager) { manager.MruLoad(); }
    static void MruSave(Manager& manager) { manager.MruSave(); }
    static void RefreshRegOptions(Manager& manager) { manager.RefreshRegOptions(); }

    // --- device lists
    static std::vector<Manager::SQsDeviceInfo>& StaticDevices(Manager& manager) { return manager.m_staticDevices; }
    static const std::vector<IQsStimulationDevice*>& SpecialDevices(const Manager& m) { return m.m_specialDevices; }
    static const std::vector<IQsStimulationDevice*>& OptConfDevices(const Manager& m) { return m.m_optConfDevices; }
    static const std::vector<IQsStimulationDevice*>& Shutters(const Manager& m) { return m.m_shutters; }
    static void LoadStaticDevices(Manager& manager) { manager.LoadStaticDevices(); }

    // --- script command
    static void RegisterScriptCommand() { Manager::RegisterScriptCommand(); }
    static void UnregisterScriptCommand() { Manager::UnregisterScriptCommand(); }

    // --- the running stimulation
    static int WaitForStimulationEnd(Manager& manager, unsigned timeoutMs, bool bAbort)
    {
        return manager.WaitForStimulationEnd(timeoutMs, bAbort);
    }
    static bool IsRequestPending(Manager& manager)
    {
        CQsScopedLock<CQsThreadsMutex> lock(manager.m_lockS);
        return manager.m_pRequest != nullptr;
    }

    // Lock R and the lock of the beampaths, for a test that holds one on a thread of its own, as a callback would.
    static CQsRegistryLock& LockR(Manager& manager) { return manager.m_lockR; }
    static CQsRecursiveMutex& LockBeampath(Manager& manager) { return manager.m_lockBeampath; }
};
