// SPDX-License-Identifier: LGPL-2.1-or-later
// Test helpers: live objects to capture and apply storage documents to. `Everything` has
// one property of each type that the value mapping covers, `Lamp` a validation rule and a
// count of its commits. A LiveObject registers its object at a path in a registry of its
// own, so that two of them can stand at the same path.
#pragma once

#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/object.hpp>
#include <tarvek/provider/registry.hpp>

#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace storage_test {

struct Color {
    double r, g, b;
    bool operator==(Color const&) const = default;
};

} // namespace storage_test

template <>
inline constexpr auto tarvek::provider::struct_members<storage_test::Color> = std::make_tuple(
    &storage_test::Color::r, &storage_test::Color::g, &storage_test::Color::b);

namespace storage_test {

class Everything : public tarvek::provider::Interface {
public:
    Everything()
        : Interface("org.sample.Everything")
    {
    }

    Property<bool> flag{*this, "Flag", false};
    Property<std::uint8_t> byte{*this, "Byte", 0};
    Property<std::int16_t> int16{*this, "Int16", 0};
    Property<std::uint16_t> uint16{*this, "Uint16", 0};
    Property<std::int32_t> int32{*this, "Int32", 0};
    Property<std::uint32_t> uint32{*this, "Uint32", 0};
    Property<std::int64_t> int64{*this, "Int64", 0};
    Property<std::uint64_t> uint64{*this, "Uint64", 0};
    Property<double> real{*this, "Real", 0.0};
    Property<std::string> text{*this, "Text", ""};
    Property<tarvek::ObjectPath> path{*this, "Path", tarvek::ObjectPath()};
    Property<std::vector<std::int32_t>> list{*this, "List", {}};
    Property<std::map<std::string, std::int32_t>> dict{*this, "Dict", {}};
    Property<std::tuple<std::int32_t, std::string>> pair{*this, "Pair", {0, ""}};
    Property<Color> color{*this, "Color", {0, 0, 0}};

    // A value other than the default in every property, with the extremes of the widths.
    void set_all()
    {
        update([&](Values& v) {
            v.set(flag, true);
            v.set(byte, std::uint8_t{255});
            v.set(int16, std::int16_t{-32768});
            v.set(uint16, std::uint16_t{65535});
            v.set(int32, std::numeric_limits<std::int32_t>::min());
            v.set(uint32, std::numeric_limits<std::uint32_t>::max());
            v.set(int64, std::numeric_limits<std::int64_t>::min());
            v.set(uint64, std::numeric_limits<std::uint64_t>::max() - 1);
            v.set(real, 0.1);
            v.set(text, "caf\xc3\xa9 \"quoted\"");
            v.set(path, tarvek::ObjectPath("/org/sample/thing"));
            v.set(list, std::vector<std::int32_t>{3, -1, 4});
            v.set(dict, std::map<std::string, std::int32_t>{{"one", 1}, {"two", 2}});
            v.set(pair, std::tuple<std::int32_t, std::string>{7, "seven"});
            v.set(color, Color{0.25, 0.5, 1.0});
        });
    }
};

class Lamp : public tarvek::provider::Interface {
public:
    Lamp()
        : Interface("org.sample.Lamp")
    {
    }

    Property<std::int32_t> level{*this, "Level", 0};
    Property<std::string> label{*this, "Label", ""};

    unsigned long commits = 0;
    unsigned long last_changed = 0;

protected:
    bool validate(Values const& v) const override { return v[level] <= 100; }
    void on_changed(Values const&, Changed const& changed) override
    {
        ++commits;
        last_changed = changed.size();
    }
};

// An object with an Everything and a Lamp, registered at `path`.
struct LiveObject {
    explicit LiveObject(std::string const& path) { registry.add_object(object, tarvek::ObjectPath(path)); }

    tarvek::API_Registry registry;
    tarvek::Object object;
    Everything& everything = tarvek::provider::add_interface<Everything>(object);
    Lamp& lamp = tarvek::provider::add_interface<Lamp>(object);
};

// Whether the live values of two interfaces of one class are equal, property by property.
inline bool same_values(
    tarvek::provider::IInterfaceImplementation const& a, tarvek::provider::IInterfaceImplementation const& b)
{
    auto const left = a.get_properties();
    auto const right = b.get_properties();
    if (left->size() != right->size())
        return false;
    for (unsigned long i = 0; i < left->size(); ++i)
        if (!(*left)[i].equals((*right)[i]))
            return false;
    return true;
}

} // namespace storage_test
