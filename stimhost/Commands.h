// The commands that need the module. Each returns the exit code.
#pragma once

#include "stimhost/Options.h"

#include <optional>
#include <string>
#include <vector>

class CQsStimulationDeviceManager;

namespace Stimhost {

class CSession;
struct SBeampath;
struct SRequest;

int List(const SOptions& options, CSession& session);
int Activate(const SOptions& options, CSession& session);
int ScriptList(const SOptions& options);
int ScriptCall(const SOptions& options);
int RegistryShow(const SOptions& options);
int Stimulate(const SOptions& options, CSession& session);

// What `stimulate` asks for, the n-th time.
SRequest RequestOf(const SOptions& options, unsigned number);
// `stimulate --roi`.
int StimulateRegion(const SOptions& options, CSession& session);

int Calibrate(const SOptions& options, CSession& session);
int CalibrationList(const SOptions& options, CSession& session);
int CalibrationShow(const SOptions& options, CSession& session);
int CalibrationFind(const SOptions& options, CSession& session);
int CalibrationClear(const SOptions& options, CSession& session);
int CalibrationWhy(const SOptions& options, CSession& session);

int MapPoint(const SOptions& options, CSession& session);
int MapRect(const SOptions& options, CSession& session);
int MapRoi(const SOptions& options, CSession& session);

int ShowBeampaths(const SOptions& options, CSession& session);
int OCShow(const SOptions& options, CSession& session);
int OCSet(const SOptions& options, CSession& session);
int GroupsShow(const SOptions& options, CSession& session);
int GroupsSave(const SOptions& options, CSession& session);

// Without a session.
int RigCheck(const SOptions& options);
int RigInit(const SOptions& options);
int RigImport(const SOptions& options);
int RigExport(const SOptions& options);

// Before the session is opened: the folder for the results, and a registry and settings that are not the user's. False,
// with one line.
bool PrepareDemo(SOptions& options, std::string& error);
int Demo(const SOptions& options, CSession& session);

// Classes and devices, as a person reads them; beampaths, likewise.
std::string ListText(CQsStimulationDeviceManager& manager);
std::string BeampathsText(const std::vector<SBeampath>& beampaths);

// Leaves no light on, with one line for each that was; the exit code that follows from it.
int PutLightsOut(int code);

// Sets the optical configuration that --oc names. The exit code when that fails, with one line.
std::optional<int> ApplyOC(const SOptions& options, CQsStimulationDeviceManager& manager);

// Activates a device; a name that is unknown, or a device that cannot be activated, gets one line and false.
bool ActivateByName(CQsStimulationDeviceManager& manager, const std::string& name);

} // namespace Stimhost
