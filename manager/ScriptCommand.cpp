// The script command that adds a pattern from an image file; there while a static device is known.
#include "manager/StimulationManager.h"

#include "host/QsScript.h"

namespace {

constexpr wchar_t procedureName[] = L"Stg_StimDev_AddPatternFromImage";

int AddPatternFromImage(const wchar_t* device, const wchar_t* imageFile, const wchar_t* patternName, bool loadOneToOne,
                        bool overwriteExisting)
{
    CQsStimulationDeviceManager* const manager = CQsStimulationDeviceManager::InstanceIfExists();
    if (manager == nullptr)
        return QS_ERR_FAIL;
    IQsStimulationDeviceEx* const extended = manager->FindExStimulationDeviceByNameIntelligent(device);
    if (extended == nullptr)
        return QS_OK; // scripts run unchanged on systems without such a device
    return extended->AddPatternFromImage(imageFile, patternName, loadOneToOne, overwriteExisting);
}

} // namespace

void CQsStimulationDeviceManager::RegisterScriptCommand()
{
    CQsScript::Register_Parameter(L"StimDev_ImageFilePath", CQsScript::s_kindText, L"");
    CQsScript::Register_Parameter(L"StimDev_PatternName", CQsScript::s_kindText, L"");
    CQsScript::Register_Parameter(L"StimDev_Load1To1", CQsScript::s_kindFlag, L"0");
    CQsScript::Register_Parameter(L"StimDev_OverwriteExisting", CQsScript::s_kindFlag, L"0");

    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<const wchar_t*>(&AddPatternFromImage), &module);
    CQsScript::Register_ProcToGroupWithGUIProc(
        procedureName, L"Device.Stimulation", module,
        L"StimDev_ImageFilePath;StimDev_PatternName;StimDev_Load1To1;StimDev_OverwriteExisting", &AddPatternFromImage);
}

void CQsStimulationDeviceManager::UnregisterScriptCommand()
{
    CQsScript::UnregisterProc_Exe(procedureName);
}
