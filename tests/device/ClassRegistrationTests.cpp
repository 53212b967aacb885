#include "beampath/StimulationDeviceAggregator.h"
#include "beampath/StimulationDeviceProxy.h"
#include "device/ClassRegistration.h"
#include "device/ShutterStimulationDevice.h"
#include "standalone/HostControl.h"
#include "tests/support/DeviceFixture.h"
#include "tests/support/Vectors.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <ostream>

extern "C" IQsInterface* QS_ConstructorForCQsShutterStimulationDevice(const char* file, unsigned int line);
extern "C" IQsInterface* QS_ConstructorForCQsStimulationDeviceAggregator(const char* file, unsigned int line);
extern "C" IQsInterface* QS_ConstructorForCQsStimulationDeviceProxy(const char* file, unsigned int line);

using QsTest::Member;

namespace {

struct SRegisteredClass
{
    std::string name;
    QsClassConstructor constructor;
    const CQsClassInfo* info;
    std::size_t size;
    // The texts of both records as the registration macros make them, and the bytes they take with their padding.
    std::u16string parents;
    std::u16string version;
    std::size_t offsetOfVersion;
    std::size_t bytes;
    const char* vector;
};

void PrintTo(const SRegisteredClass& c, std::ostream* stream)
{
    *stream << c.name;
}

template <class Pair>
SRegisteredClass Describe(const char* name, QsClassConstructor constructor, const CQsClassInfo* info, std::size_t size,
                          const Pair& pair, const char* vector)
{
    const auto offset = reinterpret_cast<const char*>(pair.version) - reinterpret_cast<const char*>(pair.parents);
    return {name,         constructor, info, size, pair.parents, pair.version, static_cast<std::size_t>(offset),
            sizeof(pair), vector};
}

#define QS_DESCRIBE(Class, friendlyName, vector)                                                                       \
    Describe(#Class, &QS_ConstructorFor##Class, Class::GetCQsClassInfo(), sizeof(Class),                               \
             QsClassRecords::SPair{QS_CLASS_PARENTS_RECORD(Class, "IQsStimulationDevice"),                             \
                                   QS_CLASS_VERSION_RECORD(Class, 1, friendlyName)},                                   \
             vector)

class RegisteredClass : public testing::TestWithParam<SRegisteredClass>
{};

std::string Narrow(const std::u16string& text)
{
    std::string narrow;
    for (const char16_t unit : text)
        narrow += unit < 128 ? static_cast<char>(unit) : '?';
    return narrow;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(
    Classes, RegisteredClass,
    testing::Values(QS_DESCRIBE(CQsShutterStimulationDevice, "Shutter Stimulation device", "records-001"),
                    QS_DESCRIBE(CQsStimulationDeviceAggregator, "Beampath Aggregated Stimulation device",
                                "records-002"),
                    QS_DESCRIBE(CQsStimulationDeviceProxy, "Beampath Proxy Stimulation device", "records-003")),
    [](const testing::TestParamInfo<SRegisteredClass>& c) { return c.param.name; });

TEST_P(RegisteredClass, TellsItsNameParentSizeAndConstructor)
{
    const CQsClassInfo& info = *GetParam().info;
    EXPECT_STREQ(GetParam().name.c_str(), info.GetName());
    EXPECT_STREQ("IQsStimulationDevice", info.GetParent(0));
    for (std::size_t i = 1; i < CQsClassInfo::s_parentCount; ++i)
        EXPECT_EQ(nullptr, info.GetParent(i)) << i;
    EXPECT_EQ(GetParam().size, info.GetSize());
    EXPECT_EQ(GetParam().constructor, info.GetConstructor());
}

TEST_P(RegisteredClass, ConstructorMakesAnObjectOfTheClassWithoutReferences)
{
    const std::size_t before = QsStandalone::LiveObjectCount();
    IQsInterface* const object = GetParam().constructor("file", 7);
    ASSERT_NE(nullptr, object);
    EXPECT_EQ(before + 1, QsStandalone::LiveObjectCount());
    EXPECT_EQ(GetParam().info, object->GetClass());
    EXPECT_EQ(0u, QsStandalone::ReferenceCount(object));
    CQsRTTI::AddRef(object);
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(object));
    CQsRTTI::Release(object);
    EXPECT_EQ(before, QsStandalone::LiveObjectCount());
}

TEST_P(RegisteredClass, ConstructorAnswersNullWithoutMemory)
{
    QsStandalone::RefuseAllocation(true);
    IQsInterface* const object = GetParam().constructor("file", 7);
    QsStandalone::RefuseAllocation(false);
    EXPECT_EQ(nullptr, object);
}

TEST_P(RegisteredClass, IsCreatedByNameWithOneReference)
{
    const std::size_t before = QsStandalone::LiveObjectCount();
    QsTest::DevicePtr device = QsTest::CreateDevice(GetParam().name.c_str());
    ASSERT_NE(nullptr, device);
    EXPECT_EQ(GetParam().info, device->GetClass());
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(device.get()));
    device.reset();
    EXPECT_EQ(before, QsStandalone::LiveObjectCount());
}

