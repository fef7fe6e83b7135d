// SPDX-License-Identifier: LGPL-2.1-or-later
// The C++ shape of a checked interface: class and namespace, member and handler names,
// C++ types, and which handlers answer later. Raises InputError with the file and line
// for what generated code cannot carry yet (a type, a write-only property, a change
// behaviour other than the default) and for names that clash once mapped.
#pragma once

#include "model.hpp"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tarvek::codegen {

struct Options {
    // Replaces the namespace taken from the interface name ("" for the global one).
    std::optional<std::string> cpp_namespace;
    // Every handler answers later through a Responder, unless org.tarvek.Async says "false".
    bool all_async = false;
    // Also write a class that implements every handler by failing the call.
    bool stubs = false;
};

struct MappedArgument {
    Argument const* source;
    std::string name; // C++ parameter name; "argN" for an argument without a name
    std::string type;
};

struct MappedMethod {
    Method const* source;
    std::string handler; // the pure virtual function
    std::string member; // the Method object that binds it
    std::vector<MappedArgument> in;
    std::vector<MappedArgument> out;
    std::string result; // "void", one type, or what several out arguments become
    bool async = false;
};

struct MappedSignal {
    Signal const* source;
    std::string member;
    std::vector<MappedArgument> arguments;
};

struct MappedProperty {
    Property const* source;
    std::string member;
    std::string type;
    bool read_only = false;
};

struct MappedInterface {
    Interface const* source;
    std::string cpp_namespace; // "a::b", or empty for the global namespace
    std::string class_name;
    std::vector<MappedProperty> properties;
    std::vector<MappedSignal> signals;
    std::vector<MappedMethod> methods;
    std::set<std::string> includes;
};

MappedInterface map_interface(Interface const& interface, Options const& options);

// The C++ result type of a handler with these out arguments.
std::string result_type(std::vector<MappedArgument> const& out);

} // namespace tarvek::codegen
