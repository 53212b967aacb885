// The stimulation-device manager: the process-wide registry of stimulation devices, the active one among them, the
// notifications about changes, and the timed asynchronous stimulation.
//
// One instance for each process, made by the first GetInstance and never destroyed by the system.
//
// References: the special, shutter and option-configuration lists take over the reference that the caller hands in;
// simple devices are referenced by the manager from registration to unregistration; static devices are created by the
// manager. In database mode each entry of the device map holds a reference of its own.
//
// Thread tags and the order of locks are defined in docs/threading.md. R is the registry lock, S the lock of the
// running stimulation. Operations tagged [host, no lock] read or change what Update rebuilds; the caller must not run
// them beside it.
//
// Status: 0 = QS_OK; -4 null device; -8 and -12 not in database mode; -9 QS_ERR_FAIL: missing entry, index out of
// range, stimulation still running; -13 not found in a list, nothing could be activated.
#pragma once

#include "device/StimulationDevice.h"
#include "host/QsPluginManager.h"
#include "manager/ListenerSet.h"
#include "manager/RegistryLock.h"
#include "manager/SnapshotSet.h"
#include "manager/ThreadsMutex.h"
#include "platform/ThreadSafety.h"
#include "platform/Threads.h"
#include "platform/Win32.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

class QS_STIM_API CQsStimulationDeviceManager
{
public:
    // Change codes of the change callbacks, single bits.
    enum EQsStimulationManagerChange : unsigned
    {
        eChangeDeviceList = 1,       // the device list was rebuilt
        eChangeActiveDevice = 2,     // another device is active, or none could be activated
        eChangeBeampaths = 4,        // the beampaths were rebuilt
        eChangeStimulationBegin = 8, // a stimulation begins on a beampath
        eChangeStimulationEnd = 16,  // and ended
        eChangeStimulationOC = 32,   // the stimulation optical configuration was set
        eChangeActiveBeampath = 64   // the active stimulation beampath changed
    };

    // Optical-configuration commands. The host gives them their meaning; these three are fired.
    enum EQsStimulationManagerOCCommand : unsigned
    {
        eOCCommandStimulationBegin = 1,
        eOCCommandStimulationPhase = 2,
        eOCCommandStimulationEnd = 16
    };

    using ChangeCallback = void (*)(unsigned code);
    using DeviceStateCallback = void (*)(IQsStimulationDevice* device, unsigned state);
    using OCCommandCallback = void (*)(unsigned command);
    // End of a timed asynchronous stimulation. The arrays hold `count` times [ms of QS_GetTimeCounter], -1.0 where a
    // device gave none, and are valid during the call only. They are null, with a count of 0, for a device in mode 7
    // without areas and when the stimulation failed before it began. [worker]
    using StimulationFinishFunction = void (*)(int result, double* beginTimes, double* endTimes, unsigned count,
                                               void* user);

    // A statically known device class. Copies copy the device pointer without taking a reference.
    struct QS_STIM_API SQsDeviceInfo
    {
        SQsDeviceInfo() = default;
        SQsDeviceInfo(const char* className, const wchar_t* moduleFile) : sClassName(className), sModuleFile(moduleFile)
        {}

        bool IsModuleLoaded() const; // the module is in the process; its use count is left alone
        // Creates the device when its module is loaded and it does not exist yet; forgets it when the module is gone.
        // True, with the unique name and the device (pDevice may be null), when the device exists and its hardware is
        // connected; else false, and the outputs are as they were.
        bool IsHwConnected(CQsStringW& sUniqueName, IQsStimulationDevice** pDevice);
        // The device's answer. A class whose module is not loaded, or whose creation failed, counts as visible: hosts
        // offer such a device so that the user can see what is missing.
        bool IsDeviceVisible();

        CQsStringA sClassName;
        CQsStringW sModuleFile;
        IQsStimulationDevice* pDevice = nullptr;

    private:
        bool ProvideDevice();
    };

    // What the host is told about a device.
    struct SQsInfo
    {
        bool bActive = false;
        bool bVisible = false;
        CQsStringW sName;        // unique name
        CQsStringW sDisplayName; // the device's own name for the user, or the unique name
    };

