// The stand-alone host's plug-in manager: finds modules in folders, registers the classes that their files announce,
// and loads a module when a class of it is first created.
#pragma once

#include "standalone/ClassRecords.h"

#include <string>
#include <vector>

namespace QsStandalone {

class QS_HOST_API CQsModules
{
public:
    // Reads every module file (*.so, *.dll) of the folder in order of names and registers its classes as known but not
    // loaded. Files with an error are reported in the log and in the result and skipped; a class that is known already
    // keeps its first module. A folder that cannot be read yields one entry with an error. [any thread]
    static std::vector<SModuleFile> ScanFolder(const std::string& folder);
    // The same for one file.
    static SModuleFile ScanFile(const std::string& path);

    // Loads the module; harmless when it is loaded. False, with one line, when that fails. Modules stay loaded.
    static bool LoadModule(const std::string& path, std::string& error);
    static bool LoadModuleOfClass(const std::string& className, std::string& error);
    static bool IsLoaded(const std::string& path);
    static std::vector<SModuleFile> KnownModules();
    static void Forget(); // every module that is known but not loaded, with its classes
};

} // namespace QsStandalone
