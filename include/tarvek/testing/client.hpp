// SPDX-License-Identifier: LGPL-2.1-or-later
// Typed clients for tests: a connection to a bus (a PrivateBus, usually) that calls
// methods with C++ arguments and reads typed replies, reads and writes properties, waits
// for signals and keeps several calls outstanding at once. Values travel by the
// library's own type mapping (tarvek/provider/value_codec.hpp), so every type that a
// service can publish can be sent and read here; text literals travel as std::string.
//
//     tarvek::test::Client client(bus.address());
//     tarvek::test::Proxy lamp(client, "org.sample.Lamps", "/org/sample/lamp", "org.sample.Lamp");
//     auto sum = lamp.call<std::int32_t>("Add", 2, 3);   // Result<std::int32_t>
//     EXPECT_EQ(sum.value(), 5);
//     auto refused = lamp.set("Level", 500U);            // Result<void>
//     EXPECT_EQ(refused.error().name, "org.freedesktop.DBus.Error.InvalidArgs");
//
// A reply of several values is a std::tuple (call<bool, std::string>), a reply of none is
// Result<void>. A bus error is an outcome, not an exception: Result holds either the
// value or the error's name and text. Exceptions are for a broken test: a reply whose
// signature is not the one asked for raises tarvek::deserialize_error naming both, and a
// failing connection raises tarvek::system_error.
//
// Threads. A client, its proxies, watches and pending calls belong to one thread, the one
// that calls them. Nothing runs behind the test's back: answers and signals are taken in
// while a call waits, in wait(), next() and process_until(), and only there.
#pragma once

#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/value_codec.hpp>
#include <tarvek/serialization/sdbus_deserializer.hpp>
#include <tarvek/serialization/sdbus_serializer.hpp>
#include <tarvek/server/dbus/sdbus_message.hpp>
#include <tarvek/testing/private_bus.hpp>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>

struct sd_bus_message;
struct sd_bus_slot;

namespace tarvek::test {

// A bus error as the client received it.
struct BusError {
    std::string name;
    std::string message;

    friend bool operator==(BusError const&, BusError const&) = default;
};
std::ostream& operator<<(std::ostream& out, BusError const& error);

namespace impl {

[[noreturn]] void raise_failed(BusError const& error);
[[noreturn]] void raise_succeeded();

template <class... T>
struct ReplyOf {
    using type = std::tuple<T...>;
};
template <>
struct ReplyOf<> {
    using type = void;
};
template <class T>
struct ReplyOf<T> {
    using type = T;
};

} // namespace impl

// What a reply of the types T... is read as: nothing, one value, or a tuple.
template <class... T>
using Reply = typename impl::ReplyOf<T...>::type;

// The outcome of a call: a value of T, or the bus error that came instead.
template <class T>
class Result {
public:
    Result(T value) : outcome_(std::in_place_index<0>, std::move(value)) {} // NOLINT(google-explicit-constructor)
    Result(BusError error) : outcome_(std::in_place_index<1>, std::move(error)) {} // NOLINT

    bool ok() const noexcept { return outcome_.index() == 0; }
    explicit operator bool() const noexcept { return ok(); }

    // Raises tarvek::invalid_state_error, with the error's name and text, after a bus error.
    T const& value() const&
    {
        if (!ok())
            impl::raise_failed(std::get<1>(outcome_));
        return std::get<0>(outcome_);
    }
    T value() &&
    {
        if (!ok())
            impl::raise_failed(std::get<1>(outcome_));
        return std::get<0>(std::move(outcome_));
    }
    T const& operator*() const& { return value(); }
    T const* operator->() const { return &value(); }

    // Raises tarvek::invalid_state_error when the call succeeded.
    BusError const& error() const
    {
        if (ok())
            impl::raise_succeeded();
        return std::get<1>(outcome_);
    }

private:
    std::variant<T, BusError> outcome_;
};

template <>
class Result<void> {
public:
    Result() = default;
    Result(BusError error) : error_(std::move(error)) {} // NOLINT(google-explicit-constructor)

