// The active device, the recently used names and the options in the registry.
#include "manager/StimulationManager.h"

#include "device/Diagnostics.h"
#include "manager/DeviceCall.h"
#include "platform/Utf16.h"

#include <algorithm>
#include <array>

#define QS_DIAG_UNIT L"StimulationManager"

namespace {

constexpr int statusNotFound = -13;

constexpr unsigned activationTimeoutMs = 2000;
constexpr unsigned mruSavedCount = 10;

constexpr wchar_t registryKey[] = L"Software\\Corvane\\Misc\\StimulationDeviceManager\\";
constexpr wchar_t mruValueFormat[] = L"Device-%d";
constexpr wchar_t autoActivateV4Value[] = L"V4StimDevBehaviourOnActivateGrabber";
constexpr wchar_t doNotUseVdmStyleValue[] = L"DoNotUseVDMStyle";

constexpr wchar_t v4DeviceName[] = L"CQsStimulationDeviceV4New"; // the point scanner's stimulation device
constexpr wchar_t hx4DeviceName[] = L"CQsHX4Stimulation";

enum class EOption
{
    Missing,
    Unreadable, // of another type or size, or refused
    Read
};

EOption QueryOption(HKEY key, const wchar_t* name, std::int32_t& value)
{
    DWORD type = 0;
    DWORD size = sizeof(value);
    std::int32_t stored = 0;
    const LSTATUS status = RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&stored), &size);
    if (status == ERROR_FILE_NOT_FOUND)
        return EOption::Missing;
    if (status != ERROR_SUCCESS || type != REG_DWORD || size != sizeof(stored))
        return EOption::Unreadable;
    value = stored;
    return EOption::Read;
}

void WriteOptionDefault(HKEY key, const wchar_t* name)
{
    const std::int32_t value = 0;
    RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof(value));
}

// The machine-wide key, made when it is missing; closed at the end of the scope.
struct SMachineKey
{
    SMachineKey()
    {
        bAtOnce = RegOpenKeyW(HKEY_LOCAL_MACHINE, registryKey, &hKey) == ERROR_SUCCESS;
        if (bAtOnce)
            return;
        HKEY hCreated = nullptr;
        if (RegCreateKeyW(HKEY_LOCAL_MACHINE, registryKey, &hCreated) == ERROR_SUCCESS)
            RegCloseKey(hCreated);
        if (RegOpenKeyW(HKEY_LOCAL_MACHINE, registryKey, &hKey) != ERROR_SUCCESS)
            hKey = nullptr;
    }
    ~SMachineKey()
    {
        if (hKey != nullptr)
            RegCloseKey(hKey);
    }
    SMachineKey(const SMachineKey&) = delete;
    SMachineKey& operator=(const SMachineKey&) = delete;

    HKEY hKey = nullptr; // null when it can neither be opened nor made
    bool bAtOnce = false;
};

// Reads one option into `set`; writes its default when it is missing.
template <class Set>
void ReadOption(const wchar_t* name, Set set)
{
    const SMachineKey key;
    if (key.hKey == nullptr)
        return;
    std::int32_t value = 0;
    const EOption found = key.bAtOnce ? QueryOption(key.hKey, name, value) : EOption::Missing;
    if (found == EOption::Missing)
        WriteOptionDefault(key.hKey, name);
    else if (found == EOption::Read)
        set(value);
}

} // namespace

// -------------------------------------------------------------------------------------------------- the active device

IQsStimulationDevice* CQsStimulationDeviceManager::ActiveEntryDevice() const
{
    return m_active != m_devices.end() ? m_active->second.pDevice : nullptr;
}

