// The stimulation device: the one interface through which every photo-stimulation device is driven.
//
// Plug-ins implement IQsStimulationDevice and call it through its table of virtual operations, so the order of the
// operations is a calling contract: slots 0 to 28 stay as they stand, nothing is inserted before the last one, and no
// destructor is declared (it comes from the virtual base IQsInterface). A concrete class may add operations after
// slot 28.
//
// Thread tags (docs/threading.md): operations without one are called by the manager's host threads and its worker;
// a device that has state of its own guards it. StimulationAbort is called on any thread, also while another one waits
// inside StimulationBegin.
//
// Status: 0 = QS_OK; -2 the device does not implement the operation or the kind of stimulation is unknown; -4 null
// argument; -9 QS_ERR_FAIL, refused; -12 no hardware identity yet or the device database is not initialised.
// Operations with another result report failure by a neutral value (false, 0, 0.0, empty). Nothing throws.
#pragma once

#include "device/QsStimApi.h"
#include "host/QsDMApi.h"
#include "host/QsGrabber.h"
#include "host/QsMetaFormats.h"
#include "host/QsPicture.h"
#include "host/QsSystem.h"

#include <cstddef>
#include <cstdint>
#include <vector>

// Identifiers in the host's device database: the logical devices that a stimulation device drives and, at the same
// positions, the physical devices behind them. A device appends to the arrays and does not clear them.
struct SQsStimulationDeviceInfo
{
    std::vector<std::uint32_t> vecLogDevIds;
    std::vector<std::uint32_t> vecPhysDevIds;
};

// Driver of a physical device, as the plug-in of a multilaser unit defines it. This module never calls it; it only
// stores and hands back the pointer, so the meaning of the twelve operations is the plug-in's.
class IQsStimulationPhysDev
{
public:
    virtual int PhysDevOperation0() = 0;
    virtual int PhysDevOperation1() = 0;
    virtual int PhysDevOperation2() = 0;
    virtual int PhysDevOperation3() = 0;
    virtual int PhysDevOperation4() = 0;
    virtual int PhysDevOperation5() = 0;
    virtual int PhysDevOperation6() = 0;
    virtual int PhysDevOperation7() = 0;
    virtual int PhysDevOperation8() = 0;
    virtual int PhysDevOperation9() = 0;
    virtual int PhysDevOperation10() = 0;
    virtual int PhysDevOperation11() = 0;

protected:
    ~IQsStimulationPhysDev() = default;
};

// Told when the manager's set of devices changed. Returns a status; a listener whose status is worse than the worst so
// far is asked a second time, and that second answer counts.
class IQsStimulationDeviceManagerEventListener
{
public:
    virtual int AvailableStimulationDevicesChanged() = 0;

protected:
    ~IQsStimulationDeviceManagerEventListener() = default;
};

class QS_STIM_API IQsStimulationDevice : virtual public IQsInterface
{
public:
    enum EQsStimulationDeviceType : std::uint32_t
    {
        eStimDevGeneric = 0, // also the device of a whole beampath
        eStimDevShutter = 1,
        eStimDevMultilaser = 2
    };

    // Kinds of stimulation (SQsStimulationType::uiType).
    enum EQsStimulationKind : std::uint32_t
    {
        eStimContinuous = 1,      // light from StimulationBegin until StimulationEnd
        eStimTimed = 2,           // light for dDurationMs; StimulationBegin returns when that has passed
        eStimRepeatedPatterns = 3 // StimulationBegin prepares uiRepeatCount shots, StimulationFire fires each
    };

    // Stimulation mode of devices that split a stimulation into exposures (see StimulationModeGet).
    static constexpr unsigned s_modeRepeatedPatterns = 7;

