// SPDX-License-Identifier: LGPL-2.1-or-later
// Fuzz target: bus arguments as the server reads them. sd-bus can't parse a message from
// bytes through its public interface, so the input describes one instead: it is built as
// a method call on a connection without a daemon (a socket pair that nobody answers),
// sealed, and read back by the library's readers.
//
// Input: a mode character, the written type program (type_program.hpp), a newline, the
// expected type program, a newline, then the bytes from which the values are taken in
// the order of the written program:
//   y: 1 byte; b: 1 byte (bit 0); n q: 2; i u: 4; x t d: 8, in the machine's order;
//   s: a length byte (below 64) and that many bytes, which sd-bus checks (UTF-8, no NUL);
//   o: a byte that picks one of a few paths, or above 0xf0 a string as for s;
//   a: a count byte (below 8), then the elements; a{KV}: the same, entries of K and V;
//   ( ): the members; v: the content, of the type that follows the v in the program.
// Missing bytes read as zero. An input that sd-bus refuses to build is skipped.
//
// Modes, each reading the sealed call from its start:
//   0  SDBusDeserializer reads the expected program (JSON_Serializer prints it);
//   1  MethodParameterIterator hands the source to a method that binds parameters of the
//      expected program, one element per parameter, as the server's method handler does;
//   2  the names of an a(sv) argument are walked first, as the server does, and then, if
//      there are any, SetManyIterator walks it, and each named property reads its value;
//   3  an `as` argument of property names is walked by ResetIterator and GetManyIterator,
//      the latter writing the properties into a reply's a{sv}.
// The properties of modes 2 and 3 are typed properties named by their types: Flag (b),
// Byte (y), Level (i), Real (d), Label (s), Path (o), List (ai), Dict (a{si}), Pair ((is)),
// Table (a{sa(xd)}), Any (v, a tarvek::Variant), Meta (a{sv}).
#include "type_program.hpp"

#include "server/dbus/bus_arguments.hpp"
#include "server/dbus/cursors.hpp"

#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/variant.hpp>
#include <tarvek/serialization/json_serializer.hpp>
#include <tarvek/serialization/sdbus_deserializer.hpp>
#include <tarvek/serialization/sdbus_serializer.hpp>
#include <tarvek/server/dbus/sdbus_message.hpp>

#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

namespace fuzz {
namespace {

using tarvek::server::dbus::SDBusInboundMessage;
using tarvek::server::dbus::SDBusOutboundMessage;

sd_bus* bus = nullptr;

[[noreturn]] void fail(char const* what, int r)
{
    std::fprintf(stderr, "bus_arguments_fuzz: %s: %s\n", what, std::strerror(-r));
    std::abort();
}

// The value bytes, taken from the front.
class Bytes {
public:
    explicit Bytes(std::string_view data) : data_(data) {}

