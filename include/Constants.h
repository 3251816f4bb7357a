// The constants that the interfaces of the library share.
#pragma once

namespace kelvane {

constexpr int INVALID_FD = -1; // the descriptor value that denotes no file

} // namespace kelvane