    struct SQsInfoEx : SQsInfo
    {
        SQsInfoEx() = default;
        SQsInfoEx(const wchar_t* name, IQsStimulationDevice* device) : SQsInfoEx(CQsStringW(name), device) {}
        QS_STIM_API SQsInfoEx(CQsStringW name, IQsStimulationDevice* device);

        IQsStimulationDevice* pDevice = nullptr;
    };

    // The instance, made on first use. [any thread]
    static CQsStimulationDeviceManager* GetInstance();
    // The instance, or null before the first GetInstance; never makes one. [any thread]
    static CQsStimulationDeviceManager* InstanceIfExists();

    CQsStimulationDeviceManager(const CQsStimulationDeviceManager&) = delete;
    CQsStimulationDeviceManager& operator=(const CQsStimulationDeviceManager&) = delete;

    // --- registry (Registry.cpp)

    // Device of that unique name, or null. [any thread, takes R]
    IQsStimulationDevice* GetDevice(const wchar_t* name);
    unsigned GetDeviceCount() const;                        // [host, no lock]
    int GetDeviceInfo(unsigned index, SQsInfo& info) const; // in order of names; -9 past the end [host, no lock]

    // The static device that `text` means: the one of that name, else the first whose name contains it, else the one
    // with the longest common prefix, else the first. Null only when no static device exists. [host, no lock]
    IQsStimulationDevice* FindStimulationDeviceByNameIntelligent(const wchar_t* text) const;
    // The same among the devices that answer "IQsStimulationDeviceEx"; null when none does. Not counted: the manager
    // keeps the device. [host, no lock]
    IQsStimulationDeviceEx* FindExStimulationDeviceByNameIntelligent(const wchar_t* text) const;

    // A plug-in's device enters the device map at the next Update. Unregistered, it is no longer handed out by any
    // lookup, and its entry, with its name and flags, stays until the Update after that. A running stimulation is
    // aborted first. 0, -4 for null, -9 when called by the stimulation's own worker. Registering twice is one
    // registration. Unregistering the active device leaves none active and does not tell it. [host, takes R, blocks]
    int RegisterSimpleStimulationDevice(IQsStimulationDevice* device);
    int UnregisterSimpleStimulationDevice(IQsStimulationDevice* device);

    int StaticDeviceAdd(const SQsDeviceInfo& info);                    // 0 [host, no lock]
    int StaticDeviceRemove(const char* className);                     // 0, or -13 when unknown [host, no lock]
    IQsStimulationDevice* GetStaticDevice(const wchar_t* name) const;  // by unique name; null [host, no lock]
    IQsStimulationDevice* GetSpecialDevice(const wchar_t* name) const; // by unique name; null [host, no lock]

    // Append a device with the caller's reference; duplicates are kept. A running stimulation is aborted first, also
    // for a null device, which is then dropped. On the stimulation's own worker nothing is appended and the reference
    // stays the caller's. [host, blocks]
    void SpecialDevicesAdd(IQsStimulationDevice* device);
    void ShuttersAdd(IQsStimulationDevice* device);
    void OptConfDevicesAdd(IQsStimulationDevice* device);
    // Empty the list, release its devices and take them out of the device map. [host, takes R, blocks]
    void SpecialDevicesRemoveAll();
    void ShuttersRemoveAll();
    void OptConfDevicesRemoveAll();

    int SetVisible(const wchar_t* name, bool bVisible); // until the next Update; -9 when unknown [any thread, takes R]

    // Every device that drives the logical / physical device; -9, and `devices` empty, when there is none. They take a
    // lock of their own and never R. [any thread]
    int GetStimulationDevicesForLogDevId(unsigned id, std::set<IQsStimulationDevice*>& devices);
    int GetStimulationDevicesForPhysDevId(unsigned id, std::set<IQsStimulationDevice*>& devices);

    // Whether a device of any stimulation beampath supports / has enabled the feature. The devices are asked in
    // ascending order of beampath ids, until the first that says yes. [any thread]
    bool QueryFeatureSupported(unsigned featureId);
    bool QueryFeatureEnabled(unsigned featureId);

    // --- activation (Activation.cpp)

