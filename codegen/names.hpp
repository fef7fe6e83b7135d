// SPDX-License-Identifier: LGPL-2.1-or-later
// How D-Bus names become C++ names in generated headers:
//
//  - An interface org.freedesktop.PackageKit.Transaction becomes class `Transaction` in
//    namespace `org::freedesktop::package_kit`: the last element is the class, as it is
//    written; the others are the namespaces, in snake_case like every namespace of ours.
//    That keeps org.freedesktop.UPower (class org::freedesktop::UPower) apart from
//    org.freedesktop.UPower.Device (class org::freedesktop::upower::Device). The generator
//    may be given one namespace for all classes instead.
//  - Members and arguments go from CamelCase to snake_case: "GetIPAddress" becomes
//    `get_ip_address`, "UPower" `upower`, "ObjectPath2" `object_path2`; characters that can't stand in a C++
//    name become '_', and a name that begins with a digit gets "arg_" in front.
//  - A name that is a C++ keyword, or one that the generated class inherits and would
//    hide (`update`, `validate`, `Property`, ...), gets a trailing underscore: "Delete"
//    becomes `delete_`, "Update" `update_`.
//  - The annotation org.tarvek.CppName on an interface, member or argument names the C++
//    identifier outright (for an interface it may be qualified: "my::ns::Lamp").
#pragma once

#include <string>
#include <string_view>

namespace tarvek::codegen {

std::string snake_case(std::string_view name);

// `name` with a trailing underscore if it is a keyword or a name the class inherits.
std::string cpp_safe(std::string name);

// The C++ name of a member or an argument, by the rule above.
std::string member_name(std::string_view dbus_name);

// True for a plain C++ identifier that is not a keyword.
bool is_identifier(std::string_view name);

// True for identifiers joined by "::" (no leading "::").
bool is_qualified_identifier(std::string_view name);

} // namespace tarvek::codegen
