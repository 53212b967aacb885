// Reference-counted objects, their classes, and their creation by name.
#include "standalone/ClassRegistry.h"

#include "platform/ModuleFile.h"
#include "standalone/PluginManager.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <new>

using QsStandalone::CClassRegistry;
using QsStandalone::SKnownClass;

struct SQsClassAccess
{
    static unsigned References(const CQsClass& object) { return object.m_references; }
};

namespace {

std::atomic<std::size_t> s_liveObjects{0};
std::atomic<bool> s_refuseAllocation{false};

constexpr wchar_t registryUnit[] = L"ClassRegistry";
constexpr wchar_t pluginUnit[] = L"PluginManager";

bool Names(const std::vector<std::string>& parents, const char* interfaceName)
{
    return std::find(parents.begin(), parents.end(), interfaceName) != parents.end();
}

// A filter that is null or empty lets every class through.
bool PassesFilter(const std::vector<std::string>& parents, const char* filter)
{
    return filter == nullptr || *filter == 0 || Names(parents, filter);
}

// The class's constructor, out of its module when no object of it has been made yet. Null with a line in the log.
QsClassConstructor ConstructorOf(const char* className)
{
    CClassRegistry& registry = CClassRegistry::Instance();
    const CClassRegistry::SSource source = registry.Find(className);
    if (source.refused || !source.known)
    {
        DiagOutputExW(registryUnit, __LINE__,
                      source.refused ? L"class %hs cannot be created: it is refused"
                                     : L"class %hs cannot be created: no module that is known holds it",
                      className);
        return nullptr;
    }
    if (source.constructor != nullptr)
        return source.constructor;

    std::string error;
    void* const module = QsPlatform::LoadModuleFile(source.module, error);
    if (module == nullptr)
    {
        DiagOutputExW(pluginUnit, __LINE__, L"class %hs cannot be created: %hs", className, error.c_str());
        return nullptr;
    }
    const std::string symbol = std::string("QS_ConstructorFor") + className;
    const auto constructor = reinterpret_cast<QsClassConstructor>(QsPlatform::ModuleSymbol(module, symbol.c_str()));
    if (constructor == nullptr)
        DiagOutputExW(pluginUnit, __LINE__, L"class %hs cannot be created: %hs does not export %hs", className,
                      source.module.c_str(), symbol.c_str());
    else
        registry.SetConstructor(className, source.module, constructor);
    return constructor;
}

IQsInterface* ConstructAndQuery(QsClassConstructor constructor, const char* className, const char* interfaceName,
                                const char* file, int line)
{
    std::unique_ptr<IQsInterface> object(constructor(file, static_cast<unsigned>(line)));
    if (!object)
    {
        DiagOutputExW(registryUnit, __LINE__, L"class %hs cannot be created: its constructor made no object",
                      className);
        return nullptr;
    }
    IQsInterface* result = nullptr;
    if (auto* const counted = dynamic_cast<CQsClass*>(object.get()))
    {
        // From here on the count decides; the reference is given back however the query ends.
        object.release();
        counted->AddRef();
        const auto release = [](CQsClass* referenced) { referenced->Release(); };
        const std::unique_ptr<CQsClass, decltype(release)> reference(counted, release);
        result = counted->QueryInterface(interfaceName);
    }
    if (result == nullptr)
        DiagOutputExW(registryUnit, __LINE__, L"class %hs does not answer a query for %hs", className, interfaceName);
    return result;
}

} // namespace

// ------------------------------------------------------------------------------------------------------------ objects

CQsClass::CQsClass()
{
    ++s_liveObjects;
}

CQsClass::~CQsClass()
{
    --s_liveObjects;
}

unsigned CQsClass::AddRef()
{
    return m_references.fetch_add(1, std::memory_order_relaxed) + 1;
}

unsigned CQsClass::Release()
{
    const unsigned before =
        m_references.load(std::memory_order_relaxed) == 0 ? 0 : m_references.fetch_sub(1, std::memory_order_acq_rel);
    if (before > 1)
        return before - 1;
    delete this;
    return 0;
}

void* CQsClass::operator new(std::size_t size, const char* /*file*/, unsigned /*line*/) noexcept
{
    return s_refuseAllocation ? nullptr : ::operator new(size, std::nothrow);
}

