// SPDX-License-Identifier: LGPL-2.1-or-later
// The generator's model of introspection data: what the XML reader fills in, what the
// checks judge and what the emitter writes out. Plain values, owned by the Document that
// holds them; every entry keeps the file and line it came from, so that any later stage
// can say where a problem lies.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace tarvek::codegen {

// A problem with the input, reported as "FILE:LINE: text". The generator is a build tool
// that does not link the library, so it has an exception of its own.
class InputError : public std::runtime_error {
public:
    InputError(std::string file, unsigned long line, std::string const& text)
        : std::runtime_error(file + ":" + std::to_string(line) + ": " + text)
        , file_(std::move(file))
        , line_(line)
    {
    }
    std::string const& file() const noexcept { return file_; }
    unsigned long line() const noexcept { return line_; }

private:
    std::string file_;
    unsigned long line_;
};

struct Location {
    std::string file;
    unsigned long line = 0;

    [[noreturn]] void fail(std::string const& text) const { throw InputError(file, line, text); }
};

struct Annotation {
    std::string name;
    std::string value;
    Location where;
};

enum class Direction { in, out };
enum class Access { read, write, read_write };

struct Argument {
    std::string name; // may be empty: D-Bus does not require argument names
    std::string type;
    Direction direction = Direction::in;
    std::vector<Annotation> annotations;
    std::string doc;
    Location where;
};

struct Method {
    std::string name;
    std::vector<Argument> arguments; // in and out, in the order of the XML
    std::vector<Annotation> annotations;
    std::string doc;
    Location where;
};

struct Signal {
    std::string name;
    std::vector<Argument> arguments;
    std::vector<Annotation> annotations;
    std::string doc;
    Location where;
};

struct Property {
    std::string name;
    std::string type;
    Access access = Access::read;
    std::vector<Annotation> annotations;
    std::string doc;
    Location where;
};

struct Interface {
    std::string name;
    std::vector<Method> methods;
    std::vector<Signal> signals;
    std::vector<Property> properties;
    std::vector<Annotation> annotations;
    std::string doc;
    Location where;
};

// All interfaces of one input file, in the order in which they appear.
struct Document {
    std::string file;
    std::vector<Interface> interfaces;
};

// The value of the annotation `name`, or nullptr.
inline Annotation const* find_annotation(std::vector<Annotation> const& annotations, std::string const& name)
{
    for (auto const& a : annotations)
        if (a.name == name)
            return &a;
    return nullptr;
}

} // namespace tarvek::codegen
