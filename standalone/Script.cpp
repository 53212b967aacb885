// Registration of script procedures, and calls of them by name.
#include "standalone/Script.h"

#include "host/QsScript.h"
#include "platform/ThreadSafety.h"

#include <algorithm>
#include <exception>
#include <optional>

// Programs that take a reference to these constants import them, so the library must have them as objects.
constexpr unsigned CQsScript::s_kindText;
constexpr unsigned CQsScript::s_kindFlag;

namespace QsStandalone {
namespace {

constexpr int noSuchProcedure = -13;

struct SRegistered
{
    SScriptProcedure description;
    QsScriptDeviceProcedure function = nullptr;
};

struct SScript
{
    CQsMutex lock;
    std::map<std::string, SScriptParameter> parameters QS_GUARDED_BY(lock);
    std::vector<SRegistered> procedures QS_GUARDED_BY(lock);
};

// Never destroyed: a module unregisters when the process ends.
SScript& Script()
{
    static SScript& script = *new SScript;
    return script;
}

std::optional<bool> FlagOf(const std::string& text)
{
    if (text == "1" || text == "true")
        return true;
    if (text == "0" || text == "false")
        return false;
    return std::nullopt;
}

std::vector<std::string> Split(const std::string& names)
{
    std::vector<std::string> list;
    for (std::size_t begin = 0; begin <= names.size();)
    {
        const std::size_t end = std::min(names.find(';', begin), names.size());
        list.push_back(names.substr(begin, end - begin));
        begin = end + 1;
    }
    return list;
}

// A device procedure takes two texts and two flags after the device.
bool FitsProcedure(const std::vector<SScriptParameter>& parameters)
{
    const unsigned kinds[] = {CQsScript::s_kindText, CQsScript::s_kindText, CQsScript::s_kindFlag,
                              CQsScript::s_kindFlag};
    return std::equal(parameters.begin(), parameters.end(), std::begin(kinds), std::end(kinds),
                      [](const SScriptParameter& parameter, unsigned kind) { return parameter.kind == kind; });
}

std::vector<SRegistered>::iterator Find(std::vector<SRegistered>& procedures, const std::string& name)
{
    return std::find_if(procedures.begin(), procedures.end(),
                        [&name](const SRegistered& procedure) { return procedure.description.name == name; });
}

// The values in the procedure's order, defaults filled in.
bool OrderValues(const SScriptProcedure& procedure, std::map<std::string, std::string> given,
                 std::vector<std::string>& values, std::string& error)
{
    for (const SScriptParameter& parameter : procedure.parameters)
    {
        const auto found = given.find(parameter.name);
        values.push_back(found != given.end() ? found->second : parameter.defaultValue);
        if (found != given.end())
            given.erase(found);
        if (parameter.kind == CQsScript::s_kindFlag && !FlagOf(values.back()))
        {
            error =
                procedure.name + ": " + parameter.name + " is \"" + values.back() + "\", expected 0, 1, false or true";
            return false;
        }
    }
    if (!given.empty())
    {
        error = procedure.name + ": no parameter \"" + given.begin()->first + "\"";
        return false;
    }
    return true;
}

} // namespace

std::vector<SScriptProcedure> CQsScriptHost::Procedures()
{
    SScript& script = Script();
    const CQsScopedLock<CQsMutex> guard(script.lock);
    std::vector<SScriptProcedure> list;
    for (const SRegistered& procedure : script.procedures)
        list.push_back(procedure.description);
    return list;
}

bool CQsScriptHost::Call(const std::string& procedure, const std::string& device,
                         const std::map<std::string, std::string>& parameters, int& result, std::string& error)
{
    SRegistered called;
    {
        SScript& script = Script();
        const CQsScopedLock<CQsMutex> guard(script.lock);
        const auto found = Find(script.procedures, procedure);
        if (found == script.procedures.end())
        {
            error = "no script procedure \"" + procedure + "\"";
            return false;
        }
        called = *found;
    }
    std::vector<std::string> values;
    if (!OrderValues(called.description, parameters, values, error))
        return false;

    // Called without the lock: a procedure may register and unregister others.
    try
    {
        const CQsStringW wideDevice = CQsStringW::FromUtf8(device);
        const CQsStringW image = CQsStringW::FromUtf8(values[0]);
        const CQsStringW pattern = CQsStringW::FromUtf8(values[1]);
        result =
            called.function(wideDevice.c_str(), image.c_str(), pattern.c_str(), *FlagOf(values[2]), *FlagOf(values[3]));
        return true;
    }
    catch (const std::exception& e)
    {
        error = procedure + ": failed with an exception: " + e.what();
    }
    catch (...)
    {
        error = procedure + ": failed with an exception";
    }
    return false;
}

} // namespace QsStandalone

using namespace QsStandalone;

int CQsScript::Register_Parameter(const wchar_t* name, unsigned kind, const wchar_t* defaultValue)
{
    SScriptParameter parameter;
    parameter.name = CQsStringW(name).ToUtf8();
    parameter.kind = kind;
    parameter.defaultValue = CQsStringW(defaultValue).ToUtf8();
    const bool named = !parameter.name.empty() && parameter.name.find(';') == std::string::npos;
    const bool valid = kind == s_kindText || (kind == s_kindFlag && FlagOf(parameter.defaultValue));
    if (!named || !valid)
        return QS_ERR_FAIL;
    SScript& script = Script();
    const CQsScopedLock<CQsMutex> guard(script.lock);
    script.parameters[parameter.name] = parameter;
    return QS_OK;
}

int CQsScript::Register_ProcToGroupWithGUIProc(const wchar_t* name, const wchar_t* group, void* /*moduleInstance*/,
                                               const wchar_t* parameters, QsScriptDeviceProcedure procedure)
{
    SRegistered registered;
    registered.description.name = CQsStringW(name).ToUtf8();
    registered.description.group = CQsStringW(group).ToUtf8();
    registered.function = procedure;
    if (registered.description.name.empty() || registered.description.group.empty() || procedure == nullptr)
        return QS_ERR_FAIL;

    SScript& script = Script();
    const CQsScopedLock<CQsMutex> guard(script.lock);
    for (const std::string& parameter : Split(CQsStringW(parameters).ToUtf8()))
    {
        const auto found = script.parameters.find(parameter);
        if (found == script.parameters.end())
            return QS_ERR_FAIL;
        registered.description.parameters.push_back(found->second);
    }
    if (!FitsProcedure(registered.description.parameters))
        return QS_ERR_FAIL;

    const auto known = Find(script.procedures, registered.description.name);
    if (known != script.procedures.end())
        *known = std::move(registered);
    else
        script.procedures.push_back(std::move(registered));
    return QS_OK;
}

int CQsScript::UnregisterProc_Exe(const wchar_t* name)
{
    SScript& script = Script();
    const CQsScopedLock<CQsMutex> guard(script.lock);
    const auto known = Find(script.procedures, CQsStringW(name).ToUtf8());
    if (known == script.procedures.end())
        return noSuchProcedure;
    script.procedures.erase(known);
    return QS_OK;
}