    bool ok() const noexcept { return !error_; }
    explicit operator bool() const noexcept { return ok(); }
    // Raises tarvek::invalid_state_error after a bus error, so that a test can insist.
    void value() const
    {
        if (error_)
            impl::raise_failed(*error_);
    }
    BusError const& error() const
    {
        if (!error_)
            impl::raise_succeeded();
        return *error_;
    }

private:
    std::optional<BusError> error_;
};

// So that a failed expectation shows what came: the value where it can be printed.
template <class T>
std::ostream& operator<<(std::ostream& out, Result<T> const& result)
{
    if (!result.ok())
        return out << "error " << result.error();
    if constexpr (requires(T const& v) { out << v; })
        return out << "ok " << result.value();
    else
        return out << "ok";
}

// One sd-bus message, with a reference of its own. Copies share the message and its read
// position.
class Message {
public:
    Message() noexcept = default;
    // Takes a reference of its own; null gives an empty handle.
    explicit Message(sd_bus_message* message) noexcept;
    Message(Message const& other) noexcept;
    Message(Message&& other) noexcept : message_(std::exchange(other.message_, nullptr)) {}
    Message& operator=(Message other) noexcept
    {
        std::swap(message_, other.message_);
        return *this;
    }
    ~Message();

    sd_bus_message* get() const noexcept { return message_; }
    explicit operator bool() const noexcept { return message_ != nullptr; }

    // The signature of the whole body, "" for none.
    std::string signature() const;
    std::string sender() const;
    std::string path() const;
    std::string interface() const;
    std::string member() const;

    // The body read from its start as T...: nothing, one value or a tuple. Raises
    // tarvek::deserialize_error when the body's signature is not that of T...
    template <provider::BusValue... T>
    Reply<T...> read() const;

private:
    sd_bus_message* message_ = nullptr;
};

// One value of a variant, as Properties.GetAll hands them out, kept so that the test can
// read it as the type it expects.
class Value {
public:
    // The signature of what the variant holds, such as "u".
    std::string const& signature() const noexcept { return signature_; }
    // The contents as T, or, where T is itself a variant type of the mapping, the variant.
    // Raises tarvek::deserialize_error when the variant holds another type.
    template <provider::BusValue T>
    T as() const;

private:
    friend class Client;
    Value(Message holder, std::string signature) : holder_(std::move(holder)), signature_(std::move(signature)) {}

    Message holder_; // a message of its own with the variant as its whole body
    std::string signature_;
};

class Client;

namespace impl {

// What an argument travels as: a type of the mapping as itself, any text as std::string.
template <class A>
decltype(auto) bus_value(A const& argument)
{
    if constexpr (provider::BusValue<A>)
        return (argument);
    else if constexpr (std::is_convertible_v<A const&, std::string_view>)
        return std::string(std::string_view(argument));
    else
        static_assert(provider::BusValue<A>, "this type has no D-Bus mapping");
}

template <class A>
using bus_type_t = std::remove_cvref_t<decltype(bus_value(std::declval<A const&>()))>;

template <class T>
constexpr bool is_variant_type()
{
    return std::string_view(provider::signature_of<T>) == "v";
}

// The signature of T... one after the other, with static storage.
template <class... T>
struct JoinedSignature {
    static constexpr auto value = (provider::typed::FixedString<0>() + ... + provider::typed::Codec<T>::signature);
};

void expect_signature(sd_bus_message* message, char const* expected, char const* what);
void rewind(sd_bus_message* message);
// The signature that the variant at the read position holds; raises
// tarvek::deserialize_error when no variant is there.
std::string peek_variant(sd_bus_message* message);

// Appends the values to a message under construction.
template <class... A>
void append(Message const& message, A const&... values)
{
    server::dbus::SDBusOutboundMessage outbound(message.get());
    serialization::SDBusSerializer sink(outbound);
    (provider::write_value(sink, values), ...);
}

// Appends `value` in a variant, or as itself where its type is a variant already.
template <class T>
void append_variant(Message const& message, T const& value)
{
    server::dbus::SDBusOutboundMessage outbound(message.get());
    serialization::SDBusSerializer sink(outbound);
    if constexpr (is_variant_type<T>()) {
        provider::write_value(sink, value);
    } else {
        sink.variant_begin(provider::signature_of<T>);
        provider::write_value(sink, value);
        sink.variant_end();
    }
}

// Reads the variant at the read position as T (see Value::as).
template <class T>
T read_variant(sd_bus_message* message, char const* what)
{
    serialization::SDBusDeserializer source(message);
    if constexpr (is_variant_type<T>()) {
        return provider::read_value<T>(source);
    } else {
        std::string const held = peek_variant(message);
        if (held != provider::signature_of<T>)
            boost::throw_exception(tarvek::deserialize_error(std::string(what) + ": the variant holds \"" + held +
                                                             "\", not \"" + provider::signature_of<T> + "\""));
        source.variant_enter();
        T value = provider::read_value<T>(source);
        source.variant_exit();
        return value;
    }
}

// The answer of an asynchronous call, filled in by sd-bus's callback while the client's
// connection is processed.
struct CallState {
    bool answered = false;
    Message reply;
    std::optional<BusError> error;
};

} // namespace impl

// A call sent without waiting; its answer arrives while the client is processed (by
// wait() of this or of any other pending call, or any other wait of the client). Several
// may be outstanding and be answered in any order. Dropping one unanswered cancels it.
template <provider::BusValue... R>
class PendingCall {
public:
    PendingCall(PendingCall&& other) noexcept
        : client_(other.client_), slot_(std::exchange(other.slot_, nullptr)), state_(std::move(other.state_))
    {}
    PendingCall& operator=(PendingCall&&) = delete;
    ~PendingCall();

