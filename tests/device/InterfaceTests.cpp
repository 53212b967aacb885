#include "device/MultilaserStimulationDevice.h"
#include "device/ShutterStimulationDevice.h"
#include "tests/support/DeviceFixture.h"
#include "tests/support/FakeDevice.h"

#include <gmock/gmock.h>

#include <cstring>

using testing::ElementsAre;
using Device = IQsStimulationDevice;

namespace {

// A pointer to a virtual operation as the compilers with the Itanium ABI represent it.
struct SMemberPointer
{
    std::ptrdiff_t pointer; // offset in the table, on most processors plus 1
    std::ptrdiff_t adjustment;
};

template <class Operation>
SMemberPointer Represent(Operation operation)
{
    static_assert(sizeof(operation) == sizeof(SMemberPointer), "another ABI represents member pointers otherwise");
    SMemberPointer representation{};
    std::memcpy(&representation, &operation, sizeof(representation));
    return representation;
}

// Slot relative to that of GetUniqueName: what stands before it differs by compiler.
template <class Operation>
std::ptrdiff_t Slot(Operation operation)
{
    const std::ptrdiff_t distance = Represent(operation).pointer - Represent(&Device::GetUniqueName).pointer;
    EXPECT_EQ(0, distance % static_cast<std::ptrdiff_t>(sizeof(void*)));
    return distance / static_cast<std::ptrdiff_t>(sizeof(void*));
}

// Calls the operation in that slot, whatever it is called in the header.
template <class Result, class... Parameters, class... Arguments>
Result CallSlot(Device& device, Result (Device::*)(Parameters...), int slot, Arguments&&... arguments)
{
    SMemberPointer representation = Represent(&Device::GetUniqueName);
    representation.pointer += slot * static_cast<std::ptrdiff_t>(sizeof(void*));
    Result (Device::*operation)(Parameters...) = nullptr;
    std::memcpy(&operation, &representation, sizeof(operation));
    return (device.*operation)(std::forward<Arguments>(arguments)...);
}

template <class Result, class... Parameters>
using Operation = Result (Device::*)(Parameters...);

using Type = Device::SQsStimulationType;
using Regions = std::vector<CQsRoiObject>;

// Overrides what it must and nothing else.
class CPlainDevice : public QsTest::CQsUncountedFakeDevice
{
public:
    CPlainDevice() : CQsUncountedFakeDevice(L"plain") {}
    EQsStimulationDeviceType GetStimulationDeviceType() const override
    {
        return IQsStimulationDevice::GetStimulationDeviceType();
    }
};

} // namespace

TEST(DeviceTable, OperationsStandInTheirFixedOrder)
{
    std::ptrdiff_t slot = 0;
    EXPECT_EQ(slot++, Slot(&Device::GetUniqueName));
    EXPECT_EQ(slot++, Slot(&Device::IsHWConnected));
    EXPECT_EQ(slot++, Slot(&Device::IsVisible));
    EXPECT_EQ(slot++, Slot(&Device::SetActive));
    EXPECT_EQ(slot++, Slot(&Device::IsFeatureSupported));
    EXPECT_EQ(slot++, Slot(&Device::IsFeatureEnabled));
    EXPECT_EQ(slot++, Slot(&Device::GetStimulationDeviceType));
    EXPECT_EQ(slot++, Slot(&Device::GetLocalizedStringForUI));
    EXPECT_EQ(slot++, Slot(&Device::HWSequencerEnable));
    EXPECT_EQ(slot++, Slot(&Device::GetAcquisitionExposureTime));
    EXPECT_EQ(slot++, Slot(&Device::GetStimulationExposureTime));
    EXPECT_EQ(slot++, Slot(&Device::GetStimulationExposureTimeCombined));
    EXPECT_EQ(slot++, Slot(&Device::StimulationModeGet));
    EXPECT_EQ(slot++, Slot(&Device::StimulationAreaGetCount));
    EXPECT_EQ(slot++, Slot(&Device::StimulationAreaSet));
    EXPECT_EQ(slot++, Slot(&Device::StimulationAreaGet));
    EXPECT_EQ(slot++, Slot(&Device::StimulationAreaAppendAsPattern));
    EXPECT_EQ(slot++, Slot(&Device::StimulationAreaUpload));
    EXPECT_EQ(slot++, Slot(&Device::StimulationAreaIsUpToDate));
    EXPECT_EQ(slot++, Slot(&Device::StimulationReady));
    EXPECT_EQ(slot++, Slot(&Device::StimulationIsReady));
    EXPECT_EQ(slot++, Slot(&Device::StimulationBegin));
    EXPECT_EQ(slot++, Slot(&Device::StimulationEnd));
    EXPECT_EQ(slot++, Slot(&Device::StimulationFire));
    EXPECT_EQ(slot++, Slot(&Device::StimulationAbort));
    EXPECT_EQ(slot++, Slot(&Device::StimulationROIPrepare));
    EXPECT_EQ(slot++, Slot(&Device::StimulationValidate));
    EXPECT_EQ(slot++, Slot(&Device::GetLaserPowerControl));
    EXPECT_EQ(slot++, Slot(&Device::GetStimulationDeviceInfo));
    EXPECT_EQ(29, slot);
}

