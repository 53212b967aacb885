// Switches of the stand-alone host that a real host sets by being what it is: used by the command line and by tests.
#pragma once

#include "host/QsDMApi.h"
#include "host/QsGrabber.h"
#include "host/QsSystem.h"

#include <string>
#include <vector>

namespace QsStandalone {

// Time source of QS_GetTimeCounter; null: the monotonic clock. [host]
QS_HOST_API void SetTimeCounter(double (*source)());

// Catalogue of translations: a JSON object {"text": "translation", ...} in UTF-8. False, with one line naming file and
// place, when it cannot be read; then the old catalogue stays. [host]
QS_HOST_API bool LoadTranslations(const std::string& path, std::string& error);
QS_HOST_API void ClearTranslations();

// What QS_GetSettingsFolder answers; empty: a folder beside the registry store. [host]
QS_HOST_API void SetSettingsFolder(const std::string& path);

// Gives up the last settings file that is kept with its store: the next load parses. [any thread]
QS_HOST_API void ForgetLastSettingsFile();

// What DMApi::Hardware_Get answers. [any thread]
QS_HOST_API void SetHardware(const SQsDMApiHardware& hardware);

// Makes DMApi_TryLockDeviceManager answer false. [any thread]
QS_HOST_API void RefuseDeviceManagerLock(bool refuse);
// Tries so far, and how often the lock is held now, by whichever thread. [any thread]
struct SDeviceManagerLock
{
    std::uint64_t tries = 0;
    std::uint64_t refusals = 0; // tries that were answered false
    unsigned depth = 0;
};
QS_HOST_API SDeviceManagerLock DeviceManagerLock();

// Cameras of CQsGrabberManager. The object is kept by pointer with a reference; false when the name is taken or the
// pointer is null. [host]
QS_HOST_API bool AddCamera(IQsGrabberCamera* camera);
QS_HOST_API void RemoveCameras(); // releases them

// What DeviceDBApi::IsInitialized answers; false at first, and what opening and closing a device database set, too.
// Without an open one no connection is OK. [any thread]
QS_HOST_API void SetDeviceDatabaseInitialized(bool initialized);

// Makes CreateAndQuery of the class fail, as a class whose hardware library is missing does. [any thread]
QS_HOST_API void RefuseClass(const std::string& className, bool refuse);
// Makes CQsClass::operator new answer null. [any thread]
QS_HOST_API void RefuseAllocation(bool refuse);
// Objects derived from CQsClass that exist now, all classes together.
QS_HOST_API std::size_t LiveObjectCount();
// References on a counted object; 0 for one that is not counted.
QS_HOST_API unsigned ReferenceCount(IQsInterface* object);

struct SKnownClass
{
    std::string className;
    std::string friendlyName; // from the module file's record; empty for a class that only registered in code
    std::vector<std::string> parents;
    std::string module; // file; empty when it only registered in code
    bool moduleLoaded = false;
};
QS_HOST_API std::vector<SKnownClass> KnownClasses(); // in registry order

// Settings of simulated devices, by class name for devices that the manager creates and by instance name for others:
// a JSON object as text, "{}" when nothing was set. Plug-ins read them when an object is made. [any thread]
QS_HOST_API void SetDeviceSettings(const std::string& name, const std::string& json);
QS_HOST_API std::string GetDeviceSettings(const std::string& name);
// A plug-in that finds its settings wrong says so in one line; the host asks after making devices. Taking empties the
// list. [any thread]
QS_HOST_API void ReportSettingsFault(const std::string& name, const std::string& text);
QS_HOST_API std::vector<std::string> TakeSettingsFaults(); // "<name>: <text>"

} // namespace QsStandalone
