#include "host/QsGrabber.h"
#include "standalone/HostControl.h"

#include <gmock/gmock.h>

#include <cstring>
#include <functional>
#include <stdexcept>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class CCamera : public IQsGrabberCamera, public CQsClass
{
public:
    explicit CCamera(const wchar_t* name) : m_name(name) {}

    const CQsClassInfo* GetClass() const override { return nullptr; }
    IQsInterface* QueryInterface(const char*) override { return nullptr; }
    CQsStringW GetName() const override { return m_name; }
    SQsCameraState GetState() const override { return {}; }
    int SetState(const SQsCameraState&) override { return -9; }
    int GetFormat(SQsGrabberFormatDesc&) override { return -9; }
    int GetFormatValue(SQsGrabberFormatValue&) override { return -9; }
    int GetFlipReference(double&, double&, double&, double&) override { return -9; }
    int Grab(SQsGrabberImage&) override { return -9; }

private:
    CQsStringW m_name;
};

CCamera* NewCamera(const wchar_t* name)
{
    return new (__FILE__, __LINE__) CCamera(name);
}

class CProvider final : public IQsGenericProvider
{
public:
    CQsStringW name = L"name";
    CQsStringW description = L"description";
    CQsStringW serial = L"serial";
    CQsStringW firmware = L"firmware";
    std::uint8_t flags = 0;
    bool throws = false; // when it is asked for its serial number

    CQsStringW GetCameraName() override { return name; }
    CQsStringW GetCameraDescription() override { return description; }
    CQsStringW GetSerialNumber() override
    {
        if (throws)
            throw std::runtime_error("the camera is gone");
        return serial;
    }
    CQsStringW GetFirmware() override { return firmware; }
    std::uint8_t GetCameraFlags() override { return flags; }
};

SQsGrabberCameraDesc01 PoisonedDescription()
{
    SQsGrabberCameraDesc01 description;
    std::memset(&description, 0xA5, sizeof description);
    return description;
}

// Whether every byte that is no part of `expected` is zero.
bool IsExactly(const SQsGrabberCameraDesc01& description, const CProvider& expected)
{
    SQsGrabberCameraDesc01 wanted;
    std::memset(&wanted, 0, sizeof wanted);
    std::wcscpy(wanted.wszName, expected.name.c_str());
    std::wcscpy(wanted.wszDescription, expected.description.c_str());
    std::wcscpy(wanted.wszSerialNumber, expected.serial.c_str());
    std::wcscpy(wanted.wszFirmware, expected.firmware.c_str());
    wanted.uiFlags = expected.flags;
    return std::memcmp(&wanted, &description, sizeof wanted) == 0;
}

TEST(CameraDescription, HoldsEveryTextAndTheFlagsAndNothingElse)
{
    CProvider provider;
    provider.flags = SQsGrabberCameraDesc01::s_confocal | 1;
    SQsGrabberCameraDesc01 description = PoisonedDescription();
    EXPECT_EQ(0, provider.CameraGet_WRP(description));
    EXPECT_TRUE(IsExactly(description, provider));
}

TEST(CameraDescription, CutsTextsThatAreTooLong)
{
    CProvider provider;
    provider.name = CQsStringW(std::wstring(63, L'a'));
    provider.description = CQsStringW(std::wstring(128, L'b'));
    provider.serial = CQsStringW(std::wstring(64, L'c'));
    provider.firmware = CQsStringW(std::wstring(1000, L'd'));
    SQsGrabberCameraDesc01 description = PoisonedDescription();
    EXPECT_EQ(0, provider.CameraGet_WRP(description));
    EXPECT_EQ(std::wstring(63, L'a'), description.wszName);
    EXPECT_EQ(std::wstring(127, L'b'), description.wszDescription);
    EXPECT_EQ(std::wstring(63, L'c'), description.wszSerialNumber);
    EXPECT_EQ(std::wstring(63, L'd'), description.wszFirmware);
}

