// The host's script library.
#pragma once

#include "host/QsSystem.h"

// A device procedure of a script: the device's text, then the procedure's parameters.
using QsScriptDeviceProcedure = int (*)(const wchar_t* device, const wchar_t* imageFile, const wchar_t* patternName,
                                        bool loadOneToOne, bool overwriteExisting);

class QS_HOST_API CQsScript
{
public:
    static constexpr unsigned s_kindText = 1;
    static constexpr unsigned s_kindFlag = 5;

    // Declares a parameter that procedures may name. Declaring it again replaces it for procedures registered later. 0
    // on success, -9 for an empty name, an unknown kind or a flag's default other than 0, 1, false or true. [host]
    static int Register_Parameter(const wchar_t* name, unsigned kind, const wchar_t* defaultValue);
    // Registers a procedure. `moduleInstance` is the module that holds it; `parameters` names declared parameters,
    // separated by ";", in the order of the procedure's arguments after the device: two texts and two flags. A
    // procedure of that name is replaced. 0 on success, -9 when a name is empty, a parameter is not declared or does
    // not fit.
    static int Register_ProcToGroupWithGUIProc(const wchar_t* name, const wchar_t* group, void* moduleInstance,
                                               const wchar_t* parameters, QsScriptDeviceProcedure procedure);
    // 0, or -13 when there is no such procedure.
    static int UnregisterProc_Exe(const wchar_t* name);
};
