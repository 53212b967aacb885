// UTF-16 code units of wide text, on systems whose wchar_t has 16 bits and on those where it has 32.
//
// A lone surrogate stands for itself in both directions, so that any text survives the round trip.
#pragma once

#include <cstddef>
#include <string>

inline std::u16string QsToUtf16(const std::wstring& text)
{
    std::u16string units;
    units.reserve(text.size());
    for (const wchar_t character : text)
    {
        const auto code = static_cast<char32_t>(character);
        if (sizeof(wchar_t) > 2 && code > 0xFFFF && code <= 0x10FFFF)
        {
            units += static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10));
            units += static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF));
        }
        else
            units += static_cast<char16_t>(code > 0x10FFFF ? 0xFFFD : code);
    }
    return units;
}

inline std::wstring QsFromUtf16(const char16_t* units, std::size_t count)
{
    std::wstring text;
    text.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
    {
        const char32_t unit = units[i];
        const bool pair = sizeof(wchar_t) > 2 && unit >= 0xD800 && unit < 0xDC00 && i + 1 < count &&
                          units[i + 1] >= 0xDC00 && units[i + 1] < 0xE000;
        if (pair)
            text +=
                static_cast<wchar_t>(0x10000 + ((unit - 0xD800) << 10) + (static_cast<char32_t>(units[++i]) - 0xDC00));
        else
            text += static_cast<wchar_t>(unit);
    }
    return text;
}