int CQsStimulationDeviceManager::SetActive(const wchar_t* name, bool bFromMru)
{
    const CQsStringW sName(name); // `name` may point into the map or the list that this changes
    const wchar_t* const szName = sName.c_str();
    const wchar_t* const szFromMru = bFromMru ? L"true" : L"false";

    QS_DIAG(L"CQsStimulationDeviceManager::SetActive(%s, %s) - begin", szName, szFromMru);
    const CQsScopedLock<CQsRegistryLock> lock(m_lockR);

    // Before the test for "already active": the caller relies on nothing running when this returns 0.
    if (WaitForStimulationEnd(activationTimeoutMs, false) != QS_OK)
    {
        QS_DIAG(
            L"CQsStimulationDeviceManager::SetActive(%s, %s) - premature end, timeout when waiting for stimulation end, QS_ERR_FAIL",
            szName, szFromMru);
        return QS_ERR_FAIL;
    }
    if (m_active != m_devices.end() && m_active->second.sName == sName)
    {
        QS_DIAG(
            L"CQsStimulationDeviceManager::SetActive(%s, %s) - premature end, stimulation device already active, QS_OK",
            szName, szFromMru);
        return QS_OK;
    }

    const auto find = [this, &sName]
    {
        const auto entry = m_devices.find(sName);
        return entry != m_devices.end() && entry->second.pDevice != nullptr ? entry : m_devices.end();
    };
    auto found = find();
    if (found != m_devices.end())
    {
        // Devices may activate others or remove themselves when they are switched off.
        while (m_active != m_devices.end() && m_active->second.bActive)
        {
            m_active->second.bActive = false;
            if (IQsStimulationDevice* const old = ActiveEntryDevice())
                QsCallOr(QS_ERR_FAIL, L"SetActive", __LINE__, [old] { return old->SetActive(false); });
        }
        found = find();
        if (found == m_devices.end())
            m_active = m_devices.end(); // what was active is switched off
    }
    if (found == m_devices.end())
    {
        QS_DIAG(
            L"CQsStimulationDeviceManager::SetActive(%s, %s) - premature end, could not find stimulation device in map, QS_ERR_FAIL",
            szName, szFromMru);
        return QS_ERR_FAIL;
    }

    m_active = found;
    m_active->second.bActive = true;
    IQsStimulationDevice* const device = ActiveEntryDevice();
    QsCallOr(QS_ERR_FAIL, L"SetActive", __LINE__, [device] { return device->SetActive(true); });
    if (!bFromMru)
        MruSet(szName);
    FireCallbackForChange(eChangeActiveDevice);
    QS_DIAG(L"CQsStimulationDeviceManager::SetActive(%s, %s) - end, QS_OK", szName, szFromMru);
    return QS_OK;
}

IQsStimulationDevice* CQsStimulationDeviceManager::GetActive()
{
    const CQsScopedLock<CQsRegistryLock> lock(m_lockR);
    return m_bDatabaseMode ? GetStimulationDeviceInterfaceForBeampath(GetActiveStimulationBeampathId())
                           : ActiveEntryDevice();
}

IQsStimulationDevice* CQsStimulationDeviceManager::GetActive(SQsInfo& info)
{
    const CQsScopedLock<CQsRegistryLock> lock(m_lockR);
    if (m_active == m_devices.end())
        return nullptr;
    info = m_active->second;
    IQsStimulationDevice* const ofBeampath =
        m_bDatabaseMode ? GetStimulationDeviceInterfaceForBeampath(GetActiveStimulationBeampathId()) : nullptr;
    // Callers of this form describe the entry to the user; without a beampath they get its device, where the form
    // without a description answers null.
    return ofBeampath != nullptr ? ofBeampath : ActiveEntryDevice();
}

// --------------------------------------------------------------------------------------------- the point scanner (V4)

IQsStimulationDevice* CQsStimulationDeviceManager::GetV4Device() const
{
    const auto isV4 = [](const DeviceMap::value_type& entry) { return entry.first == v4DeviceName; };
    const auto entry = std::find_if(m_devices.begin(), m_devices.end(), isV4);
    return entry != m_devices.end() ? entry->second.pDevice : nullptr;
}

bool CQsStimulationDeviceManager::IsV4Active()
{
    const CQsScopedLock<CQsRegistryLock> lock(m_lockR);
    return m_active != m_devices.end() && m_active->first == v4DeviceName;
}