void CQsClass::operator delete(void* memory, const char* /*file*/, unsigned /*line*/) noexcept
{
    ::operator delete(memory);
}

void CQsClass::operator delete(void* memory) noexcept
{
    ::operator delete(memory);
}

// Programs that take a reference to such a constant import it, so the library must have it as an object.
constexpr std::size_t CQsClassInfo::s_parentCount;

CQsClassInfo::CQsClassInfo(const char* name, const char* parent1, const char* parent2, const char* parent3,
                           const char* parent4, const char* parent5, const char* parent6, const char* parent7,
                           const char* parent8, const char* parent9, std::size_t size, QsClassConstructor constructor)
    : m_name(name != nullptr ? name : ""), m_parents{parent1, parent2, parent3, parent4, parent5,
                                                     parent6, parent7, parent8, parent9},
      m_size(size), m_constructor(constructor)
{
    CClassRegistry::Instance().Add(*this);
}

CQsClassInfo::~CQsClassInfo()
{
    CClassRegistry::Instance().Remove(*this);
}

// ----------------------------------------------------------------------------------------------------------- registry

IQsInterface* CQsRTTI::CreateAndQuery(const char* className, const char* interfaceName, const char* file, int line)
{
    if (className == nullptr || interfaceName == nullptr)
    {
        DiagOutputExW(registryUnit, __LINE__, L"an object cannot be created without the names of class and interface");
        return nullptr;
    }
    try
    {
        const QsClassConstructor constructor = ConstructorOf(className);
        return constructor != nullptr ? ConstructAndQuery(constructor, className, interfaceName, file, line) : nullptr;
    }
    catch (const std::exception& e)
    {
        DiagOutputExW(registryUnit, __LINE__, L"class %hs cannot be created: exception: %hs", className, e.what());
    }
    catch (...)
    {
        DiagOutputExW(registryUnit, __LINE__, L"class %hs cannot be created: exception", className);
    }
    return nullptr;
}

void CQsRTTI::AddRef(IQsInterface* object)
{
    if (auto* const counted = dynamic_cast<CQsClass*>(object))
        counted->AddRef();
}

void CQsRTTI::Release(IQsInterface* object)
{
    if (auto* const counted = dynamic_cast<CQsClass*>(object))
        counted->Release();
}

IQsInterface* CQsRTTI::Query(IQsInterface* object, const char* interfaceName)
{
    auto* const counted = dynamic_cast<CQsClass*>(object);
    return counted != nullptr && interfaceName != nullptr ? counted->QueryInterface(interfaceName) : nullptr;
}

void CQsRTTI::FindClasses(const char* interfaceName, const char* filter2, const char* filter3,
                          std::vector<SQsClassEntry>& classes)
{
    if (interfaceName == nullptr)
        return;
    for (const SKnownClass& known : CClassRegistry::Instance().Classes())
        if (Names(known.parents, interfaceName) && PassesFilter(known.parents, filter2) &&
            PassesFilter(known.parents, filter3))
            classes.push_back({CQsStringA(known.className.c_str()), CQsStringW::FromUtf8(known.module)});
}

// ----------------------------------------------------------------------------------------------------------- switches

namespace QsStandalone {

void RefuseClass(const std::string& className, bool refuse)
{
    CClassRegistry::Instance().Refuse(className, refuse);
}

void RefuseAllocation(bool refuse)
{
    s_refuseAllocation = refuse;
}

std::size_t LiveObjectCount()
{
    return s_liveObjects;
}

unsigned ReferenceCount(IQsInterface* object)
{
    const auto* const counted = dynamic_cast<CQsClass*>(object);
    return counted != nullptr ? SQsClassAccess::References(*counted) : 0;
}

std::vector<SKnownClass> KnownClasses()
{
    std::vector<SKnownClass> classes = CClassRegistry::Instance().Classes();
    for (SKnownClass& known : classes)
    {
        if (known.moduleLoaded)
            known.module.clear(); // registered in code only
        else
            known.moduleLoaded = QsPlatform::IsModuleFileLoaded(known.module);
    }
    return classes;
}

} // namespace QsStandalone
