// SPDX-License-Identifier: LGPL-2.1-or-later
// Type programs of the fuzz targets: a D-Bus-like signature that says what a reader asks
// for, in the order of the reading protocol of glue::IDeserializer. The basic codes
// b y n q i u x t d s o; `a` followed by an element type for a list; `a{KV}` for a
// dictionary (any key type: the JSON text has no rule against it); `(...)` for a tuple,
// which may be empty; `v` followed by the type of its content, as neither JSON text nor a
// reader of a plain variant can do without it; and `V`, a tarvek::Variant, whose type the
// input itself says. dbus_signature() gives the signature that sd-bus knows for the same
// value, without the variants' contents (a `V` is a `v`).
//
// copy_value() reads one value by the program and writes it to a sink, so that what was
// read can be printed and compared. Header-only; the fuzz targets run on one thread.
#pragma once

#include <tarvek/glue/serializer.hpp>
#include <tarvek/provider/variant.hpp>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

namespace fuzz {

using tarvek::glue::IDeserializer;
using tarvek::glue::ISerializer;

inline constexpr std::size_t max_program = 64;
inline constexpr int max_depth = 24;

// Returns the index just past the complete type that starts at `at`, or npos.
inline std::size_t skip_type(std::string_view program, std::size_t at, int depth = 0)
{
    if (at >= program.size() || depth > max_depth)
        return std::string_view::npos;
    switch (program[at]) {
    case 'b': case 'y': case 'n': case 'q': case 'i': case 'u': case 'x': case 't': case 'd':
    case 's': case 'o': case 'V':
        return at + 1;
    case 'v':
        return skip_type(program, at + 1, depth + 1);
    case 'a':
        if (at + 1 < program.size() && program[at + 1] == '{') {
            std::size_t const key = skip_type(program, at + 2, depth + 1);
            std::size_t const value = skip_type(program, key, depth + 1);
            if (value == std::string_view::npos || value >= program.size() || program[value] != '}')
                return std::string_view::npos;
            return value + 1;
        }
        return skip_type(program, at + 1, depth + 1);
    case '(': {
        std::size_t next = at + 1;
        while (next < program.size() && program[next] != ')') {
            next = skip_type(program, next, depth + 1);
            if (next == std::string_view::npos)
                return next;
        }
        // An empty tuple is allowed here: tuple_enter still takes its bracket.
        return next < program.size() ? next + 1 : std::string_view::npos;
    }
    default:
        return std::string_view::npos;
    }
}

inline bool valid_program(std::string_view program)
{
    if (program.empty() || program.size() > max_program)
        return false;
    for (std::size_t at = 0; at < program.size();) {
        at = skip_type(program, at);
        if (at == std::string_view::npos)
            return false;
    }
    return true;
}

// The sd-bus signature of the types from `at` to `end`: a variant's content is dropped.
inline std::string dbus_signature(std::string_view program, std::size_t at, std::size_t end)
{
    std::string signature;
    while (at < end) {
        char const code = program[at];
        signature += code == 'V' ? 'v' : code;
        if (code == 'v')
            at = skip_type(program, at + 1);
        else
            ++at;
    }
    return signature;
}

// Reads per input; keeps a program of nested lists from turning a short input into a
// long run.
struct Budget {
    static constexpr long max_reads = 20000;
    long reads = 0;
    void spend()
    {
        if (++reads > max_reads)
            throw std::length_error("read budget spent");
    }
};

// Reads one value of the type at `at` from `in` and writes it to `out`; returns the index
// past the type.
inline std::size_t copy_value(
    std::string_view program, std::size_t at, IDeserializer& in, ISerializer& out, Budget& budget)
{
    budget.spend();
    switch (program[at]) {
    case 'b':
        out.write(in.read_bool());
        return at + 1;
    case 'y':
        out.write(in.read_byte());
        return at + 1;
    case 'n':
        out.write(in.read_int16());
        return at + 1;
    case 'q':
        out.write(in.read_uint16());
        return at + 1;
    case 'i':
        out.write(in.read_int32());
        return at + 1;
    case 'u':
        out.write(in.read_uint32());
        return at + 1;
    case 'x':
        out.write(in.read_int64());
        return at + 1;
    case 't':
        out.write(in.read_uint64());
        return at + 1;
    case 'd':
        out.write(in.read_double());
        return at + 1;
    case 's': {
        std::string const text = in.read_string();
        out.write(text.c_str(), text.size(), true);
        return at + 1;
    }
    case 'o':
        out.write(in.read_path());
        return at + 1;
    case 'V':
        tarvek::Variant::read(in).write(out);
        return at + 1;
    case 'v': {
        std::size_t const end = skip_type(program, at + 1);
        std::string const contained = dbus_signature(program, at + 1, end);
        in.variant_enter();
        out.variant_begin(contained.c_str());
        copy_value(program, at + 1, in, out, budget);
        out.variant_end();
        in.variant_exit();
        return end;
    }
    case 'a': {
        if (program[at + 1] == '{') {
            std::size_t const key_end = skip_type(program, at + 2);
            std::size_t const end = skip_type(program, at);
            std::string const inner = dbus_signature(program, at + 2, end - 1);
            std::string const entry = "{" + inner + "}";
            in.dict_enter();
            out.dict_begin(0, entry.c_str());
            for (bool first = true; in.dict_entry_try_enter(first); first = false) {
                budget.spend();
                out.dict_entry_begin(inner.c_str());
                copy_value(program, at + 2, in, out, budget);
                in.dict_entry_read_kv_separator();
                out.dict_entry_kv_separator();
                copy_value(program, key_end, in, out, budget);
                in.dict_entry_exit();
                out.dict_entry_end();
            }
            in.dict_exit();
            out.dict_end();
            return end;
        }
        std::size_t const end = skip_type(program, at + 1);
        std::string const element = dbus_signature(program, at + 1, end);
        in.list_enter();
        out.list_begin(0, element.c_str());
        for (bool first = true; !in.list_try_exit(); first = false) {
            budget.spend();
            if (!first)
                in.list_read_separator();
            out.list_entry_begin();
            copy_value(program, at + 1, in, out, budget);
            out.list_entry_end();
        }
        out.list_end();
        return end;
    }
    case '(': {
        std::size_t const end = skip_type(program, at);
        std::string const members = dbus_signature(program, at + 1, end - 1);
        in.tuple_enter();
        out.tuple_begin(0, members.c_str());
        for (std::size_t member = at + 1; member + 1 < end;) {
            if (member != at + 1)
                in.tuple_read_separator();
            out.tuple_entry_begin();
            member = copy_value(program, member, in, out, budget);
            out.tuple_entry_end();
        }
        in.tuple_exit();
        out.tuple_end();
        return end;
    }
    default:
        std::abort(); // the program was checked
    }
}

} // namespace fuzz
