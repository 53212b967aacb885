// Host strings: order by UTF-16 code units, UTF-8 both ways, numbers out of text.
#include "host/QsSystem.h"
#include "platform/Utf16.h"

#include <charconv>
#include <cstring>
#include <cwchar>
#include <limits>

// Programs that take a reference to such a constant import it, so the library must have it as an object.
constexpr std::size_t CQsStringW::npos;

namespace {

const wchar_t* TextOrEmpty(const wchar_t* text)
{
    return text != nullptr ? text : L"";
}

constexpr std::uint32_t replacement = 0xFFFD;

// UTF-16 code units of wide text, one after the other, without a copy. -1 at the end.
class CUnits
{
public:
    CUnits(const wchar_t* text, std::size_t length) : m_text(text), m_end(text + length) {}

    std::int32_t Next()
    {
        if (m_low != 0)
        {
            const std::int32_t low = m_low;
            m_low = 0;
            return low;
        }
        if (m_text == m_end)
            return -1;
        const auto code = static_cast<std::uint32_t>(*m_text++);
        if (sizeof(wchar_t) == 2)
            return static_cast<std::int32_t>(code & 0xFFFFu);
        if (code > 0x10FFFF)
            return static_cast<std::int32_t>(replacement);
        if (code <= 0xFFFF)
            return static_cast<std::int32_t>(code);
        m_low = static_cast<std::int32_t>(0xDC00 + ((code - 0x10000) & 0x3FF));
        return static_cast<std::int32_t>(0xD800 + ((code - 0x10000) >> 10));
    }

private:
    const wchar_t* m_text;
    const wchar_t* m_end;
    std::int32_t m_low = 0;
};

int CompareUnits(const wchar_t* a, std::size_t aLength, const wchar_t* b, std::size_t bLength) noexcept
{
    const std::size_t common = aLength < bLength ? aLength : bLength;
    std::size_t i = 0;
    while (i < common && a[i] == b[i])
        ++i;
    if (i == common)
        return aLength == bLength ? 0 : (aLength < bLength ? -1 : 1);

    const auto codeA = static_cast<std::uint32_t>(a[i]);
    const auto codeB = static_cast<std::uint32_t>(b[i]);
    if (sizeof(wchar_t) == 2 || (codeA <= 0xFFFF && codeB <= 0xFFFF))
        return codeA < codeB ? -1 : 1;

    // A character beyond the basic plane stands for two units, and may even equal two lone surrogates.
    CUnits unitsA(a + i, aLength - i);
    CUnits unitsB(b + i, bLength - i);
    for (;;)
    {
        const std::int32_t unitA = unitsA.Next();
        const std::int32_t unitB = unitsB.Next();
        if (unitA != unitB)
            return unitA < unitB ? -1 : 1;
        if (unitA < 0)
            return 0;
    }
}

void AppendUtf8(std::string& bytes, std::uint32_t code)
{
    const auto put = [&bytes](std::uint32_t byte) { bytes += static_cast<char>(static_cast<unsigned char>(byte)); };
    if (code < 0x80)
        put(code);
    else if (code < 0x800)
    {
        put(0xC0 | (code >> 6));
        put(0x80 | (code & 0x3F));
    }
    else if (code < 0x10000)
    {
        put(0xE0 | (code >> 12));
        put(0x80 | ((code >> 6) & 0x3F));
        put(0x80 | (code & 0x3F));
    }
    else
    {
        put(0xF0 | (code >> 18));
        put(0x80 | ((code >> 12) & 0x3F));
        put(0x80 | ((code >> 6) & 0x3F));
        put(0x80 | (code & 0x3F));
    }
}

// The character that begins at `position`, which moves behind it; behind the longest well-formed beginning of one when
// it is malformed.
std::uint32_t NextUtf8(const std::string& text, std::size_t& position)
{
    const auto at = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const std::uint32_t lead = at(position++);
    if (lead < 0x80)
        return lead;
    if (lead < 0xC2 || lead > 0xF4)
        return replacement;

    const int trailing = lead < 0xE0 ? 1 : (lead < 0xF0 ? 2 : 3);
    std::uint32_t code = lead & (0x3Fu >> trailing);
    for (int i = 0; i < trailing; ++i)
    {
        // The first trailing byte decides on overlong forms, surrogates and codes beyond the last plane.
        unsigned lowest = 0x80;
        unsigned highest = 0xBF;
        if (i == 0)
        {
            lowest = lead == 0xE0 ? 0xA0 : (lead == 0xF0 ? 0x90 : lowest);
            highest = lead == 0xED ? 0x9F : (lead == 0xF4 ? 0x8F : highest);
        }
        if (position == text.size() || at(position) < lowest || at(position) > highest)
            return replacement;
        code = (code << 6) | (at(position++) & 0x3Fu);
    }
    return code;
}

bool IsBlank(wchar_t c)
{
    return c == L' ' || (c >= L'\t' && c <= L'\r');
}

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

// Power of ten of the first digit that is not 0, of a number as from_chars has matched it.
long long MagnitudeOf(const char* text, const char* end)
{
    const char* exponent = text;
    while (exponent != end && *exponent != 'e' && *exponent != 'E')
        ++exponent;
    const char* point = text;
    while (point != exponent && *point != '.')
        ++point;
    const char* first = text;
    while (first != exponent && (*first < '1' || *first > '9'))
        ++first;

    long long power = 0;
    if (exponent != end)
    {
        const char* digits = exponent + 1 + (exponent[1] == '+' ? 1 : 0);
        const bool negative = *digits == '-';
        if (std::from_chars(digits, end, power).ec != std::errc())
            power = negative ? -std::numeric_limits<int>::max() : std::numeric_limits<int>::max();
    }
    return power + (point - first);
}

} // namespace