    template <class T>
    T take()
    {
        T value{};
        std::size_t const n = std::min(sizeof value, data_.size());
        std::memcpy(&value, data_.data(), n);
        data_.remove_prefix(n);
        return value;
    }
    std::string take_string(std::size_t limit)
    {
        std::size_t const n = std::min<std::size_t>(take<std::uint8_t>() % limit, data_.size());
        std::string text(data_.substr(0, n));
        data_.remove_prefix(n);
        return text;
    }

private:
    std::string_view data_;
};

// Appends one value of the type at `at`; returns the index past it, or npos if sd-bus
// refused.
std::size_t append_value(sd_bus_message* m, std::string_view program, std::size_t at, Bytes& bytes)
{
    constexpr auto refused = std::string_view::npos;
    char const code = program[at];
    int r = 0;
    switch (code) {
    case 'y': {
        auto const v = bytes.take<std::uint8_t>();
        r = sd_bus_message_append_basic(m, code, &v);
        break;
    }
    case 'b': {
        int const v = bytes.take<std::uint8_t>() & 1;
        r = sd_bus_message_append_basic(m, code, &v);
        break;
    }
    case 'n':
    case 'q': {
        auto const v = bytes.take<std::uint16_t>();
        r = sd_bus_message_append_basic(m, code, &v);
        break;
    }
    case 'i':
    case 'u': {
        auto const v = bytes.take<std::uint32_t>();
        r = sd_bus_message_append_basic(m, code, &v);
        break;
    }
    case 'x':
    case 't':
    case 'd': {
        auto const v = bytes.take<std::uint64_t>();
        r = sd_bus_message_append_basic(m, code, &v);
        break;
    }
    case 's': {
        std::string const v = bytes.take_string(64);
        r = sd_bus_message_append_basic(m, code, v.c_str());
        break;
    }
    case 'o': {
        static char const* const paths[] = {"/", "/a", "/a/b", "/org/fuzz/x_1"};
        auto const pick = bytes.take<std::uint8_t>();
        std::string const v = pick > 0xf0 ? bytes.take_string(64) : paths[pick % 4];
        r = sd_bus_message_append_basic(m, code, v.c_str());
        break;
    }
    case 'v': {
        std::size_t const end = skip_type(program, at + 1);
        std::string const contained = dbus_signature(program, at + 1, end);
        if (sd_bus_message_open_container(m, 'v', contained.c_str()) < 0 ||
            append_value(m, program, at + 1, bytes) == refused || sd_bus_message_close_container(m) < 0)
            return refused;
        return end;
    }
    case 'a': {
        std::size_t const end = skip_type(program, at);
        bool const dict = program[at + 1] == '{';
        std::string const element = dbus_signature(program, at + 1, end);
        if (sd_bus_message_open_container(m, 'a', element.c_str()) < 0)
            return refused;
        for (int count = bytes.take<std::uint8_t>() % 8; count > 0; --count) {
            if (dict) {
                std::string const inner = dbus_signature(program, at + 2, end - 1);
                std::size_t const key_end = skip_type(program, at + 2);
                if (sd_bus_message_open_container(m, 'e', inner.c_str()) < 0 ||
                    append_value(m, program, at + 2, bytes) == refused ||
                    append_value(m, program, key_end, bytes) == refused || sd_bus_message_close_container(m) < 0)
                    return refused;
            } else if (append_value(m, program, at + 1, bytes) == refused) {
                return refused;
            }
        }
        return sd_bus_message_close_container(m) < 0 ? refused : end;
    }
    case '(': {
        std::size_t const end = skip_type(program, at);
        std::string const members = dbus_signature(program, at + 1, end - 1);
        if (members.empty())
            return refused; // D-Bus has no empty struct
        if (sd_bus_message_open_container(m, 'r', members.c_str()) < 0)
            return refused;
        for (std::size_t member = at + 1; member + 1 < end;) {
            member = append_value(m, program, member, bytes);
            if (member == refused)
                return refused;
        }
        return sd_bus_message_close_container(m) < 0 ? refused : end;
    }
    default:
        return refused;
    }
    return r < 0 ? refused : at + 1;
}

struct MessageUnref {
    void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

// The sealed call, or null if sd-bus refused what the input describes.
MessagePtr build_call(std::string_view program, Bytes& bytes)
{
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus, &raw, "org.fuzz.Peer", "/fuzz", "org.fuzz.Test", "Call");
    if (r < 0)
        fail("sd_bus_message_new_method_call", r);
    MessagePtr call(raw);
    for (std::size_t at = 0; at < program.size();) {
        at = append_value(call.get(), program, at, bytes);
        if (at == std::string_view::npos)
            return nullptr;
    }
    static std::uint64_t cookie = 1;
    if (sd_bus_message_seal(call.get(), cookie++, 0) < 0)
        return nullptr;
    if ((r = sd_bus_message_rewind(call.get(), 1)) < 0)
        fail("sd_bus_message_rewind", r);
    return call;
}

// The typed properties of modes 2 and 3, made afresh for each input.
class Properties {
public:
    Properties()
    {
        add<bool>("Flag", false);
        add<std::uint8_t>("Byte", 0);
        add<std::int32_t>("Level", 0);
        add<double>("Real", 0.0);
        add<std::string>("Label", "");
        add<tarvek::ObjectPath>("Path", tarvek::ObjectPath("/"));
        add<std::vector<std::int32_t>>("List", {});
        add<std::map<std::string, std::int32_t>>("Dict", {});
        add<std::tuple<std::int32_t, std::string>>("Pair", {0, ""});
        add<std::map<std::string, std::vector<std::tuple<std::int64_t, double>>>>("Table", {});
        add<tarvek::Variant>("Any", tarvek::Variant(0));
        add<std::map<std::string, tarvek::Variant>>("Meta", {});
    }

    tarvek::server::dbus::PropertyMap map;

    tarvek::provider::IPropertyEx& writable(std::string const& name) { return *by_name.at(name); }

private:
    template <class T>
    void add(char const* name, T initial)
    {
        namespace typed = tarvek::provider::typed;
        auto descriptor = std::make_shared<typed::PropertyDescriptor<T> const>(
            name, std::move(initial), false, static_cast<unsigned short>(owned.size()),
            std::vector<tarvek::provider::Range<T>>{});
        auto& property = *owned.emplace_back(std::make_unique<typed::TypedProperty<T>>(std::move(descriptor)));
        map.emplace(name, property);
        by_name.emplace(name, &property);
    }

