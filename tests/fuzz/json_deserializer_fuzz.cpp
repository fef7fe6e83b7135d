// SPDX-License-Identifier: LGPL-2.1-or-later
// Fuzz target: JSON_Deserializer, the reader of JSON_Serializer's text.
//
// Input: a type program (type_program.hpp), a newline, then the text. An input without a
// newline is read as text with the fixed program below.
//
// Every value that was read is written again through JSON_Serializer. When the whole
// program was read, that text is read with the same program once more and must give the
// same text again: the serializer's output (without \x escapes, whose digits the reader
// takes elsewhere, and without non-finite numbers, which it refuses) is the reader's
// fixed point.
//
// Hazards that the reader is defined to have are kept out before the reader sees them:
//  - a \x escape takes its digits from the process's stdin, which is /dev/null here, so
//    the escape fails with "Invalid hex digit" and never blocks;
//  - a string without its closing quote grows until allocation fails: an input in which
//    any quote could open such a string is skipped;
//  - the boolean scratch buffer is shared, which is harmless with libFuzzer's one thread.
#include "type_program.hpp"

#include <tarvek/serialization/json_deserializer.hpp>
#include <tarvek/serialization/json_serializer.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::string_view default_program = "(bynqiuxtdso)asa{sai}a{s(vdvs)}";

// reader would (a backslash takes the next character with it), the same quote comes
// before the end of the text. A \x escape fails at once (stdin is /dev/null) and so ends
// the read too. Linear: computed backwards for both quote characters.
bool strings_terminate(std::string_view text)
{
    std::size_t const n = text.size();
    for (char const quote : {'"', '\''}) {
        std::vector<char> ends(n + 2, 0); // ends[j]: a string body read from j ends
        for (std::size_t j = n; j-- > 0;) {
            char const c = text[j];
            if (c == quote)
                ends[j] = 1;
            else if (c == '\\')
                ends[j] = j + 1 < n && (text[j + 1] == 'x' || ends[j + 2]);
            else
                ends[j] = ends[j + 1];
        }
        for (std::size_t i = 0; i < n; ++i)
            if (text[i] == quote && !ends[i + 1])
                return false;
    }
    return true;
}

// Reads the whole program from `text`; the values come out as JSON_Serializer's text.
// False if the reader gave up (which it may, by raising).
bool copy_all(std::string_view program, std::string const& text, std::string& written)
{
    std::istringstream in(text);
    std::ostringstream out;
    tarvek::serialization::JSON_Deserializer reader(in);
    bool complete = false;
    {
        tarvek::serialization::JSON_Serializer writer(out);
        fuzz::Budget budget;
        try {
            for (std::size_t at = 0; at < program.size();) {
                // The serializer separates entries of containers only; top-level values
                // need a blank of their own, or "1" "2" would print as "12".
                if (at > 0)
                    out << ' ';
                at = fuzz::copy_value(program, at, reader, writer, budget);
            }
            complete = true;
        } catch (std::exception const&) {
            // A refusal by the reader, the budget, or a bad path: all expected.
        }
    }
    written = out.str();
    return complete;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The \x escape reads stdin; with /dev/null behind it, it fails and never waits.
    if (!std::freopen("/dev/null", "r", stdin))
        std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    std::string_view const input(reinterpret_cast<char const*>(data), size);
    std::size_t const newline = input.find('\n');
    std::string_view program = default_program;
    std::string_view text = input;
    if (newline != std::string_view::npos) {
        program = input.substr(0, newline);
        text = input.substr(newline + 1);
    }
    if (!fuzz::valid_program(program) || !strings_terminate(text))
        return -1;

    std::string first;
    if (!copy_all(program, std::string(text), first))
        return 0;
    // Only text that the reader is meant to take back.
    if (first.find("\\x") != std::string::npos || first.find("nan") != std::string::npos ||
        first.find("inf") != std::string::npos)
        return 0;
    std::string second;
    if (!copy_all(program, first, second) || second != first) {
        std::fprintf(stderr, "JSON text does not read back.\nprogram: %.*s\nfirst:  %s\nsecond: %s\n",
                     static_cast<int>(program.size()), program.data(), first.c_str(), second.c_str());
        std::abort();
    }
    return 0;
}
