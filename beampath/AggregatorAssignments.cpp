// Which sub-beampath serves which stimulation group, kept for each setup and user.
#include "beampath/AggregatorTable.h"
#include "beampath/DeviceQuery.h"
#include "beampath/JsonIds.h"

#include <algorithm>

namespace {

QByteArray ToBytes(const CQsStringW& text)
{
    return QString::fromStdWString(text.Std()).toUtf8();
}

} // namespace

// At first every group is served by the first sub-beampath; what was saved counts as far as it still exists.
void CQsStimulationDeviceAggregator::RestoreAssignments()
{
    TablePtr table;
    CQsStringW key;
    {
        const CQsScopedLock<CQsMutex> lock(m_lockTable);
        table = m_pTable;
        key = m_settingsKey;
    }
    CQsStringW text;
    std::vector<qs_int32> saved;
    const int status = DeviceDBAppHelper::LoadParam(key.c_str(), text, nullptr, DeviceDBApi::GetCurrentSetupID(),
                                                    DeviceDBApi::GetCurrentUserID());
    if (status == QS_OK)
        saved = QsJsonIds(ToBytes(text));

    const CQsScopedLock<CQsMutex> lock(m_lockTable);
    if (!table->entries.empty())
        m_groupAssignments.fill(table->entries.front().id);
    m_bAssignmentsUnknown = status == QS_ERR_FAIL;
    for (std::size_t group = 0; group < std::min(saved.size(), m_groupAssignments.size()); ++group)
        if (table->Has(saved[group]))
            m_groupAssignments[group] = saved[group];
}

std::array<qs_int32, 3> CQsStimulationDeviceAggregator::GetStimulationGroupAssignments()
{
    const CQsScopedLock<CQsMutex> lock(m_lockTable);
    return m_groupAssignments;
}

int CQsStimulationDeviceAggregator::SetStimulationGroupAssignment(unsigned group, qs_int32 subbeampathId)
{
    const CQsScopedLock<CQsMutex> lock(m_lockTable);
    if (group >= m_groupAssignments.size() || !m_pTable->Has(subbeampathId))
        return QS_ERR_FAIL;
    m_groupAssignments[group] = subbeampathId;
    m_bAssignmentsUnknown = false;
    return QS_OK;
}

int CQsStimulationDeviceAggregator::SaveStimulationGroupDeviceAssignments()
{
    // What a failing store did not tell must not be overwritten with a guess.
    if (m_bAssignmentsUnknown)
        RestoreAssignments();
    QJsonArray ids;
    CQsStringW key;
    {
        const CQsScopedLock<CQsMutex> lock(m_lockTable);
        if (m_pTable->entries.size() < 2)
            return QS_OK;
        for (const qs_int32 id : m_groupAssignments)
            ids.append(id);
        key = m_settingsKey;
    }
    const QByteArray text = QJsonDocument(ids).toJson(QJsonDocument::Compact);
    if (text.isEmpty())
        return QS_OK;
    return DeviceDBAppHelper::SaveParam(key.c_str(), CQsStringW::FromUtf8(text.toStdString()),
                                        DeviceDBApi::GetCurrentSetupID(), DeviceDBApi::GetCurrentUserID());
}
