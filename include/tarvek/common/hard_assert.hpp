// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek_hard_assert: for states that must never occur. Writes one line to std::cerr
// ("file:line: Assertion failed: prefix: expression") and aborts; nothing is unwound.
#pragma once

namespace tarvek::common {

// `prefix` and `file` may be null; they are then left out of the line.
void tarvek_hard_assert(bool condition, char const* expression, char const* prefix,
                        char const* file, int line) noexcept;

} // namespace tarvek::common
