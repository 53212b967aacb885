// What contradicts itself in the content of a device database.
#include "standalone/DatabaseContent.h"
#include "standalone/JsonText.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <tuple>

namespace QsStandalone {

namespace {

constexpr qs_int32 s_stimulation = 2;

std::string Id(qs_int32 id)
{
    return std::to_string(id);
}

class CContentCheck
{
public:
    CContentCheck(const SDatabaseContent& content, const std::vector<std::uint32_t>& driven)
        : m_content(content), m_driven(driven.begin(), driven.end())
    {}

    std::vector<std::string> Run()
    {
        Enter();
        for (const SDatabaseContent::SHWConfig& config : m_content.hwConfigs)
            NeedSetup(config.setup, "hardware configuration " + Id(config.id), 0);
        for (const SDatabaseContent::SBeampath& beampath : m_content.beampaths)
            CheckBeampath(beampath);
        for (const SDatabaseContent::SHWConfigBeampath& row : m_content.hwConfigBeampaths)
            CheckHWConfigBeampath(row);
        for (const SDatabaseContent::SConfiguration& row : m_content.configurations)
            CheckConfiguration(row);
        for (const SDatabaseContent::SParameter& parameter : m_content.parameters)
            CheckParameter(parameter);
        return std::move(m_lines);
    }

private:
    void Complain(unsigned line, const std::string& text)
    {
        m_lines.push_back((line != 0 ? "line " + std::to_string(line) + ": " : std::string()) + text);
    }

    template <class Key>
    void Once(std::set<Key>& known, const Key& key, unsigned line, const std::string& what)
    {
        if (!known.insert(key).second)
            Complain(line, "expected " + what + " once, found it again");
    }

    void Enter()
    {
        for (const SDatabaseContent::SUser& user : m_content.users)
            Once(m_users, user.id, 0, "user " + Id(user.id));
        for (const SDatabaseContent::SSetup& setup : m_content.setups)
            Once(m_setups, setup.id, 0, "setup " + Id(setup.id));
        for (const SDatabaseContent::SHWConfig& config : m_content.hwConfigs)
        {
            Once(m_hwConfigIds, config.id, 0, "hardware configuration " + Id(config.id));
            m_hwConfigs.emplace(config.id, &config);
        }
        for (const SDatabaseContent::SBeampath& beampath : m_content.beampaths)
        {
            Once(m_beampathIds, beampath.id, beampath.line, "beampath " + Id(beampath.id));
            m_beampaths.emplace(beampath.id, &beampath);
        }
        for (const SDatabaseContent::SLogicalId& id : m_content.logicalIds)
        {
            Once(m_databaseIds, id.databaseId, 0, "database id " + Id(id.databaseId));
            m_logDevIds.emplace(id.databaseId, id.logDevId);
        }
    }

    void NeedSetup(qs_int32 id, const std::string& owner, unsigned line)
    {
        if (m_setups.count(id) == 0)
            Complain(line, owner + ": expected the id of a setup, found " + Id(id));
    }

    const SDatabaseContent::SBeampath* FindBeampath(qs_int32 id) const
    {
        const auto found = m_beampaths.find(id);
        return found != m_beampaths.end() ? found->second : nullptr;
    }

    void CheckBeampath(const SDatabaseContent::SBeampath& beampath)
    {
        const std::string owner = "beampath " + Id(beampath.id);
        NeedSetup(beampath.setup, owner, beampath.line);
        if (beampath.merged)
            CheckMerged(beampath, owner);
        if (beampath.type != s_stimulation)
            return;
        const auto [first, isNew] = m_names.emplace(std::pair(beampath.setup, beampath.name), beampath.id);
        if (!isNew && first->second != beampath.id) // the same id twice is complained about as such
            Complain(beampath.line, owner + ": expected a name of its own among the stimulation beampaths of setup " +
                                        Id(beampath.setup) + ", found " + QuoteForMessage(beampath.name) +
                                        " as of beampath " + Id(first->second));
    }

