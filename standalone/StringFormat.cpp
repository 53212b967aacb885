// printf-style formatting with one meaning on every system, whatever locale the process has set.
//
// The C library's wide formatting differs between systems in what %s means and follows the locale in numbers, so none
// of it is used. An unknown conversion is copied as it stands and takes no argument.
#include "host/QsSystem.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <cwchar>

namespace {

enum class ELength
{
    Int,
    Char,
    Short,
    Long,
    LongLong,
    Size,
    LongDouble
};

struct SConversion
{
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zero = false;
    std::size_t width = 0;
    bool hasPrecision = false;
    std::size_t precision = 0;
    ELength length = ELength::Int;
    wchar_t type = 0;
};

class CFormatter
{
public:
    CFormatter(const wchar_t* format, std::va_list arguments) : m_format(format) { va_copy(m_arguments, arguments); }
    ~CFormatter() { va_end(m_arguments); }
    CFormatter(const CFormatter&) = delete;
    CFormatter& operator=(const CFormatter&) = delete;

    std::wstring Run()
    {
        for (;;)
        {
            const wchar_t* const percent = std::wcschr(m_format, L'%');
            if (percent == nullptr)
            {
                m_out += m_format;
                return std::move(m_out);
            }
            m_out.append(m_format, percent);
            m_format = percent + 1;
            const SConversion conversion = ReadConversion();
            if (!Convert(conversion))
                m_out.append(percent, m_format);
        }
    }

private:
    // ---- reading the conversion

    std::size_t ReadNumber()
    {
        std::size_t number = 0;
        for (; *m_format >= L'0' && *m_format <= L'9'; ++m_format)
            number = std::min<std::size_t>(number * 10 + static_cast<std::size_t>(*m_format - L'0'), 0x7FFFFFFF);
        return number;
    }

    bool ReadFlag(SConversion& c)
    {
        switch (*m_format)
        {
        case L'-':
            return c.left = true;
        case L'+':
            return c.plus = true;
        case L' ':
            return c.space = true;
        case L'#':
            return c.alternate = true;
        case L'0':
            return c.zero = true;
        default:
            return false;
        }
    }

    bool Skip(const wchar_t* text)
    {
        const std::size_t length = std::wcslen(text);
        if (std::wcsncmp(m_format, text, length) != 0)
            return false;
        m_format += length;
        return true;
    }

    SConversion ReadConversion()
    {
        SConversion c;
        while (ReadFlag(c))
            ++m_format;
        if (Skip(L"*"))
        {
            const int width = va_arg(m_arguments, int);
            c.left = c.left || width < 0;
            c.width = width < 0 ? std::size_t{0} - static_cast<std::size_t>(width) : static_cast<std::size_t>(width);
        }
        else
            c.width = ReadNumber();
        if (Skip(L"."))
        {
            c.hasPrecision = true;
            if (Skip(L"*"))
            {
                const int precision = va_arg(m_arguments, int);
                c.hasPrecision = precision >= 0; // a negative one is as if it were not there
                c.precision = c.hasPrecision ? static_cast<std::size_t>(precision) : 0;
            }
            else
                c.precision = ReadNumber();
        }
        if (Skip(L"hh"))
            c.length = ELength::Char;
        else if (Skip(L"h"))
            c.length = ELength::Short;
        else if (Skip(L"ll") || Skip(L"I64") || Skip(L"j"))
            c.length = ELength::LongLong;
        else if (Skip(L"l"))
            c.length = ELength::Long;
        else if (Skip(L"z") || Skip(L"t"))
            c.length = ELength::Size;
        else if (Skip(L"L"))
            c.length = ELength::LongDouble;
        else
            Skip(L"I32");
        c.type = *m_format;
        if (c.type != 0)
            ++m_format;
        return c;
    }

    // ---- writing

