// Saved calibrations: choosing one among many, saving one beside many, and the text that they are saved under.
#include "bench/Paired.h"
#include "calibration/StimulationDeviceCalibration.h"
#include "standalone/HostControl.h"

#include <rapidjson/document.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

using namespace QsBench;

constexpr wchar_t sectionName[] = L"Stimulation";
constexpr wchar_t deviceName[] = L"Micromirror device";

class COwner final : public IQsStimulationDeviceCalibration
{
public:
    explicit COwner(std::string file) : m_file(std::move(file)) {}

    void GetWatchedDeviceTypes(std::vector<EQsWatchedDeviceType>& types) override
    {
        types = {eWatchedFilterChangers, eWatchedObjective, eWatchedManualZoom, eWatchedCamera, eWatchedCameraRotation};
    }
    void OnCalibrationStateChanged(EQsCalibrationState) override {}
    CQsStringW GetCalibrationFileName() override { return CQsStringW::FromUtf8(m_file); }
    CQsStringW GetCalibrationSectionName() override { return sectionName; }
    CQsStringW GetCalibrationDeviceName() override { return deviceName; }
    int GetCameraFlipReference(double* a, double* b, double* c, double* d) override
    {
        *a = *d = 1.0;
        *b = *c = 0.0;
        return QS_OK;
    }
    int GetCameraFormat(SQsGrabberFormatValue& format) override
    {
        format.rcFormat = {0, 0, 2048, 1536};
        return QS_OK;
    }

private:
    std::string m_file;
};

// Hardware number `i`: it differs from the others by its objective, so that no key but its own is the current one.
void FillSnapshot(CQsStimulationDeviceConfiguration& snapshot, unsigned i)
{
    snapshot.SetWatchedDeviceTypes(
        {eWatchedFilterChangers, eWatchedObjective, eWatchedManualZoom, eWatchedCamera, eWatchedCameraRotation});
    snapshot.AddFilterChanger(L"FW1", L"GFP", 2);
    snapshot.AddFilterChanger(L"FW2", L"Empty", 6);
    snapshot.AddObjective(CQsStringW::Format(L"Plan Apo %ux/1.40 oil %u", 10 + i % 90, i));
    snapshot.AddCamera(L"Camera of the side port");
    snapshot.AddManualZoom(1.5);
    snapshot.SetCameraRotation(90.0);
}

CQsStringW KeyOf(unsigned i)
{
    CQsStimulationDeviceConfiguration snapshot;
    FillSnapshot(snapshot, i);
    return snapshot.GetConfigurationString();
}

