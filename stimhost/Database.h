// The device database of a run, and the content that files give for one.
#pragma once

#include "standalone/DatabaseContent.h"
#include "standalone/Rig.h"
#include "stimhost/Options.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Stimhost {

constexpr const char* s_rigFormat = "stimulation-rig";
constexpr const char* s_contentFormat = "stimulation-database";

// Drivers of databases are plug-ins, which Qt finds through an application object. Call it before any database is used.
void NeedApplication();

// Content of a rig with a device database, or of an export. The database ids that a rig gives its own shutters and
// logical devices are among it. False, with one line; `content` is then unchanged.
bool ReadContent(const std::string& path, QsStandalone::SDatabaseContent& content, std::string& error);

// Adds the database ids that a rig gives its shutters and logical devices, where the content does not say the same.
void AddLogicalIds(const QsStandalone::SRig& rig, QsStandalone::SDatabaseContent& content);

// Logical devices that the rig's stimulation shutters and devices drive. Empty, which is "not known", when a device
// does not say in its settings which it drives.
std::vector<std::uint32_t> DrivenLogicalDevices(const QsStandalone::SRig& rig);

// The database that --database or the environment names. False, with one line, when there is none or it is misspelt.
bool NamedDatabase(const SOptions& options, QsStandalone::SDeviceDatabaseSetup& setup, std::string& error);

// Opens the named database as it is, or makes one of the rig's content that goes with the run, and chooses setup,
// hardware configuration and user. Neither: nothing is opened, and true. False, with one line. Before there is a
// manager, which decides at its making whether it runs on a database.
bool OpenDatabase(const SOptions& options, const QsStandalone::SRig& rig, std::string& error);
// Whether what is stored in it is gone with the run.
bool DatabaseIsPrivate();
// Ends the session as a host does: tells all who save something, within some seconds, and closes the database. A line
// on stderr for each that failed.
void CloseDatabase();

// Everything that the open database holds. False, with one line.
bool DatabaseContent(QsStandalone::SDatabaseContent& content, std::string& error);

} // namespace Stimhost
