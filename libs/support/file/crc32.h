#pragma once

#include <cstddef>
#include <cstdint>

#include "orvan/support/export.h"

namespace orvan {

// The CRC-32 of zip archives (ISO 3309) over `size` bytes. Any thread.
ORVAN_SUPPORT_EXPORT std::uint32_t Crc32(const void* bytes, std::size_t size);

}  // namespace orvan
