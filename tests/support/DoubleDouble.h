// Arithmetic with about 31 significant digits, for expected values that owe nothing to the arithmetic under test.
//
//   CDoubleDouble   a number as the unevaluated sum of two doubles. Finite values only.
//   CTracked        such a number together with the size of what was added up to it: when large terms cancel, a
//                   computation in doubles errs on their scale and not on that of the small result.
#pragma once

#include <array>
#include <cmath>
#include <cstddef>

namespace QsTest {

class CDoubleDouble
{
public:
    constexpr CDoubleDouble(double value = 0.0) : m_high(value) {}
    // high + low, whatever their sizes.
    static CDoubleDouble Sum(double high, double low)
    {
        const double s = high + low;
        const double b = s - high;
        return CDoubleDouble(s, (high - (s - b)) + (low - b));
    }
    // a * b without rounding, from halves whose products are exact; for factors below 1e290. Not every C library's
    // multiply-add is exact.
    static CDoubleDouble Product(double a, double b)
    {
        const auto upperHalf = [](double x)
        {
            const double scaled = x * 134217729.0; // 2^27 + 1
            return scaled - (scaled - x);
        };
        const double p = a * b;
        const double aHigh = upperHalf(a), aLow = a - aHigh;
        const double bHigh = upperHalf(b), bLow = b - bHigh;
        return CDoubleDouble(p, ((aHigh * bHigh - p) + aHigh * bLow + aLow * bHigh) + aLow * bLow);
    }
    // Decimal digits with an optional sign and point: "-12.5".
    static CDoubleDouble FromText(const char* text)
    {
        const bool bNegative = *text == '-';
        CDoubleDouble value;
        CDoubleDouble divisor(1.0);
        bool bFraction = false;
        for (text += bNegative ? 1 : 0; *text != '\0'; ++text)
        {
            if (*text == '.')
            {
                bFraction = true;
                continue;
            }
            value = value * CDoubleDouble(10.0) + CDoubleDouble(static_cast<double>(*text - '0'));
            if (bFraction)
                divisor = divisor * CDoubleDouble(10.0);
        }
        value = value / divisor;
        return bNegative ? -value : value;
    }

    double High() const { return m_high; } // the nearest double
    double Low() const { return m_low; }

    friend CDoubleDouble operator-(const CDoubleDouble& a) { return CDoubleDouble(-a.m_high, -a.m_low); }
    friend CDoubleDouble operator+(const CDoubleDouble& a, const CDoubleDouble& b)
    {
        const CDoubleDouble high = Sum(a.m_high, b.m_high);
        const CDoubleDouble low = Sum(a.m_low, b.m_low);
        const CDoubleDouble middle = Sum(high.m_high, high.m_low + low.m_high);
        return Sum(middle.m_high, middle.m_low + low.m_low);
    }
    friend CDoubleDouble operator-(const CDoubleDouble& a, const CDoubleDouble& b) { return a + -b; }
    friend CDoubleDouble operator*(const CDoubleDouble& a, const CDoubleDouble& b)
    {
        const CDoubleDouble p = Product(a.m_high, b.m_high);
        return Sum(p.m_high, p.m_low + (a.m_high * b.m_low + a.m_low * b.m_high));
    }
    // Long division, three digits in base 2^53.
    friend CDoubleDouble operator/(const CDoubleDouble& a, const CDoubleDouble& b)
    {
        const double q1 = a.m_high / b.m_high;
        CDoubleDouble rest = a - b * CDoubleDouble(q1);
        const double q2 = rest.m_high / b.m_high;
        rest = rest - b * CDoubleDouble(q2);
        const double q3 = rest.m_high / b.m_high;
        return Sum(q1, q2) + CDoubleDouble(q3);
    }
    friend bool operator<(const CDoubleDouble& a, const CDoubleDouble& b)
    {
        return a.m_high < b.m_high || (a.m_high == b.m_high && a.m_low < b.m_low);
    }

    friend CDoubleDouble Abs(const CDoubleDouble& a) { return a < CDoubleDouble(0.0) ? -a : a; }

