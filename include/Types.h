// The scalar types that the interfaces of the library share.
#pragma once

#include <cstdint>

namespace kelvane {

using kelvane_ssize_t = std::int64_t;   // a size or position in bytes; negative values report failures
using kelvane_size_t = std::uint64_t;   // a size in bytes
using kelvane_buf_len_t = std::int64_t; // the length of a buffer in bytes
using kelvane_buf_t = void*;            // a caller's buffer; only SimpleCachedReader::read writes to it

} // namespace kelvane
