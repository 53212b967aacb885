#include "plugins/PatternImage.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace {

constexpr std::size_t longestFile = std::size_t{256} << 20;

bool IsSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// The decimal numbers of the header and of the plain formats; comments run from # to the end of the line.
class CNumbers
{
public:
    CNumbers(const std::string& bytes, std::size_t position) : m_bytes(bytes), m_position(position) {}

    bool Next(std::uint32_t& value, std::uint32_t maximum)
    {
        SkipSpace();
        std::uint64_t number = 0;
        const std::size_t first = m_position;
        while (m_position < m_bytes.size() && IsDigit() && number <= maximum)
            number = number * 10 + static_cast<std::uint64_t>(m_bytes[m_position++] - '0');
        if (m_position == first || number > maximum)
            return false;
        value = static_cast<std::uint32_t>(number);
        return true;
    }

    // Plain bitmaps need no space between their digits.
    bool NextBit(bool& set)
    {
        SkipSpace();
        if (m_position >= m_bytes.size() || (m_bytes[m_position] != '0' && m_bytes[m_position] != '1'))
            return false;
        set = m_bytes[m_position++] == '1';
        return true;
    }

    // The one space between the header and the raw pixels.
    bool EndHeader()
    {
        if (m_position >= m_bytes.size() || !IsSpace(m_bytes[m_position]))
            return false;
        ++m_position;
        return true;
    }

    std::size_t Position() const { return m_position; }

private:
    bool IsDigit() const { return m_bytes[m_position] >= '0' && m_bytes[m_position] <= '9'; }

    void SkipSpace()
    {
        while (m_position < m_bytes.size() && (IsSpace(m_bytes[m_position]) || m_bytes[m_position] == '#'))
        {
            if (m_bytes[m_position] == '#')
                while (m_position < m_bytes.size() && m_bytes[m_position] != '\n')
                    ++m_position;
            else
                ++m_position;
        }
    }

    const std::string& m_bytes;
    std::size_t m_position;
};

bool Fail(std::string& error, const char* text)
{
    error = text;
    return false;
}

std::uint8_t Scaled(std::uint32_t value, std::uint32_t white)
{
    return static_cast<std::uint8_t>((value * 255u + white / 2) / white);
}

bool ReadPlain(CNumbers& numbers, bool bitmap, std::uint32_t white, std::vector<std::uint8_t>& pixels)
{
    for (std::uint8_t& pixel : pixels)
    {
        bool black = false;
        std::uint32_t value = 0;
        if (bitmap ? !numbers.NextBit(black) : !numbers.Next(value, white))
            return false;
        pixel = bitmap ? (black ? 0 : 255) : Scaled(value, white);
    }
    return true;
}

bool ReadRaw(const std::string& bytes, std::size_t position, bool bitmap, std::uint32_t white, SPatternImage& image)
{
    const std::size_t rowBytes = bitmap ? (image.width + 7) / 8 : std::size_t{image.width} * (white > 255 ? 2 : 1);
    if (bytes.size() - position < rowBytes * image.height)
        return false;
    const auto byteAt = [&bytes](std::size_t at) -> std::uint32_t { return static_cast<unsigned char>(bytes[at]); };
    for (std::size_t y = 0; y < image.height; ++y)
        for (std::size_t x = 0; x < image.width; ++x)
        {
            const std::size_t row = position + y * rowBytes;
            std::uint8_t& pixel = image.pixels[y * image.width + x];
            if (bitmap)
            {
                pixel = (byteAt(row + x / 8) >> (7 - x % 8) & 1u) != 0 ? 0 : 255;
                continue;
            }
            const std::uint32_t value =
                white > 255 ? byteAt(row + 2 * x) << 8 | byteAt(row + 2 * x + 1) : byteAt(row + x);
            if (value > white)
                return false;
            pixel = Scaled(value, white);
        }
    return true;
}

} // namespace

bool ParsePatternImage(const std::string& bytes, SPatternImage& image, std::string& error)
{
    const char kind = bytes.size() > 2 && bytes[0] == 'P' && (IsSpace(bytes[2]) || bytes[2] == '#') ? bytes[1] : '\0';
    if (kind != '1' && kind != '2' && kind != '4' && kind != '5')
        return Fail(error, "expected a portable bitmap or graymap, found something else");
    const bool bitmap = kind == '1' || kind == '4';
    CNumbers numbers(bytes, 2);
    SPatternImage result;
    std::uint32_t white = 1;
    constexpr std::uint32_t anySide = 1000000000;
    if (!numbers.Next(result.width, anySide) || !numbers.Next(result.height, anySide) ||
        (!bitmap && !numbers.Next(white, 65535)) || result.width == 0 || result.height == 0 || white == 0)
        return Fail(error, "expected the image's width, height and white value, found none");
    if (result.width > SPatternImage::s_longestSide || result.height > SPatternImage::s_longestSide)
        return Fail(error, "expected an image of at most 8192 x 8192 pixels, found a larger one");
    const bool plain = kind == '1' || kind == '2';
    if (!plain && !numbers.EndHeader())
        return Fail(error, "expected pixels after the image's header, found none");
    // A plain pixel takes a byte of the file at least, so a short file cannot ask for much memory.
    if (plain && bytes.size() / result.width < result.height)
        return Fail(error, "expected a pixel for every place of the image, found too few");
    if (!plain && (bytes.size() * 8) / result.width < result.height)
        return Fail(error, "expected a pixel for every place of the image, found too few");
    result.pixels.resize(std::size_t{result.width} * result.height);
    if (plain ? !ReadPlain(numbers, bitmap, white, result.pixels)
              : !ReadRaw(bytes, numbers.Position(), bitmap, white, result))
        return Fail(error, "expected a pixel for every place of the image, found too few or a wrong one");
    image = std::move(result);
    return true;
}

bool ReadPatternImage(const std::string& path, SPatternImage& image, std::string& error)
{
    std::error_code fault;
    const std::filesystem::path file = std::filesystem::u8path(path);
    const std::uintmax_t size = std::filesystem::file_size(file, fault);
    if (fault)
        return Fail(error, "expected an image file, found none");
    if (size > longestFile)
        return Fail(error, "expected an image file of at most 256 MiB, found a longer one");
    std::ifstream stream(file, std::ios::binary);
    std::string bytes(static_cast<std::size_t>(size), '\0');
    stream.read(&bytes[0], static_cast<std::streamsize>(size));
    if (!stream)
        return Fail(error, "expected an image file that can be read, found another");
    return ParsePatternImage(bytes, image, error);
}

bool PlacePatternImage(const SPatternImage& image, std::uint32_t width, std::uint32_t height, bool oneToOne,
                       SPatternImage& placed)
{
    if (oneToOne && (image.width > width || image.height > height))
        return false;
    placed = {width, height, std::vector<std::uint8_t>(std::size_t{width} * height, 0)};
    const std::uint32_t columns = oneToOne ? image.width : width;
    const std::uint32_t rows = oneToOne ? image.height : height;
    for (std::size_t y = 0; y < rows; ++y)
        for (std::size_t x = 0; x < columns; ++x)
        {
            const std::size_t sourceX = oneToOne ? x : x * image.width / width;
            const std::size_t sourceY = oneToOne ? y : y * image.height / height;
            placed.pixels[y * width + x] = image.pixels[sourceY * image.width + sourceX];
        }
    return true;
}
