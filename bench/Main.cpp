// The benchmark program: runs every comparison and prints the table of ratios.
//
//   stim_bench [--json FILE] [options of the benchmark library]
//
// Answers 0 when everything ran, whether or not the ratios are good; 1 when something could not be measured or the file
// could not be written; 2 for an option that does not exist.
#include "bench/Paired.h"
#include "manager/StimulationManager.h"
#include "platform/RegistryControl.h"
#include "standalone/DiagnosticLog.h"

#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/prettywriter.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

namespace {

using namespace QsBench;

// Says what has been measured while it goes on, and prints the table in the end.
class CTableReporter : public benchmark::BenchmarkReporter
{
public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs)
        {
            const std::string& error = run.error_message;
            std::fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), error.empty() ? "measured" : error.c_str());
        }
    }
    void Finalize() override
    {
        std::printf("%-62s| %-38s| %11s | %11s | %6s | %5s | reached\n", "what", "limit", "ours", "limit", "ratio",
                    "reach");
        for (const SRow& row : Rows())
        {
            std::printf("%-62s| %-38s| %s | %s | %6.2f | %5.2f | %s\n", row.what.c_str(), row.limit.c_str(),
                        Text(row.dOurs, row.unit).c_str(), Text(row.dLimit, row.unit).c_str(), row.Ratio(), row.dReach,
                        row.IsReached() ? "yes" : "no");
        }
    }

private:
    // Times from a tenth of a millisecond up are printed in microseconds.
    static std::string Text(double value, const std::string& unit)
    {
        const bool bLong = unit == "ns" && value >= 1e5;
        char text[32];
        std::snprintf(text, sizeof(text), "%8.1f %-2s", bLong ? value / 1e3 : value, bLong ? "us" : unit.c_str());
        return text;
    }
};

// The old file stays until the new one is whole.
bool WriteJson(const std::filesystem::path& file)
{
    const std::filesystem::path part = file.string() + ".part";
    {
        std::ofstream stream(part);
        rapidjson::OStreamWrapper wrapper(stream);
        rapidjson::PrettyWriter<rapidjson::OStreamWrapper> writer(wrapper);
        writer.StartArray();
        for (const SRow& row : Rows())
        {
            writer.StartObject();
            writer.Key("what");
            writer.String(row.what.c_str());
            writer.Key("limit");
            writer.String(row.limit.c_str());
            writer.Key("unit");
            writer.String(row.unit.c_str());
            writer.Key("ours");
            writer.Double(row.dOurs);
            writer.Key("limitValue");
            writer.Double(row.dLimit);
            writer.Key("ratio");
            writer.Double(row.Ratio());
            writer.Key("reach");
            writer.Double(row.dReach);
            writer.Key("reached");
            writer.Bool(row.IsReached());
            writer.EndObject();
        }
        writer.EndArray();
        stream << '\n';
        stream.flush();
        if (!stream)
            return false;
    }
    std::error_code error;
    std::filesystem::rename(part, file, error);
    return !error;
}

// The registry of this run, so that nobody's own is read or changed.
class CTemporaryRegistry
{
public:
    CTemporaryRegistry()
    {
        std::string name = (std::filesystem::temp_directory_path() / "stim_bench.XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            return;
        m_folder = name;
        QsPlatform::UseOwnRegistry(m_folder.string());
    }
    ~CTemporaryRegistry()
    {
        std::error_code error;
        if (!m_folder.empty())
            std::filesystem::remove_all(m_folder, error);
    }
    CTemporaryRegistry(const CTemporaryRegistry&) = delete;
    CTemporaryRegistry& operator=(const CTemporaryRegistry&) = delete;

    bool IsThere() const { return !m_folder.empty(); }

private:
    std::filesystem::path m_folder;
};

// A second thread that sleeps. The C library's locks do without atomic operations in a process that has never had one,
// which no host is: locks would be measured cheaper in whatever runs first.
class CSleeper
{
public:
    CSleeper()
        : m_thread(
              [this]
              {
                  std::unique_lock<std::mutex> lock(m_mutex);
                  m_changed.wait(lock, [this] { return m_bEnd; });
              })
    {}
    ~CSleeper()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_bEnd = true;
        }
        m_changed.notify_one();
        m_thread.join();
    }
    CSleeper(const CSleeper&) = delete;
    CSleeper& operator=(const CSleeper&) = delete;

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_bEnd = false;
    std::thread m_thread; // last: it uses the others
};

// Takes `--json FILE` or `--json=FILE` out of the arguments. False when the file is missing.
bool TakeJsonOption(int& argc, char** argv, std::string& file)
{
    constexpr char option[] = "--json";
    constexpr std::size_t length = sizeof(option) - 1;
    int kept = 1;
    for (int i = 1; i < argc; ++i)
    {
        if (std::strcmp(argv[i], option) == 0)
        {
            if (++i == argc)
                return false;
            file = argv[i];
        }
        else if (std::strncmp(argv[i], option, length) == 0 && argv[i][length] == '=')
            file = argv[i] + length + 1;
        else
            argv[kept++] = argv[i];
    }
    argc = kept;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    std::string jsonFile;
    if (!TakeJsonOption(argc, argv, jsonFile))
    {
        std::fprintf(stderr, "stim_bench: --json needs the name of a file\n");
        return 2;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;

    const CTemporaryRegistry registry;
    if (!registry.IsThere())
    {
        std::fprintf(stderr, "stim_bench: no temporary folder could be made for the registry\n");
        return 1;
    }
    const CSleeper sleeper;
    QsStandalone::CQsDiagnosticLog::SetLevel(QsStandalone::ELogLevel::Off);
    CQsStimulationDeviceManager::GetInstance();

    CTableReporter reporter;
    const bool bRan = benchmark::RunSpecifiedBenchmarks(&reporter) != 0 && !HasFailed();
    if (!jsonFile.empty() && !WriteJson(jsonFile))
    {
        std::fprintf(stderr, "stim_bench: %s could not be written\n", jsonFile.c_str());
        return 1;
    }
    return bRan ? 0 : 1;
}