    bool answered() const noexcept { return state_->answered; }
    // Processes the client until the answer is in (sd-bus answers a call that takes longer
    // than the client's time-out with "org.freedesktop.DBus.Error.Timeout" itself) and
    // returns it.
    Result<Reply<R...>> wait();
    // The answer that is in; raises tarvek::invalid_state_error before it is.
    Result<Reply<R...>> result() const;

private:
    friend class Client;
    PendingCall(Client& client, sd_bus_slot* slot, std::shared_ptr<impl::CallState> state)
        : client_(&client), slot_(slot), state_(std::move(state))
    {}

    Client* client_;
    sd_bus_slot* slot_;
    std::shared_ptr<impl::CallState> state_;
};

// The signals that match a rule, collected from the moment the watch is made (the match
// is in force at the daemon when the constructor returns, so nothing sent later is
// missed). Ends the match when it ends.
class SignalWatch {
public:
    SignalWatch(SignalWatch&& other) noexcept;
    SignalWatch& operator=(SignalWatch&&) = delete;
    ~SignalWatch();

    // Signals that arrived and have not been taken yet (call Client::process() first to
    // take in what the connection holds).
    std::size_t pending() const noexcept;
    // The next signal, waiting at most `timeout` for one; nullopt if none came.
    std::optional<Message> next_message(std::chrono::milliseconds timeout);
    // The next signal's values read as A... (nothing, one value or a tuple: see Reply),
    // nullopt if none came within `timeout`. Raises tarvek::deserialize_error when the
    // signal carries other types.
    template <provider::BusValue... A>
    auto next(std::chrono::milliseconds timeout) -> std::optional<std::conditional_t<sizeof...(A) == 0, std::tuple<>, Reply<A...>>>
    {
        auto message = next_message(timeout);
        if (!message)
            return std::nullopt;
        if constexpr (sizeof...(A) == 0) {
            message->read<>();
            return std::tuple<>();
        } else {
            return message->read<A...>();
        }
    }

private:
    friend class Client;
    struct State {
        std::deque<Message> messages;
    };
    SignalWatch(Client& client, sd_bus_slot* slot, std::unique_ptr<State> state);

