// What other modules are built against: numbers of states and types, the owner's table, saved names.
#include "calibration/StimulationDeviceCalibration.h"

#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

namespace {

using Owner = IQsStimulationDeviceCalibration;

static_assert(std::has_virtual_destructor_v<CQsStimulationDeviceConfiguration>);
static_assert(sizeof(EQsWatchedDeviceType) == 4 && sizeof(EQsCalibrationState) == 4);
static_assert(!std::is_copy_constructible_v<CQsConfigurationAutoLock> &&
              !std::is_copy_assignable_v<CQsConfigurationAutoLock>);
static_assert(!std::is_convertible_v<IQsStimulationDeviceCalibration*, CQsStimulationDeviceCalibration>);
static_assert(std::is_nothrow_move_constructible_v<SQsConfigItem> && std::is_copy_assignable_v<SQsConfigItem>);

TEST(CalibrationLayout, TypesAndStatesKeepTheirNumbers)
{
    EXPECT_EQ(0, eWatchedFilterChangers);
    EXPECT_EQ(1, eWatchedObjective);
    EXPECT_EQ(2, eWatchedManualZoom);
    EXPECT_EQ(3, eWatchedLights);
    EXPECT_EQ(4, eWatchedCamera);
    EXPECT_EQ(5, eWatchedCameraRotation);
    EXPECT_EQ(6, eWatchedMicroscope);
    EXPECT_EQ(7, eWatchedReserved);
    EXPECT_EQ(0, eCalibrationStateNone);
    EXPECT_EQ(1, eCalibrationStateInvalid);
    EXPECT_EQ(2, eCalibrationStateChanged);
    EXPECT_EQ(3, eCalibrationStateRotationUnknown);
    EXPECT_EQ(4, eCalibrationStateIdentical);
}

// Slot of a virtual operation as the compilers with the Itanium ABI represent it: its offset in the table, on most
// processors plus 1.
template <class Operation>
std::ptrdiff_t Slot(Operation operation)
{
    std::ptrdiff_t representation[2] = {};
    static_assert(sizeof(operation) == sizeof(representation), "another ABI represents member pointers otherwise");
    std::memcpy(representation, &operation, sizeof(representation));
    return representation[0] / static_cast<std::ptrdiff_t>(sizeof(void*));
}

TEST(CalibrationLayout, TheOwnersOperationsStandInTheirFixedOrder)
{
    std::ptrdiff_t slot = 0;
    EXPECT_EQ(slot++, Slot(&Owner::GetWatchedDeviceTypes));
    EXPECT_EQ(slot++, Slot(&Owner::OnCalibrationStateChanged));
    EXPECT_EQ(slot++, Slot(&Owner::GetCalibrationFileName));
    EXPECT_EQ(slot++, Slot(&Owner::GetCalibrationSectionName));
    EXPECT_EQ(slot++, Slot(&Owner::GetCalibrationDeviceName));
    EXPECT_EQ(slot++, Slot(&Owner::GetCameraFlipReference));
    EXPECT_EQ(slot++, Slot(&Owner::GetCameraFormat));
}

} // namespace