int CQsStimulationDeviceManager::SetActiveV4(bool bActive)
{
    const CQsScopedLock<CQsRegistryLock> lock(m_lockR);
    if (WaitForStimulationEnd(activationTimeoutMs, false) != QS_OK)
        return QS_ERR_FAIL;

    if (bActive)
        return IsV4Active() ? QS_OK : SetActive(v4DeviceName, false);

    if (m_active != m_devices.end() && !IsV4Active())
        return QS_OK;
    if (SetActiveMru(1) == QS_OK)
        return QS_OK;
    if (m_devices.empty())
        return QS_OK;
    const CQsStringW first = m_devices.begin()->first;
    return first == v4DeviceName ? statusNotFound : SetActive(first.c_str(), false);
}

// -------------------------------------------------------------------------------------------------- recently used
// names

int CQsStimulationDeviceManager::SetActiveMru(unsigned index)
{
    std::vector<CQsStringW> names; // a copy: callbacks of an activation may change the list
    {
        const CQsScopedLock<CQsMutex> lock(m_lockMru);
        names = m_mru;
    }
    for (std::size_t i = index; i < names.size(); ++i)
        if (SetActive(names[i].c_str(), true) == QS_OK)
            return QS_OK;
    return statusNotFound;
}

CQsStringW CQsStimulationDeviceManager::MruGet(unsigned index) const
{
    const CQsScopedLock<CQsMutex> lock(m_lockMru);
    return index < m_mru.size() ? m_mru[index] : CQsStringW();
}

void CQsStimulationDeviceManager::MruSet(const wchar_t* name)
{
    const CQsStringW sName(name); // may point into the entry that is erased
    const CQsScopedLock<CQsMutex> lock(m_lockMru);
    const auto known = std::find(m_mru.begin(), m_mru.end(), sName);
    if (known != m_mru.end())
        m_mru.erase(known);
    m_mru.insert(m_mru.begin(), sName);
}

void CQsStimulationDeviceManager::MruLoad()
{
    const CQsScopedLock<CQsMutex> lock(m_lockMru);
    for (unsigned i = 0; i < mruSavedCount; ++i)
    {
        // 2048 bytes. The text ends where the stored bytes end: a stored value need not have a terminator.
        std::array<char16_t, 1024> text;
        DWORD type = 0;
        DWORD size = sizeof(text);
        const CQsStringW value = CQsStringW::Format(mruValueFormat, static_cast<int>(i));
        if (RegQueryValueExW(m_hRegistryKey, value.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(text.data()),
                             &size) != ERROR_SUCCESS ||
            type != REG_SZ || size > sizeof(text))
            continue;
        const auto end = text.begin() + size / sizeof(char16_t);
        const auto length = static_cast<std::size_t>(std::find(text.begin(), end, u'\0') - text.begin());
        m_mru.push_back(CQsStringW(QsFromUtf16(text.data(), length)));
    }
    if (m_mru.empty())
    {
        m_mru.emplace_back(v4DeviceName);
        m_mru.emplace_back(hx4DeviceName);
    }
}

// Values beyond the present list stay: a shorter list does not mean that the older devices were not used.
void CQsStimulationDeviceManager::MruSave()
{
    const CQsScopedLock<CQsMutex> lock(m_lockMru);
    for (unsigned i = 0; i < m_mru.size() && i < mruSavedCount; ++i)
    {
        const std::u16string text = QsToUtf16(m_mru[i].Std());
        const auto size = static_cast<DWORD>((text.size() + 1) * sizeof(char16_t));
        const CQsStringW value = CQsStringW::Format(mruValueFormat, static_cast<int>(i));
        RegSetValueExW(m_hRegistryKey, value.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()), size);
    }
}

void CQsStimulationDeviceManager::Save()
{
    MruSave();
}

// -------------------------------------------------------------------------------------------------------------
// registry

// What was recently used belongs to the user, the options to the machine.
void CQsStimulationDeviceManager::OpenUserKey()
{
    if (RegCreateKeyExW(HKEY_CURRENT_USER, registryKey, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr,
                        &m_hRegistryKey, nullptr) != ERROR_SUCCESS)
        m_hRegistryKey = nullptr;
}

void CQsStimulationDeviceManager::RefreshRegOptions()
{
    ReadOption(autoActivateV4Value, [this](std::int32_t value) { m_bAutoActivateV4Behaviour = value > 0; });
    ReadOption(doNotUseVdmStyleValue, [this](std::int32_t value) { m_bDoNotUseVDMStyle = value >= 1; });
}