    // Makes the device of that unique name the active one: the old one is switched off before the new one is switched
    // on, and unless the choice came from the list of recently used devices its name becomes the most recent. Waits at
    // most 2000 ms for a running stimulation and does not abort it. 0, also when it is active already; -9 when it is
    // unknown or the stimulation goes on. [host, takes R, blocks]
    int SetActive(const wchar_t* name, bool bFromMru);
    // The device to stimulate with: in database mode the device of the active beampath, otherwise the active entry's.
    // Null when there is none. [any thread, takes R]
    IQsStimulationDevice* GetActive();
    // Null, and `info` as it was, without an active entry. With one, `info` describes the entry and the result is the
    // device of the active beampath where there is one, else the entry's: in database mode the two forms differ.
    // [any thread, takes R]
    IQsStimulationDevice* GetActive(SQsInfo& info);
    // Activates the first recently used device from `index` on that can be; -13 when none can. [host, takes R, blocks]
    int SetActiveMru(unsigned index);

    IQsStimulationDevice* GetV4Device() const; // the point scanner's device, or null [host, no lock]
    bool IsV4Active();                         // [any thread, takes R]
    // Switches to the point scanner's device, or away from it to the second recently used device or else the first
    // device by name. 0, -9, -13. Switching away succeeds with the point scanner still active when it stands at a later
    // place of the recently used list and nothing before it can be activated. [host, takes R, blocks]
    int SetActiveV4(bool bActive);

    bool GetAutoActivateV4Behaviour() const { return m_bAutoActivateV4Behaviour; } // [any thread]
    bool GetDoNotUseVDMStyle() const { return m_bDoNotUseVDMStyle; }               // [any thread]
    void Save(); // writes the ten most recently used names to the user's registry; failures are silent [any thread]

    // --- notifications (Notifications.cpp)
    //
    // Sets ordered by pointer: adding twice is adding once, and callbacks run in that order. Functions and listeners
    // may add and remove while they are called; the change shows at the next firing. Null is ignored.

    void AddCallbackForChange(ChangeCallback callback);                     // [any thread]
    void RemoveCallbackForChange(ChangeCallback callback);                  // [any thread]
    void AddCallbackForDeviceStateChange(DeviceStateCallback callback);     // [any thread]
    void RemoveCallbackForDeviceStateChange(DeviceStateCallback callback);  // [any thread]
    void AddCallbackForStimulationOCCommand(OCCommandCallback callback);    // [any thread]
    void RemoveCallbackForStimulationOCCommand(OCCommandCallback callback); // [any thread]

    void FireCallbackForChange(unsigned code); // under no lock of its own [any thread]
    // Only for the active entry's device; other devices fire nothing. Callbacks run under R. [any thread, takes R]
    void FireCallbackForDeviceStateChange(IQsStimulationDevice* device, unsigned state);
    void FireCallbackForStimulationOCCommand(EQsStimulationManagerOCCommand command); // under the OC lock [any thread]

    void
    RegisterStimulationDeviceManagerEventListener(IQsStimulationDeviceManagerEventListener* listener); // [any thread]
    void
    UnregisterStimulationDeviceManagerEventListener(IQsStimulationDeviceManagerEventListener* listener); // [any thread]
    // Asks every listener. One whose answer is worse than the result so far is asked again and the second answer is the
    // result, even when it is better; 0 when nobody complained. [any thread]
    int NotifyStimulationDeviceManagerEventListeners();

    // --- timed asynchronous stimulation (AsyncStimulation.cpp)

    // Starts one stimulation of the active device on a worker thread and returns. `finish` may be null; it runs on the
    // worker. 0 started; -9 one is running or the thread could not be made. A worker that finds no device ends without
    // calling `finish`, and the manager counts as running from then on. [any thread]
    int StimulateTimedWithActiveAsync(const IQsStimulationDevice::SQsStimulationType& request,
                                      StimulationFinishFunction finish, void* user);
    // Aborts the device of the active beampath: its status, or -13 when there is none, as outside database mode. A
    // stimulation that runs on another device is aborted too. The worker ends when its device returns. Waits for no
    // other operation while a stimulation runs. [any thread]
    int StimulationAbort();

