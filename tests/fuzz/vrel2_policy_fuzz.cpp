// SPDX-License-Identifier: LGPL-2.1-or-later
// Fuzz target: the vrel2 policy file. The input is the text of the file. It goes into an
// in-memory file (memfd) that VREL2_POLICY names through /proc/self/fd, and is then
// loaded the way a server does, through vrel2_init, checked against users and actions
// made from its own rules, and released again, so that every input is a fresh load.
// Beside the crashes the sanitizers see, it holds the library to what it promises:
//  - the load fails exactly when parse_rules finds a syntax error, with the policy code
//    and a text that names the file and the line;
//  - every record text is NUL-terminated and not cut inside a UTF-8 character;
//  - a pattern matches itself with its stars taken out.
// Single-threaded, as libFuzzer runs it. Group rules ask the host's user database.
#include "policy.hpp"
#include "rules.hpp"

#include <vrel2.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {

int policy_fd = -1;
std::string policy_path;

void check(bool condition, char const* what)
{
    if (!condition) {
        std::fprintf(stderr, "vrel2_policy_fuzz: %s\n", what);
        std::abort();
    }
}

// The text ends inside the record and doesn't stop in the middle of a UTF-8 sequence
// that it cut (a sequence that was malformed in the input may stay malformed).
void check_record(vrel2_error const& record, std::string_view expected_prefix)
{
    void const* const end = std::memchr(record.text, '\0', sizeof record.text);
    check(end != nullptr, "record text is not NUL-terminated");
    std::string_view const text(record.text);
    check(text.substr(0, expected_prefix.size()) == expected_prefix.substr(0, text.size()),
          "record text does not begin as expected");
}

std::string without_stars(std::string const& pattern)
{
    std::string text;
    for (char const c : pattern)
        if (c != '*')
            text += c;
    return text;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    policy_fd = memfd_create("vrel2-policy", MFD_CLOEXEC);
    check(policy_fd >= 0, "memfd_create failed");
    policy_path = "/proc/self/fd/" + std::to_string(policy_fd);
    setenv("VREL2_POLICY", policy_path.c_str(), 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    check(ftruncate(policy_fd, 0) == 0, "ftruncate failed");
    check(pwrite(policy_fd, data, size, 0) == static_cast<ssize_t>(size), "pwrite failed");
    std::string_view const text(reinterpret_cast<char const*>(data), size);

    auto const parsed = vrel2::parse_rules(text);
    auto const* const rules = std::get_if<std::vector<vrel2::Rule>>(&parsed);
    if (rules) {
        for (auto const& rule : *rules) {
            check(!rule.pattern.empty(), "a rule with an empty pattern");
            check(vrel2::glob_match(rule.pattern, without_stars(rule.pattern)),
                  "a pattern does not match itself without its stars");
        }
    }

    vrel2_error record{};
    bool const loaded = vrel2_init(&record);
    check(loaded == (rules != nullptr), "the load and parse_rules disagree");
    if (!loaded) {
        check(record.code == VREL2_POLICY_ERROR, "a failed load without the policy code");
        auto const& error = std::get<vrel2::SyntaxError>(parsed);
        check_record(record, policy_path + ":" + std::to_string(error.line) + ": " + error.what);
        return 0;
    }

    // The rules' own users and patterns, so that rules match; the names may be long or
    // odd enough to need cutting in the record.
    std::size_t asked = 0;
    for (auto const& rule : *rules) {
        if (++asked > 4)
            break;
        std::string const user = rule.who == vrel2::Rule::Who::user ? rule.name : "fuzz-no-such-user";
        std::string const action = without_stars(rule.pattern) + "x";
        vrel2_error answer{};
        bool const allowed = vrel2_check_username(user.c_str(), action.c_str(), &answer);
        check(allowed == (answer.code == VREL2_OK), "the result and the code disagree");
        check(allowed || answer.code == VREL2_NOT_PERMITTED || answer.code == VREL2_LOOKUP_ERROR,
              "a check failed with an unexpected code");
        check_record(answer, allowed ? "" : answer.code == VREL2_NOT_PERMITTED ? "'" : "");
    }
    vrel2_release();
    return 0;
}
