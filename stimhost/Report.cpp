#include "stimhost/Report.h"

#include "standalone/Rig.h"
#include "stimhost/Text.h"

namespace Stimhost {

namespace {

constexpr int s_reportVersion = 1;

const char* KindName(EKind kind)
{
    return kind == EKind::Continuous ? "continuous" : "timed";
}

std::string Signed(double value)
{
    return (value >= 0.0 ? "+" : "") + Number(value, 2);
}

// Columns of the table after the phase and the device.
std::string Row(const std::vector<std::string>& cells)
{
    constexpr std::size_t width = 10;
    std::string text;
    for (const std::string& cell : cells)
        text += Padded(cell, width, true);
    return text;
}

std::string Names(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

void WriteLight(CJson& json, const SPhase& phase, const SMeasured& light)
{
    json.Object().Text("device", light.device);
    json.Time("beginMs", light.BeginMs()).Time("endMs", light.EndMs()).Time("durationMs", light.DurationMs());
    json.Time("litMs", light.LitMs());
    json.Time("beginErrorMs", light.BeginMs()).Time("endErrorMs", light.EndMs() - phase.DueMs());
    json.Time("durationErrorMs", phase.WasAborted() ? s_noTime : light.DurationMs() - phase.request.durationMs);
    json.Array("pulsesMs");
    for (const SPulse& pulse : light.pulses)
        json.Array().Element(pulse.onMs).Element(pulse.offMs).EndArray();
    json.EndArray().EndObject();
}

void WriteNames(CJson& json, const char* key, const std::vector<std::string>& names)
{
    json.Array(key);
    for (const std::string& name : names)
        json.Element(name);
    json.EndArray();
}

void WriteTimes(CJson& json, const char* key, const std::vector<double>& times)
{
    json.Array(key);
    for (const double time : times)
        json.Element(time);
    json.EndArray();
}

void WritePhase(CJson& json, const SPhase& phase, double firstStartMs)
{
    const SRequest& request = phase.request;
    json.Object().Text("title", request.title).Text("activeDevice", phase.device);
    json.Time("startedMs", phase.startedMs - firstStartMs);
    json.Object("requested").Text("kind", KindName(request.kind));
    json.Time("beginMs", 0.0).Time("endMs", request.durationMs).Time("durationMs", request.durationMs);
    json.Integer("groupMask", request.groupMask).Time("abortAfterMs", request.abortAfterMs.value_or(s_noTime));
    json.EndObject();
    json.Integer("startStatus", phase.startStatus).Integer("status", phase.status);
    json.Flag("finished", phase.finished).Flag("gaveUp", phase.gaveUp).Flag("interrupted", phase.interrupted);
    json.Flag("succeeded", phase.Succeeded());
    json.Object("abort").Flag("aborted", phase.WasAborted()).Time("calledMs", phase.abortCalledMs);
    json.Integer("managerStatus", phase.abortStatus).Time("latencyMs", phase.AbortLatencyMs()).EndObject();
    json.Object("reportedByDevice");
    WriteTimes(json, "beginMs", phase.reportedBeginMs);
    WriteTimes(json, "endMs", phase.reportedEndMs);
    json.EndObject();
    json.Array("measured");
    for (const SMeasured& light : phase.lights)
        WriteLight(json, phase, light);
    json.EndArray().Time("skewMs", phase.SkewMs());
    WriteNames(json, "lightLeftOn", phase.leftOn);
    WriteNames(json, "faults", phase.faults);
    json.EndObject();
}

} // namespace

SReport ReportOf(const QsStandalone::SRig& rig)
{
    SReport report;
    report.rigName = rig.name;
    report.rigPath = rig.path;
    return report;
}

std::string Table(const std::vector<SPhase>& phases)
{
    std::size_t titleWidth = 5;
    std::size_t deviceWidth = 6;
    for (const SPhase& phase : phases)
    {
        titleWidth = std::max(titleWidth, phase.request.title.size());
        for (const SMeasured& light : phase.lights)
            deviceWidth = std::max(deviceWidth, light.device.size());
    }
    const std::string indent(titleWidth + deviceWidth + 4, ' ');
    std::string text = indent + Row({"requested", "measured", "", "", "", "begin", "end", "abort"}) + "\n";
    text += Padded("phase", titleWidth) + "  " + Padded("device", deviceWidth) + "  " +
            Row({"end", "begin", "end", "duration", "lit", "error", "error", "latency"}) + "  [ms]\n";
    for (const SPhase& phase : phases)
    {
        const std::string title = Padded(phase.request.title, titleWidth) + "  ";
        if (phase.lights.empty())
            text += title + Padded("-", deviceWidth) + "  " + Row({Number(phase.request.durationMs, 2)}) +
                    "  no light, status " + std::to_string(phase.startStatus != 0 ? phase.startStatus : phase.status) +
                    "\n";
        for (const SMeasured& light : phase.lights)
            text += title + Padded(light.device, deviceWidth) + "  " +
                    Row({Number(phase.DueMs(), 2), Number(light.BeginMs(), 2), Number(light.EndMs(), 2),
                         Number(light.DurationMs(), 2), Number(light.LitMs(), 2), Signed(light.BeginMs()),
                         Signed(light.EndMs() - phase.DueMs()), Number(phase.AbortLatencyMs(), 2)}) +
                    "\n";
    }
    return text;
}

std::string ReportJson(const SReport& report)
{
    CJson json;
    json.Object().Integer("version", s_reportVersion).Text("program", "stimhost");
    json.Object("rig").Text("name", report.rigName).Text("file", report.rigPath).EndObject();
    json.Array("phases");
    for (const SPhase& phase : report.phases)
        WritePhase(json, phase, report.phases.front().startedMs);
    json.EndArray().Array("promises");
    for (const SPromise& promise : report.promises)
        json.Object()
            .Text("promise", promise.text)
            .Flag("kept", promise.kept)
            .Text("found", promise.detail)
            .EndObject();
    json.EndArray();
    WriteNames(json, "lightOnAtEnd", report.lightOnAtEnd);
    json.EndObject();
    return json.Take();
}

std::string WhyFailed(const SPhase& phase)
{
    const std::string what = phase.request.title + ": ";
    if (phase.device.empty())
        return what + "no device is active";
    if (phase.startStatus != 0)
        return what + phase.device + " was not started, status " + std::to_string(phase.startStatus);
    if (!phase.leftOn.empty())
        return what + "the light of " + Names(phase.leftOn) + " is still on";
    if (phase.gaveUp)
        return what + phase.device + " did not answer in time and was given up";
    if (!phase.faults.empty())
        return what + phase.faults.front();
    if (phase.status == 0 && phase.WasDark())
        return what + phase.device + " gave no light";
    if (!phase.Succeeded())
        return what + phase.device + " failed, status " + std::to_string(phase.status);
    return {};
}

} // namespace Stimhost
