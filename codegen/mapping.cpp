// SPDX-License-Identifier: LGPL-2.1-or-later
#include "mapping.hpp"

#include "names.hpp"
#include "types.hpp"

#include <map>

namespace tarvek::codegen {
namespace {

constexpr char const* cpp_name_annotation = "org.tarvek.CppName";

// Standard annotations that change what the bus sees, and what the library lacks to
// publish them; the others (other bindings' hints such as org.gtk.GDBus.* or
// org.freedesktop.DBus.GLib.*) don't concern generated code and are passed over.
void check_supported(std::vector<Annotation> const& annotations, std::string const& what)
{
    for (auto const& a : annotations) {
        if (a.name == "org.freedesktop.DBus.Property.EmitsChangedSignal" && a.value != "true")
            a.where.fail("unsupported: " + what + " has EmitsChangedSignal \"" + a.value
                + "\"; generated properties always emit PropertiesChanged with their value for now");
        if (a.name == "org.freedesktop.DBus.Deprecated" && a.value == "true")
            a.where.fail(
                "unsupported: " + what + " is marked deprecated; the library can't publish that yet");
        if (a.name == "org.freedesktop.DBus.Method.NoReply" && a.value == "true")
            a.where.fail(
                "unsupported: " + what + " is marked NoReply; generated methods always reply for now");
    }
}

std::string type_of(std::string const& signature, Location const& where, std::string const& what,
    std::set<std::string>& includes)
{
    try {
        return cpp_type(signature, includes);
    } catch (UnsupportedType const& e) {
        where.fail("unsupported type \"" + signature + "\" of " + what + ": " + e.what());
    }
}

std::string cpp_name_of(std::vector<Annotation> const& annotations, std::string const& dbus_name)
{
    if (auto const* a = find_annotation(annotations, cpp_name_annotation)) {
        if (!is_identifier(a->value))
            a->where.fail(std::string(cpp_name_annotation) + " \"" + a->value + "\" is not a C++ identifier");
        return a->value;
    }
    return member_name(dbus_name);
}

// C++ names in one class scope, to report two D-Bus names that map to the same one.
class Scope {
public:
    void claim(std::string const& name, Location const& where, std::string const& what)
    {
        auto [it, fresh] = taken_.emplace(name, Claim{where, what});
        if (!fresh)
            where.fail(what + " maps to the C++ name " + name + ", as " + it->second.what + " (line "
                + std::to_string(it->second.where.line) + ") does; give one of them " + cpp_name_annotation);
    }

private:
    struct Claim {
        Location where;
        std::string what;
    };
    std::map<std::string, Claim> taken_;
};

std::vector<MappedArgument> map_arguments(
    std::vector<Argument const*> const& arguments, std::string const& owner, std::set<std::string>& includes)
{
    std::vector<MappedArgument> mapped;
    Scope scope;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        auto const& arg = *arguments[i];
        std::string const what
            = "argument " + (arg.name.empty() ? std::to_string(i) : arg.name) + " of " + owner;
        check_supported(arg.annotations, what);
        std::string name = arg.name.empty() && !find_annotation(arg.annotations, cpp_name_annotation)
            ? "arg" + std::to_string(i)
            : cpp_name_of(arg.annotations, arg.name);
        // A handler parameter named like the Responder would confuse a reader; "reply" is ours.
        if (name == "reply")
            name = "reply_";
        scope.claim(name, arg.where, what);
        mapped.push_back({&arg, name, type_of(arg.type, arg.where, what, includes)});
    }
    return mapped;
}

} // namespace

std::string result_type(std::vector<MappedArgument> const& out)
{
    if (out.empty())
        return "void";
    if (out.size() == 1)
        return out.front().type;
    // Several out arguments: a tuple for now, which the bus sees as one struct. This is the
    // one place to change when the library gets a type of its own for several results.
    std::string members;
    for (auto const& a : out)
        members += (members.empty() ? "" : ", ") + a.type;
    return "std::tuple<" + members + ">";
}

