// What the class registry and the plug-in manager share: every class that is known, from records in module files and
// from registration in code.
//
// Its lock is a leaf: it is never held while a module is loaded, a constructor runs or an object is asked, nor while
// the system's loader is asked for anything, since the loader's own lock is held when a module's classes register.
#pragma once

#include "host/QsSystem.h"
#include "platform/ThreadSafety.h"
#include "standalone/ClassRecords.h"
#include "standalone/HostControl.h"

#include <set>
#include <string>
#include <vector>

namespace QsStandalone {

class CClassRegistry
{
public:
    static CClassRegistry& Instance();

    // ---- classes registered in code
    void Add(const CQsClassInfo& info);
    void Remove(const CQsClassInfo& info);

    // ---- classes known from module files
    // Takes the classes that are not known yet; those of a module that is known already are read anew.
    void AddModule(const SModuleFile& module);
    std::vector<SModuleFile> Modules() const;
    void ForgetModules(const std::vector<std::string>& paths);

    // Where an object of the class comes from: `constructor`, or the module that is to be asked for it.
    struct SSource
    {
        bool known = false;
        bool refused = false;
        std::string module;
        QsClassConstructor constructor = nullptr;
    };
    SSource Find(const std::string& className) const;
    void SetConstructor(const std::string& className, const std::string& module, QsClassConstructor constructor);
    void Refuse(const std::string& className, bool refuse);

    // In registry order: classes of module files as they were scanned, then those that only registered in code. For the
    // latter `module` is the file that holds the class information.
    std::vector<SKnownClass> Classes() const;

private:
    struct SRecorded
    {
        SClassRecord record;
        std::string module;
        QsClassConstructor constructor = nullptr; // once the module has been asked for it
    };

    struct SCoded
    {
        const CQsClassInfo* info = nullptr;
        std::string module; // file that holds it
    };

    const SRecorded* FindRecorded(const std::string& className) const QS_REQUIRES(m_lock);
    const SCoded* FindCoded(const std::string& className) const QS_REQUIRES(m_lock);

    mutable CQsMutex m_lock;
    std::vector<SModuleFile> m_modules QS_GUARDED_BY(m_lock);
    std::vector<SRecorded> m_recorded QS_GUARDED_BY(m_lock);
    std::vector<SCoded> m_coded QS_GUARDED_BY(m_lock);
    std::set<std::string> m_refused QS_GUARDED_BY(m_lock);
};

} // namespace QsStandalone
