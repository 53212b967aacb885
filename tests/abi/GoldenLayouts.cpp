#include "tests/abi/GoldenLayouts.h"

namespace QsTest {

namespace {

constexpr bool s_pure = false;
constexpr bool s_body = true;

// The device interface: slots 0 to 28.
const std::vector<SGoldenSlot>& DeviceSlots()
{
    static const std::vector<SGoldenSlot> slots = {
        /*  0 */ {"CQsStringW GetUniqueName() const", s_pure},
        /*  1 */ {"bool IsHWConnected()", s_pure},
        /*  2 */ {"bool IsVisible()", s_pure},
        /*  3 */ {"int SetActive(bool)", s_pure},
        /*  4 */ {"bool IsFeatureSupported(unsigned int)", s_pure},
        /*  5 */ {"bool IsFeatureEnabled(unsigned int)", s_pure},
        /*  6 */ {"EQsStimulationDeviceType GetStimulationDeviceType() const", s_body},
        /*  7 */ {"CQsStringW GetLocalizedStringForUI(unsigned int)", s_pure},
        /*  8 */ {"int HWSequencerEnable(bool)", s_pure},
        /*  9 */ {"double GetAcquisitionExposureTime()", s_pure},
        /* 10 */ {"int GetStimulationExposureTime(double*, unsigned int)", s_pure},
        /* 11 */ {"double GetStimulationExposureTimeCombined(uint64_t)", s_pure},
        /* 12 */ {"unsigned int StimulationModeGet()", s_pure},
        /* 13 */ {"unsigned int StimulationAreaGetCount()", s_pure},
        /* 14 */
        {"int StimulationAreaSet(const vector<CQsRoiObject>&, const SQsRLEPicBuf&, const SQsScanAreaDesc*, "
         "const SQsGrabberFormatDesc&, const CQsRectBase<int>&)",
         s_pure},
        /* 15 */
        {"int StimulationAreaGet(vector<CQsRoiObject>*, SQsRLEPicBuf*, SQsScanAreaDesc*, SQsGrabberFormatDesc*, "
         "CQsRectBase<int>*, uint64_t*)",
         s_pure},
        /* 16 */
        {"int StimulationAreaAppendAsPattern(const vector<CQsRoiObject>&, const SQsRLEPicBuf&, "
         "const SQsScanAreaDesc*, const SQsGrabberFormatDesc&, const CQsRectBase<int>&)",
         s_pure},
        /* 17 */ {"int StimulationAreaUpload()", s_pure},
        /* 18 */ {"bool StimulationAreaIsUpToDate()", s_pure},
        /* 19 */ {"int StimulationReady(bool, bool)", s_pure},
        /* 20 */ {"bool StimulationIsReady(bool, CQsStringW*)", s_pure},
        /* 21 */ {"int StimulationBegin(const SQsStimulationType&)", s_pure},
        /* 22 */ {"int StimulationEnd(double*, double*, uint64_t)", s_pure},
        /* 23 */ {"int StimulationFire(const SQsStimulationType&, double*, double*)", s_pure},
        /* 24 */ {"int StimulationAbort()", s_pure},
        /* 25 */ {"int StimulationROIPrepare(unsigned int)", s_pure},
        /* 26 */ {"int StimulationValidate(const SQsExperiment*, CQsStringW&)", s_pure},
        /* 27 */ {"IQsLaserPowerControl* GetLaserPowerControl()", s_body},
        /* 28 */ {"int GetStimulationDeviceInfo(SQsStimulationDeviceInfo&) const", s_pure},
    };
    return slots;
}

// A concrete device: the interface's slots, each with a body, and its own behind them.
std::vector<SGoldenSlot> ConcreteDevice(const std::vector<std::string>& added)
{
    std::vector<SGoldenSlot> slots = DeviceSlots();
    for (SGoldenSlot& slot : slots)
        slot.hasBody = true;
    for (const std::string& operation : added)
        slots.push_back({operation, s_body});
    return slots;
}

// The meaning of a driver's operations is the plug-in's; there are twelve.
std::vector<SGoldenSlot> DriverSlots()
{
    std::vector<SGoldenSlot> slots;
    for (int i = 0; i < 12; ++i)
        slots.push_back({"int PhysDevOperation" + std::to_string(i) + "()", s_pure});
    return slots;
}

} // namespace

const SGoldenTable& GoldenRoot()
{
    static const SGoldenTable table = {
        "IQsInterface", "SRoot", {{"destructor", s_body}, {"const CQsClassInfo* GetClass() const", s_pure}}};
    return table;
}

const std::vector<SGoldenTable>& GoldenTables()
{
    static const std::vector<SGoldenTable> tables = {
        {"IQsStimulationDevice", "SDevice", DeviceSlots(), true},
        {"IQsStimulationDevice", "SShutter", ConcreteDevice({/* 29 */ "int AttachShutter(uint32_t)"}), true, true},
        {"IQsStimulationDevice", "SMultilaser",
         ConcreteDevice({/* 29 */ "void SetLogDevId(unsigned int)", /* 30 */ "IQsStimulationPhysDev* GetDriver()",
                         /* 31 */ "void SetDriver(IQsStimulationPhysDev*)"}),
         true},
        {"IQsStimulationDevice", "SAggregator", ConcreteDevice({}), true, true},
        {"IQsStimulationDevice", "SProxy", ConcreteDevice({}), true, true},
        {"IQsStimulationPhysDev", "SPhysDev", DriverSlots()},
        {"IQsStimulationDeviceManagerEventListener",
         "SListener",
         {{"int AvailableStimulationDevicesChanged()", s_pure}}},
        {"IQsStimulationDeviceCalibration",
         "SOwner",
         {
             /* 0 */ {"void GetWatchedDeviceTypes(vector<EQsWatchedDeviceType>&)", s_pure},
             /* 1 */ {"void OnCalibrationStateChanged(EQsCalibrationState)", s_pure},
             /* 2 */ {"CQsStringW GetCalibrationFileName()", s_pure},
             /* 3 */ {"CQsStringW GetCalibrationSectionName()", s_pure},
             /* 4 */ {"CQsStringW GetCalibrationDeviceName()", s_pure},
             /* 5 */ {"int GetCameraFlipReference(double*, double*, double*, double*)", s_pure},
             /* 6 */ {"int GetCameraFormat(SQsGrabberFormatValue&)", s_pure},
         }},
        {"CQsStimulationDeviceConfiguration", "SConfiguration", {{"destructor", s_body}}},
    };
    return tables;
}

// Natural alignment, so a double begins at the next multiple of 8 and a bool takes one byte. A growable array is three
// pointers: begin, end and end of the storage.
const std::vector<SGoldenRecord>& GoldenRecords()
{
    static const std::vector<SGoldenRecord> records = {
        {"IQsStimulationDevice::SQsStimulationType",
         40,
         8,
         {{"uiReserved", "uint32_t", 0},
          {"uiType", "uint32_t", 4},
          {"uiRepeatCount", "uint32_t", 8},
          {"dDurationMs", "double", 16},
          {"uiGroupMask", "uint32_t", 24},
          {"dReserved", "double", 32}}},
        {"IQsStimulationDevice::SQsScanAreaDesc",
         112,
         8,
         {{"dZoom", "double", 0},
          {"dAngle", "double", 8},
          {"dXOffset", "double", 16},
          {"dYOffset", "double", 24},
          {"dScanAreaAspect", "double", 32},
          {"bIsCrop", "bool", 40},
          {"dCropXOffset", "double", 48},
          {"dCropYOffset", "double", 56},
          {"dCropZoom", "double", 64},
          {"dCropAspect", "double", 72},
          {"Points", "vector<CQsPointBase<double>>", 80},
          {"uiTag", "uint32_t", 104}}},
        // A point is saved as it lies in memory.
        {"CQsPointBase<double>", 16, 8, {{"x", "double", 0}, {"y", "double", 8}}},
        {"SQsStimulationDeviceInfo",
         48,
         8,
         {{"vecLogDevIds", "vector<unsigned int>", 0}, {"vecPhysDevIds", "vector<unsigned int>", 24}}},
    };
    return records;
}

const std::vector<SGoldenBases>& GoldenBasesOfClasses()
{
    static const std::vector<SGoldenBases> classes = {
        {"CQsShutterStimulationDevice", {"IQsStimulationDevice", "CQsClass"}},
        {"CQsStimulationDeviceProxy", {"IQsStimulationDevice", "CQsClass"}},
        {"CQsStimulationDeviceAggregator",
         {"IQsStimulationDevice", "IQsStimulationDeviceManagerEventListener", "CQsClass",
          "IQsDMApiPluginNotification"}},
    };
    return classes;
}

} // namespace QsTest
