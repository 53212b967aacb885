#include "stimhost/Overlay.h"

#include "stimhost/GreyPng.h"
#include "stimhost/Svg.h"
#include "stimhost/Text.h"

#include <QByteArray>

#include <algorithm>
#include <cmath>

namespace Stimhost {

namespace {

// Picture units. The image keeps its aspect inside the widest that fits a page.
constexpr double s_margin = 24.0;
constexpr double s_header = 78.0;
constexpr double s_footer = 62.0;
constexpr double s_imageWidth = 760.0;
constexpr double s_imageHeight = 640.0;

// Told apart also by people who do not see red and green.
constexpr char s_requestedColour[] = "#56b4e9";
constexpr char s_lightColour[] = "#f0a000";
constexpr char s_residualColour[] = "#ff5a36";
constexpr char s_outColour[] = "#cc79a7";

// The largest of 1, 2, 5 times a power of ten that is not above the value.
double RoundBelow(double value)
{
    const double magnitude = std::pow(10.0, std::floor(std::log10(value)));
    for (const double factor : {5.0, 2.0})
        if (factor * magnitude <= value)
            return factor * magnitude;
    return magnitude;
}

// A picture of one camera image; places on it are image pixels.
class COverlay
{
public:
    COverlay(const std::string& title, const SQsGrabberImage& image, double dark)
        : m_scale(std::min(s_imageWidth / std::max(1u, image.uiWidth), s_imageHeight / std::max(1u, image.uiHeight))),
          m_width(m_scale * image.uiWidth), m_height(m_scale * image.uiHeight)
    {
        const double white = image.pixels.empty() ? dark : *std::max_element(image.pixels.begin(), image.pixels.end());
        const QByteArray png = QByteArray::fromStdString(GreyPng(image, dark, white)).toBase64();
        const double pageWidth = PlotWidth() + 2.0 * s_margin;
        const double pageHeight = m_height + s_header + s_footer;
        m_text = SvgHead(pageWidth, pageHeight, title);
        m_text += "<style>text{font-family:'DejaVu Sans',Verdana,Arial,sans-serif;fill:#1f2933;font-size:12px}"
                  ".head{font-size:16px;font-weight:bold}.note{fill:#52606d;font-size:11px}</style>\n";
        m_text += Rectangle(0.0, 0.0, pageWidth, pageHeight, "fill=\"#ffffff\"");
        m_text += TextAt(s_margin, 30.0, Shortened(title, 80), "class=\"head\"");
        m_text += "<image x=\"" + At(s_margin) + "\" y=\"" + At(s_header) + "\" width=\"" + At(m_width) +
                  "\" height=\"" + At(m_height) +
                  "\" preserveAspectRatio=\"none\" style=\"image-rendering:pixelated\" "
                  "href=\"data:image/png;base64," +
                  png.toStdString() + "\"/>\n";
    }

    // The centre of the pixel of column x is half a pixel from its side.
    double X(double x) const { return s_margin + (x + 0.5) * m_scale; }
    double Y(double y) const { return s_header + (y + 0.5) * m_scale; }
    double Scale() const { return m_scale; }

    void Legend(const char* colour, const std::string& text)
    {
        m_text += Rectangle(m_legendX, 46.0, 16.0, 8.0, std::string("fill=\"") + colour + "\"");
        m_text += TextAt(m_legendX + 22.0, 54.0, text, "class=\"note\"");
        m_legendX += 60.0 + 6.2 * static_cast<double>(text.size());
    }
    void Note(const std::string& text)
    {
        m_text += TextAt(s_margin, s_header + m_height + 18.0 + m_notes,
                         Shortened(text, static_cast<std::size_t>(PlotWidth() / 6.4)), "class=\"note\"");
        m_notes += 15.0;
    }

    void Outline(const std::vector<CPoint>& corners, const char* colour)
    {
        std::string path;
        for (const CPoint& corner : corners)
            path += (path.empty() ? "M" : "L") + At(X(corner.x)) + " " + At(Y(corner.y));
        m_text += "<path d=\"" + path + "Z\" fill=\"none\" stroke=\"" + colour + "\" stroke-width=\"1.5\"/>\n";
    }
    void Runs(const SQsRLEPicBuf& picture, const char* colour)
    {
        std::string path;
        for (const SQsRLEPicBuf::SRun& run : picture.runs)
            path += "M" + At(X(run.uiFirst - 0.5)) + " " + At(Y(run.uiRow - 0.5)) + "h" + At(run.uiCount * m_scale) +
                    "v" + At(m_scale) + "h" + At(-1.0 * run.uiCount * m_scale) + "z";
        m_text += "<path d=\"" + path + "\" fill=\"" + colour + "\" fill-opacity=\"0.35\"/>\n";
    }
    void Cross(const CPoint& at, const char* colour)
    {
        const std::string stroke = std::string("stroke=\"") + colour + "\" stroke-width=\"1.2\"";
        m_text += Line(X(at.x) - 5.0, Y(at.y), X(at.x) + 5.0, Y(at.y), stroke);
        m_text += Line(X(at.x), Y(at.y) - 5.0, X(at.x), Y(at.y) + 5.0, stroke);
    }
    // From a point, in image pixels times the magnification.
    void Arrow(const CPoint& from, const CPoint& vector, double magnification, const char* colour)
    {
        const double dx = vector.x * magnification * m_scale;
        const double dy = vector.y * magnification * m_scale;
        const std::string stroke = std::string("stroke=\"") + colour + "\" stroke-width=\"2\"";
        m_text += Line(X(from.x), Y(from.y), X(from.x) + dx, Y(from.y) + dy, stroke);
        m_text += "<circle cx=\"" + At(X(from.x) + dx) + "\" cy=\"" + At(Y(from.y) + dy) + "\" r=\"2.4\" fill=\"" +
                  colour + "\"/>\n";
    }
    // The longest round length that is at most 80 units in the picture.
    void ScaleBar(double unitsPerPixel, const std::string& unit)
    {
        const double length = RoundBelow(80.0 / unitsPerPixel);
        const double right = s_margin + PlotWidth();
        m_text += Line(right - length * unitsPerPixel, 50.0, right, 50.0, "stroke=\"#1f2933\" stroke-width=\"3\"");
        m_text +=
            TextAt(right, 66.0, Number(length, std::max(0, static_cast<int>(-std::floor(std::log10(length))))) + unit,
                   "class=\"note\" text-anchor=\"end\"");
    }