// A settings file with that many saved calibrations, in a folder of its own.
class CSavedFile
{
public:
    explicit CSavedFile(unsigned count)
    {
        std::string name = (std::filesystem::temp_directory_path() / "stim_bench.XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            return;
        m_folder = name;
        CQsLiteVariantW writer;
        for (const wchar_t* const level : {sectionName, deviceName, L"Definition", L"Calibration"})
            writer.OpenLevel(level);
        for (unsigned i = 0; i < count; ++i)
        {
            writer.OpenLevel(KeyOf(i).c_str());
            for (unsigned element = 0; element < 6; ++element)
            {
                writer.OpenLevel(L"");
                writer.SetDouble(L"m_pdCalibrationMatrixDMDToCam", 0.1 * (i + 1) / (element + 3));
                writer.SetDouble(L"m_pdCalibrationMatrixCamToDMD", 0.7 * (i + 1) / (element + 7));
                writer.CloseLevel();
            }
            writer.CloseLevel();
        }
        m_bThere =
            CQsLiteVariantR(writer).SaveToFile(CQsStringW::FromUtf8(File()).c_str(), false, true, false) == QS_OK;
    }
    ~CSavedFile()
    {
        std::error_code error;
        if (!m_folder.empty())
            std::filesystem::remove_all(m_folder, error);
    }
    CSavedFile(const CSavedFile&) = delete;
    CSavedFile& operator=(const CSavedFile&) = delete;

    bool IsThere() const { return m_bThere; }
    std::string File() const { return (m_folder / "calibrations.json").string(); }
    std::string OtherFile() const { return (m_folder / "bare.json").string(); }

private:
    std::filesystem::path m_folder;
    bool m_bThere = false;
};

std::string Bytes(const std::string& file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void Load(benchmark::State& state)
{
    const auto count = static_cast<unsigned>(state.range(0));
    const CSavedFile file(count);
    if (!file.IsThere())
        return Fail(state, "the file of saved calibrations could not be written");
    COwner owner(file.File());
    CQsStimulationDeviceCalibration calibration(&owner);
    // The last key fits, so that all of them are looked at.
    FillSnapshot(*calibration.AccessConfigurationCurrent(), count - 1);
    calibration.UnaccessConfigurationCurrent(nullptr);

    const bool bFirst = state.range(1) != 0;
    bool bAdopted = true;
    const auto ours = [&]
    {
        if (bFirst)
            QsStandalone::ForgetLastSettingsFile();
        return TimeEach(1,
                        [&]
                        {
                            bool bChanged = false;
                            bAdopted &= calibration.LoadCalibration(bChanged) == QS_OK &&
                                        calibration.GetCurrentCalibrationState() == eCalibrationStateIdentical;
                        });
    };
    bool bParsed = true;
    const auto limit = [&]
    {
        return TimeEach(1,
                        [&]
                        {
                            const std::string bytes = Bytes(file.File());
                            rapidjson::Document document;
                            document.Parse<rapidjson::kParseFullPrecisionFlag>(bytes.data(), bytes.size());
                            bParsed &= !document.HasParseError();
                        });
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    if (!bAdopted || !bParsed)
        return Fail(state, bParsed ? "the calibration was not adopted" : "the file was not parsed");
    const std::string how = bFirst ? ", file not read before" : ", file as last read";
    ReportMedians(samples, "LoadCalibration among " + std::to_string(count) + how, "one parse of it, JSON library",
                  1.5);
    // Linear growth: ten times the keys in at most about ten times the time.
    static double dOfThousand[2] = {};
    if (count == 1000)
        dOfThousand[bFirst] = Median(samples.ours);
    else if (count == 10000 && dOfThousand[bFirst] > 0.0)
        AddRow({"LoadCalibration among 10000" + how, "10 times that among 1000", Median(samples.ours),
                10 * dOfThousand[bFirst], 1.3});
}
BENCHMARK(Load)->ArgsProduct({{10, 1000, 10000}, {0, 1}})->Iterations(30)->UseManualTime();

// Writes the bytes to a file of that name, on the disk before it replaces the old one.
bool CommitBare(const std::string& name, const char* bytes, std::size_t size)
{
    const std::string part = name + ".part";
    const int file = open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool bWritten = file >= 0 && write(file, bytes, size) == static_cast<ssize_t>(size) && fsync(file) == 0;
    if (file >= 0)
        close(file);
    return bWritten && rename(part.c_str(), name.c_str()) == 0;
}

void Save(benchmark::State& state)
{
    const auto count = static_cast<unsigned>(state.range(0));
    const CSavedFile file(count);
    if (!file.IsThere())
        return Fail(state, "the file of saved calibrations could not be written");
    COwner owner(file.File());
    CQsStimulationDeviceCalibration calibration(&owner);
    calibration.SetCalibrationCamToDMD({0.98, 0.05, 12.5, -0.04, 1.02, -7.25, 0.0, 0.0, 1.0});
    const CQsStringW key = KeyOf(count / 2);

    const bool bFirst = state.range(1) != 0;
    bool bSaved = true;
    const auto ours = [&]
    {
        if (bFirst)
            QsStandalone::ForgetLastSettingsFile();
        return TimeEach(1, [&] { bSaved &= calibration.SaveCalibrationMatrices(key) == QS_OK; });
    };
    const auto limit = [&]
    {
        return TimeEach(1,
                        [&]
                        {
                            const std::string bytes = Bytes(file.File());
                            rapidjson::Document document;
                            document.Parse<rapidjson::kParseFullPrecisionFlag>(bytes.data(), bytes.size());
                            rapidjson::StringBuffer text;
                            rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(text);
                            document.Accept(writer);
                            bSaved &= CommitBare(file.OtherFile(), text.GetString(), text.GetSize());
                        });
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    if (!bSaved)
        return Fail(state, "a calibration was not saved");
    ReportMedians(samples,
                  "SaveCalibrationMatrices among " + std::to_string(count) +
                      (bFirst ? ", file not read before" : ", file as last read"),
                  "parse, write and one commit, bare", 1.3);
}
BENCHMARK(Save)->ArgsProduct({{10000}, {0, 1}})->Iterations(20)->UseManualTime();

void ConfigurationString(benchmark::State& state)
{
    constexpr unsigned repetitions = 1000;
    CQsStimulationDeviceConfiguration snapshot;
    FillSnapshot(snapshot, 1);
    snapshot.SetWatchedDeviceTypes({eWatchedFilterChangers, eWatchedObjective, eWatchedManualZoom, eWatchedLights,
                                    eWatchedCamera, eWatchedCameraRotation, eWatchedMicroscope});
    snapshot.AddFilterChanger(L"FW3", L"Texas red", 4);
    snapshot.AddMicroscope(L"Inverted microscope");
    snapshot.AddLight(L"Halogen");
    snapshot.AddLight(L"Light engine");
    snapshot.AddLight(L"Mercury");
    snapshot.AddMultilaser(L"Laser bench", 1);
    snapshot.AddMultilaser(L"Laser bench", 2);
    snapshot.AddConnectionPort(3);
    snapshot.SetORBAConnected(true);

    CQsStringW text;
    CQsStringW printed;
    const auto ours = [&] { return TimeEach(repetitions, [&] { text = snapshot.GetConfigurationString(); }); };
    const auto limit = [&]
    {
        return TimeEach(
            repetitions,
            [&]
            {
                printed = CQsStringW::Format(
                    L"#F$K%s$N%s$P%d$K%s$N%s$P%d$K%s$N%s$P%d#O%s#R%f#L%i#LK%sK%sK%s#Mi%s#MK%sM%dK%sM%d#Z%f#C%s", L"FW1",
                    L"GFP", 2, L"FW2", L"Empty", 6, L"FW3", L"Texas red", 4, L"Plan Apo 11x/1.40 oil 1", 90.0, 3,
                    L"Halogen", L"Light engine", L"Mercury", L"Inverted microscope", L"Laser bench", 1, L"Laser bench",
                    2, 1.5, L"Camera of the side port");
            });
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    if (text != printed)
        return Fail(state, "the two texts differ");
    ReportMedians(samples, "configuration string of a rich snapshot", "one formatted print of the same text", 2.0);
}
BENCHMARK(ConfigurationString)->Iterations(100)->UseManualTime();

} // namespace
