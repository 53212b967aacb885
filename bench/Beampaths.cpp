#include "bench/Beampaths.h"

#include "tests/support/ManagerTestAccess.h"

#include <cstdlib>

namespace QsBench {

namespace {

constexpr qs_int32 setupId = 1;
constexpr qs_int32 firstSubbeampath = 1000;
constexpr qs_int32 firstDatabaseId = 5000;

std::string NameOf(qs_int32 id)
{
    return "Beampath " + std::to_string(id);
}

QsStandalone::SDatabaseContent::SBeampath MakeBeampath(qs_int32 id, bool bOn)
{
    QsStandalone::SDatabaseContent::SBeampath beampath;
    beampath.id = id;
    beampath.setup = setupId;
    beampath.name = NameOf(id);
    beampath.onByDefault = bOn;
    return beampath;
}

QsStandalone::SDatabaseContent MakeContent(const std::vector<std::vector<std::uint32_t>>& logDevIds)
{
    QsStandalone::SDatabaseContent content;
    content.users.push_back({1, "User"});
    content.setups.push_back({setupId, "Setup"});
    content.hwConfigs.push_back({1, setupId, "Configuration"});
    qs_int32 id = 0;
    qs_int32 next = 0;
    for (const std::vector<std::uint32_t>& devices : logDevIds)
    {
        std::string merged;
        for (const std::uint32_t logDevId : devices)
        {
            const qs_int32 subbeampath = firstSubbeampath + next;
            const qs_int32 databaseId = firstDatabaseId + next++;
            merged += (merged.empty() ? "[" : ",") + std::to_string(subbeampath);
            content.beampaths.push_back(MakeBeampath(subbeampath, false));
            content.logicalIds.push_back({databaseId, logDevId});
            content.configurations.emplace_back();
            content.configurations.back().beampath = subbeampath;
            content.configurations.back().logicalDevice = databaseId;
        }
        content.beampaths.push_back(MakeBeampath(++id, true));
        content.beampaths.back().merged = merged + "]";
    }
    return content;
}

void MakeManagerAnew()
{
    CQsStimulationDeviceManagerTestAccess::DeleteInstance();
    CQsStimulationDeviceManager::GetInstance();
}

} // namespace

CBeampaths::CBeampaths(const std::vector<std::vector<std::uint32_t>>& logDevIds)
    : m_content(MakeContent(logDevIds)), m_count(static_cast<unsigned>(logDevIds.size()))
{
    std::string name = (std::filesystem::temp_directory_path() / "stim_bench.XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
    {
        m_error = "no temporary folder could be made for the device database";
        return;
    }
    m_folder = name;
    m_setup.file = (m_folder / "devices.sqlite").string();
    if (!QsStandalone::CQsDeviceDatabase::Create(m_setup, m_error) ||
        !QsStandalone::ImportDatabase(m_setup, m_content, m_error) ||
        !QsStandalone::CQsDeviceDatabase::Open(m_setup, m_error))
        return;
    MakeManagerAnew();
}

CBeampaths::~CBeampaths()
{
    if (QsStandalone::CQsDeviceDatabase::IsOpen())
    {
        // A manager does not give the devices of its beampaths back when it goes; a rebuild that finds no beampath
        // does.
        QsStandalone::SDatabaseContent none = m_content;
        none.beampaths.clear();
        none.configurations.clear();
        QsStandalone::ImportDatabase(m_setup, none, m_error);
        CQsStimulationDeviceManager& manager = *CQsStimulationDeviceManager::GetInstance();
        manager.SetStimulationBeampathsDirty();
        manager.UpdateStimulationBeampaths();
        QsStandalone::CQsDeviceDatabase::Close();
        MakeManagerAnew();
    }
    std::error_code error;
    if (!m_folder.empty())
        std::filesystem::remove_all(m_folder, error);
}

IQsStimulationDevice* CBeampaths::Device(qs_int32 id)
{
    return CQsStimulationDeviceManager::GetInstance()->GetStimulationDeviceInterfaceForBeampath(id);
}

CQsStringW CBeampaths::OCOf(qs_int32 id)
{
    return CQsStringW::FromUtf8(NameOf(id) + ":Configuration");
}

} // namespace QsBench
