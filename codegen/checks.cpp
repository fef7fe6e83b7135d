// SPDX-License-Identifier: LGPL-2.1-or-later
#include "checks.hpp"

#include "types.hpp"

#include <cctype>
#include <map>
#include <string>

namespace tarvek::codegen {
namespace {

bool is_element(std::string_view element, bool digits_first)
{
    if (element.empty())
        return false;
    if (!digits_first && std::isdigit(static_cast<unsigned char>(element.front())))
        return false;
    for (char c : element)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_')
            return false;
    return true;
}

// Which values an annotation with a meaning of its own may have; others pass unseen.
struct KnownAnnotation {
    char const* name;
    std::initializer_list<char const*> values;
};

KnownAnnotation const known_annotations[] = {
    {"org.freedesktop.DBus.Property.EmitsChangedSignal", {"true", "invalidates", "const", "false"}},
    {"org.freedesktop.DBus.Deprecated", {"true", "false"}},
    {"org.freedesktop.DBus.Method.NoReply", {"true", "false"}},
    {"org.tarvek.Async", {"true", "false"}},
};

void check_annotations(std::vector<Annotation> const& annotations)
{
    std::map<std::string, Annotation const*> seen;
    for (auto const& a : annotations) {
        if (auto [it, fresh] = seen.emplace(a.name, &a); !fresh)
            a.where.fail("annotation " + a.name + " is given twice (first on line "
                + std::to_string(it->second->where.line) + ")");
        for (auto const& known : known_annotations) {
            if (a.name != known.name)
                continue;
            bool ok = false;
            std::string allowed;
            for (auto const* v : known.values) {
                ok = ok || a.value == v;
                allowed += (allowed.empty() ? "" : ", ") + std::string(v);
            }
            if (!ok)
                a.where.fail("annotation " + a.name + " has the value \"" + a.value + "\"; it takes one of "
                    + allowed);
        }
        if (a.name.rfind("org.tarvek.", 0) == 0 && a.name != "org.tarvek.CppName"
            && a.name != "org.tarvek.Async")
            a.where.fail(
                "unknown annotation " + a.name + " (ours are org.tarvek.CppName and org.tarvek.Async)");
    }
}

void check_arguments(std::vector<Argument> const& arguments, std::string const& owner)
{
    std::map<std::string, Argument const*> names;
    for (auto const& arg : arguments) {
        if (auto p = signature_problem(arg.type, true); !p.empty()) {
            std::string text = "argument ";
            text.append(arg.name.empty() ? "without a name" : arg.name).append(" of ").append(owner);
            text.append(" has a bad type \"").append(arg.type).append("\": ").append(p);
            arg.where.fail(text);
        }
        check_annotations(arg.annotations);
        if (arg.name.empty())
            continue;
        if (auto [it, fresh] = names.emplace(arg.name, &arg); !fresh)
            arg.where.fail("argument " + arg.name + " of " + owner + " is named twice (first on line "
                + std::to_string(it->second->where.line) + ")");
    }
}

template <class Member>
void check_members(std::vector<Member> const& members, char const* kind, std::string const& interface)
{
    std::map<std::string, Member const*> seen;
    for (auto const& m : members) {
        if (!is_member_name(m.name))
            m.where.fail(std::string("\"") + m.name + "\" is not a valid " + kind
                + " name (letters, digits and '_', not starting with a digit, at most 255)");
        if (auto [it, fresh] = seen.emplace(m.name, &m); !fresh)
            m.where.fail(std::string(kind) + " " + m.name + " of "
                + interface + " is declared twice (first on line " + std::to_string(it->second->where.line)
                + ")");
        check_annotations(m.annotations);
    }
}

} // namespace

bool is_interface_name(std::string_view name)
{
    if (name.empty() || name.size() > 255)
        return false;
    int elements = 0;
    std::size_t start = 0;
    while (true) {
        auto const end = name.find('.', start);
        if (!is_element(name.substr(start, end == std::string_view::npos ? end : end - start), false))
            return false;
        ++elements;
        if (end == std::string_view::npos)
            break;
        start = end + 1;
    }
    return elements >= 2;
}

bool is_member_name(std::string_view name)
{
    return name.size() <= 255 && is_element(name, false);
}

void check_document(Document const& document)
{
    for (auto const& interface : document.interfaces) {
        if (!is_interface_name(interface.name))
            interface.where.fail("\"" + interface.name
                + "\" is not a valid interface name (two or more elements of letters, digits and "
                  "'_' joined by '.', none starting with a digit, at most 255)");
        check_annotations(interface.annotations);
        check_members(interface.methods, "method", interface.name);
        check_members(interface.signals, "signal", interface.name);
        check_members(interface.properties, "property", interface.name);
        for (auto const& m : interface.methods)
            check_arguments(m.arguments, "method " + m.name);
        for (auto const& s : interface.signals)
            check_arguments(s.arguments, "signal " + s.name);
        for (auto const& p : interface.properties)
            if (auto problem = signature_problem(p.type, true); !problem.empty())
                p.where.fail("property " + p.name + " has a bad type \"" + p.type + "\": " + problem);
    }
}

void check_distinct(std::vector<Document> const& documents)
{
    std::map<std::string, Interface const*> seen;
    for (auto const& d : documents)
        for (auto const& i : d.interfaces)
            if (auto [it, fresh] = seen.emplace(i.name, &i); !fresh)
                i.where.fail("interface " + i.name + " is declared twice (first at " + it->second->where.file
                    + ":" + std::to_string(it->second->where.line) + ")");
}

} // namespace tarvek::codegen
