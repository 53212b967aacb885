// Which locks a calibration takes, in which order, and what its owner is called under.
#include "host/QsDMApi.h"
#include "tests/calibration/CalibrationTest.h"
#include "tests/calibration/Locks.h"

using namespace QsTest;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

struct SOperation
{
    const char* name;
    std::function<void(Calibration&)> run;
};

// Under the main lock, with the global one tried.
const std::vector<SOperation>& LockedOperations()
{
    static const std::vector<SOperation> operations = {
        {"SetCalibrationDMDToCam", [](Calibration& c) { c.SetCalibrationDMDToCam(DMDToCam()); }},
        {"SetCalibrationCamToDMD", [](Calibration& c) { c.SetCalibrationCamToDMD(CamToDMD()); }},
        {"GetCalibrationDMDToCam", [](Calibration& c) { CalibrationD2C(c); }},
        {"GetCalibrationCamToDMD", [](Calibration& c) { CalibrationC2D(c); }},
        {"GetMappingDMDToCam", [](Calibration& c) { MappingD2C(c); }},
        {"GetMappingCamToDMD", [](Calibration& c) { MappingC2D(c); }},
        {"SetCameraRotationCurrent", [](Calibration& c) { c.SetCameraRotationCurrent(90.0); }},
        {"GetCameraRotationCurrent", [](Calibration& c) { c.GetCameraRotationCurrent(); }},
        {"SetCameraROI", [](Calibration& c) { c.SetCameraROI({}); }},
        {"GetScanAreaDesc", [](Calibration& c) { c.GetScanAreaDesc(); }},
        {"UpdateCalibrationState", [](Calibration& c) { c.UpdateCalibrationState(); }},
        {"UpdateRotationMatrix", [](Calibration& c) { c.UpdateRotationMatrix(); }},
        {"UpdateFlipMatrix", [](Calibration& c) { c.UpdateFlipMatrix(); }},
        {"UpdateTranslationVector", [](Calibration& c) { c.UpdateTranslationVector(); }},
        {"SaveCalibrationMatrices", [](Calibration& c) { c.SaveCalibrationMatrices(L"key"); }},
        {"LoadCalibrationMatrices", [](Calibration& c) { c.LoadCalibrationMatrices(L"key"); }},
        {"LoadCalibrationMatrices of no key", [](Calibration& c) { c.LoadCalibrationMatrices(L""); }},
        {"LoadCalibration",
         [](Calibration& c)
         {
             bool bChanged = false;
             c.LoadCalibration(bChanged);
         }},
        {"GetNumberOfSavedCalibrationConfigurations",
         [](Calibration& c) { c.GetNumberOfSavedCalibrationConfigurations(); }},
        {"ClearAllCalibrationMatrices", [](Calibration& c) { c.ClearAllCalibrationMatrices(); }},
    };
    return operations;
}

