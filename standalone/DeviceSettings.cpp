// Settings of simulated devices, handed from the rig to the plug-ins.
#include "platform/ThreadSafety.h"
#include "standalone/HostControl.h"

#include <map>

namespace {

struct SSettings
{
    CQsMutex lock;
    std::map<std::string, std::string> byName QS_GUARDED_BY(lock);
    std::vector<std::string> faults QS_GUARDED_BY(lock);
};

// Never destroyed: devices may be made until the process ends.
SSettings& Settings()
{
    static SSettings& settings = *new SSettings;
    return settings;
}

} // namespace

void QsStandalone::SetDeviceSettings(const std::string& name, const std::string& json)
{
    SSettings& settings = Settings();
    const CQsScopedLock<CQsMutex> guard(settings.lock);
    settings.byName[name] = json;
}

std::string QsStandalone::GetDeviceSettings(const std::string& name)
{
    SSettings& settings = Settings();
    const CQsScopedLock<CQsMutex> guard(settings.lock);
    const auto found = settings.byName.find(name);
    return found != settings.byName.end() ? found->second : "{}";
}

void QsStandalone::ReportSettingsFault(const std::string& name, const std::string& text)
{
    SSettings& settings = Settings();
    const CQsScopedLock<CQsMutex> guard(settings.lock);
    settings.faults.push_back(name + ": " + text);
}

std::vector<std::string> QsStandalone::TakeSettingsFaults()
{
    SSettings& settings = Settings();
    const CQsScopedLock<CQsMutex> guard(settings.lock);
    std::vector<std::string> faults;
    faults.swap(settings.faults);
    return faults;
}
