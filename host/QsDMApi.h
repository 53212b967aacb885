// The host's device manager: shutters, logical and physical devices, application run-time events.
//
// Identifiers are unsigned 32-bit numbers in types of their own; 0 is "none".
#pragma once

#include "host/QsHostApi.h"

#include "host/QsSystem.h"

#include <cstdint>
#include <vector>

struct CDMApi_LogDevId
{
    CDMApi_LogDevId(std::uint32_t id = 0) : value(id) {}
    std::uint32_t value;
};

struct CDMApi_LogDevId_Shutter
{
    CDMApi_LogDevId_Shutter(std::uint32_t id = 0) : value(id) {}
    std::uint32_t value;
};

// Position of a shutter in the host's list; 0xFFFFFFFF when there is no such shutter.
struct CDMApi_LogDevIndex_Shutter
{
    CDMApi_LogDevIndex_Shutter(std::uint32_t index = 0xFFFFFFFFu) : value(index) {}
    std::uint32_t value;
};

struct CQsDMApiBool
{
    CQsDMApiBool(bool b = false) : value(b) {}
    bool value;
};

// Laser power of a device; belongs to the host, only handed through.
class IQsLaserPowerControl;

// Receives the events that it was registered for. Not owned by the host; unregister it before it goes.
class IQsDMApiPluginNotification
{
public:
    virtual unsigned AppRntm_HandleEvent(const wchar_t* eventName, void* context) = 0;

protected:
    ~IQsDMApiPluginNotification() = default;
};

// What the microscope is set to. Names are those of the host's devices; an empty one stands for none.
struct SQsDMApiHardware
{
    struct SFilterChanger
    {
        CQsStringW sKey;  // of the changer
        CQsStringW sName; // of the filter in place
        qs_int32 iPosition = 0;
    };
    struct SMultilaser
    {
        CQsStringW sName;
        std::uint32_t uiNumber = 0;
    };

    CQsStringW sMicroscope;
    CQsStringW sObjective;
    double dManualZoom = 0.0; // 0: no manual zoom
    std::vector<CQsStringW> lights;
    std::vector<SFilterChanger> filterChangers;
    std::vector<SMultilaser> multilasers;
    bool bIlluminatorConnected = false; // of the laser-stimulation illuminator
    qs_int32 iIlluminatorPort = 0;
};

class QS_HOST_API DMApi
{
public:
    // What the microscope is set to now. [any thread]
    static SQsDMApiHardware Hardware_Get();

    // Opens or closes a shutter and returns when its blade has come to rest. `bTriggered` false: at once, without
    // waiting for a trigger; `bWait` true: wait for the blade. False when the shutter is missing or refused. [any
    // thread]
    static CQsDMApiBool Shutter_SetState(CDMApi_LogDevId_Shutter id, bool bOpen, bool bTriggered, bool bWait);
    static CDMApi_LogDevIndex_Shutter Shutter_GetIndex(CDMApi_LogDevId_Shutter id);
    // Name for the user, valid until the shutter is removed; null when there is no such shutter.
    static const wchar_t* Shutter_GetToolbarName(CDMApi_LogDevId_Shutter id);
    // Physical device behind a logical one; 0 when there is none.
    static unsigned int LogDev_GetPhysDevId(CDMApi_LogDevId id);
    // Logical device of a device-database id; 0 when there is none.
    static CDMApi_LogDevId LogDev_GetIdByDBId(int databaseId);

    // Registers a consumer, and the events that it wants to hear of. Registering twice is harmless.
    static void AppRntm_RegisterConsumer(IQsDMApiPluginNotification* consumer);
    static void AppRntm_UnregisterConsumer(IQsDMApiPluginNotification* consumer);
    static void AppRntm_RegisterEvent(IQsDMApiPluginNotification* consumer, const wchar_t* eventName);
    static void AppRntm_UnregisterEvent(IQsDMApiPluginNotification* consumer, const wchar_t* eventName);
};

// The device manager's global lock: recursive, process-wide. Trying never waits; false when another thread holds it.
// A thread that got it releases it as often. The number is the caller's importance, 1 for plug-ins. [any thread]
QS_HOST_API bool DMApi_TryLockDeviceManager(int importance);
QS_HOST_API void DMApi_ReleaseLockDeviceManager(int importance);
