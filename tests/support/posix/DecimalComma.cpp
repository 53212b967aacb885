// The locale is made here because a bare system has none: the C library's file of the numeric category with its two
// texts, its grouping, the same two as wide characters and the name of the code set.
#include "tests/support/DecimalComma.h"

#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>

namespace QsTest {
namespace {

std::string Numbers(std::initializer_list<std::uint32_t> numbers)
{
    std::string bytes;
    for (const std::uint32_t number : numbers)
        for (unsigned shift = 0; shift < 32; shift += 8)
            bytes += static_cast<char>(number >> shift & 0xFF);
    return bytes;
}

} // namespace

CDecimalComma::CDecimalComma()
{
    std::string file = Numbers({0x20031114, 6, 32, 34, 36, 40, 44, 48});
    file += std::string(",\0.\0\3\3\0\0", 8) + Numbers({',', '.'}) + std::string("ANSI_X3.4-1968\0", 15);
    std::filesystem::create_directory(m_folder.File("comma"));
    m_folder.Write("comma/LC_NUMERIC", file);
    setenv("LOCPATH", m_folder.Path().c_str(), 1);
    m_set = std::setlocale(LC_NUMERIC, "comma") != nullptr;
}

} // namespace QsTest