// Without the main lock, and so without the global one.
const std::vector<SOperation>& UnlockedOperations()
{
    static const std::vector<SOperation> operations = {
        {"GetRotationMatrix", [](Calibration& c) { Rotation(c); }},
        {"GetFlipMatrix", [](Calibration& c) { Flip(c); }},
        {"GetTranslationVector", [](Calibration& c) { Translation(c); }},
        {"GetCameraROI", [](Calibration& c) { c.GetCameraROI(); }},
        {"SetScanAreaDesc",
         [](Calibration& c)
         {
             IQsStimulationDevice::SQsScanAreaDesc desc;
             c.SetScanAreaDesc(desc);
         }},
        {"AccessConfigurationCurrent",
         [](Calibration& c) { c.UnaccessConfigurationCurrent(c.AccessConfigurationCurrent()); }},
        {"AccessConfigurationCalibrated",
         [](Calibration& c) { c.UnaccessConfigurationCalibrated(c.AccessConfigurationCalibrated()); }},
        {"GetConfigurationStringCurrent", [](Calibration& c) { c.GetConfigurationStringCurrent(); }},
        {"GetConfigurationStringCalibrated", [](Calibration& c) { c.GetConfigurationStringCalibrated(); }},
        {"SetCalibrationState", [](Calibration& c) { c.SetCalibrationState(eCalibrationStateChanged); }},
        {"GetCurrentCalibrationState", [](Calibration& c) { c.GetCurrentCalibrationState(); }},
        {"UpdateMapping", [](Calibration& c) { c.UpdateMapping(); }},
        {"FindCalibration",
         [](Calibration& c)
         {
             CQsStringW key = L"#OA#R1#CB";
             c.FindCalibration(key);
         }},
        {"FindFirstCalibrationForCamera",
         [](Calibration& c)
         {
             SQsConfigItem item;
             c.FindFirstCalibrationForCamera(L"Cam", item);
         }},
        {"ParseConfig",
         [](Calibration& c)
         {
             SQsConfigItem item;
             c.ParseConfig(L"#OA#CB", item);
         }},
    };
    return operations;
}

class CalibrationLock : public CalibrationTest
{
protected:
    CalibrationLock()
    {
        WriteSaved(m_owner, {{L"#OB#R1.0#CX"}, {L"#OA#CCam"}, {L"key"}});
        FillCurrent(m_calibration, Microscope());
        m_main = FirstTakenBy([this] { m_calibration.GetCameraRotationCurrent(); });
        m_current = FirstTakenBy(
            [this] { m_calibration.UnaccessConfigurationCurrent(m_calibration.AccessConfigurationCurrent()); });
        m_calibrated = FirstTakenBy(
            [this] { m_calibration.UnaccessConfigurationCalibrated(m_calibration.AccessConfigurationCalibrated()); });
    }

    CRITICAL_SECTION* m_main = nullptr;
    CRITICAL_SECTION* m_current = nullptr;
    CRITICAL_SECTION* m_calibrated = nullptr;
};

TEST_F(CalibrationLock, ThereAreThree)
{
    EXPECT_NE(nullptr, m_main);
    EXPECT_NE(nullptr, m_current);
    EXPECT_NE(nullptr, m_calibrated);
    EXPECT_EQ(3u, std::set<CRITICAL_SECTION*>({m_main, m_current, m_calibrated}).size());
}

TEST_F(CalibrationLock, TheMainOneIsTakenWithTheGlobalOneAround)
{
    for (const SOperation& operation : LockedOperations())
    {
        CLockCalls::Forget();
        operation.run(m_calibration);
        const std::vector<SLockCall> calls = CLockCalls::OfThisThread();
        unsigned depth = 0;
        std::size_t entered = 0;
        for (std::size_t i = 0; i < calls.size(); ++i)
        {
            const SLockCall& call = calls[i];
            EXPECT_EQ(call.section == nullptr ? 1 : 0, call.importance) << operation.name;
            depth += call.call == ELockCall::Try ? 1u : 0u;
            depth -= call.call == ELockCall::Release ? 1u : 0u;
            if (call.call == ELockCall::Enter && call.section == m_main)
            {
                ++entered;
                EXPECT_TRUE(i > 0 && calls[i - 1].call == ELockCall::Try) << operation.name;
            }
            if (call.call == ELockCall::Leave && call.section == m_main)
            {
                EXPECT_TRUE(i + 1 < calls.size() && calls[i + 1].call == ELockCall::Release) << operation.name;
            }
        }
        EXPECT_LT(0u, entered) << operation.name;
        EXPECT_EQ(0u, depth) << operation.name;
        EXPECT_EQ(0u, QsStandalone::DeviceManagerLock().depth) << operation.name;
    }
}

