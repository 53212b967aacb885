// End sums of files.
#pragma once

#include "host/QsHostApi.h"

#include <cstddef>
#include <cstdint>

namespace QsStandalone {

// CRC-64/XZ: polynomial 42f0e1eba9ea3693 reflected, begun and ended with all bits inverted; 995dc9bbdf1939fa for the
// nine characters "123456789".
QS_HOST_API std::uint64_t Crc64(const void* bytes, std::size_t count);

} // namespace QsStandalone