    std::vector<std::unique_ptr<tarvek::provider::typed::TypedPropertyBase>> owned;
    std::map<std::string, tarvek::provider::IPropertyEx*> by_name;
};

constexpr tarvek::ConstString interface_name{"org.fuzz.Test", 13};

void read_values(SDBusInboundMessage& call, std::string_view expected)
{
    tarvek::serialization::SDBusDeserializer reader(call.get());
    std::ostringstream out;
    tarvek::serialization::JSON_Serializer writer(out);
    Budget budget;
    for (std::size_t at = 0; at < expected.size();)
        at = copy_value(expected, at, reader, writer, budget);
}

void bind_method(SDBusInboundMessage& call, std::string_view expected)
{
    tarvek::server::dbus::MethodParameterIterator arguments(call);
    std::ostringstream out;
    tarvek::serialization::JSON_Serializer writer(out);
    Budget budget;
    for (std::size_t at = 0; at < expected.size();) {
        if (arguments.at_end())
            throw tarvek::length_error("No more elements to read");
        at = copy_value(expected, at, arguments.value(), writer, budget);
        arguments.advance();
    }
}

// The server's first pass over a SetMany: the names only, each element skipped. Like the
// server, an empty batch never reaches SetManyIterator, which can't tell an empty array
// from its first element.
unsigned count_elements(SDBusInboundMessage& call)
{
    unsigned count = 0;
    {
        tarvek::server::dbus::InboundContainerGuard array(call, 'a', "(sv)");
        while (sd_bus_message_at_end(call.get(), 0) == 0) {
            tarvek::server::dbus::InboundContainerGuard element(call, 'r', "sv");
            tarvek::server::dbus::read_string_argument(call.get());
            if (int const r = sd_bus_message_skip(call.get(), nullptr); r < 0)
                throw tarvek::system_error(-r, "could not skip");
            element.end();
            ++count;
        }
        array.end();
    }
    if (int const r = sd_bus_message_rewind(call.get(), 1); r < 0)
        fail("sd_bus_message_rewind", r);
    return count;
}

void set_many(SDBusInboundMessage& call)
{
    if (count_elements(call) == 0)
        return;
    Properties properties;
    tarvek::server::dbus::SetManyIterator values(call, interface_name, properties.map);
    for (int n = 0; !values.at_end() && n < 64; ++n) {
        auto [property, source] = values.value();
        properties.writable(property.name().str()).deserialize(source);
        values.advance();
    }
}

void reset_and_get_many(SDBusInboundMessage& call)
{
    Properties properties;
    tarvek::server::dbus::NameList names(call);
    {
        tarvek::server::dbus::ResetIterator resets(names, interface_name, properties.map);
        for (int n = 0; !resets.at_end() && n < 64; ++n) {
            properties.writable(resets.value().name().str()).reset();
            resets.advance();
        }
    }
    SDBusOutboundMessage reply(call);
    tarvek::server::dbus::OutboundContainerGuard array(reply, 'a', "{sv}");
    {
        tarvek::server::dbus::GetManyIterator reads(names, interface_name, properties.map, reply);
        for (int n = 0; !reads.at_end() && n < 64; ++n) {
            auto [property, sink] = reads.value();
            property.serialize(sink);
            reads.advance();
        }
    }
    array.end();
}

} // namespace
} // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        fuzz::fail("socketpair", -errno);
    // ends[1] stays open and unread for the life of the process: the peer that never answers.
    int r = sd_bus_new(&fuzz::bus);
    if (r < 0)
        fuzz::fail("sd_bus_new", r);
    if ((r = sd_bus_set_fd(fuzz::bus, ends[0], ends[0])) < 0)
        fuzz::fail("sd_bus_set_fd", r);
    if ((r = sd_bus_start(fuzz::bus)) < 0)
        fuzz::fail("sd_bus_start", r);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    std::string_view input(reinterpret_cast<char const*>(data), size);
    if (input.empty())
        return -1;
    char const mode = input.front();
    input.remove_prefix(1);
    std::size_t const first = input.find('\n');
    std::size_t const second = first == std::string_view::npos ? first : input.find('\n', first + 1);
    if (second == std::string_view::npos)
        return -1;
    std::string_view const written = input.substr(0, first);
    std::string_view const expected = input.substr(first + 1, second - first - 1);
    if (!fuzz::valid_program(written) || (!expected.empty() && !fuzz::valid_program(expected)))
        return -1;
    fuzz::Bytes bytes(input.substr(second + 1));
    fuzz::MessagePtr const call = fuzz::build_call(written, bytes);
    if (!call)
        return -1;

    // The handle unwinds what the cursors entered through it when it ends.
    tarvek::server::dbus::SDBusInboundMessage inbound(call.get());
    try {
        switch (mode) {
        case '0':
            fuzz::read_values(inbound, expected);
            break;
        case '1':
            fuzz::bind_method(inbound, expected);
            break;
        case '2':
            fuzz::set_many(inbound);
            break;
        case '3':
            fuzz::reset_and_get_many(inbound);
            break;
        default:
            return -1;
        }
    } catch (std::exception const&) {
        // Refusals of the readers and cursors: what a client gets as an error reply.
    }
    return 0;
}
