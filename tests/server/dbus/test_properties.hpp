// SPDX-License-Identifier: LGPL-2.1-or-later
// Small glue::IProperty values for the cursor tests: an int property with a current
// value, one that fails after it has written, and a pair property whose readers may stop
// half way. A PropertyMap over them stands for the index that dbus::Interface keeps.
#pragma once

#include "server/dbus/bus_arguments.hpp"

#include <tarvek/glue/members.hpp>

#include <stdexcept>

namespace tarvek::test {

class NoRanges final : public glue::ICollection<glue::IPropertyRange> {
public:
    unsigned long size() const override { return 0; }
    glue::IPropertyRange& operator[](unsigned long) override { throw std::out_of_range("no ranges"); }
    glue::IPropertyRange const& operator[](unsigned long) const override { throw std::out_of_range("no ranges"); }
};

class TestProperty : public glue::IProperty {
public:
    TestProperty(ConstString name, ConstString signature) : name_(name), signature_(signature) {}

    ConstString name() const override { return name_; }
    ConstString signature() const override { return signature_; }
    bool is_default() const override { return false; }
    void serialize_default(glue::ISerializer& sink) const override { serialize(sink); }
    bool is_readonly() const override { return false; }
    glue::ICollection<glue::IPropertyRange> const& ranges() const override { return ranges_; }

private:
    ConstString name_;
    ConstString signature_;
    NoRanges ranges_;
};

class IntProperty final : public TestProperty {
public:
    IntProperty(ConstString name, int value) : TestProperty(name, "i"), value(value) {}
    void serialize(glue::ISerializer& sink) const override { sink.write(value); }

    int value;
};

// Writes a complete value, then fails, as a writer that notices a problem late.
class ThrowingProperty final : public TestProperty {
public:
    explicit ThrowingProperty(ConstString name) : TestProperty(name, "i") {}
    void serialize(glue::ISerializer& sink) const override
    {
        sink.write(0);
        throw std::runtime_error("serialize failed");
    }
};

// A tuple of two ints.
class PairProperty final : public TestProperty {
public:
    explicit PairProperty(ConstString name) : TestProperty(name, "(ii)") {}
    void serialize(glue::ISerializer& sink) const override
    {
        sink.tuple_begin(2, "ii");
        sink.tuple_entry_begin();
        sink.write(1);
        sink.tuple_entry_end();
        sink.tuple_entry_begin();
        sink.write(2);
        sink.tuple_entry_end();
        sink.tuple_end();
    }
};

inline server::dbus::PropertyMap index_of(std::initializer_list<glue::IProperty*> properties)
{
    server::dbus::PropertyMap map;
    for (glue::IProperty* property : properties)
        map.emplace(property->name().str(), *property);
    return map;
}

} // namespace tarvek::test
