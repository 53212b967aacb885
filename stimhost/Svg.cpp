#include "stimhost/Svg.h"

#include "stimhost/Text.h"

namespace Stimhost {

std::string Escaped(const std::string& text)
{
    std::string escaped;
    for (const char c : text)
        switch (c)
        {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            // Control characters have no place in XML at all.
            escaped += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
        }
    return escaped;
}

std::string Shortened(const std::string& text, std::size_t characters)
{
    std::size_t count = 0;
    for (std::size_t i = 0; i < text.size(); ++i)
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80 && ++count == characters && i + 1 < text.size())
            return text.substr(0, i) + "\xE2\x80\xA6";
    return text;
}

std::string At(double value)
{
    return Number(value, 2);
}

std::string TextAt(double x, double y, const std::string& text, const std::string& attributes)
{
    return "<text x=\"" + At(x) + "\" y=\"" + At(y) + "\" " + attributes + ">" + Escaped(text) + "</text>\n";
}

std::string Rectangle(double x, double y, double width, double height, const std::string& attributes)
{
    return "<rect x=\"" + At(x) + "\" y=\"" + At(y) + "\" width=\"" + At(width) + "\" height=\"" + At(height) + "\" " +
           attributes + "/>\n";
}

std::string Line(double x1, double y1, double x2, double y2, const std::string& attributes)
{
    return "<line x1=\"" + At(x1) + "\" y1=\"" + At(y1) + "\" x2=\"" + At(x2) + "\" y2=\"" + At(y2) + "\" " +
           attributes + "/>\n";
}

std::string Vertical(double x, double top, double bottom, const std::string& attributes)
{
    return Line(x, top, x, bottom, attributes);
}

std::string SvgHead(double width, double height, const std::string& title)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " +
           At(width) + " " + At(height) + "\" width=\"" + At(width) + "\" height=\"" + At(height) + "\">\n<title>" +
           Escaped(title) + "</title>\n";
}

} // namespace Stimhost
