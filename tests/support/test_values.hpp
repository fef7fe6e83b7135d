// SPDX-License-Identifier: LGPL-2.1-or-later
// A trivial sink and source of values for tests: basic values only, kept in a vector of
// variants in the order in which they were written or are to be read. Container calls are
// accepted and ignored by the sink and not supported by the source; the test interfaces
// use basic values only.
#pragma once

#include <tarvek/common/exceptions.hpp>
#include <tarvek/glue/serializer.hpp>

#include <boost/throw_exception.hpp>

#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace tarvek::test {

using Value = std::variant<bool, int, long, double, std::string>;
using Values = std::vector<Value>;

// The D-Bus type code of the value's type.
inline char type_code(Value const& value)
{
    static constexpr char codes[] = {'b', 'i', 'x', 'd', 's'};
    return codes[value.index()];
}

// Writes one value as its type's single write call.
inline void write_value(glue::ISerializer& sink, Value const& value)
{
    std::visit(
        [&sink](auto const& v) {
            if constexpr (std::is_same_v<std::decay_t<decltype(v)>, std::string>)
                sink.write(v.c_str(), v.size(), true);
            else
                sink.write(v);
        },
        value);
}

class ValueSink : public glue::ISerializer {
public:
    void write(bool value) override { values.emplace_back(value); }
    void write(unsigned char) override { unsupported(); }
    void write(short) override { unsupported(); }
    void write(unsigned short) override { unsupported(); }
    void write(int value) override { values.emplace_back(value); }
    void write(unsigned int) override { unsupported(); }
    void write(long value) override { values.emplace_back(value); }
    void write(unsigned long) override { unsupported(); }
    void write(double value) override { values.emplace_back(value); }
    void write(char const* text, unsigned long size, bool null_terminated) override
    {
        values.emplace_back(null_terminated && size == 0 ? std::string(text) : std::string(text, size));
    }
    void write(ObjectPath const&) override { unsupported(); }
    void tuple_begin(unsigned long, char const*) override { }
    void tuple_entry_begin() override { }
    void tuple_entry_end() override { }
    void tuple_end() override { }
    void dict_begin(unsigned long, char const*) override { }
    void dict_entry_begin(char const*) override { }
    void dict_entry_kv_separator() override { }
    void dict_entry_end() override { }
    void dict_end() override { }
    void list_begin(unsigned long, char const*) override { }
    void list_entry_begin() override { }
    void list_entry_end() override { }
    void list_end() override { }
    void variant_begin(char const*) override { }
    void variant_end() override { }
    void typed_variant_begin(char const*) override { unsupported(); }
    void typed_variant_end() override { unsupported(); }
    void write_fd(int) override { unsupported(); }

    Values values;

private:
    [[noreturn]] static void unsupported()
    {
        boost::throw_exception(serialize_error("Not a test value type"));
    }
};

class ValueSource : public glue::IDeserializer {
public:
    ValueSource() = default;
    explicit ValueSource(Values values)
        : values_(std::move(values))
    {
    }

    bool read_bool() override { return next<bool>(); }
    unsigned char read_byte() override { unsupported(); }
    short read_int16() override { unsupported(); }
    unsigned short read_uint16() override { unsupported(); }
    int read_int32() override { return next<int>(); }
    unsigned int read_uint32() override { unsupported(); }
    long read_int64() override { return next<long>(); }
    unsigned long read_uint64() override { unsupported(); }
    double read_double() override { return next<double>(); }
    std::string read_string() override { return next<std::string>(); }
    ObjectPath read_path() override { unsupported(); }
    void tuple_enter() override { unsupported(); }
    void tuple_read_separator() override { unsupported(); }
    void tuple_exit() override { unsupported(); }
    int list_enter() override { unsupported(); }
    void list_read_separator() override { unsupported(); }
    bool list_try_exit() override { unsupported(); }
    int dict_enter() override { unsupported(); }
    bool dict_entry_try_enter(bool) override { unsupported(); }
    void dict_entry_read_kv_separator() override { unsupported(); }
    void dict_entry_exit() override { unsupported(); }
    void dict_exit() override { unsupported(); }
    void variant_enter() override { unsupported(); }
    void variant_exit() override { unsupported(); }
    std::string typed_variant_enter() override { unsupported(); }
    void typed_variant_exit() override { unsupported(); }
    common::FileDescriptor read_fd() override { unsupported(); }

private:
    template <class T> T next()
    {
        if (position_ == values_.size())
            boost::throw_exception(length_error("No more elements to read"));
        auto const* value = std::get_if<T>(&values_[position_]);
        if (value == nullptr)
            boost::throw_exception(deserialize_error("Wrong type of test value"));
        ++position_;
        return *value;
    }

    [[noreturn]] static void unsupported()
    {
        boost::throw_exception(deserialize_error("Not a test value type"));
    }

    Values values_;
    std::size_t position_ = 0;
};

} // namespace tarvek::test
