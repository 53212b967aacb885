// The commands that need the module. Each returns the exit code.
#pragma once

#include "stimhost/Options.h"

#include <string>

class CQsStimulationDeviceManager;

namespace Stimhost {

class CSession;

int List(const SOptions& options, CSession& session);
int Activate(const SOptions& options, CSession& session);
int ScriptList(const SOptions& options);
int ScriptCall(const SOptions& options);
int RegistryShow(const SOptions& options);
int RigCheck(const SOptions& options);
int Stimulate(const SOptions& options, CSession& session);

// Before the session is opened: the folder for the results, and a registry that is not the user's. False, with one
// line.
bool PrepareDemo(const SOptions& options, std::string& error);
int Demo(const SOptions& options, CSession& session);

// Classes and devices, as a person reads them.
std::string ListText(CQsStimulationDeviceManager& manager);

// Leaves no light on, with one line for each that was; the exit code that follows from it.
int PutLightsOut(int code);

// Activates a device; a name that is unknown, or a device that cannot be activated, gets one line and false.
bool ActivateByName(CQsStimulationDeviceManager& manager, const std::string& name);

} // namespace Stimhost