    // --- update (Update.cpp)

    // Rebuilds the device map from the lists (static, special, option-configuration, shutters outside database mode,
    // simple; the first of a name wins) and activates the most recently used device, else the first by name. Aborts a
    // running stimulation. In database mode restores the stimulation OC that is stored for the setup and user, and
    // clears the present one when none is stored, which fires 64, 32 and 2 as SetStimulationOC does. 0; -9, nothing
    // changed, on the stimulation's own worker; -13 when there is no device; else the status of the activation. Fires 2
    // and then 1 with R held. [host, takes R, blocks]
    int Update();

    // --- beampaths (Beampaths.cpp)
    //
    // In database mode there is one device (CQsStimulationDeviceAggregator) for each stimulation beampath that is
    // switched on in the current hardware configuration. The beampaths are marked dirty when the manager is made and by
    // Update, and rebuilt by the next lookup, on its thread. A device that a lookup hands out is the manager's: a
    // rebuild that no longer finds its beampath releases it.

    void SetStimulationBeampathsDirty(); // the next lookup rebuilds the beampaths [any thread]
    // Rebuilds the beampaths when they are dirty, tells the listeners and fires 4. -8 outside database mode; 0 when
    // there was nothing to do; -9 when it ran, also when it succeeded: the caller of a lookup by name learns that way
    // that what it knew of beampaths is out of date. Without a connection, or when the query fails, the names are
    // empty, the devices are kept, and the beampaths stay dirty. [any thread, holds R]
    qs_int32 UpdateStimulationBeampaths();
    qs_int32 UpdateStimulationBeampathsIfNecessary(); // the same [any thread, holds R]

    unsigned GetStimulationBeampathCount(); // beampaths, also those without a device; refreshes [any thread, takes R]
    unsigned GetStimulationBPCount();       // the same as it stands, without a refresh [any thread]
    // 0 for the empty name, -1 for an unknown one. [any thread, takes R]
    qs_int32 GetStimulationBeampathIdByName(CQsStringW name);
    // Device of the beampath; null when there is none, as always outside database mode. [any thread, takes R]
    IQsStimulationDevice* GetStimulationDeviceInterfaceForBeampath(qs_int32 id);
    // The same by name; null, too, when the beampaths were dirty: the next call has the answer. [any thread, takes R]
    IQsStimulationDevice* GetStimulationDeviceInterfaceForBeampath(CQsStringW name);

    // --- optical configurations (Beampaths.cpp)
    //
    // The name of an optical configuration (OC) is a beampath's name and a configuration's, joined by a colon; the part
    // before the first colon names the beampath.

    // Chooses what is stimulated with. 0: the beampath of that name is active, or the database could not be asked and
    // the id is the old one. -12 outside database mode, nothing changed. -9: there is no such beampath, the query
    // failed, or the text has no colon, which logs a line; or it is empty, which does not; then no beampath is active.
    // Fires 64 when the active beampath changed, then, with 0 only, 32 and 2 when the text did. [any thread]
    qs_int32 SetStimulationOC(CQsStringW name);
    CQsStringW GetStimulationOC();                 // [any thread]
    CQsStringW GetActiveStimulationOC();           // the same [any thread]
    CQsStringW GetActiveStimulationBeampathName(); // [any thread]
    qs_int32 GetActiveStimulationBeampathId();     // -1 when there is none [any thread]

    // Keeps the text. 0; -9 for the empty one. The id that belongs to it is not looked up. [any thread]
    qs_int32 SetSystemActiveStimulationOC(CQsStringW name);
    CQsStringW GetSystemActiveStimulationOC(); // [any thread]
    qs_int32 GetSystemActiveStimulationBPId(); // -1 [any thread]
    void SetBackupSystemOC(CQsStringW name);   // kept for the host [any thread]
    CQsStringW GetBackupSystemOC();            // [any thread]

    // --- for the devices of the beampaths

