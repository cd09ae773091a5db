#include "orvan/support/file/crc32.h"

#include <libdeflate.h>

namespace orvan {

std::uint32_t Crc32(const void* bytes, std::size_t size) { return libdeflate_crc32(0, bytes, size); }

}  // namespace orvan
