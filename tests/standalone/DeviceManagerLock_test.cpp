// The device manager's global lock, what the microscope is set to, and the folder of settings files.
#include "host/QsDMApi.h"
#include "standalone/DiagnosticLog.h"
#include "standalone/HostControl.h"
#include "tests/support/OwnRegistry.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

using QsStandalone::CQsDiagnosticLog;
using QsStandalone::DeviceManagerLock;
using QsTest::CTemporaryFolder;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

bool TryElsewhere()
{
    bool taken = false;
    std::thread(
        [&taken]
        {
            taken = DMApi_TryLockDeviceManager(1);
            if (taken)
                DMApi_ReleaseLockDeviceManager(1);
        })
        .join();
    return taken;
}

TEST(DeviceManagerLock, IsTakenAgainByItsHolderAndRefusedToOthers)
{
    ASSERT_TRUE(DMApi_TryLockDeviceManager(1));
    ASSERT_TRUE(DMApi_TryLockDeviceManager(2));
    EXPECT_EQ(2u, DeviceManagerLock().depth);
    EXPECT_FALSE(TryElsewhere());
    DMApi_ReleaseLockDeviceManager(2);
    EXPECT_FALSE(TryElsewhere()); // as often as it was taken
    DMApi_ReleaseLockDeviceManager(1);
    EXPECT_TRUE(TryElsewhere());
    const QsStandalone::SDeviceManagerLock state = DeviceManagerLock();
    EXPECT_EQ(0u, state.depth);
    EXPECT_EQ(5u, state.tries);
    EXPECT_EQ(2u, state.refusals);
}

TEST(DeviceManagerLock, IsRefusedWhenToldTo)
{
    QsStandalone::RefuseDeviceManagerLock(true);
    EXPECT_FALSE(DMApi_TryLockDeviceManager(1));
    EXPECT_EQ(0u, DeviceManagerLock().depth);
    EXPECT_EQ(1u, DeviceManagerLock().refusals);
    QsStandalone::RefuseDeviceManagerLock(false);
    ASSERT_TRUE(DMApi_TryLockDeviceManager(1));
    QsStandalone::RefuseDeviceManagerLock(true);
    EXPECT_FALSE(DMApi_TryLockDeviceManager(1)); // also to its holder
    DMApi_ReleaseLockDeviceManager(1);           // which can still give it back
    EXPECT_EQ(0u, DeviceManagerLock().depth);
}

TEST(DeviceManagerLock, IgnoresAReleaseByWhoeverDoesNotHoldIt)
{
    CQsDiagnosticLog::ToMemory(true);
    DMApi_ReleaseLockDeviceManager(1);
    EXPECT_EQ(1u, CQsDiagnosticLog::MemoryLines().size());
    ASSERT_TRUE(DMApi_TryLockDeviceManager(1));
    std::thread([] { DMApi_ReleaseLockDeviceManager(1); }).join();
    EXPECT_EQ(2u, CQsDiagnosticLog::MemoryLines().size());
    EXPECT_EQ(1u, DeviceManagerLock().depth);
    EXPECT_FALSE(TryElsewhere());
    DMApi_ReleaseLockDeviceManager(1);
    EXPECT_EQ(2u, CQsDiagnosticLog::MemoryLines().size());
    EXPECT_TRUE(TryElsewhere());
}

TEST(Hardware, IsWhatWasSetLast)
{
    const SQsDMApiHardware none = DMApi::Hardware_Get();
    EXPECT_TRUE(none.sMicroscope.IsEmpty());
    EXPECT_THAT(none.filterChangers, IsEmpty());
    EXPECT_FALSE(none.bIlluminatorConnected);

    SQsDMApiHardware hardware;
    hardware.sMicroscope = L"Ti";
    hardware.sObjective = L"Plan 20x";
    hardware.dManualZoom = 1.5;
    hardware.lights = {L"Lamp", L"Diode"};
    hardware.filterChangers = {{L"FW1", L"GFP", 2}};
    hardware.multilasers = {{L"488", 3}};
    hardware.bIlluminatorConnected = true;
    hardware.iIlluminatorPort = -4;
    QsStandalone::SetHardware(hardware);
    const SQsDMApiHardware now = DMApi::Hardware_Get();
    EXPECT_EQ(L"Ti", now.sMicroscope.Std());
    EXPECT_EQ(L"Plan 20x", now.sObjective.Std());
    EXPECT_EQ(1.5, now.dManualZoom);
    EXPECT_THAT(now.lights, ElementsAre(CQsStringW(L"Lamp"), CQsStringW(L"Diode")));
    ASSERT_EQ(1u, now.filterChangers.size());
    EXPECT_EQ(L"FW1", now.filterChangers[0].sKey.Std());
    EXPECT_EQ(L"GFP", now.filterChangers[0].sName.Std());
    EXPECT_EQ(2, now.filterChangers[0].iPosition);
    ASSERT_EQ(1u, now.multilasers.size());
    EXPECT_EQ(L"488", now.multilasers[0].sName.Std());
    EXPECT_EQ(3u, now.multilasers[0].uiNumber);
    EXPECT_TRUE(now.bIlluminatorConnected);
    EXPECT_EQ(-4, now.iIlluminatorPort);

    QsStandalone::SetHardware({});
    EXPECT_TRUE(DMApi::Hardware_Get().sMicroscope.IsEmpty());
}

TEST(SettingsFolder, IsMadeAndEndsWithoutASeparator)
{
    const CTemporaryFolder folder;
    const std::vector<std::pair<std::string, std::string>> names{{"a/b", "a/b"}, {"c/", "c"}, {"d/./e/../f//", "d/f"}};
    for (const auto& [name, expected] : names)
    {
        QsStandalone::SetSettingsFolder(folder.File(name));
        const std::string path = QS_GetSettingsFolder().ToUtf8();
        EXPECT_EQ(folder.File(expected), path);
        EXPECT_TRUE(std::filesystem::is_directory(std::filesystem::u8path(path))) << path;
    }
}

TEST(SettingsFolder, StaysWhereItIsWhenTheProgramGoesElsewhere)
{
    const CTemporaryFolder folder;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(std::filesystem::u8path(folder.Path()));
    QsStandalone::SetSettingsFolder("here");
    std::filesystem::current_path(before);
    EXPECT_EQ(folder.File("here"), QS_GetSettingsFolder().ToUtf8());
}

TEST(SettingsFolder, LiesBesideTheRegistryStoreAtFirst)
{
    const QsTest::COwnRegistry registry;
    const CTemporaryFolder folder;
    EXPECT_EQ(registry.Folder() + "/user/settings", QS_GetSettingsFolder().ToUtf8());
    QsStandalone::SetSettingsFolder(folder.File("own"));
    EXPECT_EQ(folder.File("own"), QS_GetSettingsFolder().ToUtf8());
    QsStandalone::SetSettingsFolder("");
    EXPECT_EQ(registry.Folder() + "/user/settings", QS_GetSettingsFolder().ToUtf8());
}

TEST(SettingsFolder, ThatCannotBeMadeIsReportedInOneLine)
{
    const CTemporaryFolder folder;
    CQsDiagnosticLog::ToMemory(true);
    QsStandalone::SetSettingsFolder(folder.Write("file", "") + "/below");
    EXPECT_EQ(folder.File("file/below"), QS_GetSettingsFolder().ToUtf8());
    ASSERT_EQ(1u, CQsDiagnosticLog::MemoryLines().size());
    EXPECT_THAT(CQsDiagnosticLog::MemoryLines()[0].text.ToUtf8(), testing::HasSubstr(folder.File("file/below")));
}

} // namespace