TEST_F(CalibrationLock, TheGlobalOneIsNotTriedWhereTheMainOneIsNotTaken)
{
    const std::uint64_t before = QsStandalone::DeviceManagerLock().tries;
    for (const SOperation& operation : UnlockedOperations())
    {
        EXPECT_THAT(TakenBy([&] { operation.run(m_calibration); }), Not(Contains(m_main))) << operation.name;
        EXPECT_TRUE(RunsBeside(m_main, [&] { operation.run(m_calibration); })) << operation.name;
    }
    m_owner.formatStatus = -1;
    EXPECT_THAT(TakenBy([&] { m_calibration.UpdateTranslationVector(); }), IsEmpty());
    EXPECT_THAT(TakenBy([&] { m_orphan.UpdateTranslationVector(); }), IsEmpty());
    EXPECT_THAT(TakenBy([&] { m_orphan.UpdateFlipMatrix(); }), IsEmpty());
    EXPECT_EQ(before, QsStandalone::DeviceManagerLock().tries);
}

TEST_F(CalibrationLock, ConstructionTakesTheMainOneOnce)
{
    CLockCalls::Forget();
    {
        Calibration calibration(nullptr);
    }
    EXPECT_THAT(CLockCalls::KindsOfThisThread(),
                ElementsAre(ELockCall::Try, ELockCall::Enter, ELockCall::Leave, ELockCall::Release));
}

TEST_F(CalibrationLock, TheMainOneKeepsOthersOut)
{
    for (const SOperation& operation : LockedOperations())
        EXPECT_TRUE(WaitsFor(m_main, [&] { operation.run(m_calibration); })) << operation.name;
}

TEST_F(CalibrationLock, TheMainOneGuardsTheFileWhileItIsCleared)
{
    const std::string contents = ContentsOf(File());
    EnterCriticalSection(m_main);
    std::thread thread([this] { m_calibration.ClearAllCalibrationMatrices(); });
    EXPECT_TRUE(CLockCalls::WaitForWaiter(m_main));
    EXPECT_EQ(contents, ContentsOf(File()));
    LeaveCriticalSection(m_main);
    thread.join();
    EXPECT_NE(contents, ContentsOf(File()));
}

// A refused try changes nothing but that there is nothing to release.
TEST_F(CalibrationLock, AllWorksTheSameWhenTheGlobalOneIsRefused)
{
    QsStandalone::RefuseDeviceManagerLock(true);
    for (const SOperation& operation : LockedOperations())
    {
        CLockCalls::Forget();
        operation.run(m_calibration);
        const std::vector<ELockCall> kinds = CLockCalls::KindsOfThisThread();
        EXPECT_THAT(kinds, Contains(ELockCall::Refused)) << operation.name;
        EXPECT_THAT(kinds, Not(Contains(ELockCall::Release))) << operation.name;
        EXPECT_THAT(CLockCalls::Held(), IsEmpty()) << operation.name;
    }
    // Loaded, cleared and without a file above; now set, saved and loaded.
    m_calibration.SetCalibrationCamToDMD(CamToDMD());
    EXPECT_EQ(0, m_calibration.SaveCalibrationMatrices(L"key"));
    m_calibration.SetCalibrationCamToDMD(Identity());
    EXPECT_EQ(0, m_calibration.LoadCalibrationMatrices(L"key"));
    EXPECT_EQ(CamToDMD(), CalibrationC2D(m_calibration));
}

TEST_F(CalibrationLock, AllWorksWhileAnotherThreadHoldsTheGlobalOne)
{
    ASSERT_TRUE(DMApi_TryLockDeviceManager(1));
    std::future<void> run = std::async(std::launch::async,
                                       [this]
                                       {
                                           for (const SOperation& operation : LockedOperations())
                                               operation.run(m_calibration);
                                       });
    EXPECT_EQ(std::future_status::ready, run.wait_for(s_patience));
    EXPECT_EQ(1u, QsStandalone::DeviceManagerLock().depth);
    DMApi_ReleaseLockDeviceManager(1);
}

