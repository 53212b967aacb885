// Beampaths that are measured with: a device database of their own, and the manager on it for the time of the object.
#pragma once

#include "manager/StimulationManager.h"
#include "standalone/DatabaseContent.h"

#include <filesystem>
#include <string>
#include <vector>

namespace QsBench {

// Whether a manager runs on a device database is settled when it is made, so the present one goes, and a new one
// without a database is made in the end. Devices are registered after this object was made and taken out before it
// goes; they themselves outlive it.
class CBeampaths
{
public:
    // Beampath 1, 2, ... is merged from one sub-beampath for each logical device of its list.
    explicit CBeampaths(const std::vector<std::vector<std::uint32_t>>& logDevIds);
    ~CBeampaths();
    CBeampaths(const CBeampaths&) = delete;
    CBeampaths& operator=(const CBeampaths&) = delete;

    const std::string& Error() const { return m_error; } // empty when the database is open
    const QsStandalone::SDatabaseContent& Content() const { return m_content; }
    unsigned Count() const { return m_count; }
    // Device of the beampath as the manager has it now; null when there is none.
    static IQsStimulationDevice* Device(qs_int32 id);
    static CQsStringW OCOf(qs_int32 id); // a name that makes the beampath the active one

private:
    std::filesystem::path m_folder;
    QsStandalone::SDeviceDatabaseSetup m_setup;
    QsStandalone::SDatabaseContent m_content;
    unsigned m_count;
    std::string m_error;
};

} // namespace QsBench
