// SPDX-License-Identifier: LGPL-2.1-or-later
#include "emitter.hpp"

#include <sstream>

namespace tarvek::codegen {
namespace {

constexpr std::size_t line_width = 100;

// `text` as line comments at `indent`, its paragraphs wrapped; lines of a comment that
// were laid out by hand (lists of arguments) keep their breaks.
void comment(std::ostream& out, std::string const& indent, std::string const& text)
{
    if (text.empty())
        return;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty()) {
            out << indent << "//\n";
            continue;
        }
        std::istringstream words(line);
        std::string current;
        for (std::string word; words >> word;) {
            // A line comment that ends in a backslash would swallow the next line.
            if (!current.empty() && indent.size() + 3 + current.size() + 1 + word.size() > line_width
                && current.back() != '\\') {
                out << indent << "// " << current << '\n';
                current.clear();
            }
            current += (current.empty() ? "" : " ") + word;
        }
        if (!current.empty() && current.back() == '\\')
            current += " (continued)";
        out << indent << "// " << current << '\n';
    }
}

std::string quoted(std::string const& text)
{
    // D-Bus names are letters, digits, '_' and '.', so nothing needs escaping.
    return '"' + text + '"';
}

// A parameter: small values by value, the rest by reference to const.
std::string parameter(MappedArgument const& a)
{
    bool const scalar = a.type == "bool" || a.type == "double" || a.type.rfind("std::int", 0) == 0
        || a.type.rfind("std::uint", 0) == 0;
    return (scalar ? a.type : a.type + " const&") + " " + a.name;
}

std::string argument_summary(std::vector<MappedArgument> const& arguments)
{
    std::string out;
    for (auto const& a : arguments)
        out += (out.empty() ? "" : ", ") + a.name + " (" + a.source->type + ")";
    return out;
}

void argument_docs(std::ostream& out, std::string const& indent, std::vector<MappedArgument> const& arguments)
{
    for (auto const& a : arguments)
        if (!a.source->doc.empty())
            comment(out, indent, a.name + ": " + a.source->doc);
}

// With `named` false, only the Responder keeps its name (a stub uses nothing else).
std::string handler_signature(MappedMethod const& m, bool named)
{
    std::string params;
    if (m.async)
        params = "Responder<" + m.result + "> reply";
    bool const with_names = named;
    for (auto const& a : m.in) {
        std::string p = parameter(a);
        if (!with_names)
            p = p.substr(0, p.size() - a.name.size() - 1);
        params += (params.empty() ? "" : ", ") + p;
    }
    return (m.async ? std::string("void") : m.result) + " " + m.handler + "(" + params + ")";
}

void emit_interface(std::ostream& out, MappedInterface const& i, Options const& options)
{
    auto const& source = *i.source;
    if (!i.cpp_namespace.empty())
        out << "namespace " << i.cpp_namespace << " {\n\n";
    comment(out, "", source.doc);
    out << "class " << i.class_name << " : public tarvek::provider::Interface {\n"
        << "public:\n"
        << "    static constexpr char dbus_interface_name[] = " << quoted(source.name) << ";\n\n"
        << "    " << i.class_name << "() : Interface(dbus_interface_name) {}\n";

    if (!i.properties.empty())
        out << "\n    // Properties.\n";
    for (auto const& p : i.properties) {
        if (!p.source->doc.empty())
            out << '\n';
        comment(out, "    ", p.source->doc);
        out << "    Property<" << p.type << "> " << p.member << "{*this, " << quoted(p.source->name) << ", {}"
            << (p.read_only ? ", Access::read_only" : "") << "};\n";
    }

    if (!i.signals.empty())
        out << "\n    // Signals.\n";
    for (auto const& s : i.signals) {
        out << '\n';
        comment(out, "    ", s.source->doc);
        if (!s.arguments.empty())
            comment(out, "    ", "Arguments: " + argument_summary(s.arguments) + ".");
        argument_docs(out, "    ", s.arguments);
        std::string types, params, names;
        for (auto const& a : s.arguments) {
            types += (types.empty() ? "" : ", ") + a.type;
            params += (params.empty() ? "" : ", ") + parameter(a);
            names += (names.empty() ? "" : ", ") + a.name;
        }
        out << "    Signal<" << types << "> " << s.member << "{*this, " << quoted(s.source->name) << "};\n"
            << "    void emit_" << s.member << "(" << params << ") const { " << s.member << ".emit(" << names
            << "); }\n";
    }

    if (!i.methods.empty())
        out << "\nprotected:\n"
            << "    // Method handlers. Each runs on the object's executor when a client calls its method;\n"
            << "    // one that takes a Responder answers through it, now or later, from any thread.\n";
    for (auto const& m : i.methods) {
        out << '\n';
        comment(out, "    ", m.source->name + (m.source->doc.empty() ? std::string() : ": " + m.source->doc));
        argument_docs(out, "    ", m.in);
        if (!m.out.empty())
            comment(out, "    ", "Answers with " + argument_summary(m.out) + ".");
        argument_docs(out, "    ", m.out);
        out << "    virtual " << handler_signature(m, true) << " = 0;\n";
    }

    if (!i.methods.empty())
        out << "\nprivate:\n";
    for (auto const& m : i.methods)
        out << "    Method " << m.member << "{*this, " << quoted(m.source->name) << ", &" << i.class_name
            << "::" << m.handler << "};\n";
    out << "};\n";

    if (options.stubs) {
        out << '\n';
        comment(out, "",
            "Every handler of " + i.class_name
                + " failing the call with org.freedesktop.DBus.Error.UnknownMethod: a start for an "
                  "implementation, or a stand-in where only properties and signals matter.");
        out << "class " << i.class_name << "Stub : public " << i.class_name << " {\n";
        if (!i.methods.empty())
            out << "protected:\n";
        for (auto const& m : i.methods) {
            std::string const error
                = "tarvek::unknown_method(" + quoted(m.source->name + " is not implemented") + ")";
            out << "    " << handler_signature(m, false) << " override";
            if (m.async)
                out << " { reply.fail(" << error << "); }\n";
            else
                out << " { boost::throw_exception(" << error << "); }\n";
        }
        out << "};\n";
    }
    if (!i.cpp_namespace.empty())
        out << "\n} // namespace " << i.cpp_namespace << '\n';
}

} // namespace

std::string emit_header(
    std::vector<MappedInterface> const& interfaces, std::string const& source, Options const& options)
{
    std::set<std::string> includes;
    for (auto const& i : interfaces)
        includes.insert(i.includes.begin(), i.includes.end());
    if (options.stubs) {
        includes.insert("<tarvek/common/exceptions.hpp>");
        includes.insert("<boost/throw_exception.hpp>");
    }
    std::ostringstream out;
    out << "// Generated by tarvek-codegen from " << source << ". Do not edit: the next build\n"
        << "// writes it anew from the XML.\n"
        << "#pragma once\n\n";
    // Our own headers first, then Boost, then the standard library, as everywhere else.
    for (char const* prefix : {"<tarvek/", "<boost/", "<"}) {
        bool any = false;
        for (auto it = includes.begin(); it != includes.end();) {
            if (it->rfind(prefix, 0) == 0) {
                out << "#include " << *it << '\n';
                any = true;
                it = includes.erase(it);
            } else {
                ++it;
            }
        }
        if (any)
            out << '\n';
    }
    bool first = true;
    for (auto const& i : interfaces) {
        if (!first)
            out << '\n';
        first = false;
        emit_interface(out, i, options);
    }
    return out.str();
}

} // namespace tarvek::codegen
