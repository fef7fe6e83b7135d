// SPDX-License-Identifier: LGPL-2.1-or-later
// str::join: streams its arguments, in order and with nothing between them, into one
// string. Every message of the library with a variable part is built with it.
#pragma once

#include <sstream>
#include <string>

namespace tarvek::str {

template <class... Args>
std::string join(Args const&... args)
{
    std::ostringstream out;
    (out << ... << args);
    return out.str();
}

} // namespace tarvek::str