    std::string Take() { return m_text + "</svg>\n"; }

private:
    double PlotWidth() const { return std::max(m_width, 620.0); } // room for the legend

    double m_scale;
    double m_width;
    double m_height;
    double m_legendX = s_margin;
    double m_notes = 0.0;
    std::string m_text;
};

} // namespace

std::string CalibrationSvg(const std::string& title, const SMeasurement& measurement)
{
    COverlay overlay(title, measurement.picture, measurement.dark);
    const SAffineFit& fit = measurement.fit;
    // The longest arrow shall be some 25 units long.
    const double pixel = std::max(1.0, measurement.view.format.fx); // camera px in an image px
    const double magnification =
        fit.largest > 0.0 ? RoundBelow(std::max(1.0, 25.0 / (fit.largest / pixel * overlay.Scale()))) : 1.0;
    overlay.Legend(s_requestedColour, "found spots");
    overlay.Legend(s_residualColour, "residuals, " + Number(magnification, 0) + " times as long");
    const std::optional<CMatrix3> imageFromCamera = Inverse(measurement.cameraFromImage);
    for (std::size_t i = 0; i < measurement.spots.size(); ++i)
    {
        const SSpotPair& spot = measurement.spots[i];
        const bool in = i < fit.inliers.size() && fit.inliers[i];
        overlay.Cross(spot.image, in ? s_requestedColour : s_outColour);
        if (!in || !imageFromCamera)
            continue;
        // The residual is one of the camera's frame.
        const CPoint mapped =
            Mapped(*imageFromCamera, {spot.camera.x - fit.residuals[i].x, spot.camera.y - fit.residuals[i].y});
        overlay.Arrow(spot.image, {spot.image.x - mapped.x, spot.image.y - mapped.y}, magnification, s_residualColour);
    }
    overlay.ScaleBar(magnification * overlay.Scale() / pixel, " camera px of residual");
    overlay.Note(measurement.refusal.empty()
                     ? "root mean square " + Number(fit.rms, 3) + " camera px, largest " + Number(fit.largest, 3) +
                           ", " + std::to_string(fit.inlierCount) + " of " + std::to_string(measurement.spots.size()) +
                           " found of " + std::to_string(measurement.projected) + " projected"
                     : "refused: " + measurement.refusal);
    return overlay.Take();
}

std::string LandingSvg(const std::string& title, const SRoi& roi, const SLanding& landing)
{
    COverlay overlay(title, landing.image, landing.dark);
    constexpr double magnification = 50.0;
    overlay.Legend(s_requestedColour, "requested region");
    overlay.Legend(s_lightColour, "measured light");
    if (landing.light)
    {
        overlay.Legend(s_residualColour, "centre's error, " + Number(magnification, 0) + " times as long");
        overlay.Runs(landing.light->picture, s_lightColour);
    }
    overlay.Outline(Outline(roi), s_requestedColour);
    if (landing.light)
    {
        const CPoint& from = landing.light->requestedCentre;
        const CPoint& to = landing.light->centre;
        // A light that landed somewhere else is far enough to see.
        const double shown = Distance(from, to) > 4.0 ? 1.0 : magnification;
        overlay.Cross(from, s_requestedColour);
        overlay.Arrow(from, {to.x - from.x, to.y - from.y}, shown, s_residualColour);
    }
    overlay.ScaleBar(overlay.Scale(), " image px");
    overlay.Note(landing.camera);
    overlay.Note("calibration state " + StateText(landing.state));
    overlay.Note(!landing.refusal.empty() ? landing.refusal
                 : landing.light          ? "overlap " + Number(landing.light->overlap, 3) + ", centre off by " +
                                       Number(landing.errorPx, 3) + " camera px"
                                 : "the camera saw no light");
    return overlay.Take();
}

} // namespace Stimhost