    // Whether the stimulation that the calling thread works for was aborted since it was asked for. [any thread]
    bool IsAbortedSinceItsStart();
    // As GetStimulationDevicesForLogDevId, each device with one more reference, taken before anybody can drop it.
    // [any thread]
    int GetReferencedDevicesForLogDevId(unsigned id, std::set<IQsStimulationDevice*>& devices);
    // Runs `wait`, which waits for a device and ends holding no lock that it did not begin with. Where the calling
    // thread holds R, R is lent meanwhile, also to the threads that work for `awaited`: the device may need it to go
    // on. [any thread]
    void LendRegistryWhile(CQsRegistryLock::Run awaited, const std::function<void()>& wait);

private:
    friend struct CQsStimulationDeviceManagerTestAccess;

    using DeviceMap = std::map<CQsStringW, SQsInfoEx>;
    using DeviceIdMap = std::multimap<unsigned, IQsStimulationDevice*>;

    CQsStimulationDeviceManager();
    ~CQsStimulationDeviceManager();

    void LoadStaticDevices();
    void DeviceListAdd(std::vector<IQsStimulationDevice*>& list, IQsStimulationDevice* device);
    void DeviceListRemoveAll(std::vector<IQsStimulationDevice*>& list);
    void ForgetDeviceUnlessListed(IQsStimulationDevice* device) QS_REQUIRES(m_lockR);
    void ForgetIds(IQsStimulationDevice* device);
    static int DevicesForId(const DeviceIdMap& map, unsigned id, std::set<IQsStimulationDevice*>& devices);
    template <class Query>
    bool AnyBeampathDevice(Query query);

    IQsStimulationDevice* ActiveEntryDevice() const QS_REQUIRES(m_lockR);
    CQsStringW MruGet(unsigned index) const;
    void MruSet(const wchar_t* name);
    void MruLoad();
    void MruSave();
    void OpenUserKey();
    void RefreshRegOptions();

    static void* StimulateTimedAsyncThreadProc(void* manager) QS_NO_THREAD_SAFETY_ANALYSIS;
    IQsStimulationDevice* DeviceForStimulation();
    int WaitForStimulationEnd(unsigned timeoutMs, bool bAbort);
    void SetRunningDevice(IQsStimulationDevice* device);
    IQsStimulationDevice* ReferencedRunningDevice();
    bool IsStimulating();
    int Abort(IQsStimulationDevice* active);
    void AbortActiveDevice(CQsRegistryLock::Run run);

    void FillDeviceMap() QS_REQUIRES(m_lockR);
    void InsertEntry(std::optional<SQsInfoEx> entry) QS_REQUIRES(m_lockR);
    void EmptyDeviceMap() QS_REQUIRES(m_lockR);
    void FillIdMaps() QS_REQUIRES(m_lockR);
    void RestoreStimulationOC();
    int ActivateAfterUpdate() QS_REQUIRES(m_lockR);
    static void RegisterScriptCommand();
    static void UnregisterScriptCommand();

    struct SBeampathRow
    {
        qs_int32 id = 0;
        CQsStringW name;
    };
    static std::optional<std::vector<SBeampathRow>> QueryBeampaths();
    void RebuildBeampaths(const std::vector<SBeampathRow>& rows) QS_REQUIRES(m_lockR);
    static IQsStimulationDevice* CreateBeampathDevice(qs_int32 id);
    IQsStimulationDevice* GetAggregatorForBeampath(qs_int32 id);
    IQsStimulationDevice* GetAggregatorForBeampath(const CQsStringW& name);
    IQsStimulationDevice* ReferencedBeampathDevice(qs_int32 id);
    qs_int32 SetActiveStimulationBPId(qs_int32 id);
    struct SOCLookup
    {
        qs_int32 status = QS_OK;
        std::optional<qs_int32> id; // of the active beampath from now on; nothing: as it was
    };
    SOCLookup FindBeampathOfOC() QS_REQUIRES(m_lockOCNames);
    qs_int32 FindSystemActiveBeampath(const CQsStringW& name) QS_REQUIRES(m_lockOCNames);

    // Members stand in the order in which construction and destruction rely on them.
    CQsListenerSet m_listeners;

