// A locale of the process whose numbers have a decimal comma, until the object is gone.
#pragma once

#include "tests/support/TemporaryFolder.h"

#include <string>

namespace QsTest {

class CDecimalComma
{
public:
    CDecimalComma();
    ~CDecimalComma();
    CDecimalComma(const CDecimalComma&) = delete;
    CDecimalComma& operator=(const CDecimalComma&) = delete;

    bool IsSet() const; // asked of the C library, by a number

private:
    CTemporaryFolder m_folder; // for what the system has not itself
    bool m_set = false;
};

} // namespace QsTest