    bool Convert(const SConversion& c)
    {
        switch (c.type)
        {
        case L'%':
            m_out += L'%';
            return true;
        case L'd':
        case L'i':
            PutSigned(c);
            return true;
        case L'u':
        case L'x':
        case L'X':
            PutInteger(c, ReadUnsigned(c.length), L"");
            return true;
        case L'p':
            PutPointer(c);
            return true;
        case L'c':
        case L'C':
            PutCharacter(c);
            return true;
        case L's':
            c.length == ELength::Short ? PutNarrow(c) : PutWide(c);
            return true;
        case L'S':
            c.length == ELength::Long ? PutWide(c) : PutNarrow(c);
            return true;
        case L'f':
        case L'F':
        case L'e':
        case L'E':
        case L'g':
        case L'G':
            PutDouble(c);
            return true;
        default:
            return false;
        }
    }

    // `sign` stands before the zeros that fill up to the width, blanks before the sign.
    void Pad(const SConversion& c, const std::wstring& sign, const std::wstring& body, bool zeros)
    {
        const std::size_t length = sign.size() + body.size();
        const std::size_t fill = c.width > length ? c.width - length : 0;
        if (!c.left && !zeros)
            m_out.append(fill, L' ');
        m_out += sign;
        if (!c.left && zeros)
            m_out.append(fill, L'0');
        m_out += body;
        if (c.left)
            m_out.append(fill, L' ');
    }

    long long ReadSigned(ELength length)
    {
        switch (length)
        {
        case ELength::Char:
            return static_cast<signed char>(va_arg(m_arguments, int));
        case ELength::Short:
            return static_cast<short>(va_arg(m_arguments, int));
        case ELength::Long:
            return va_arg(m_arguments, long);
        case ELength::LongLong:
            return va_arg(m_arguments, long long);
        case ELength::Size:
            return va_arg(m_arguments, std::ptrdiff_t);
        default:
            return va_arg(m_arguments, int);
        }
    }

    unsigned long long ReadUnsigned(ELength length)
    {
        switch (length)
        {
        case ELength::Char:
            return static_cast<unsigned char>(va_arg(m_arguments, unsigned));
        case ELength::Short:
            return static_cast<unsigned short>(va_arg(m_arguments, unsigned));
        case ELength::Long:
            return va_arg(m_arguments, unsigned long);
        case ELength::LongLong:
            return va_arg(m_arguments, unsigned long long);
        case ELength::Size:
            return va_arg(m_arguments, std::size_t);
        default:
            return va_arg(m_arguments, unsigned);
        }
    }

    static std::wstring SignOf(const SConversion& c, bool negative)
    {
        return negative ? L"-" : (c.plus ? L"+" : (c.space ? L" " : L""));
    }

    void PutSigned(const SConversion& c)
    {
        const long long number = ReadSigned(c.length);
        const auto bits = static_cast<unsigned long long>(number);
        PutInteger(c, number < 0 ? 0ull - bits : bits, SignOf(c, number < 0));
    }

    void PutInteger(const SConversion& c, unsigned long long number, std::wstring sign)
    {
        const bool hex = c.type == L'x' || c.type == L'X';
        char digits[24];
        char* const end = std::to_chars(digits, digits + sizeof digits, number, hex ? 16 : 10).ptr;
        std::wstring body(digits, end);
        if (number == 0 && c.hasPrecision && c.precision == 0)
            body.clear();
        if (c.type == L'X')
            MakeUpper(body);
        if (c.hasPrecision && body.size() < c.precision)
            body.insert(0, c.precision - body.size(), L'0');
        if (hex && c.alternate && number != 0)
            sign += c.type == L'x' ? L"0x" : L"0X";
        Pad(c, sign, body, c.zero && !c.hasPrecision);
    }

    // All digits of an address, in capitals.
    void PutPointer(SConversion c)
    {
        const auto address = reinterpret_cast<std::uintptr_t>(va_arg(m_arguments, void*));
        c.type = L'X';
        c.alternate = false;
        c.hasPrecision = true;
        c.precision = 2 * sizeof(void*);
        PutInteger(c, address, L"");
    }

    void PutCharacter(const SConversion& c)
    {
        const bool narrow = c.type == L'c' ? c.length == ELength::Short : c.length != ELength::Long;
        const int character = va_arg(m_arguments, int);
        if (narrow)
            Pad(c, L"", CQsStringW::FromUtf8(std::string(1, static_cast<char>(character))).Std(), false);
        else
            Pad(c, L"", std::wstring(1, static_cast<wchar_t>(character)), false);
    }

