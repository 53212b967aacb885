// Snapshots as tests and the reference values describe them.
#pragma once

#include "calibration/StimulationDeviceConfiguration.h"
#include "tests/support/Vectors.h"

#include <ostream>
#include <string>
#include <vector>

inline std::ostream& operator<<(std::ostream& stream, const CQsStringW& text)
{
    return stream << '"' << text.ToUtf8() << '"';
}

namespace QsTest {

// What a snapshot is filled with.
struct SHardware
{
    struct SFilterChanger
    {
        std::wstring key;
        std::wstring name;
        int position = 0;
    };

    std::vector<SFilterChanger> filterChangers;
    std::wstring objective;
    std::vector<std::wstring> lights;
    std::wstring microscope;
    std::vector<std::pair<std::wstring, unsigned>> multilasers;
    double zoom = 0.0;
    std::wstring camera;
    double rotation = 0.0;
    bool bRotationSet = false;
    bool bValid = true;
    bool bConnected = false;
    int port = 0;
    std::set<EQsWatchedDeviceType> watched;

    void Fill(CQsStimulationDeviceConfiguration& snapshot) const
    {
        for (const SFilterChanger& changer : filterChangers)
            snapshot.AddFilterChanger(CQsStringW(changer.key), CQsStringW(changer.name), changer.position);
        for (const std::wstring& light : lights)
            snapshot.AddLight(CQsStringW(light));
        for (const auto& multilaser : multilasers)
            snapshot.AddMultilaser(CQsStringW(multilaser.first), multilaser.second);
        snapshot.AddObjective(CQsStringW(objective));
        snapshot.AddMicroscope(CQsStringW(microscope));
        snapshot.AddManualZoom(zoom);
        snapshot.AddCamera(CQsStringW(camera));
        if (bRotationSet)
            snapshot.SetCameraRotation(rotation);
        snapshot.SetORBAConnected(bConnected);
        snapshot.AddConnectionPort(port);
        snapshot.SetWatchedDeviceTypes(watched);
        snapshot.SetValid(bValid);
    }
};

inline std::set<EQsWatchedDeviceType> Everything()
{
    std::set<EQsWatchedDeviceType> all;
    for (int type = eWatchedFilterChangers; type <= eWatchedReserved; ++type)
        all.insert(static_cast<EQsWatchedDeviceType>(type));
    return all;
}

inline std::set<EQsWatchedDeviceType> Without(EQsWatchedDeviceType type)
{
    std::set<EQsWatchedDeviceType> watched = Everything();
    watched.erase(type);
    return watched;
}

// The microscope of most tests.
inline SHardware Microscope()
{
    SHardware hardware;
    hardware.filterChangers = {{L"FW1", L"GFP", 2}};
    hardware.objective = L"Plan 20x";
    hardware.microscope = L"Ti";
    hardware.zoom = 1.5;
    hardware.camera = L"Cam";
    hardware.rotation = 90.0;
    hardware.bRotationSet = true;
    hardware.watched = Everything();
    return hardware;
}

inline SHardware HardwareOf(const Json& json)
{
    SHardware hardware;
    for (const Json& changer : Member(json, "filters").GetArray())
        hardware.filterChangers.push_back({ToWide(changer[0]), ToWide(changer[1]), changer[2].GetInt()});
    hardware.objective = ToWide(Member(json, "objective"));
    for (const Json& light : Member(json, "lights").GetArray())
        hardware.lights.push_back(ToWide(light));
    hardware.microscope = ToWide(Member(json, "microscope"));
    for (const Json& multilaser : Member(json, "multilasers").GetArray())
        hardware.multilasers.emplace_back(ToWide(multilaser[0]), multilaser[1].GetUint());
    hardware.zoom = ToDouble(Member(json, "zoom"));
    hardware.camera = ToWide(Member(json, "camera"));
    hardware.rotation = ToDouble(Member(json, "rotation"));
    hardware.bRotationSet = Member(json, "rotationSet").GetBool();
    hardware.bValid = Member(json, "valid").GetBool();
    hardware.bConnected = Member(json, "orbaConnected").GetBool();
    hardware.port = Member(json, "orbaPort").GetInt();
    for (const Json& type : Member(json, "watched").GetArray())
        hardware.watched.insert(static_cast<EQsWatchedDeviceType>(type.GetInt()));
    return hardware;
}

} // namespace QsTest