// --------------------------------------------------------------------------------------------------- the access locks

TEST_F(CalibrationLock, AnAccessIsExclusiveUntilItsRelease)
{
    struct SCase
    {
        CRITICAL_SECTION* lock;
        std::function<void()> access;
        std::function<void()> release;
    };
    const SCase cases[] = {
        {m_current, [this] { m_calibration.AccessConfigurationCurrent(); },
         [this] { m_calibration.UnaccessConfigurationCurrent(nullptr); }},
        {m_calibrated, [this] { m_calibration.AccessConfigurationCalibrated(); },
         [this] { m_calibration.UnaccessConfigurationCalibrated(nullptr); }},
    };
    for (const SCase& one : cases)
    {
        one.access();
        EXPECT_THAT(CLockCalls::Held(), ElementsAre(one.lock));
        one.access(); // again on the same thread
        one.release();
        EXPECT_THAT(CLockCalls::Held(), ElementsAre(one.lock));
        std::atomic<bool> bIn{false};
        std::thread thread(
            [&]
            {
                one.access();
                bIn = true;
                one.release();
            });
        EXPECT_TRUE(CLockCalls::WaitForWaiter(one.lock));
        EXPECT_FALSE(bIn);
        one.release();
        thread.join();
        EXPECT_TRUE(bIn);
    }
}

TEST_F(CalibrationLock, OneAccessDoesNotKeepTheOtherSnapshotBack)
{
    EXPECT_TRUE(RunsBeside(m_current,
                           [this]
                           {
                               m_calibration.UnaccessConfigurationCalibrated(
                                   m_calibration.AccessConfigurationCalibrated());
                               m_calibration.GetConfigurationStringCalibrated();
                           }));
    EXPECT_TRUE(
        RunsBeside(m_calibrated,
                   [this] { m_calibration.UnaccessConfigurationCurrent(m_calibration.AccessConfigurationCurrent()); }));
}

// Also the thread that holds the access may be the one that shows the text, and another one.
TEST_F(CalibrationLock, TheTextOfNowDoesNotWaitForTheAccess)
{
    CQsStringW text;
    EXPECT_TRUE(RunsBeside(m_current, [&] { text = m_calibration.GetConfigurationStringCurrent(); }));
    EXPECT_EQ(L"#F$KFW1$NGFP$P2#OPlan 20x#R90.000000#L#MiTi#M#Z1.500000#CCam", text);
    EXPECT_THAT(TakenBy([this] { m_calibration.GetConfigurationStringCurrent(); }), Not(Contains(m_current)));
}

TEST_F(CalibrationLock, TheTextOfTheCalibratedOneWaitsForTheAccess)
{
    EXPECT_TRUE(WaitsFor(m_calibrated, [this] { m_calibration.GetConfigurationStringCalibrated(); }));
}

TEST_F(CalibrationLock, SettingTheRotationWaitsForTheAccessInsideTheMainOne)
{
    std::atomic<bool> bDone{false};
    CQsStimulationDeviceConfiguration* const current = m_calibration.AccessConfigurationCurrent();
    std::thread thread(
        [&]
        {
            m_calibration.SetCameraRotationCurrent(10.0);
            bDone = true;
        });
    EXPECT_TRUE(CLockCalls::WaitForWaiter(m_current));
    EXPECT_FALSE(bDone);
    EXPECT_EQ(90.0, current->GetCameraRotation());
    std::thread behind([this] { m_calibration.GetCameraRotationCurrent(); });
    EXPECT_TRUE(CLockCalls::WaitForWaiter(m_main)); // which the first one holds
    m_calibration.UnaccessConfigurationCurrent(current);
    thread.join();
    behind.join();
    EXPECT_TRUE(bDone);
}

