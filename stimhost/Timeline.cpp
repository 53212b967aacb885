#include "stimhost/Timeline.h"

#include "stimhost/Report.h"
#include "stimhost/Svg.h"
#include "stimhost/Text.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace Stimhost {

namespace {

// Picture units.
constexpr double s_width = 1000.0;
constexpr double s_margin = 24.0;
constexpr double s_plotLeft = 200.0;
constexpr double s_plotRight = 800.0;
constexpr double s_headerHeight = 84.0;
constexpr double s_panelTitle = 34.0;
constexpr double s_laneHeight = 34.0;
constexpr double s_barHeight = 14.0;
constexpr double s_bandHeight = 24.0;
constexpr double s_axisHeight = 30.0;
constexpr double s_noteHeight = 15.0;
constexpr double s_noteMargin = 4.0;
constexpr std::size_t s_noteLength = 150; // characters
constexpr double s_panelGap = 22.0;
constexpr std::size_t s_mostPanels = 24;

// Told apart also by people who do not see red and green.
constexpr std::array<const char*, 6> s_colours = {"#0072b2", "#d55e00", "#009e73", "#a6761d", "#cc79a7", "#4b5bb5"};

// The roundest step that gives at most eight intervals.
double TickStep(double span)
{
    const double magnitude = std::pow(10.0, std::floor(std::log10(span / 8.0)));
    for (const double factor : {1.0, 2.0, 5.0})
        if (span / (factor * magnitude) <= 8.0)
            return factor * magnitude;
    return 10.0 * magnitude;
}

class CTimeline
{
public:
    CTimeline(const std::string& title, const std::vector<SPhase>& phases);
    std::string Take() { return std::move(m_text); }

private:
    void Header(const std::string& title, double height);
    void Panel(const SPhase& phase);
    void Axis(double top, double bottom);
    void Lane(const SPhase& phase, const SLane& lane, double middle);
    void Light(const SPhase& phase, const SMeasured& light, double middle, double textY);
    void State(const SLane& lane, double middle);
    void Abort(const SPhase& phase, double top, double bottom);
    double X(double ms) const { return s_plotLeft + (s_plotRight - s_plotLeft) * ms / m_spanMs; }
    const char* Colour(const std::string& device);

