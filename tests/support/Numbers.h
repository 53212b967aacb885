// Numbers that a test expects: poisoned outputs, and matchers that say which number is off. No matcher lets NaN
// through.
#pragma once

#include "host/QsSystem.h"

#include <gmock/gmock.h>

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace QsTest {

using Matrix3 = std::array<double, 9>; // 3x3 row-major

// What outputs hold before a call: a value that no computation here yields.
constexpr double s_unwritten = -7.25e77;

inline Matrix3 UnwrittenMatrix3()
{
    Matrix3 m;
    m.fill(s_unwritten);
    return m;
}

inline std::vector<double> Numbers(const CQsPointBase<double>& p)
{
    return {p.x, p.y};
}
inline std::vector<double> Numbers(const CQsSizeBase<double>& s)
{
    return {s.cx, s.cy};
}
inline std::vector<double> Numbers(const CQsRectBase<double>& r)
{
    return {r.left, r.top, r.right, r.bottom};
}

// Compares numbers one by one.
class CNumbersMatcher
{
public:
    // Whether a number agrees; the third one is the largest of those expected.
    using Agrees = std::function<bool(double expected, double got, double largest)>;

    CNumbersMatcher(std::vector<double> expected, std::size_t columns, std::string what, Agrees agrees)
        : m_expected(std::move(expected)), m_columns(columns), m_what(std::move(what)), m_agrees(std::move(agrees))
    {}

    template <class Container>
    bool MatchAndExplain(const Container& got, testing::MatchResultListener* listener) const
    {
        if (got.size() != m_expected.size())
        {
            *listener << got.size() << " numbers instead of " << m_expected.size();
            return false;
        }
        double largest = 0.0;
        for (const double number : m_expected)
            largest = std::fmax(largest, std::fabs(number));
        bool bAll = true;
        for (std::size_t i = 0; i < got.size(); ++i)
        {
            if (m_agrees(m_expected[i], got[i], largest))
                continue;
            *listener << (bAll ? "" : "; ");
            if (m_columns > 1)
                *listener << "row " << i / m_columns << ", column " << i % m_columns;
            else
                *listener << "number " << i;
            *listener << ": expected " << Text(m_expected[i]) << ", got " << Text(got[i]);
            bAll = false;
        }
        return bAll;
    }

    void DescribeTo(std::ostream* stream) const { *stream << m_what << List(); }
    void DescribeNegationTo(std::ostream* stream) const { *stream << "not " << m_what << List(); }

private:
    static std::string Text(double number)
    {
        char text[32];
        std::snprintf(text, sizeof text, "%.17g", number);
        return text;
    }
    std::string List() const
    {
        std::string list;
        for (const double number : m_expected)
            list += " " + Text(number);
        return list;
    }

    std::vector<double> m_expected;
    std::size_t m_columns;
    std::string m_what;
    Agrees m_agrees;
};

// Each number is at most `tolerance` off. An infinity agrees with itself.
inline auto AreNear(std::vector<double> expected, double tolerance, std::size_t columns = 1)
{
    return testing::MakePolymorphicMatcher(CNumbersMatcher(std::move(expected), columns, "near",
                                                           [tolerance](double wanted, double got, double) {
                                                               return wanted == got ||
                                                                      std::fabs(wanted - got) <= tolerance;
                                                           }));
}

// Each number agrees with the one of the reference values to 1e-9 of its own size; where that one is 0, to 1e-12 of the
// largest beside it, and at least of 1.
inline auto AreReference(std::vector<double> expected, std::size_t columns = 1)
{
    return testing::MakePolymorphicMatcher(CNumbersMatcher(
        std::move(expected), columns, "the reference values",
        [](double wanted, double got, double largest)
        {
            const double tolerance = wanted != 0.0 ? 1e-9 * std::fabs(wanted) : 1e-12 * std::fmax(largest, 1.0);
            return wanted == got || (std::isfinite(wanted) && std::fabs(wanted - got) <= tolerance);
        }));
}

inline auto IsNearMatrix3(const Matrix3& expected, double tolerance)
{
    return AreNear({expected.begin(), expected.end()}, tolerance, 3);
}
inline auto IsReferenceMatrix3(const Matrix3& expected)
{
    return AreReference({expected.begin(), expected.end()}, 3);
}
inline auto IsUnwrittenMatrix3()
{
    return IsNearMatrix3(UnwrittenMatrix3(), 0.0);
}

} // namespace QsTest