TEST_F(CalibrationLock, LoadingTakesBothAccesses)
{
    bool bChanged = false;
    EXPECT_TRUE(WaitsFor(m_current, [&] { m_calibration.LoadCalibration(bChanged); }));
    EXPECT_TRUE(WaitsFor(m_calibrated, [&] { m_calibration.LoadCalibration(bChanged); }));
    std::filesystem::remove(File());
    EXPECT_TRUE(WaitsFor(m_calibrated, [&] { m_calibration.LoadCalibration(bChanged); })); // to clear it
}

// Taken together over every operation, no lock is ever waited for by one that holds a later one.
TEST_F(CalibrationLock, HaveOneOrder)
{
    CLockCalls::ForgetOrder();
    for (const std::vector<SOperation>* const operations : {&LockedOperations(), &UnlockedOperations()})
        for (const SOperation& operation : *operations)
        {
            WriteSaved(m_owner, {{L"#OB#R1.0#CX"}, {L"#OA#CCam"}, {L"#OPlan 20x#F$KFW1$NGFP$P2#R90.0#Z1.5#CCam"}});
            operation.run(m_calibration);
        }
    std::set<std::pair<CRITICAL_SECTION*, CRITICAL_SECTION*>> order;
    for (const auto& pair : CLockCalls::Order())
        order.insert(pair);
    EXPECT_EQ(1u, order.count({m_main, m_current}));
    EXPECT_EQ(1u, order.count({m_main, m_calibrated}));
    // Closed under "then": a cycle would make a lock come before itself.
    for (std::size_t before = 0; before != order.size();)
    {
        before = order.size();
        const auto known = order;
        for (const auto& a : known)
            for (const auto& b : known)
                if (a.second == b.first)
                    order.insert({a.first, b.second});
    }
    for (const auto& pair : order)
        EXPECT_NE(pair.first, pair.second);
}

// ----------------------------------------------------------------------------------------------- the owner's callbacks

TEST_F(CalibrationLock, TheOwnerTellsItsFormatWithoutAnyLock)
{
    m_calibration.UpdateTranslationVector();
    EXPECT_THAT(m_owner.held["GetCameraFormat"].sections, IsEmpty());
    EXPECT_EQ(0u, m_owner.held["GetCameraFormat"].globalDepth);
    // It may therefore wait for a thread that uses the calibration.
    m_owner.onCall = [this](const std::string& operation)
    {
        if (operation == "GetCameraFormat")
        {
            std::thread thread([this] { m_calibration.GetCameraRotationCurrent(); });
            thread.join();
        }
    };
    EXPECT_EQ(0, m_calibration.UpdateTranslationVector());
}

TEST_F(CalibrationLock, TheOwnerTellsItsFlipUnderTheMainOne)
{
    m_calibration.UpdateFlipMatrix();
    EXPECT_THAT(m_owner.held["GetCameraFlipReference"].sections, ElementsAre(m_main));
    EXPECT_EQ(1u, m_owner.held["GetCameraFlipReference"].globalDepth);
}

TEST_F(CalibrationLock, TheOwnerHearsOfTheStateUnderTheMainOneButNotUnderAnAccess)
{
    m_calibration.UpdateCalibrationState();
    EXPECT_THAT(m_owner.held["OnCalibrationStateChanged"].sections, ElementsAre(m_main));
    m_calibration.SetCalibrationState(eCalibrationStateNone);
    EXPECT_THAT(m_owner.held["OnCalibrationStateChanged"].sections, IsEmpty());
    bool bChanged = false;
    std::vector<std::vector<CRITICAL_SECTION*>> held;
    m_owner.onCall = [&](const std::string& operation)
    {
        if (operation == "OnCalibrationStateChanged")
            held.push_back(CLockCalls::Held());
    };
    m_calibration.LoadCalibration(bChanged);
    ASSERT_EQ(3u, held.size());
    for (const std::vector<CRITICAL_SECTION*>& sections : held)
        EXPECT_THAT(sections, testing::Each(m_main));
}