    // Each device with one reference of the manager's; null where it could not be made.
    std::map<qs_int32, IQsStimulationDevice*> m_beampathDevices QS_GUARDED_BY(m_lockBeampath);
    std::map<CQsStringW, qs_int32> m_beampathIdsByName QS_GUARDED_BY(m_lockBeampath);
    CQsRecursiveMutex m_lockBeampath; // a leaf: an abort must find its device while the beampaths are being rebuilt
    // Counts the marks; the beampaths are dirty while it differs from what the last rebuild began with.
    std::atomic<std::uint64_t> m_beampathMarks{0};
    std::atomic<std::uint64_t> m_beampathMarksBuilt{0};
    bool m_bRebuilding QS_GUARDED_BY(m_lockR) = false;

    DeviceMap m_devices; // changed under R; read without it by the operations tagged "no lock"
    DeviceIdMap m_devicesByLogDevId QS_GUARDED_BY(m_lockIds);
    DeviceIdMap m_devicesByPhysDevId QS_GUARDED_BY(m_lockIds);
    CQsMutex m_lockIds; // a leaf, so that lookups by id never wait for R
    DeviceMap::iterator m_active QS_GUARDED_BY(m_lockR);
    std::atomic<bool> m_bListing{false}; // Update asks the devices what they are

    CQsStringW m_stimulationOC QS_GUARDED_BY(m_lockOCNames);
    CQsStringW m_activeBeampathName QS_GUARDED_BY(m_lockOCNames);
    CQsStringW m_backupSystemOC QS_GUARDED_BY(m_lockOCNames);
    std::atomic<qs_int32> m_activeBeampathId{0}; // changed under m_lockOCNames; an abort reads it without waiting
    CQsStringW m_systemActiveOC QS_GUARDED_BY(m_lockOCNames);
    qs_int32 m_systemActiveBeampathId QS_GUARDED_BY(m_lockOCNames) = -1;
    // A leaf, and not the lock below: Update sets the OC while it holds R, and OC-command callbacks may take R.
    CQsRecursiveMutex m_lockOCNames;
    CQsRecursiveMutex m_lockOC; // held while OC-command callbacks run

    std::vector<CQsStringW> m_mru QS_GUARDED_BY(m_lockMru); // most recent first; not cut in memory
    mutable CQsMutex m_lockMru;                             // a leaf

    std::vector<IQsStimulationDevice*> m_specialDevices;
    std::vector<IQsStimulationDevice*> m_optConfDevices;
    std::vector<IQsStimulationDevice*> m_shutters;
    std::set<IQsStimulationDevice*> m_simpleDevices QS_GUARDED_BY(m_lockR);
    std::vector<SQsDeviceInfo> m_staticDevices;

    CQsSnapshotSet<ChangeCallback> m_changeCallbacks;
    CQsSnapshotSet<DeviceStateCallback> m_deviceStateCallbacks;
    CQsSnapshotSet<OCCommandCallback> m_ocCommandCallbacks;

    HKEY m_hRegistryKey = nullptr; // per-user key, open while the manager lives
    bool m_bAutoActivateV4Behaviour = false;
    bool m_bDoNotUseVDMStyle = false;

    // The running stimulation; its request is the mark that one runs.
    std::unique_ptr<const IQsStimulationDevice::SQsStimulationType> m_pRequest QS_GUARDED_BY(m_lockS);
    StimulationFinishFunction m_pFinish QS_GUARDED_BY(m_lockS) = nullptr;
    void* m_pUser QS_GUARDED_BY(m_lockS) = nullptr;
    QsThread m_thread QS_GUARDED_BY(m_lockS){};
    IQsStimulationDevice* m_pRunningDevice QS_GUARDED_BY(m_lockS) = nullptr; // the worker's; it holds the reference
    CQsRegistryLock::Run m_run QS_GUARDED_BY(m_lockS) = 0;                   // number of the last stimulation
    std::uint64_t m_abortsAtStart QS_GUARDED_BY(m_lockS) = 0;                // of the last stimulation
    std::atomic<std::uint64_t> m_aborts{0};                                  // StimulationAbort calls so far
    CQsThreadsMutex m_lockS;
    CQsRegistryLock m_lockR;
    CQsThreadsMutex m_lockT; // reserved

    const bool m_bDatabaseMode; // DeviceDBApi::IsInitialized() when the manager was made
};
