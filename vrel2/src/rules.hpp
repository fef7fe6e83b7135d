// SPDX-License-Identifier: LGPL-2.1-or-later
// Rules: the parsed form of a policy text, and the action pattern matcher. Pure functions
// over values; safe from any thread.
#pragma once

#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vrel2 {

struct Rule {
    enum class Who { anyone, user, group };

    bool allow = false;
    Who who = Who::anyone;
    std::string name; // user or group name; empty for anyone
    std::string pattern;
    unsigned line = 0; // 1-based, for the texts that name the deciding rule
};

struct SyntaxError {
    unsigned line = 0;
    std::string what;
};

// One rule per line: `allow|deny USER PATTERN`, fields separated by blanks; `#` starts a
// comment that runs to the end of the line. Stops at the first bad line.
std::variant<std::vector<Rule>, SyntaxError> parse_rules(std::string_view text);

// `*` in the pattern matches any run of bytes, including none; every other byte matches
// only itself.
bool glob_match(std::string_view pattern, std::string_view text) noexcept;

} // namespace vrel2