TEST_F(CalibrationLock, NoCallbackComesUnderAnAccessOrASnapshotsLock)
{
    m_owner.onCall = [&](const std::string& operation)
    { EXPECT_THAT(CLockCalls::Held(), testing::Each(m_main)) << operation; };
    for (const std::vector<SOperation>* const operations : {&LockedOperations(), &UnlockedOperations()})
        for (const SOperation& operation : *operations)
            operation.run(m_calibration);
}

// The owner may use the calibration from inside its callbacks.
TEST_F(CalibrationLock, TheOwnerMayAskBackOnItsThread)
{
    bool bInside = false;
    m_owner.onCall = [&](const std::string&)
    {
        if (bInside)
            return;
        bInside = true;
        CalibrationC2D(m_calibration);
        m_calibration.GetConfigurationStringCurrent();
        m_calibration.GetConfigurationStringCalibrated();
        m_calibration.UnaccessConfigurationCurrent(m_calibration.AccessConfigurationCurrent());
        m_calibration.GetCurrentCalibrationState();
        bInside = false;
    };
    for (const SOperation& operation : LockedOperations())
        operation.run(m_calibration);
    EXPECT_THAT(CLockCalls::Held(), IsEmpty());
}

// --------------------------------------------------------------------------------------------------- many threads

// What is guarded may be used from every thread at once. Left out is what is read without a lock.
TEST_F(CalibrationLock, KeepsCalibrationsWholeUnderManyThreads)
{
    std::atomic<int> torn{0};
    std::vector<std::thread> threads;
    const auto whole = [](const Matrix& matrix) // all elements alike, or the identity of a load that found nothing
    {
        for (std::size_t i = 1; i < 6; ++i)
            if (matrix.size() != 9 || matrix[i] != matrix[0])
                return matrix == Identity();
        return true;
    };
    for (int n = 0; n < 4; ++n)
    {
        threads.emplace_back(
            [&, n]
            {
                const std::wstring key = L"key " + std::to_wstring(n);
                for (int i = 0; i < 25; ++i)
                {
                    m_calibration.SetCalibrationCamToDMD(Matrix(9, n + i));
                    m_calibration.SetCalibrationDMDToCam(Matrix(9, n - i));
                    torn += whole(CalibrationC2D(m_calibration)) && whole(CalibrationD2C(m_calibration)) ? 0 : 1;
                    torn += MappingC2D(m_calibration).size() == 9 && MappingD2C(m_calibration).size() == 9 ? 0 : 1;
                    m_calibration.SetCameraRotationCurrent(n * 10.0 + i);
                    m_calibration.UpdateFlipMatrix();
                    m_calibration.SetCameraROI({n, n, n, n});
                    CQsStimulationDeviceConfiguration* const calibrated = m_calibration.AccessConfigurationCalibrated();
                    calibrated->AddObjective(CQsStringW(key));
                    calibrated->Clear();
                    m_calibration.UnaccessConfigurationCalibrated(calibrated);
                    CQsStimulationDeviceConfiguration* const current = m_calibration.AccessConfigurationCurrent();
                    current->AddCamera(CQsStringW(key));
                    torn += current->GetCamera() == CQsStringW(key) ? 0 : 1;
                    m_calibration.UnaccessConfigurationCurrent(current);
                    m_calibration.GetConfigurationStringCalibrated();
                    if (i % 8 == 0)
                    {
                        m_calibration.SaveCalibrationMatrices(CQsStringW(key));
                        m_calibration.LoadCalibrationMatrices(CQsStringW(key));
                    }
                }
            });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, torn);
    for (int n = 0; n < 4; ++n)
    {
        EXPECT_EQ(0, m_calibration.LoadCalibrationMatrices(CQsStringW(L"key " + std::to_wstring(n)))) << n;
        EXPECT_TRUE(whole(CalibrationC2D(m_calibration)) && whole(CalibrationD2C(m_calibration)));
    }
}

} // namespace
