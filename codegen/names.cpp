// SPDX-License-Identifier: LGPL-2.1-or-later
#include "names.hpp"

#include <algorithm>
#include <cctype>
#include <iterator>

namespace tarvek::codegen {
namespace {

// clang-format off
constexpr std::string_view keywords[] = {
    "alignas", "alignof", "and", "and_eq", "asm", "auto", "bitand", "bitor", "bool", "break", "case", "catch",
    "char", "char8_t", "char16_t", "char32_t", "class", "compl", "concept", "const", "consteval", "constexpr",
    "constinit", "const_cast", "continue", "co_await", "co_return", "co_yield", "decltype", "default", "delete",
    "do", "double", "dynamic_cast", "else", "enum", "explicit", "export", "extern", "false", "float", "for",
    "friend", "goto", "if", "inline", "int", "long", "mutable", "namespace", "new", "noexcept", "not", "not_eq",
    "nullptr", "operator", "or", "or_eq", "private", "protected", "public", "register", "reinterpret_cast",
    "requires", "return", "short", "signed", "sizeof", "static", "static_assert", "static_cast", "struct",
    "switch", "template", "this", "thread_local", "throw", "true", "try", "typedef", "typeid", "typename",
    "union", "unsigned", "using", "virtual", "void", "volatile", "wchar_t", "while", "xor", "xor_eq",
};

// Not keywords, but namespaces that generated code names unqualified.
constexpr std::string_view used_namespaces[] = {"std", "tarvek", "boost"};

// What a generated class inherits from tarvek::provider::Interface and uses itself; a
// member of the same name would hide it.
constexpr std::string_view inherited[] = {
    "validate", "on_changed", "update", "snapshot", "get_properties", "set_properties", "method_target",
    "interface_name", "dbus_interface_name", "Values", "Changed", "Access", "Method", "Property", "Range",
    "Signal", "Responder", "Interface",
};
// clang-format on

template <std::size_t N> bool listed(std::string_view const (&list)[N], std::string_view name)
{
    return std::find(std::begin(list), std::end(list), name) != std::end(list);
}

bool is_lower_or_digit(char c)
{
    return std::islower(static_cast<unsigned char>(c)) || std::isdigit(static_cast<unsigned char>(c));
}
bool is_upper(char c)
{
    return std::isupper(static_cast<unsigned char>(c)) != 0;
}

} // namespace

std::string snake_case(std::string_view name)
{
    std::string out;
    for (std::size_t i = 0; i < name.size(); ++i) {
        char const c = name[i];
        if (is_upper(c) && i > 0) {
            bool const after_lower = is_lower_or_digit(name[i - 1]);
            // The last capital of an acronym starts a new word: "IPAddress" -> ip_address.
            // A single capital before it is a prefix, not an acronym: "UPower" -> upower.
            bool const acronym_end = i >= 2 && is_upper(name[i - 1]) && is_upper(name[i - 2])
                && i + 1 < name.size() && std::islower(static_cast<unsigned char>(name[i + 1]));
            if ((after_lower || acronym_end) && !out.empty() && out.back() != '_')
                out += '_';
        }
        out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return out;
}

std::string cpp_safe(std::string name)
{
    if (listed(keywords, name) || listed(used_namespaces, name) || listed(inherited, name))
        name += '_';
    return name;
}

std::string member_name(std::string_view dbus_name)
{
    std::string name = snake_case(dbus_name);
    for (char& c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_')
            c = '_';
    if (name.empty() || std::isdigit(static_cast<unsigned char>(name.front())))
        name = "arg_" + name;
    return cpp_safe(name);
}

bool is_identifier(std::string_view name)
{
    if (name.empty() || std::isdigit(static_cast<unsigned char>(name.front())))
        return false;
    for (char c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_')
            return false;
    return !listed(keywords, name);
}

bool is_qualified_identifier(std::string_view name)
{
    std::size_t start = 0;
    while (true) {
        auto const end = name.find("::", start);
        if (!is_identifier(name.substr(start, end == std::string_view::npos ? end : end - start)))
            return false;
        if (end == std::string_view::npos)
            return true;
        start = end + 2;
    }
}

} // namespace tarvek::codegen
