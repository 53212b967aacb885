// Where the parts of an installation, or of a build tree, lie: all relative to the program's file.
#pragma once

#include <string>

namespace Stimhost {

std::string ModuleFile();   // the stimulation module
std::string CommandsFile(); // the library of the commands that need it
std::string PluginFolder(); // device modules that come with the product; empty when there are none
// File of a rig that comes with the product; empty when it is missing.
std::string RigOfProgram(const std::string& name);

} // namespace Stimhost
