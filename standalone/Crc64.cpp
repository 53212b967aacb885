#include "standalone/Crc64.h"

#include <array>

namespace {

constexpr std::size_t strideBytes = 16;
using Tables = std::array<std::array<std::uint64_t, 256>, strideBytes>;

// Table k advances a byte by k further bytes, so that sixteen bytes are taken in one step.
constexpr Tables MakeTables()
{
    constexpr std::uint64_t reflectedPolynomial = 0xC96C5795D7870F42u;
    Tables tables{};
    for (std::uint64_t byte = 0; byte < 256; ++byte)
    {
        std::uint64_t sum = byte;
        for (int bit = 0; bit < 8; ++bit)
            sum = (sum >> 1) ^ ((sum & 1) != 0 ? reflectedPolynomial : 0);
        tables[0][byte] = sum;
    }
    for (std::size_t k = 1; k < strideBytes; ++k)
        for (std::size_t byte = 0; byte < 256; ++byte)
            tables[k][byte] = (tables[k - 1][byte] >> 8) ^ tables[0][tables[k - 1][byte] & 0xFF];
    return tables;
}

constexpr Tables s_tables = MakeTables();

inline std::uint64_t Word(const unsigned char* byte) // little-endian on every system
{
    return std::uint64_t{byte[0]} | std::uint64_t{byte[1]} << 8 | std::uint64_t{byte[2]} << 16 |
           std::uint64_t{byte[3]} << 24 | std::uint64_t{byte[4]} << 32 | std::uint64_t{byte[5]} << 40 |
           std::uint64_t{byte[6]} << 48 | std::uint64_t{byte[7]} << 56;
}

template <std::size_t Behind> // bytes of the stride that follow the word
inline std::uint64_t Advanced(std::uint64_t word)
{
    return s_tables[Behind + 7][word & 0xFF] ^ s_tables[Behind + 6][(word >> 8) & 0xFF] ^
           s_tables[Behind + 5][(word >> 16) & 0xFF] ^ s_tables[Behind + 4][(word >> 24) & 0xFF] ^
           s_tables[Behind + 3][(word >> 32) & 0xFF] ^ s_tables[Behind + 2][(word >> 40) & 0xFF] ^
           s_tables[Behind + 1][(word >> 48) & 0xFF] ^ s_tables[Behind][word >> 56];
}

} // namespace

std::uint64_t QsStandalone::Crc64(const void* bytes, std::size_t count)
{
    const auto* byte = static_cast<const unsigned char*>(bytes);
    std::uint64_t sum = ~std::uint64_t{0};
    for (; count >= strideBytes; count -= strideBytes, byte += strideBytes)
        sum = Advanced<8>(Word(byte) ^ sum) ^ Advanced<0>(Word(byte + 8));
    for (; count > 0; --count, ++byte)
        sum = (sum >> 8) ^ s_tables[0][(sum ^ *byte) & 0xFF];
    return ~sum;
}