MappedInterface map_interface(Interface const& interface, Options const& options)
{
    MappedInterface mapped;
    mapped.source = &interface;
    check_supported(interface.annotations, "interface " + interface.name);

    std::string const& name = interface.name;
    auto const last_dot = name.rfind('.');
    std::string qualified;
    if (auto const* a = find_annotation(interface.annotations, cpp_name_annotation)) {
        if (!is_qualified_identifier(a->value))
            a->where.fail(std::string(cpp_name_annotation) + " \"" + a->value + "\" is not a C++ class name");
        qualified = a->value;
    } else {
        qualified = cpp_safe(name.substr(last_dot + 1));
        if (!options.cpp_namespace) {
            std::string ns;
            std::size_t start = 0;
            while (start < last_dot) {
                auto const end = name.find('.', start);
                ns += (ns.empty() ? "" : "::") + cpp_safe(snake_case(name.substr(start, end - start)));
                start = end + 1;
            }
            qualified = ns + "::" + qualified;
        }
    }
    if (auto const sep = qualified.rfind("::"); sep != std::string::npos) {
        mapped.cpp_namespace = qualified.substr(0, sep);
        mapped.class_name = qualified.substr(sep + 2);
    } else {
        mapped.class_name = qualified;
    }
    if (options.cpp_namespace && !find_annotation(interface.annotations, cpp_name_annotation))
        mapped.cpp_namespace = *options.cpp_namespace;
    else if (options.cpp_namespace && !options.cpp_namespace->empty())
        mapped.cpp_namespace
            = *options.cpp_namespace + (mapped.cpp_namespace.empty() ? "" : "::") + mapped.cpp_namespace;

    Scope scope;
    scope.claim(mapped.class_name, interface.where, "interface " + interface.name);
    mapped.includes.insert("<tarvek/provider/interface.hpp>");

    for (auto const& p : interface.properties) {
        std::string const what = "property " + p.name;
        check_supported(p.annotations, what);
        if (p.access == Access::write)
            p.where.fail("unsupported: property " + p.name
                + " is write-only; the library has readable properties only");
        MappedProperty entry{&p, cpp_name_of(p.annotations, p.name),
            type_of(p.type, p.where, what, mapped.includes), p.access == Access::read};
        scope.claim(entry.member, p.where, what);
        mapped.properties.push_back(std::move(entry));
    }
    for (auto const& s : interface.signals) {
        std::string const what = "signal " + s.name;
        check_supported(s.annotations, what);
        std::vector<Argument const*> args;
        for (auto const& a : s.arguments)
            args.push_back(&a);
        MappedSignal entry{
            &s, cpp_name_of(s.annotations, s.name), map_arguments(args, what, mapped.includes)};
        scope.claim(entry.member, s.where, what);
        scope.claim("emit_" + entry.member, s.where, what + " (its emit function)");
        mapped.signals.push_back(std::move(entry));
    }
    for (auto const& m : interface.methods) {
        std::string const what = "method " + m.name;
        check_supported(m.annotations, what);
        std::vector<Argument const*> in, out;
        for (auto const& a : m.arguments)
            (a.direction == Direction::in ? in : out).push_back(&a);
        MappedMethod entry{&m, cpp_name_of(m.annotations, m.name), {}, {}, {}, {}, options.all_async};
        // "delete_" + "_method" would be a reserved name (two underscores in a row).
        entry.member = entry.handler;
        while (!entry.member.empty() && entry.member.back() == '_')
            entry.member.pop_back();
        entry.member += "_method";
        entry.in = map_arguments(in, what, mapped.includes);
        entry.out = map_arguments(out, what, mapped.includes);
        entry.result = result_type(entry.out);
        if (entry.out.size() > 1)
            mapped.includes.insert("<tuple>");
        if (auto const* a = find_annotation(m.annotations, "org.tarvek.Async"))
            entry.async = a->value == "true";
        scope.claim(entry.handler, m.where, what);
        scope.claim(entry.member, m.where, what + " (its Method member)");
        mapped.methods.push_back(std::move(entry));
    }
    return mapped;
}

} // namespace tarvek::codegen