    // Read as the beampath's device reads it.
    void CheckMerged(const SDatabaseContent::SBeampath& beampath, const std::string& owner)
    {
        const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(*beampath.merged));
        const QJsonArray list = document.array();
        const auto isWhole = [](const QJsonValue& item)
        {
            constexpr int noNumber = -1;
            const double number = item.toDouble(0.5);
            return std::floor(number) == number && (item.toInt(noNumber) != noNumber || number == noNumber);
        };
        if (!document.isArray() || !std::all_of(list.begin(), list.end(), isWhole))
        {
            Complain(beampath.line, owner + ": expected the merged beampaths to be a list of whole numbers, found " +
                                        QuoteForMessage(*beampath.merged));
            return;
        }
        for (const QJsonValue& item : list)
        {
            const qs_int32 id = item.toInt();
            const SDatabaseContent::SBeampath* const merged = FindBeampath(id);
            if (merged == nullptr)
                Complain(beampath.line, owner + ": expected the id of a beampath to merge, found " + Id(id));
            else if (merged->setup != beampath.setup)
                Complain(beampath.line, owner + ": expected a beampath of setup " + Id(beampath.setup) +
                                            " to merge, found " + Id(id) + " of setup " + Id(merged->setup));
        }
    }

    void CheckHWConfigBeampath(const SDatabaseContent::SHWConfigBeampath& row)
    {
        const std::string owner = "hardware configuration " + Id(row.hwConfig) + " for beampath " + Id(row.beampath);
        Once(m_pairs, std::pair(row.hwConfig, row.beampath), 0, owner);
        const auto config = m_hwConfigs.find(row.hwConfig);
        const SDatabaseContent::SBeampath* const beampath = FindBeampath(row.beampath);
        if (config == m_hwConfigs.end())
            Complain(0, owner + ": expected the id of a hardware configuration, found " + Id(row.hwConfig));
        if (beampath == nullptr)
            Complain(0, owner + ": expected the id of a beampath, found " + Id(row.beampath));
        if (config != m_hwConfigs.end() && beampath != nullptr && config->second->setup != beampath->setup)
            Complain(0, owner + ": expected both of one setup, found setups " + Id(config->second->setup) + " and " +
                            Id(beampath->setup));
    }

    void CheckConfiguration(const SDatabaseContent::SConfiguration& row)
    {
        const std::string owner = "logical device " + Id(row.logicalDevice) + " on beampath " + Id(row.beampath);
        Once(m_configurations, std::tuple(row.beampath, row.logicalDevice, row.type), row.line,
             owner + " with type " + Id(row.type));
        if (FindBeampath(row.beampath) == nullptr)
            Complain(row.line, owner + ": expected the id of a beampath, found " + Id(row.beampath));
        const auto logDevId = m_logDevIds.find(row.logicalDevice);
        if (logDevId == m_logDevIds.end())
            Complain(row.line,
                     owner + ": expected a database id with a logical device, found " + Id(row.logicalDevice));
        else if (Stimulates(row.type) && !m_driven.empty() && m_driven.count(logDevId->second) == 0)
            Complain(row.line, owner + ": expected a device that drives logical device " +
                                   std::to_string(logDevId->second) + ", found none");
    }

    static bool Stimulates(qs_int32 type) { return type == 1 || type == 2 || type == 8 || type == 10; }

    void CheckParameter(const SDatabaseContent::SParameter& parameter)
    {
        const std::string owner = "parameter " + QuoteForMessage(parameter.name);
        Once(m_parameters, std::tuple(parameter.name, parameter.setup, parameter.user), 0,
             owner + " of setup " + Id(parameter.setup) + " and user " + Id(parameter.user));
        if (parameter.setup != 0)
            NeedSetup(parameter.setup, owner, 0);
        if (parameter.user != 0 && m_users.count(parameter.user) == 0)
            Complain(0, owner + ": expected the id of a user, found " + Id(parameter.user));
    }

    const SDatabaseContent& m_content;
    const std::set<std::uint32_t> m_driven;
    std::vector<std::string> m_lines;

    std::set<qs_int32> m_users;
    std::set<qs_int32> m_setups;
    std::set<qs_int32> m_hwConfigIds;
    std::set<qs_int32> m_beampathIds;
    std::set<qs_int32> m_databaseIds;
    std::map<qs_int32, const SDatabaseContent::SHWConfig*> m_hwConfigs;
    std::map<qs_int32, const SDatabaseContent::SBeampath*> m_beampaths;
    std::map<qs_int32, std::uint32_t> m_logDevIds;
    std::map<std::pair<qs_int32, std::string>, qs_int32> m_names; // first beampath, by setup and name
    std::set<std::pair<qs_int32, qs_int32>> m_pairs;
    std::set<std::tuple<qs_int32, qs_int32, qs_int32>> m_configurations;
    std::set<std::tuple<std::string, qs_int32, qs_int32>> m_parameters;
};

} // namespace

std::vector<std::string> CheckDatabaseContent(const SDatabaseContent& content,
                                              const std::vector<std::uint32_t>& drivenLogDevIds)
{
    return CContentCheck(content, drivenLogDevIds).Run();
}

} // namespace QsStandalone
