// What the writer and the parser of settings files have in common.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace QsStandalone {

constexpr std::string_view s_settingsFormat = "stimulation-settings";
constexpr std::size_t s_digits64 = 16;
// What JSON's texts cannot hold everywhere, the null character and surrogates that are no pair, stands as a null
// character with this many hex digits behind it.
constexpr std::size_t s_escapedDigits = 4;

std::string Hex64(std::uint64_t number); // 16 small digits

} // namespace QsStandalone
