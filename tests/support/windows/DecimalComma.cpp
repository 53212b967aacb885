#include "tests/support/DecimalComma.h"

#include <clocale>

namespace QsTest {

CDecimalComma::CDecimalComma() : m_set(std::setlocale(LC_NUMERIC, "German_Germany.1252") != nullptr) {}

} // namespace QsTest