TEST_P(RegisteredClass, AnswersOnlyTheExactInterfaceName)
{
    const QsTest::DevicePtr device = QsTest::CreateDevice(GetParam().name.c_str());
    ASSERT_NE(nullptr, device);
    auto* const object = dynamic_cast<CQsClass*>(device.get());
    ASSERT_NE(nullptr, object);
    for (const char* name : {"IQsInterface", "iqsstimulationdevice", "IQsStimulationDevice ", "IQsStimulationDeviceEx",
                             "CQsClass", "", static_cast<const char*>(nullptr)})
    {
        EXPECT_EQ(nullptr, object->QueryInterface(name)) << (name != nullptr ? name : "null");
        EXPECT_EQ(1u, QsStandalone::ReferenceCount(device.get()));
    }
    IQsInterface* const answer = object->QueryInterface("IQsStimulationDevice");
    EXPECT_EQ(static_cast<IQsInterface*>(device.get()), answer);
    EXPECT_EQ(2u, QsStandalone::ReferenceCount(device.get()));
    object->Release();
}

TEST_P(RegisteredClass, IsListedUnderItsInterface)
{
    std::vector<SQsClassEntry> classes;
    CQsRTTI::FindClasses("IQsStimulationDevice", "", "", classes);
    EXPECT_EQ(1, std::count_if(classes.begin(), classes.end(),
                               [](const SQsClassEntry& entry)
                               { return entry.cls.Compare(GetParam().name.c_str()) == 0; }));
}

TEST_P(RegisteredClass, RecordsHaveTheTextsThatLoadersMatch)
{
    const QsTest::Json& texts = Member(Member(QsTest::Vector(GetParam().vector), "output"), "texts");
    ASSERT_EQ(2u, texts.Size());
    EXPECT_EQ(texts[0].GetString(), Narrow(GetParam().parents));
    EXPECT_EQ(texts[1].GetString(), Narrow(GetParam().version));

    // Each record is padded to the next 16 bytes after its terminator.
    const auto padded = [](std::size_t characters) { return ((characters + 1) * 2 + 15) / 16 * 16; };
    EXPECT_EQ(padded(texts[0].GetStringLength()), GetParam().offsetOfVersion);
    EXPECT_EQ(padded(texts[0].GetStringLength()) + padded(texts[1].GetStringLength()), GetParam().bytes);
}

TEST(ClassRecords, TakeTheBytesThatTheirTextsGive)
{
    // By hand: 513 characters and the terminator are 1028 bytes, padded to 1040; 231 are 464, a multiple of 16 already.
    const QsClassRecords::SPair pair = {
        QS_CLASS_PARENTS_RECORD(CQsShutterStimulationDevice, "IQsStimulationDevice"),
        QS_CLASS_VERSION_RECORD(CQsShutterStimulationDevice, 1, "Shutter Stimulation device")};
    EXPECT_EQ(513u, std::u16string(pair.parents).size());
    EXPECT_EQ(231u, std::u16string(pair.version).size());
    EXPECT_EQ(1040u + 464u, sizeof(pair));
}

TEST(WideClassNames, AreThoseOfTheBeampathClasses)
{
    EXPECT_STREQ(L"CQsStimulationDeviceAggregator", sm_classWcsCQsStimulationDeviceAggregator);
    EXPECT_STREQ(L"CQsStimulationDeviceProxy", sm_classWcsCQsStimulationDeviceProxy);
    EXPECT_EQ(CQsStimulationDeviceAggregator::GetCQsClassInfo(), &sm_classCQsStimulationDeviceAggregator);
    EXPECT_EQ(CQsStimulationDeviceProxy::GetCQsClassInfo(), &sm_classCQsStimulationDeviceProxy);
}
