// Every statement that this system runs on the host's device database, and the texts that a failure is reported with.
//
// Each statement ends with one blank: the texts are compared whole, here and in hosts that watch what is asked.
#pragma once

struct SQsDeviceStatement
{
    const char* sql;
    const wchar_t* prepareText;
    const wchar_t* execText;
};

namespace QsDeviceStatements {

inline constexpr SQsDeviceStatement stimulationBeampaths = {
    "SELECT dev_BeamPath.iBeamPathID, dev_BeamPath.sName FROM dev_BeamPath LEFT OUTER JOIN dev_HWConfig_BeamPath ON "
    "dev_BeamPath.iBeamPathID = dev_HWConfig_BeamPath.iBeamPathID AND dev_HWConfig_BeamPath.iHWConfigID = :iHWConfigID "
    "WHERE dev_BeamPath.iSetupID = :iSetupID AND COALESCE( dev_HWConfig_BeamPath.eBehaviour, "
    "dev_BeamPath.eDefHWCBehaviour) = 1 AND dev_BeamPath.eType = 2 ",
    L"Obtaining ON stimulation beampaths for current HWConfig - prepare",
    // With a capital S, other than above: the report's text as it has always been.
    L"Obtaining ON Stimulation beampaths for current HWConfig - exec"};

inline constexpr SQsDeviceStatement beampathOfStimulationOC = {
    "SELECT dev_BeamPath.iBeamPathID FROM dev_BeamPath WHERE dev_BeamPath.sName = :sName AND dev_BeamPath.iSetupID = "
    ":iSetupID AND dev_BeamPath.eType = :eType ORDER BY dev_BeamPath.iOrderNo ASC LIMIT 1 ",
    L"Obtaining stimulation beampath id for active stimulation OC - prepare",
    L"Obtaining stimulation beampath id for active stimulation OC - exec"};

inline constexpr SQsDeviceStatement beampathOfSystemActiveOC = {
    "SELECT dev_BeamPath.iBeamPathID FROM dev_BeamPath WHERE dev_BeamPath.sName = :sName AND dev_BeamPath.iSetupID = "
    ":iSetupID ",
    L"Obtaining beampath id for system active stimulation OC - prepare",
    L"Obtaining beampath id for system active stimulation OC - exec"};

inline constexpr SQsDeviceStatement beampathName = {
    "SELECT dev_BeamPath.sName FROM dev_BeamPath WHERE iBeamPathID = :iBeamPathID ",
    L"Obtaining stimulation BP name for id - prepare", L"Obtaining stimulation BP name for id - exec"};

inline constexpr SQsDeviceStatement mergedBeampaths = {
    "SELECT dev_BeamPath.jMergedBeamPathIDs FROM dev_BeamPath WHERE dev_BeamPath.iBeamPathID = :iBeamPathID ",
    L"Obtaining stimulation subbeampaths for beampath aggregator - prepare",
    L"Obtaining stimulation subbeampaths for beampath aggregator - exec"};

inline constexpr SQsDeviceStatement devicesOfSubbeampath = {
    "SELECT DISTINCT dev_Configuration.iLogicalDeviceID, dev_Configuration.eType FROM dev_Configuration WHERE "
    "dev_Configuration.iBeamPathID = :iBeamPathID AND dev_Configuration.eType IN (1, 2, 8, 10) ",
    L"Obtaining stimulation device for proxy - prepare", L"Obtaining stimulation device for proxy - exec"};

inline constexpr SQsDeviceStatement nameOfSubbeampath = {
    "SELECT COALESCE(dev_BeamPath.sUserName, dev_BeamPath.sName) FROM dev_BeamPath WHERE dev_BeamPath.iBeamPathID = "
    ":iBeamPathID ",
    L"Obtaining stimulation beampath name for proxy - prepare",
    L"Obtaining stimulation beampath name for proxy - exec"};

} // namespace QsDeviceStatements
