// Image of a stimulation pattern: a portable bitmap or graymap (P1, P2, P4, P5), as numbers from 0 (dark) to 255.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct SPatternImage
{
    std::uint32_t width = 0;  // [px]
    std::uint32_t height = 0; // [px]
    std::vector<std::uint8_t> pixels;

    // Longest side that is read.
    static constexpr std::uint32_t s_longestSide = 8192;
};

// `path` is UTF-8. False, with one line, when the file is missing, of another format, damaged or too large; then
// `image` is unchanged.
bool ReadPatternImage(const std::string& path, SPatternImage& image, std::string& error);
// The same from the file's bytes.
bool ParsePatternImage(const std::string& bytes, SPatternImage& image, std::string& error);

// The image on a chip of that size: scaled to it by nearest neighbour, or, one to one, from the top left corner with
// the rest dark. False when it does not fit one to one.
bool PlacePatternImage(const SPatternImage& image, std::uint32_t width, std::uint32_t height, bool oneToOne,
                       SPatternImage& placed);