    // With a precision the text need not be terminated.
    void PutWide(const SConversion& c)
    {
        const wchar_t* text = va_arg(m_arguments, const wchar_t*);
        if (text == nullptr)
            text = L"(null)";
        std::size_t length = 0;
        while ((!c.hasPrecision || length < c.precision) && text[length] != 0)
            ++length;
        Pad(c, L"", std::wstring(text, length), false);
    }

    void PutNarrow(const SConversion& c)
    {
        const char* text = va_arg(m_arguments, const char*);
        if (text == nullptr)
            text = "(null)";
        std::size_t length = 0;
        while ((!c.hasPrecision || length < c.precision) && text[length] != 0)
            ++length;
        Pad(c, L"", CQsStringW::FromUtf8(std::string(text, length)).Std(), false);
    }

    static void MakeUpper(std::wstring& text)
    {
        for (wchar_t& letter : text)
            if (letter >= L'a' && letter <= L'z')
                letter = static_cast<wchar_t>(letter - L'a' + L'A');
    }

    // The longest double has 309 digits before the point.
    static std::wstring Digits(double number, std::chars_format format, std::size_t precision)
    {
        std::string text(precision + 330, '\0');
        const auto result = std::to_chars(text.data(), text.data() + text.size(), number, format,
                                          static_cast<int>(std::min<std::size_t>(precision, 0x7FFFFF00)));
        return std::wstring(text.data(), result.ptr);
    }

    // %#g keeps the zeros behind the point, so the form is chosen here: fixed for exponents from -4 up to the
    // precision.
    static std::wstring GeneralWithZeros(double number, std::size_t precision)
    {
        const std::wstring scientific = Digits(number, std::chars_format::scientific, precision - 1);
        const int exponent = QS_wtoi(scientific.c_str() + scientific.find(L'e') + 1);
        if (exponent < -4 || exponent >= static_cast<long long>(precision))
            return scientific;
        const long long behindPoint = static_cast<long long>(precision) - 1 - exponent;
        return Digits(number, std::chars_format::fixed, static_cast<std::size_t>(behindPoint));
    }

    void PutDouble(const SConversion& c)
    {
        const double number = c.length == ELength::LongDouble ? static_cast<double>(va_arg(m_arguments, long double))
                                                              : va_arg(m_arguments, double);
        const bool upper = c.type >= L'A' && c.type <= L'Z';
        std::wstring body;
        if (std::isfinite(number))
            body = FiniteBody(c, std::fabs(number));
        else
            body = std::isnan(number) ? L"nan" : L"inf";
        if (upper)
            MakeUpper(body);
        Pad(c, SignOf(c, std::signbit(number) && !std::isnan(number)), body, c.zero && std::isfinite(number));
    }

    static std::wstring FiniteBody(const SConversion& c, double number)
    {
        std::size_t precision = c.hasPrecision ? c.precision : 6;
        std::wstring body;
        if (c.type == L'g' || c.type == L'G')
        {
            precision = std::max<std::size_t>(precision, 1);
            body = c.alternate ? GeneralWithZeros(number, precision)
                               : Digits(number, std::chars_format::general, precision);
        }
        else
        {
            const bool fixed = c.type == L'f' || c.type == L'F';
            body = Digits(number, fixed ? std::chars_format::fixed : std::chars_format::scientific, precision);
        }
        if (c.alternate && body.find(L'.') == std::wstring::npos)
            body.insert(std::min(body.find(L'e'), body.size()), 1, L'.');
        return body;
    }

    const wchar_t* m_format;
    std::va_list m_arguments;
    std::wstring m_out;
};

} // namespace

CQsStringW CQsStringW::Format(const wchar_t* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    CFormatter formatter(format != nullptr ? format : L"", arguments);
    va_end(arguments);
    return CQsStringW(formatter.Run());
}

CQsStringW CQsStringW::FormatV(const wchar_t* format, std::va_list arguments)
{
    return CQsStringW(CFormatter(format != nullptr ? format : L"", arguments).Run());
}