    // A stimulation request. Passed by const reference and copied whole; its layout is shared with other plug-ins:
    // offsets 0, 4, 8, 16, 24, 32, size 40.
    struct SQsStimulationType
    {
        std::uint32_t uiReserved = 0;    // carried and copied, not read by this module
        std::uint32_t uiType = 0;        // EQsStimulationKind
        std::uint32_t uiRepeatCount = 0; // repetitions of kind 3
        double dDurationMs = 0.0;        // [ms] of kind 2; waits use the duration plus 0.5, truncated
        std::uint32_t uiGroupMask = 0;   // bit g selects stimulation group g, g = 0 to 2
        double dReserved = 0.0;          // carried and copied, not read by this module
    };

    // Part of a point scanner's full field that the scanner sweeps: zoom, rotation and offset, an optional crop and an
    // optional list of points. A null pointer in its place means that there is no scan area: the camera's full frame.
    // Angles are degrees. A value: copies carry every field.
    //
    // The declaration order (crop offsets before crop zoom) and the order in which the fields are saved (crop zoom
    // before crop offsets) differ; saved settings and other plug-ins depend on both.
    struct QS_STIM_API SQsScanAreaDesc
    {
        double dZoom = 1.0;    // relative to the full field
        double dAngle = 0.0;   // [deg]
        double dXOffset = 0.0; // of the centre from the field's centre
        double dYOffset = 0.0;
        double dScanAreaAspect = 1.0;
        bool bIsCrop = false; // acquisition is cropped to the area below
        double dCropXOffset = 0.0;
        double dCropYOffset = 0.0;
        double dCropZoom = 1.0;
        double dCropAspect = 1.0;
        std::vector<CQsPointBase<double>> Points;
        std::uint32_t uiTag = 0; // copied with the record; neither saved nor read by this module

        // Writes the record as named items dZoom dAngle dXOffset dYOffset dScanAreaAspect bIsCrop dCropZoom
        // dCropXOffset dCropYOffset dCropAspect uiPointCoint, then dPoint<i>x and dPoint<i>y for each point. What the
        // tree held is removed; its type-change setting is as before. Returns 0. [any thread]
        int SaveToVariant(CQsVariant& v) const;
        // -9, and nothing changed, when dZoom or dCropAspect is missing. Other missing items read as the tree's default
        // (0, false), not as the record's. A point with one coordinate missing is skipped. Else 0. [any thread]
        int LoadFromVariant(const CQsVariant& v);
        // The same keys; the points as one binary block "Points" (x, y as little-endian doubles), absent without
        // points. Returns 0. [any thread]
        int SaveToLiteVariant(CQsLiteVariantW& w) const;
        // A missing key leaves its field as it is; the points are always replaced. A count that the store cannot back
        // with a whole block yields no points. Returns 0. [any thread]
        int LoadFromLiteVariant(CQsLiteVariantR& r);
    };

    struct SQsScanAreaHelper;       // device/ScanAreaGeometry.h
    struct SQsTransformationHelper; // device/ChipTransformations.h

    IQsStimulationDevice() = default;
    // Copies carry nothing: the interface has no state.
    IQsStimulationDevice(const IQsStimulationDevice&) : IQsInterface() {}
    IQsStimulationDevice& operator=(const IQsStimulationDevice&) { return *this; }

    // --- identity; slots 0 to 2
    virtual CQsStringW GetUniqueName() const = 0; // key of the device at the manager; unique among all devices
    virtual bool IsHWConnected() = 0;             // the hardware is there
    virtual bool IsVisible() = 0;                 // offered to the user

    // --- activation and features; slots 3 to 5
    virtual int SetActive(bool bActive) = 0; // told by the manager; the result is ignored
    virtual bool IsFeatureSupported(unsigned int featureId) = 0;
    virtual bool IsFeatureEnabled(unsigned int featureId) = 0;

    // --- kind and names; slots 6 and 7
    virtual EQsStimulationDeviceType GetStimulationDeviceType() const { return eStimDevGeneric; }
    virtual CQsStringW GetLocalizedStringForUI(unsigned int stringId) = 0; // 0: name shown to the user

