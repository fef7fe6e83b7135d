// SPDX-License-Identifier: LGPL-2.1-or-later
#include "rules.hpp"

#include <algorithm>

namespace vrel2 {
namespace {

constexpr std::string_view blanks = " \t\r\v\f"; // \r so that files saved with CRLF load

std::vector<std::string_view> split_fields(std::string_view line)
{
    std::vector<std::string_view> fields;
    for (std::size_t pos = line.find_first_not_of(blanks); pos != std::string_view::npos;
         pos = line.find_first_not_of(blanks, pos)) {
        std::size_t const end = std::min(line.find_first_of(blanks, pos), line.size());
        fields.push_back(line.substr(pos, end - pos));
        pos = end;
    }
    return fields;
}

std::string quoted(std::string_view text)
{
    return "'" + std::string(text) + "'";
}

// Parses one line, its comment already cut off, into `rule`; returns what is wrong with
// it, or nothing.
std::string parse_line(std::string_view line, Rule& rule)
{
    for (unsigned char const c : line) {
        if ((c < 0x20 && blanks.find(static_cast<char>(c)) == std::string_view::npos) || c == 0x7f) {
            constexpr char hex[] = "0123456789abcdef";
            return std::string("control character 0x") + hex[c >> 4] + hex[c & 0xf];
        }
    }
    auto const fields = split_fields(line);
    if (fields.size() != 3)
        return "expected 3 fields (allow|deny USER PATTERN), found " + std::to_string(fields.size());

    if (fields[0] == "allow" || fields[0] == "deny")
        rule.allow = fields[0] == "allow";
    else
        return "unknown verb " + quoted(fields[0]);

    std::string_view const user = fields[1];
    if (user == "*") {
        rule.who = Rule::Who::anyone;
    } else if (user.front() == '@') {
        if (user.size() == 1)
            return "empty group name after '@'";
        rule.who = Rule::Who::group;
        rule.name = user.substr(1);
    } else {
        rule.who = Rule::Who::user;
        rule.name = user;
    }
    // A star in a name would read as a glob but could only ever match literally.
    if (rule.who != Rule::Who::anyone && rule.name.find('*') != std::string::npos)
        return "'*' in " + quoted(user) + ": only a lone '*' stands for any user";

    rule.pattern = fields[2];
    return {};
}

} // namespace

std::variant<std::vector<Rule>, SyntaxError> parse_rules(std::string_view text)
{
    std::vector<Rule> rules;
    unsigned number = 0;
    while (!text.empty()) {
        ++number;
        std::size_t const eol = text.find('\n');
        std::string_view line = text.substr(0, eol);
        text.remove_prefix(eol == std::string_view::npos ? text.size() : eol + 1);

        line = line.substr(0, line.find('#'));
        if (line.find_first_not_of(blanks) == std::string_view::npos)
            continue;
        Rule rule;
        rule.line = number;
        if (std::string what = parse_line(line, rule); !what.empty())
            return SyntaxError{number, std::move(what)};
        rules.push_back(std::move(rule));
    }
    return rules;
}

bool glob_match(std::string_view pattern, std::string_view text) noexcept
{
    // Greedy with one backtrack point: on a mismatch, let the last star swallow one more
    // byte. Linear in practice, never exponential however many stars there are.
    std::size_t p = 0;
    std::size_t t = 0;
    std::size_t star = std::string_view::npos;
    std::size_t resume = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            resume = t;
        } else if (p < pattern.size() && pattern[p] == text[t]) {
            ++p;
            ++t;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            t = ++resume;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*')
        ++p;
    return p == pattern.size();
}

} // namespace vrel2