    std::string m_text;
    std::vector<std::string> m_devices; // in order of appearance; the place gives the colour
    double m_y = s_headerHeight;
    double m_spanMs = 1.0;
};

double PanelHeight(const SPhase& phase)
{
    const std::size_t notes = Notes(phase).size();
    return s_panelTitle + s_laneHeight * static_cast<double>(phase.Lanes().size()) + s_axisHeight +
           (notes != 0 ? s_noteMargin + s_noteHeight * static_cast<double>(notes) : 0.0);
}

CTimeline::CTimeline(const std::string& title, const std::vector<SPhase>& phases)
{
    const std::size_t panels = std::min(phases.size(), s_mostPanels);
    double height = s_headerHeight + s_margin;
    for (std::size_t i = 0; i < panels; ++i)
        height += PanelHeight(phases[i]) + s_panelGap;
    Header(title, height);
    for (std::size_t i = 0; i < panels; ++i)
        Panel(phases[i]);
    if (panels < phases.size())
        m_text += TextAt(s_margin, m_y + 4.0, std::to_string(phases.size() - panels) + " more are in the report",
                         "class=\"note\"");
    m_text += "</svg>\n";
}

void CTimeline::Header(const std::string& title, double height)
{
    m_text = SvgHead(s_width, height, title);
    m_text += "<style>text{font-family:'DejaVu Sans',Verdana,Arial,sans-serif;fill:#1f2933;font-size:12px}"
              ".head{font-size:18px;font-weight:bold}.phase{font-size:13px;font-weight:bold}"
              ".note{fill:#52606d;font-size:11px}.tick{fill:#52606d;font-size:10px}.abort{fill:#b00020;font-size:11px}"
              ".band{fill:#e9eef4;stroke:#52606d;stroke-width:1;stroke-dasharray:4 3}</style>\n";
    m_text += Rectangle(0.0, 0.0, s_width, height, "fill=\"#ffffff\"");
    m_text += TextAt(s_margin, 34.0, title, "class=\"head\"");

    double x = s_margin;
    m_text += Rectangle(x, 50.0, 34.0, 12.0, "class=\"band\"");
    m_text += TextAt(x + 42.0, 60.0, "requested", "class=\"note\"");
    x += 130.0;
    m_text += Rectangle(x, 50.0, 34.0, 12.0, std::string("rx=\"1.5\" fill=\"") + s_colours[0] + "\"");
    m_text += TextAt(x + 42.0, 60.0, "measured light", "class=\"note\"");
    x += 160.0;
    m_text += Vertical(x, 48.0, 64.0, "stroke=\"#b00020\" stroke-width=\"2\"");
    m_text += TextAt(x + 8.0, 60.0, "abort call", "class=\"note\"");
    m_text += TextAt(s_width - s_margin, 60.0, "milliseconds from the start call; every panel has a scale of its own",
                     "class=\"note\" text-anchor=\"end\"");
}

const char* CTimeline::Colour(const std::string& device)
{
    auto known = std::find(m_devices.begin(), m_devices.end(), device);
    if (known == m_devices.end())
        known = m_devices.insert(m_devices.end(), device);
    return s_colours[static_cast<std::size_t>(known - m_devices.begin()) % s_colours.size()];
}

void CTimeline::Panel(const SPhase& phase)
{
    m_spanMs = std::max(phase.request.durationMs, 1.0);
    for (const SMeasured& light : phase.lights)
        for (const SPulse& pulse : light.pulses)
            m_spanMs = std::max({m_spanMs, pulse.onMs, std::isnan(pulse.offMs) ? 0.0 : pulse.offMs});
    m_spanMs *= 1.04;

    const double height = PanelHeight(phase);
    m_text +=
        Rectangle(s_margin / 2.0, m_y, s_width - s_margin, height, "rx=\"6\" fill=\"#fafbfc\" stroke=\"#d3dae1\"");
    m_text +=
        TextAt(s_margin, m_y + 22.0, Shortened(phase.request.title, phase.WasAborted() ? 60 : 90), "class=\"phase\"");
    m_text += TextAt(s_plotRight + 16.0, m_y + 22.0, "light", "class=\"note\"");
    m_text += TextAt(s_width - s_margin, m_y + 22.0, "end against due", "class=\"note\" text-anchor=\"end\"");

    const double top = m_y + s_panelTitle;
    const std::vector<SLane> lanes = phase.Lanes();
    const double bottom = top + s_laneHeight * static_cast<double>(lanes.size());
    Axis(top, bottom);
    double middle = top + s_laneHeight / 2.0;
    for (const SLane& lane : lanes)
    {
        Lane(phase, lane, middle);
        middle += s_laneHeight;
    }
    Abort(phase, top, bottom);
    double y = bottom + s_axisHeight + 6.0;
    for (const std::string& note : Notes(phase))
    {
        m_text += TextAt(s_margin, y, Shortened(note, s_noteLength), "class=\"note\"");
        y += s_noteHeight;
    }
    m_y += height + s_panelGap;
}

void CTimeline::Axis(double top, double bottom)
{
    const double step = TickStep(m_spanMs);
    const int decimals = std::max(0, static_cast<int>(-std::floor(std::log10(step))));
    for (int i = 0; step * i <= m_spanMs; ++i)
    {
        const double x = X(step * i);
        m_text += Vertical(x, top, bottom + 4.0, "stroke=\"#dde3ea\"");
        m_text += TextAt(x, bottom + 17.0, Number(step * i, decimals) + (i == 0 ? " ms" : ""),
                         "class=\"tick\" text-anchor=\"middle\"");
    }
}

void CTimeline::Lane(const SPhase& phase, const SLane& lane, double middle)
{
    constexpr std::size_t longestName = 24;
    const bool twoLines = !lane.device.empty() && lane.device != lane.name;
    m_text += TextAt(s_margin, twoLines ? middle - 2.0 : middle + 4.0, Shortened(lane.name, longestName), "");
    if (twoLines)
        m_text += TextAt(s_margin, middle + 11.0, Shortened(lane.device, longestName), "class=\"note\"");
    m_text += Rectangle(X(0.0), middle - s_bandHeight / 2.0, X(phase.request.durationMs) - X(0.0), s_bandHeight,
                        "class=\"band\"");
    if (lane.light != nullptr)
        Light(phase, *lane.light, middle, lane.state.empty() ? middle + 4.0 : middle - 2.0);
    State(lane, middle);
}

void CTimeline::Light(const SPhase& phase, const SMeasured& light, double middle, double textY)
{
    const std::string fill = std::string("rx=\"1.5\" fill=\"") + Colour(light.device) + "\"";
    for (const SPulse& pulse : light.pulses)
    {
        const double end = std::isnan(pulse.offMs) ? m_spanMs : pulse.offMs;
        m_text += Rectangle(X(pulse.onMs), middle - s_barHeight / 2.0, std::max(1.0, X(end) - X(pulse.onMs)),
                            s_barHeight, fill);
    }
    const bool leftOn = std::isnan(light.EndMs());
    m_text += TextAt(s_plotRight + 16.0, textY, leftOn ? "left on" : Number(light.LitMs(), 1) + " ms",
                     leftOn ? "class=\"abort\"" : "");
    const double late = light.EndMs() - phase.DueMs();
    if (!leftOn)
        m_text += TextAt(s_width - s_margin, textY, (late >= 0.0 ? "+" : "") + Number(late, 1) + " ms",
                         "text-anchor=\"end\"");
}

void CTimeline::State(const SLane& lane, double middle)
{
    if (!lane.state.empty())
        m_text += TextAt(s_plotRight + 16.0, lane.light != nullptr ? middle + 11.0 : middle + 4.0, lane.state,
                         lane.wrong ? "class=\"abort\"" : "class=\"note\"");
}

void CTimeline::Abort(const SPhase& phase, double top, double bottom)
{
    if (!phase.WasAborted())
        return;
    const double x = X(phase.abortCalledMs);
    m_text += Vertical(x, top - 2.0, bottom, "stroke=\"#b00020\" stroke-width=\"2\"");
    m_text += TextAt(s_plotRight, top - 12.0,
                     "abort at " + Number(phase.abortCalledMs, 1) + " ms, dark after " +
                         Number(phase.AbortLatencyMs(), 1) + " ms",
                     "class=\"abort\" text-anchor=\"end\"");
}

} // namespace

std::string TimelineSvg(const std::string& title, const std::vector<SPhase>& phases)
{
    return CTimeline(title, phases).Take();
}

} // namespace Stimhost
