// Registered script procedures, called by name.
#pragma once

#include "host/QsHostApi.h"

#include <map>
#include <string>
#include <vector>

namespace QsStandalone {

struct SScriptParameter
{
    std::string name;
    unsigned kind = 0; // CQsScript::s_kindText, s_kindFlag
    std::string defaultValue;
};

struct SScriptProcedure
{
    std::string name;
    std::string group;
    std::vector<SScriptParameter> parameters;
};

class QS_HOST_API CQsScriptHost
{
public:
    static std::vector<SScriptProcedure> Procedures();
    // Calls a procedure with the device's text and its parameters by name; parameters that are not given take their
    // declared default, flags read "0", "1", "false", "true". False, with one line, for an unknown procedure, an
    // unknown parameter or a flag of another value; else `result` is what the procedure answered.
    static bool Call(const std::string& procedure, const std::string& device,
                     const std::map<std::string, std::string>& parameters, int& result, std::string& error);
};

} // namespace QsStandalone
