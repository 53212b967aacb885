#include "stimhost/GreyPng.h"

#include <QByteArray>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>

namespace Stimhost {

namespace {

// Steps of grey: noise below one of them would make up most of the file.
constexpr double s_steps = 48.0;

std::uint32_t Crc(const std::string& bytes)
{
    static const std::array<std::uint32_t, 256> table = []
    {
        std::array<std::uint32_t, 256> entries{};
        for (std::uint32_t n = 0; n < 256; ++n)
        {
            std::uint32_t c = n;
            for (int bit = 0; bit < 8; ++bit)
                c = (c & 1u) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            entries[n] = c;
        }
        return entries;
    }();
    std::uint32_t crc = 0xFFFFFFFFu;
    for (const char byte : bytes)
        crc = table[(crc ^ static_cast<unsigned char>(byte)) & 0xFFu] ^ (crc >> 8);
    return ~crc;
}

std::string BigEndian(std::uint32_t value)
{
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>((value >> shift) & 0xFFu);
    return bytes;
}

std::string Chunk(const std::string& type, const std::string& data)
{
    return BigEndian(static_cast<std::uint32_t>(data.size())) + type + data + BigEndian(Crc(type + data));
}

} // namespace

std::string GreyPng(const SQsGrabberImage& image, double black, double white)
{
    std::string rows;
    const double span = std::max(1.0, white - black);
    for (std::uint32_t y = 0; y < image.uiHeight; ++y)
    {
        rows += '\0'; // this row is not filtered
        for (std::uint32_t x = 0; x < image.uiWidth; ++x)
        {
            const double value = (image.pixels[std::size_t{y} * image.uiWidth + x] - black) / span;
            const double step = std::round(std::clamp(value, 0.0, 1.0) * s_steps) / s_steps;
            rows += static_cast<char>(static_cast<unsigned char>(std::lround(step * 255.0)));
        }
    }
    // Qt puts the length before the zlib stream that the format wants.
    const QByteArray packed =
        qCompress(reinterpret_cast<const uchar*>(rows.data()), static_cast<int>(rows.size()), 9).mid(4);
    const std::string header = BigEndian(image.uiWidth) + BigEndian(image.uiHeight) + std::string("\x08\0\0\0\0", 5);
    return "\x89PNG\r\n\x1A\n" + Chunk("IHDR", header) + Chunk("IDAT", packed.toStdString()) + Chunk("IEND", {});
}

} // namespace Stimhost
