#include "standalone/ClassRegistry.h"

#include "platform/ModuleFile.h"
#include "platform/Process.h"

#include <algorithm>
#include <filesystem>

namespace QsStandalone {

namespace {

// The system may know a module by another path than the one it was scanned by: over a link, or in other letters.
bool IsSameFile(const std::string& a, const std::string& b)
{
    std::error_code ignored;
    return a == b || std::filesystem::equivalent(std::filesystem::u8path(a), std::filesystem::u8path(b), ignored);
}

} // namespace

// Never destroyed: modules unregister their classes when the process ends.
CClassRegistry& CClassRegistry::Instance()
{
    static CClassRegistry& registry = *new CClassRegistry;
    return registry;
}

void CClassRegistry::Add(const CQsClassInfo& info)
{
    const std::string module = QsPlatform::ModuleFileOfAddress(&info);
    const CQsScopedLock<CQsMutex> guard(m_lock);
    m_coded.push_back({&info, module});
}

void CClassRegistry::Remove(const CQsClassInfo& info)
{
    if (QsPlatform::IsProcessEnding()) // nobody asks any more, and a thread that did may hold the lock for ever
        return;
    const CQsScopedLock<CQsMutex> guard(m_lock);
    m_coded.erase(
        std::remove_if(m_coded.begin(), m_coded.end(), [&info](const SCoded& coded) { return coded.info == &info; }),
        m_coded.end());
    // The module goes: what it gave out as constructor goes with it.
    for (SRecorded& recorded : m_recorded)
        if (recorded.constructor == info.GetConstructor())
            recorded.constructor = nullptr;
}

void CClassRegistry::AddModule(const SModuleFile& module)
{
    const CQsScopedLock<CQsMutex> guard(m_lock);
    const auto known = std::find_if(m_modules.begin(), m_modules.end(),
                                    [&module](const SModuleFile& other) { return other.path == module.path; });
    if (known != m_modules.end())
        *known = module;
    else
        m_modules.push_back(module);

    for (const SClassRecord& record : module.classes)
    {
        const auto recorded =
            std::find_if(m_recorded.begin(), m_recorded.end(),
                         [&record](const SRecorded& other) { return other.record.className == record.className; });
        if (recorded != m_recorded.end())
        {
            if (recorded->module == module.path)
                recorded->record = record;
            continue;
        }
        // A class that another file, such as the program itself, has registered in code stays that file's.
        const SCoded* const coded = FindCoded(record.className);
        if (coded == nullptr || IsSameFile(coded->module, module.path))
            m_recorded.push_back({record, module.path});
    }
}

std::vector<SModuleFile> CClassRegistry::Modules() const
{
    const CQsScopedLock<CQsMutex> guard(m_lock);
    return m_modules;
}

void CClassRegistry::ForgetModules(const std::vector<std::string>& paths)
{
    const auto listed = [&paths](const std::string& path)
    { return std::find(paths.begin(), paths.end(), path) != paths.end(); };
    const CQsScopedLock<CQsMutex> guard(m_lock);
    m_modules.erase(std::remove_if(m_modules.begin(), m_modules.end(),
                                   [&listed](const SModuleFile& module) { return listed(module.path); }),
                    m_modules.end());
    m_recorded.erase(std::remove_if(m_recorded.begin(), m_recorded.end(),
                                    [&listed](const SRecorded& recorded) { return listed(recorded.module); }),
                     m_recorded.end());
}

CClassRegistry::SSource CClassRegistry::Find(const std::string& className) const
{
    const CQsScopedLock<CQsMutex> guard(m_lock);
    SSource source;
    source.refused = m_refused.count(className) != 0;
    if (const SRecorded* const recorded = FindRecorded(className))
    {
        source.known = true;
        source.module = recorded->module;
        source.constructor = recorded->constructor;
    }
    else if (const SCoded* const coded = FindCoded(className))
    {
        source.known = true;
        source.constructor = coded->info->GetConstructor();
    }
    return source;
}

void CClassRegistry::SetConstructor(const std::string& className, const std::string& module,
                                    QsClassConstructor constructor)
{
    const CQsScopedLock<CQsMutex> guard(m_lock);
    for (SRecorded& recorded : m_recorded)
        if (recorded.record.className == className && recorded.module == module)
            recorded.constructor = constructor;
}

void CClassRegistry::Refuse(const std::string& className, bool refuse)
{
    const CQsScopedLock<CQsMutex> guard(m_lock);
    if (refuse)
        m_refused.insert(className);
    else
        m_refused.erase(className);
}

const CClassRegistry::SRecorded* CClassRegistry::FindRecorded(const std::string& className) const
{
    for (const SRecorded& recorded : m_recorded)
        if (recorded.record.className == className)
            return &recorded;
    return nullptr;
}

const CClassRegistry::SCoded* CClassRegistry::FindCoded(const std::string& className) const
{
    for (const SCoded& coded : m_coded)
        if (className == coded.info->GetName())
            return &coded;
    return nullptr;
}

std::vector<SKnownClass> CClassRegistry::Classes() const
{
    std::vector<SKnownClass> classes;
    const CQsScopedLock<CQsMutex> guard(m_lock);
    for (const SRecorded& recorded : m_recorded)
    {
        SKnownClass known{recorded.record.className, recorded.record.friendlyName, {}, recorded.module, false};
        for (const std::string& parent : recorded.record.parents)
            if (!parent.empty())
                known.parents.push_back(parent);
        classes.push_back(std::move(known));
    }
    for (const SCoded& coded : m_coded)
    {
        const CQsClassInfo& info = *coded.info;
        const bool listed =
            std::any_of(classes.begin(), classes.end(),
                        [&info](const SKnownClass& known) { return known.className == info.GetName(); });
        if (listed)
            continue;
        SKnownClass known{info.GetName(), {}, {}, coded.module, true};
        for (std::size_t i = 0; i < CQsClassInfo::s_parentCount; ++i)
            if (info.GetParent(i) != nullptr && *info.GetParent(i) != 0)
                known.parents.emplace_back(info.GetParent(i));
        classes.push_back(std::move(known));
    }
    return classes;
}

} // namespace QsStandalone
