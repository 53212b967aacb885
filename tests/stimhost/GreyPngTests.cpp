// PNG files against the format's own rules.
#include "stimhost/GreyPng.h"

#include <gtest/gtest.h>

#include <QByteArray>

#include <string>
#include <vector>

namespace {

struct SChunk
{
    std::string type;
    std::string data;
    std::uint32_t crc = 0;
};

std::uint32_t BigEndian(const std::string& text, std::size_t at)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value = value << 8 | static_cast<unsigned char>(text.at(at + i));
    return value;
}

std::vector<SChunk> Chunks(const std::string& png)
{
    std::vector<SChunk> chunks;
    for (std::size_t at = 8; at < png.size();)
    {
        const std::size_t length = BigEndian(png, at);
        chunks.push_back({png.substr(at + 4, 4), png.substr(at + 8, length), BigEndian(png, at + 8 + length)});
        at += length + 12;
    }
    return chunks;
}

} // namespace

TEST(GreyPng, IsAPictureOfThePixels)
{
    SQsGrabberImage image;
    image.uiWidth = 3;
    image.uiHeight = 2;
    image.pixels = {0, 100, 580, 1060, 5000, 100};
    const std::string png = Stimhost::GreyPng(image, 100.0, 1060.0);
    EXPECT_EQ("\x89PNG\r\n\x1A\n", png.substr(0, 8));
    const std::vector<SChunk> chunks = Chunks(png);
    ASSERT_EQ(3u, chunks.size());
    EXPECT_EQ("IHDR", chunks[0].type);
    ASSERT_EQ(13u, chunks[0].data.size());
    EXPECT_EQ(3u, BigEndian(chunks[0].data, 0));
    EXPECT_EQ(2u, BigEndian(chunks[0].data, 4));
    EXPECT_EQ(std::string("\x08\0\0\0\0", 5), chunks[0].data.substr(8)); // 8 bits, grey
    EXPECT_EQ("IDAT", chunks[1].type);
    EXPECT_EQ("IEND", chunks[2].type);
    EXPECT_EQ(0xAE426082u, chunks[2].crc); // of an end, in every such file

    // Qt wants the length before the stream.
    const QByteArray packed = QByteArray(4, '\0') + QByteArray::fromStdString(chunks[1].data);
    QByteArray withLength = packed;
    withLength[3] = 8;
    const QByteArray rows = qUncompress(withLength);
    ASSERT_EQ(8, rows.size()); // each row after a byte for its filter
    EXPECT_EQ(0, rows[0]);
    EXPECT_EQ(0, rows[4]);
    const auto grey = [&](int i) { return static_cast<int>(static_cast<unsigned char>(rows[i])); };
    EXPECT_EQ(0, grey(1)); // below black
    EXPECT_EQ(0, grey(2));
    EXPECT_NEAR(127.5, grey(3), 1.0); // half way
    EXPECT_EQ(255, grey(5));
    EXPECT_EQ(255, grey(6)); // above white
    EXPECT_EQ(0, grey(7));
}