    Client* client_;
    sd_bus_slot* slot_;
    std::unique_ptr<State> state_;
};

class Client {
public:
    // Connects to the bus at `address` (PrivateBus::address()). Every call waits at most
    // `timeout` for its answer. Raises tarvek::system_error when the connection fails.
    explicit Client(std::string const& address, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    Client(Client const&) = delete;
    Client& operator=(Client const&) = delete;
    ~Client();

    sd_bus* get() const noexcept { return bus_.get(); }
    std::string unique_name() const;
    std::chrono::milliseconds timeout() const noexcept { return timeout_; }
    void set_timeout(std::chrono::milliseconds timeout) noexcept { timeout_ = timeout; }

    // Calls `member` with `arguments` and reads the reply as R...
    template <provider::BusValue... R, class... A>
    Result<Reply<R...>> call(std::string const& destination, std::string const& path, std::string const& interface,
                             std::string const& member, A const&... arguments)
    {
        Message message = new_call(destination, path, interface, member);
        impl::append(message, impl::bus_value(arguments)...);
        auto [reply, error] = send(message);
        if (error)
            return std::move(*error);
        if constexpr (sizeof...(R) == 0) {
            reply.template read<>();
            return {};
        } else {
            return reply.template read<R...>();
        }
    }

    // Sends the call and returns at once; see PendingCall.
    template <provider::BusValue... R, class... A>
    PendingCall<R...> call_async(std::string const& destination, std::string const& path,
                                 std::string const& interface, std::string const& member, A const&... arguments)
    {
        Message message = new_call(destination, path, interface, member);
        impl::append(message, impl::bus_value(arguments)...);
        auto state = std::make_shared<impl::CallState>();
        sd_bus_slot* const slot = send_async(message, *state);
        return PendingCall<R...>(*this, slot, std::move(state));
    }

    // org.freedesktop.DBus.Properties.Get, read as T.
    template <provider::BusValue T>
    Result<T> get(std::string const& destination, std::string const& path, std::string const& interface,
                  std::string const& property)
    {
        Message message = new_call(destination, path, properties_interface, "Get");
        impl::append(message, interface, property);
        auto [reply, error] = send(message);
        if (error)
            return std::move(*error);
        impl::expect_signature(reply.get(), "v", "Get");
        return impl::read_variant<T>(reply.get(), "Get");
    }

    // org.freedesktop.DBus.Properties.Set with `value` in a variant of its own type.
    template <class T>
    Result<void> set(std::string const& destination, std::string const& path, std::string const& interface,
                     std::string const& property, T const& value)
    {
        Message message = new_call(destination, path, properties_interface, "Set");
        impl::append(message, interface, property);
        impl::append_variant(message, impl::bus_value(value));
        auto [reply, error] = send(message);
        if (error)
            return std::move(*error);
        reply.read<>();
        return {};
    }

    // org.freedesktop.DBus.Properties.GetAll: every property by name.
    Result<std::map<std::string, Value>> get_all(std::string const& destination, std::string const& path,
                                                 std::string const& interface);

    // Collects the signals of `member` on `interface` sent from `path` (empty strings
    // match anything).
    SignalWatch watch(std::string const& path, std::string const& interface, std::string const& member);

    // Waits until somebody owns the bus name `name` (a service that has just asked for
    // it); false when nobody does after `timeout`.
    bool wait_for_name(std::string const& name, std::chrono::milliseconds timeout);

    // Takes in whatever the connection holds (answers, signals) without waiting.
    void process();
    // Processes the connection until `done` returns true, at most `timeout` long; false
    // when the time ran out first.
    bool process_until(std::function<bool()> const& done, std::chrono::milliseconds timeout);

    // A new method call; `member` and the names must be valid (tarvek::invalid_argument).
    Message new_call(std::string const& destination, std::string const& path, std::string const& interface,
                     std::string const& member) const;
    // Sends `call` and waits for its answer: the reply, or the error.
    std::pair<Message, std::optional<BusError>> send(Message const& call);

    static constexpr char const* properties_interface = "org.freedesktop.DBus.Properties";

private:
    template <provider::BusValue...>
    friend class PendingCall;
    friend class SignalWatch;

    sd_bus_slot* send_async(Message const& call, impl::CallState& state);
    void finish(sd_bus_slot* slot) noexcept;

    BusPtr bus_;
    std::chrono::milliseconds timeout_;
};

// One interface of one object of one service, as a client calls it: the Client's calls
// without the names repeated. Holds a reference to the client, which must outlive it.
class Proxy {
public:
    Proxy(Client& client, std::string destination, std::string path, std::string interface)
        : client_(client), destination_(std::move(destination)), path_(std::move(path)),
          interface_(std::move(interface))
    {}

    template <provider::BusValue... R, class... A>
    Result<Reply<R...>> call(std::string const& member, A const&... arguments) const
    {
        return client_.call<R...>(destination_, path_, interface_, member, arguments...);
    }
    template <provider::BusValue... R, class... A>
    PendingCall<R...> call_async(std::string const& member, A const&... arguments) const
    {
        return client_.call_async<R...>(destination_, path_, interface_, member, arguments...);
    }
    template <provider::BusValue T>
    Result<T> get(std::string const& property) const
    {
        return client_.get<T>(destination_, path_, interface_, property);
    }
    template <class T>
    Result<void> set(std::string const& property, T const& value) const
    {
        return client_.set(destination_, path_, interface_, property, value);
    }
    Result<std::map<std::string, Value>> get_all() const { return client_.get_all(destination_, path_, interface_); }
    SignalWatch watch(std::string const& member) const { return client_.watch(path_, interface_, member); }

    Client& client() const noexcept { return client_; }
    std::string const& destination() const noexcept { return destination_; }
    std::string const& path() const noexcept { return path_; }
    std::string const& interface() const noexcept { return interface_; }

private:
    Client& client_;
    std::string destination_;
    std::string path_;
    std::string interface_;
};

} // namespace tarvek::test

#include <tarvek/testing/client-inl.hpp>