// --------------------------------------------------------------------------------------------------------- CQsStringW

CQsStringW::CQsStringW(const wchar_t* text) : m_text(TextOrEmpty(text)) {}

CQsStringW::CQsStringW(const wchar_t* text, std::size_t length)
{
    if (text != nullptr)
        m_text.assign(text, length);
}

int CQsStringW::Compare(const wchar_t* text) const noexcept
{
    const wchar_t* const other = TextOrEmpty(text);
    return CompareUnits(m_text.data(), m_text.size(), other, std::wcslen(other));
}

int CQsStringW::Compare(const CQsStringW& text) const noexcept
{
    return CompareUnits(m_text.data(), m_text.size(), text.m_text.data(), text.m_text.size());
}

std::size_t CQsStringW::Find(const wchar_t* text, std::size_t from) const noexcept
{
    return m_text.find(TextOrEmpty(text), from);
}

CQsStringW& CQsStringW::operator+=(const CQsStringW& text)
{
    m_text += text.m_text;
    return *this;
}

CQsStringW& CQsStringW::operator+=(const wchar_t* text)
{
    m_text += TextOrEmpty(text);
    return *this;
}

std::string CQsStringW::ToUtf8() const
{
    std::string bytes;
    bytes.reserve(m_text.size());
    CUnits units(m_text.data(), m_text.size());
    for (std::int32_t unit = units.Next(); unit >= 0;)
    {
        std::int32_t next = units.Next();
        if (unit >= 0xD800 && unit < 0xDC00 && next >= 0xDC00 && next < 0xE000)
        {
            AppendUtf8(bytes, 0x10000u + (static_cast<std::uint32_t>(unit - 0xD800) << 10) +
                                  static_cast<std::uint32_t>(next - 0xDC00));
            next = units.Next();
        }
        else
            AppendUtf8(bytes, unit >= 0xD800 && unit < 0xE000 ? replacement : static_cast<std::uint32_t>(unit));
        unit = next;
    }
    return bytes;
}

CQsStringW CQsStringW::FromUtf8(const std::string& text)
{
    std::wstring wide;
    wide.reserve(text.size());
    for (std::size_t position = 0; position < text.size();)
    {
        const std::uint32_t code = NextUtf8(text, position);
        if (sizeof(wchar_t) == 2 && code > 0xFFFF)
        {
            wide += static_cast<wchar_t>(0xD800 + ((code - 0x10000) >> 10));
            wide += static_cast<wchar_t>(0xDC00 + ((code - 0x10000) & 0x3FF));
        }
        else
            wide += static_cast<wchar_t>(code);
    }
    return CQsStringW(std::move(wide));
}

// ------------------------------------------------------------------------------------------------ numbers out of text

bool QS_StringToDouble(const wchar_t* text, double& value)
{
    const wchar_t* c = TextOrEmpty(text);
    while (IsBlank(*c))
        ++c;
    const bool negative = *c == L'-';
    if (*c == L'-' || *c == L'+')
        ++c;

    // Only characters that a number may hold, so that "inf" and "nan" are none.
    std::string number;
    for (; (*c >= L'0' && *c <= L'9') || *c == L'.' || *c == L'e' || *c == L'E' || *c == L'+' || *c == L'-'; ++c)
        number += static_cast<char>(*c);
    const bool starts = !number.empty() && (IsDigit(number[0]) || (number[0] == '.' && IsDigit(number.c_str()[1])));
    if (!starts)
        return false;

    double parsed = 0.0;
    const auto result = std::from_chars(number.data(), number.data() + number.size(), parsed);
    if (result.ec == std::errc::result_out_of_range)
    {
        if (MagnitudeOf(number.data(), result.ptr) > 0)
            return false; // no double is that large
        parsed = 0.0;
    }
    else if (result.ec != std::errc())
        return false;
    value = negative ? -parsed : parsed;
    return true;
}

int QS_wtoi(const wchar_t* text)
{
    const wchar_t* c = TextOrEmpty(text);
    while (IsBlank(*c))
        ++c;
    const bool negative = *c == L'-';
    if (*c == L'-' || *c == L'+')
        ++c;
    constexpr long long most = std::numeric_limits<int>::max();
    long long number = 0;
    for (; *c >= L'0' && *c <= L'9'; ++c)
    {
        number = number * 10 + (*c - L'0');
        if (number > most)
            return negative ? std::numeric_limits<int>::min() : std::numeric_limits<int>::max();
    }
    return static_cast<int>(negative ? -number : number);
}
