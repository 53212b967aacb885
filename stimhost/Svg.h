// Pieces of SVG pictures.
#pragma once

#include <string>

namespace Stimhost {

// Text as it may stand in XML; control characters, which have no place there, become spaces.
std::string Escaped(const std::string& text);
// At most that many characters, with an ellipsis for what is cut.
std::string Shortened(const std::string& text, std::size_t characters);

std::string At(double value); // a coordinate

// Elements, each on a line; `attributes` stand as they are.
std::string TextAt(double x, double y, const std::string& text, const std::string& attributes);
std::string Rectangle(double x, double y, double width, double height, const std::string& attributes);
std::string Line(double x1, double y1, double x2, double y2, const std::string& attributes);
std::string Vertical(double x, double top, double bottom, const std::string& attributes);

// The beginning of a picture; "</svg>" ends it.
std::string SvgHead(double width, double height, const std::string& title);

} // namespace Stimhost
