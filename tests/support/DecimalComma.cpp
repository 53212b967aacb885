#include "tests/support/DecimalComma.h"

#include <clocale>
#include <cstdio>

namespace QsTest {

CDecimalComma::~CDecimalComma()
{
    std::setlocale(LC_NUMERIC, "C");
}

bool CDecimalComma::IsSet() const
{
    char text[16] = {};
    std::snprintf(text, sizeof text, "%.2f", 1.5);
    return m_set && std::string(text) == "1,50";
}

} // namespace QsTest