TEST(CameraDescription, CutsBeforeACharacterOfTwoUnitsAndNotInside)
{
    const std::wstring pair{static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00)};
    CProvider provider;
    SQsGrabberCameraDesc01 description = PoisonedDescription();
    provider.name = CQsStringW(std::wstring(62, L'a') + pair); // its first unit would be the last that fits
    provider.firmware = CQsStringW(std::wstring(61, L'a') + pair);
    provider.serial = CQsStringW(std::wstring(62, L'a') + pair[0] + L"lone");
    EXPECT_EQ(0, provider.CameraGet_WRP(description));
    EXPECT_EQ(std::wstring(62, L'a'), description.wszName);
    EXPECT_EQ(std::wstring(61, L'a') + pair, description.wszFirmware);
    EXPECT_EQ(std::wstring(62, L'a') + pair[0], description.wszSerialNumber); // half of nothing
}

TEST(CameraDescription, IsZeroFromWhereTheProviderFails)
{
    CProvider provider;
    provider.throws = true;
    provider.flags = 0xFF;
    SQsGrabberCameraDesc01 description = PoisonedDescription();
    EXPECT_EQ(-9, provider.CameraGet_WRP(description));
    CProvider expected;
    expected.serial = expected.firmware = L"";
    EXPECT_TRUE(IsExactly(description, expected));
}

TEST(Grabber, HoldsItsProvidersInOrderNullOnesIncluded)
{
    CProvider first, second;
    CQsGenericProviderGrabber grabber;
    EXPECT_EQ(0u, grabber.SecGrabber_GetCount());
    EXPECT_EQ(nullptr, grabber.SecGrabber_GetProvider_Low(0));
    grabber.AddProvider(&first);
    grabber.AddProvider(nullptr);
    grabber.AddProvider(&second);
    EXPECT_EQ(3u, grabber.SecGrabber_GetCount());
    EXPECT_EQ(&first, grabber.SecGrabber_GetProvider_Low(0));
    EXPECT_EQ(nullptr, grabber.SecGrabber_GetProvider_Low(1));
    EXPECT_EQ(&second, grabber.SecGrabber_GetProvider_Low(2));
    EXPECT_EQ(nullptr, grabber.SecGrabber_GetProvider_Low(3));
}

TEST(Cameras, AreFoundByNameWithAReferenceOfTheCallers)
{
    CCamera* const one = NewCamera(L"One");
    CCamera* const two = NewCamera(L"two");
    ASSERT_TRUE(QsStandalone::AddCamera(one));
    ASSERT_TRUE(QsStandalone::AddCamera(two));
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(one));
    EXPECT_THAT(CQsGrabberManager::CameraNames(), ElementsAre(CQsStringW(L"One"), CQsStringW(L"two")));

    IQsGrabberCamera* const found = CQsGrabberManager::FindCamera(L"One");
    EXPECT_EQ(one, found);
    EXPECT_EQ(2u, QsStandalone::ReferenceCount(one));
    EXPECT_EQ(nullptr, CQsGrabberManager::FindCamera(L"one")); // the case counts
    EXPECT_EQ(nullptr, CQsGrabberManager::FindCamera(L""));

    QsStandalone::RemoveCameras();
    EXPECT_THAT(CQsGrabberManager::CameraNames(), IsEmpty());
    EXPECT_EQ(nullptr, CQsGrabberManager::FindCamera(L"One"));
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(one)); // whoever found it keeps it
    EXPECT_EQ(1u, QsStandalone::LiveObjectCount());
    CQsRTTI::Release(found);
    EXPECT_EQ(0u, QsStandalone::LiveObjectCount());
}

TEST(Cameras, RefuseATakenNameAndNoCamera)
{
    CCamera* const first = NewCamera(L"Camera");
    CCamera* const second = NewCamera(L"Camera");
    CQsRTTI::AddRef(second);
    ASSERT_TRUE(QsStandalone::AddCamera(first));
    EXPECT_FALSE(QsStandalone::AddCamera(second));
    EXPECT_FALSE(QsStandalone::AddCamera(nullptr));
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(second));
    EXPECT_THAT(CQsGrabberManager::CameraNames(), ElementsAre(CQsStringW(L"Camera")));
    QsStandalone::RemoveCameras();
    EXPECT_TRUE(QsStandalone::AddCamera(second)); // the name is free again
    CQsRTTI::Release(second);
    QsStandalone::RemoveCameras();
    EXPECT_EQ(0u, QsStandalone::LiveObjectCount());
}

} // namespace
