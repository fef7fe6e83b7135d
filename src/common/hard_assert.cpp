// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/hard_assert.hpp>

#include <cstdlib>
#include <iostream>

namespace tarvek::common {

void tarvek_hard_assert(bool condition, char const* expression, char const* prefix,
                        char const* file, int line) noexcept
{
    if (condition)
        return;
    if (file != nullptr)
        std::cerr << file << ":" << line << ": ";
    std::cerr << "Assertion failed: ";
    if (prefix != nullptr)
        std::cerr << prefix << ": ";
    std::cerr << expression << std::endl;
    std::abort();
}

} // namespace tarvek::common