    // --- sequencer and exposure; slots 8 to 11
    virtual int HWSequencerEnable(bool bEnable) = 0;
    virtual double GetAcquisitionExposureTime() = 0; // [ms]
    // The number is an index for a device and a count for the device of a beampath, which hands its devices an array of
    // that many elements.
    virtual int GetStimulationExposureTime(double* pdExposure, unsigned int index) = 0;
    virtual double GetStimulationExposureTimeCombined(std::uint64_t index) = 0; // [ms] of one pass over all areas

    // --- stimulation areas; slots 12 to 18
    virtual unsigned int StimulationModeGet() = 0; // 3: plain; 7: splits the duration into exposures
    virtual unsigned int StimulationAreaGetCount() = 0;
    virtual int StimulationAreaSet(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf& picture,
                                   const SQsScanAreaDesc* pScanArea, const SQsGrabberFormatDesc& format,
                                   const CQsRectBase<int>& cameraRegion) = 0;
    virtual int StimulationAreaGet(std::vector<CQsRoiObject>* pRegions, SQsRLEPicBuf* pPicture,
                                   SQsScanAreaDesc* pScanArea, SQsGrabberFormatDesc* pFormat,
                                   CQsRectBase<int>* pCameraRegion, std::uint64_t* pPatternMask) = 0;
    virtual int StimulationAreaAppendAsPattern(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf& picture,
                                               const SQsScanAreaDesc* pScanArea, const SQsGrabberFormatDesc& format,
                                               const CQsRectBase<int>& cameraRegion) = 0;
    virtual int StimulationAreaUpload() = 0;      // sends the areas to the hardware
    virtual bool StimulationAreaIsUpToDate() = 0; // the uploaded areas are the current ones

    // --- readiness; slots 19 and 20
    virtual int StimulationReady(bool, bool) = 0;
    virtual bool StimulationIsReady(bool, CQsStringW* pReason) = 0;

    // --- stimulation; slots 21 to 25
    virtual int StimulationBegin(const SQsStimulationType& type) = 0;
    // Stops the stimulation and reports its times [ms of QS_GetTimeCounter] in up to `count` elements of each array;
    // either may be null. An element without a time reads -1.0.
    virtual int StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count) = 0;
    virtual int StimulationFire(const SQsStimulationType& type, double* pdBeginTime, double* pdEndTime) = 0;
    virtual int StimulationAbort() = 0; // stops at once; wakes a waiting StimulationBegin [any thread]
    virtual int StimulationROIPrepare(unsigned int roiIndex) = 0; // area of the next stimulation

    // --- experiment, power, database identity; slots 26 to 28
    virtual int StimulationValidate(const SQsExperiment* pExperiment, CQsStringW& message) = 0;
    virtual IQsLaserPowerControl* GetLaserPowerControl() { return nullptr; }
    virtual int GetStimulationDeviceInfo(SQsStimulationDeviceInfo& info) const = 0; // -12 without a logical device

    // Devices call it whenever their state changes: the manager, if there is one, tells its device-state callbacks when
    // this device is the active one. [any thread, takes R]
    void DeviceStateChangedCallback(unsigned int state);
};

static_assert(offsetof(IQsStimulationDevice::SQsStimulationType, uiReserved) == 0 &&
                  offsetof(IQsStimulationDevice::SQsStimulationType, uiType) == 4 &&
                  offsetof(IQsStimulationDevice::SQsStimulationType, uiRepeatCount) == 8 &&
                  offsetof(IQsStimulationDevice::SQsStimulationType, dDurationMs) == 16 &&
                  offsetof(IQsStimulationDevice::SQsStimulationType, uiGroupMask) == 24 &&
                  offsetof(IQsStimulationDevice::SQsStimulationType, dReserved) == 32 &&
                  sizeof(IQsStimulationDevice::SQsStimulationType) == 40,
              "other plug-ins fill this record");
static_assert(sizeof(IQsStimulationDevice::EQsStimulationDeviceType) == 4, "other plug-ins return it");