TEST(DeviceTable, OwnOperationsOfAClassFollowTheLastOne)
{
    EXPECT_EQ(29, Slot(&CQsShutterStimulationDevice::AttachShutter));
    EXPECT_EQ(29, Slot(&CQsMultilaserStimulationDevice::SetLogDevId));
    EXPECT_EQ(30, Slot(&CQsMultilaserStimulationDevice::GetDriver));
    EXPECT_EQ(31, Slot(&CQsMultilaserStimulationDevice::SetDriver));
}

TEST(DeviceTable, ACallBySlotReachesTheOperation)
{
    QsTest::CQsUncountedFakeDevice device(L"A");
    device.uiMode = 7;
    device.uiAreaCount = 4;
    device.dCombinedExposure = 12.5;
    const Type request = QsTest::Request(2, 300.0);
    const Regions regions(2);

    EXPECT_EQ(L"A", CallSlot(device, Operation<CQsStringW>(), 0).Std());
    EXPECT_TRUE(CallSlot(device, Operation<bool>(), 1));
    EXPECT_TRUE(CallSlot(device, Operation<bool>(), 2));
    EXPECT_EQ(0, CallSlot(device, Operation<int, bool>(), 3, true));
    EXPECT_FALSE(CallSlot(device, Operation<bool, unsigned>(), 4, 1u));
    EXPECT_FALSE(CallSlot(device, Operation<bool, unsigned>(), 5, 1u));
    EXPECT_EQ(0u, CallSlot(device, Operation<Device::EQsStimulationDeviceType>(), 6));
    EXPECT_EQ(L"A", CallSlot(device, Operation<CQsStringW, unsigned>(), 7, 0u).Std());
    EXPECT_EQ(0, CallSlot(device, Operation<int, bool>(), 8, false));
    EXPECT_EQ(0.0, CallSlot(device, Operation<double>(), 9));
    EXPECT_EQ(0, CallSlot(device, Operation<int, double*, unsigned>(), 10, nullptr, 0u));
    EXPECT_EQ(12.5, CallSlot(device, Operation<double, std::uint64_t>(), 11, std::uint64_t{0}));
    EXPECT_EQ(7u, CallSlot(device, Operation<unsigned>(), 12));
    EXPECT_EQ(4u, CallSlot(device, Operation<unsigned>(), 13));
    using Set = Operation<int, const Regions&, const SQsRLEPicBuf&, const Device::SQsScanAreaDesc*,
                          const SQsGrabberFormatDesc&, const CQsRectBase<int>&>;
    const SQsGrabberFormatDesc format;
    EXPECT_EQ(0, CallSlot(device, Set(), 14, regions, SQsRLEPicBuf(), nullptr, format, CQsRectBase<int>()));
    using Get = Operation<int, Regions*, SQsRLEPicBuf*, Device::SQsScanAreaDesc*, SQsGrabberFormatDesc*,
                          CQsRectBase<int>*, std::uint64_t*>;
    EXPECT_EQ(0, CallSlot(device, Get(), 15, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(0, CallSlot(device, Set(), 16, regions, SQsRLEPicBuf(), nullptr, format, CQsRectBase<int>()));
    EXPECT_EQ(0, CallSlot(device, Operation<int>(), 17));
    EXPECT_TRUE(CallSlot(device, Operation<bool>(), 18));
    EXPECT_EQ(0, CallSlot(device, Operation<int, bool, bool>(), 19, true, false));
    EXPECT_TRUE(CallSlot(device, Operation<bool, bool, CQsStringW*>(), 20, true, nullptr));
    EXPECT_EQ(0, CallSlot(device, Operation<int, const Type&>(), 21, request));
    using End = Operation<int, double*, double*, std::uint64_t>;
    EXPECT_EQ(0, CallSlot(device, End(), 22, nullptr, nullptr, std::uint64_t{3}));
    EXPECT_EQ(0, CallSlot(device, Operation<int, const Type&, double*, double*>(), 23, request, nullptr, nullptr));
    EXPECT_EQ(0, CallSlot(device, Operation<int>(), 24));
    EXPECT_EQ(0, CallSlot(device, Operation<int, unsigned>(), 25, 6u));
    CQsStringW message;
    EXPECT_EQ(0, CallSlot(device, Operation<int, const SQsExperiment*, CQsStringW&>(), 26, nullptr, message));
    EXPECT_EQ(nullptr, CallSlot(device, Operation<IQsLaserPowerControl*>(), 27));
    SQsStimulationDeviceInfo info;
    EXPECT_EQ(0, CallSlot(device, Operation<int, SQsStimulationDeviceInfo&>(), 28, info));

    EXPECT_THAT(device.log.Entries(),
                ElementsAre("SetActive(true)", "HWSequencerEnable(false)", "StimulationAreaSet(2)",
                            "StimulationAreaAppendAsPattern(2)", "StimulationAreaUpload()",
                            "StimulationReady(true, false)", "StimulationBegin(2, 300)", "StimulationEnd(3)",
                            "StimulationFire(2)", "StimulationAbort()", "StimulationROIPrepare(6)",
                            "StimulationValidate()"));
    EXPECT_THAT(device.queries.Entries(),
                ElementsAre("GetUniqueName()", "IsHWConnected()", "IsVisible()", "IsFeatureSupported()",
                            "IsFeatureEnabled()", "GetStimulationDeviceType()", "GetLocalizedStringForUI()",
                            "GetAcquisitionExposureTime()", "GetStimulationExposureTime()",
                            "GetStimulationExposureTimeCombined()", "StimulationModeGet()", "StimulationAreaGetCount()",
                            "StimulationAreaGet()", "StimulationAreaIsUpToDate()", "StimulationIsReady()",
                            "GetStimulationDeviceInfo()"));
}

TEST(DeviceDefaults, AreAGenericDeviceWithoutLaserPowerControl)
{
    CPlainDevice device;
    const Device& asInterface = device;
    EXPECT_EQ(Device::eStimDevGeneric, asInterface.GetStimulationDeviceType());
    EXPECT_EQ(0u, static_cast<unsigned>(Device::eStimDevGeneric));
    EXPECT_EQ(1u, static_cast<unsigned>(Device::eStimDevShutter));
    EXPECT_EQ(2u, static_cast<unsigned>(Device::eStimDevMultilaser));
    EXPECT_EQ(nullptr, device.GetLaserPowerControl());
}

TEST(StimulationRequest, HasTheLayoutThatOtherPluginsFill)
{
    // A request as another plug-in writes it, word by word.
    unsigned char bytes[40] = {};
    const std::uint32_t reserved = 0x01020304u, kind = 2, repeat = 9, groups = 5;
    const double duration = 300.25, last = -7.5;
    std::memcpy(bytes + 0, &reserved, 4);
    std::memcpy(bytes + 4, &kind, 4);
    std::memcpy(bytes + 8, &repeat, 4);
    std::memcpy(bytes + 16, &duration, 8);
    std::memcpy(bytes + 24, &groups, 4);
    std::memcpy(bytes + 32, &last, 8);

    Type request;
    static_assert(sizeof(request) == sizeof(bytes), "the record has 40 bytes");
    std::memcpy(static_cast<void*>(&request), bytes, sizeof(bytes));
    EXPECT_EQ(reserved, request.uiReserved);
    EXPECT_EQ(kind, request.uiType);
    EXPECT_EQ(repeat, request.uiRepeatCount);
    EXPECT_EQ(duration, request.dDurationMs);
    EXPECT_EQ(groups, request.uiGroupMask);
    EXPECT_EQ(last, request.dReserved);
    EXPECT_EQ(4u, sizeof(Device::EQsStimulationDeviceType));
}

TEST(DeviceInfo, HoldsLogicalBeforePhysicalIdentifiers)
{
    EXPECT_EQ(0u, offsetof(SQsStimulationDeviceInfo, vecLogDevIds));
    EXPECT_EQ(sizeof(std::vector<std::uint32_t>), offsetof(SQsStimulationDeviceInfo, vecPhysDevIds));
    EXPECT_EQ(2 * sizeof(std::vector<std::uint32_t>), sizeof(SQsStimulationDeviceInfo));
}

TEST(CompanionInterfaces, HoldNothingBeforeTheirFirstOperation)
{
    const auto offset = [](auto operation) { return Represent(operation).pointer & ~std::ptrdiff_t{1}; };
    EXPECT_EQ(0, offset(&IQsStimulationDeviceManagerEventListener::AvailableStimulationDevicesChanged));
    EXPECT_EQ(0, offset(&IQsStimulationPhysDev::PhysDevOperation0));
    EXPECT_EQ(static_cast<std::ptrdiff_t>(11 * sizeof(void*)), offset(&IQsStimulationPhysDev::PhysDevOperation11));
}