    // Sine and cosine of up to a few hundred turns [rad].
    static void SinCos(const CDoubleDouble& angle, CDoubleDouble& sine, CDoubleDouble& cosine)
    {
        // A quarter turn in three parts; the first two hold 106 bits.
        static const CDoubleDouble s_quarter(1.5707963267948966, 6.123233995736766e-17);
        constexpr double s_quarterRest = -1.4973849048591833e-33;
        const double quarters = std::nearbyint(angle.m_high / s_quarter.m_high);
        const CDoubleDouble x = angle - s_quarter * CDoubleDouble(quarters) - CDoubleDouble(s_quarterRest * quarters);
        // |x| is at most an eighth of a turn: the terms after x^27/27! are below 1e-32.
        static const std::array<CDoubleDouble, 28> s_inverseFactorials = []
        {
            std::array<CDoubleDouble, 28> table;
            CDoubleDouble factorial(1.0);
            for (std::size_t n = 0; n < table.size(); ++n)
            {
                factorial = n == 0 ? factorial : factorial * CDoubleDouble(static_cast<double>(n));
                table[n] = CDoubleDouble(1.0) / factorial;
            }
            return table;
        }();
        const CDoubleDouble x2 = x * x;
        CDoubleDouble s;
        CDoubleDouble c;
        for (std::size_t n = s_inverseFactorials.size(); n >= 2; n -= 2)
        {
            s = s_inverseFactorials[n - 1] - s * x2;
            c = s_inverseFactorials[n - 2] - c * x2;
        }
        s = s * x;
        const int quadrant = static_cast<int>(quarters - 4.0 * std::floor(quarters / 4.0));
        sine = quadrant == 0 ? s : quadrant == 1 ? c : quadrant == 2 ? -s : -c;
        cosine = quadrant == 0 ? c : quadrant == 1 ? -s : quadrant == 2 ? -c : s;
    }

private:
    constexpr CDoubleDouble(double high, double low) : m_high(high), m_low(low) {}

    double m_high = 0.0;
    double m_low = 0.0;
};

class CTracked
{
public:
    CTracked(double value = 0.0) : m_value(value), m_scale(std::fabs(value)) {}

    const CDoubleDouble& Value() const { return m_value; }
    double ToDouble() const { return m_value.High(); }
    double Scale() const { return m_scale; }

    // `got` is the value to `tolerance` of its scale. False for NaN and infinities.
    bool Agrees(double got, double tolerance) const
    {
        return std::isfinite(got) && std::fabs((CDoubleDouble(got) - m_value).High()) <= tolerance * m_scale;
    }

    friend CTracked operator-(const CTracked& a) { return {-a.m_value, a.m_scale}; }
    friend CTracked operator+(const CTracked& a, const CTracked& b)
    {
        return {a.m_value + b.m_value, a.m_scale + b.m_scale};
    }
    friend CTracked operator-(const CTracked& a, const CTracked& b) { return a + -b; }
    friend CTracked operator*(const CTracked& a, const CTracked& b)
    {
        return {a.m_value * b.m_value, a.m_scale * b.m_scale};
    }
    friend CTracked operator/(const CTracked& a, const CTracked& b)
    {
        const double divisor = b.m_value.High();
        return {a.m_value / b.m_value, a.m_scale * b.m_scale / (divisor * divisor)};
    }
    friend bool operator<(const CTracked& a, const CTracked& b) { return a.m_value < b.m_value; }
    friend CTracked Abs(const CTracked& a) { return {Abs(a.m_value), a.m_scale}; }

    // Slopes are at most 1, so an error of the angle comes out as one of the same size.
    static void SinCos(const CTracked& angle, CTracked& sine, CTracked& cosine)
    {
        CDoubleDouble::SinCos(angle.m_value, sine.m_value, cosine.m_value);
        sine.m_scale = cosine.m_scale = std::fmax(1.0, angle.m_scale);
    }

private:
    CTracked(const CDoubleDouble& value, double scale) : m_value(value), m_scale(scale) {}

    CDoubleDouble m_value;
    double m_scale = 0.0;
};

} // namespace QsTest
