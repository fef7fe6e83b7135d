// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/testing/client.hpp>

#include "testing/connection.hpp"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <thread>

namespace tarvek::test {

namespace {

std::uint64_t microseconds(std::chrono::steady_clock::duration d)
{
    auto const us = std::chrono::duration_cast<std::chrono::microseconds>(d).count();
    return us > 0 ? static_cast<std::uint64_t>(us) : 0;
}

[[noreturn]] void fail(int r, std::string const& what)
{
    boost::throw_exception(tarvek::system_error(r < 0 ? -r : EIO, what));
}

BusError error_of(sd_bus_error const* error)
{
    return {error && error->name ? error->name : "", error && error->message ? error->message : ""};
}

std::string text_or_empty(char const* text)
{
    return text ? text : "";
}

int on_reply(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto& state = *static_cast<impl::CallState*>(userdata);
    state.answered = true;
    state.reply = Message(message);
    if (sd_bus_message_is_method_error(message, nullptr) > 0)
        state.error = error_of(sd_bus_message_get_error(message));
    return 0;
}

} // namespace

std::ostream& operator<<(std::ostream& out, BusError const& error)
{
    return out << error.name << ": " << error.message;
}

namespace impl {

void raise_failed(BusError const& error)
{
    boost::throw_exception(tarvek::invalid_state_error("the call failed with " + error.name + ": " + error.message));
}

void raise_succeeded()
{
    boost::throw_exception(tarvek::invalid_state_error("the call succeeded: there is no error"));
}

void expect_signature(sd_bus_message* message, char const* expected, char const* what)
{
    std::string const actual = text_or_empty(sd_bus_message_get_signature(message, 1));
    if (actual != expected)
        boost::throw_exception(tarvek::deserialize_error(std::string(what) + ": the message carries \"" + actual +
                                                         "\", not \"" + expected + "\""));
}

void rewind(sd_bus_message* message)
{
    int const r = sd_bus_message_rewind(message, 1);
    if (r < 0)
        fail(r, "sd_bus_message_rewind failed");
}

std::string peek_variant(sd_bus_message* message)
{
    char type = 0;
    char const* contents = nullptr;
    int const r = sd_bus_message_peek_type(message, &type, &contents);
    if (r <= 0 || type != SD_BUS_TYPE_VARIANT || !contents)
        boost::throw_exception(tarvek::deserialize_error("no variant to read"));
    return contents;
}

} // namespace impl

Message::Message(sd_bus_message* message) noexcept : message_(sd_bus_message_ref(message)) {}

Message::Message(Message const& other) noexcept : message_(sd_bus_message_ref(other.message_)) {}

Message::~Message()
{
    sd_bus_message_unref(message_);
}

std::string Message::signature() const
{
    return text_or_empty(sd_bus_message_get_signature(message_, 1));
}

std::string Message::sender() const
{
    return text_or_empty(sd_bus_message_get_sender(message_));
}

std::string Message::path() const
{
    return text_or_empty(sd_bus_message_get_path(message_));
}

std::string Message::interface() const
{
    return text_or_empty(sd_bus_message_get_interface(message_));
}

std::string Message::member() const
{
    return text_or_empty(sd_bus_message_get_member(message_));
}

SignalWatch::SignalWatch(Client& client, sd_bus_slot* slot, std::unique_ptr<State> state)
    : client_(&client), slot_(slot), state_(std::move(state))
{}

SignalWatch::SignalWatch(SignalWatch&& other) noexcept
    : client_(other.client_), slot_(std::exchange(other.slot_, nullptr)), state_(std::move(other.state_))
{}

SignalWatch::~SignalWatch()
{
    // The match goes before the state that its callback fills.
    if (slot_)
        client_->finish(slot_);
}

std::size_t SignalWatch::pending() const noexcept
{
    return state_->messages.size();
}

std::optional<Message> SignalWatch::next_message(std::chrono::milliseconds timeout)
{
    if (!client_->process_until([this] { return !state_->messages.empty(); }, timeout))
        return std::nullopt;
    Message message = std::move(state_->messages.front());
    state_->messages.pop_front();
    return message;
}

Client::Client(std::string const& address, std::chrono::milliseconds timeout)
    : bus_(impl::open_connection(address)), timeout_(timeout)
{}

Client::~Client() = default;

std::string Client::unique_name() const
{
    char const* name = nullptr;
    int const r = sd_bus_get_unique_name(bus_.get(), &name);
    if (r < 0)
        fail(r, "sd_bus_get_unique_name failed");
    return name;
}

Message Client::new_call(std::string const& destination, std::string const& path, std::string const& interface,
                         std::string const& member) const
{
    sd_bus_message* raw = nullptr;
    int const r = sd_bus_message_new_method_call(bus_.get(), &raw, destination.empty() ? nullptr : destination.c_str(),
                                                 path.c_str(), interface.empty() ? nullptr : interface.c_str(),
                                                 member.c_str());
    if (r == -EINVAL)
        boost::throw_exception(tarvek::invalid_argument("not a valid call: destination \"" + destination +
                                                        "\", path \"" + path + "\", interface \"" + interface +
                                                        "\", member \"" + member + "\""));
    if (r < 0)
        fail(r, "sd_bus_message_new_method_call failed");
    Message message(raw);
    sd_bus_message_unref(raw);
    return message;
}

std::pair<Message, std::optional<BusError>> Client::send(Message const& call)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int const r = sd_bus_call(bus_.get(), call.get(), microseconds(timeout_), &error, &reply);
    Message owned(reply);
    sd_bus_message_unref(reply);
    std::optional<BusError> failure;
    if (r < 0) {
        // A failure of the connection itself comes with no error name: that is no
        // answer of the service, and the test can't go on.
        if (!sd_bus_error_is_set(&error)) {
            sd_bus_error_free(&error);
            fail(r, "sd_bus_call failed");
        }
        failure = error_of(&error);
    }
    sd_bus_error_free(&error);
    return {std::move(owned), std::move(failure)};
}

sd_bus_slot* Client::send_async(Message const& call, impl::CallState& state)
{
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_call_async(bus_.get(), &slot, call.get(), &on_reply, &state, microseconds(timeout_));
    if (r < 0)
        fail(r, "sd_bus_call_async failed");
    // Out now, not at the next processing of the connection.
    if ((r = sd_bus_flush(bus_.get())) < 0) {
        sd_bus_slot_unref(slot);
        fail(r, "sd_bus_flush failed");
    }
    return slot;
}

void Client::finish(sd_bus_slot* slot) noexcept
{
    sd_bus_slot_unref(slot);
}

Result<std::map<std::string, Value>> Client::get_all(std::string const& destination, std::string const& path,
                                                     std::string const& interface)
{
    Message message = new_call(destination, path, properties_interface, "GetAll");
    // Plain sd-bus here: the library's serializer lives in libtarvek-core, which this
    // library does not link, so that a test program never holds two copies of it.
    if (int const r = sd_bus_message_append(message.get(), "s", interface.c_str()); r < 0)
        fail(r, "GetAll: cannot append the interface");
    auto [reply, error] = send(message);
    if (error)
        return std::move(*error);
    impl::expect_signature(reply.get(), "a{sv}", "GetAll");
    impl::rewind(reply.get());
    sd_bus_message* const m = reply.get();
    std::map<std::string, Value> values;
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sv}");
    if (r < 0)
        fail(r, "GetAll: cannot enter the array");
    while ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
        char const* name = nullptr;
        if ((r = sd_bus_message_read_basic(m, SD_BUS_TYPE_STRING, &name)) < 0)
            fail(r, "GetAll: cannot read a name");
        std::string const key = name;
        // Each value gets a message of its own, so that it can be read later, as often as
        // the test likes, whatever happens to the reply.
        sd_bus_message* raw = nullptr;
        if ((r = sd_bus_message_new_method_call(bus_.get(), &raw, nullptr, "/", nullptr, "Value")) < 0)
            fail(r, "GetAll: cannot make a message for a value");
        Message holder(raw);
        sd_bus_message_unref(raw);
        if ((r = sd_bus_message_copy(raw, m, 0)) < 0)
            fail(r, "GetAll: cannot copy the value of " + key);
        if ((r = sd_bus_message_seal(raw, 1, 0)) < 0)
            fail(r, "GetAll: cannot seal the value of " + key);
        impl::rewind(raw);
        std::string contents = impl::peek_variant(raw);
        values.insert_or_assign(key, Value(std::move(holder), std::move(contents)));
        if ((r = sd_bus_message_exit_container(m)) < 0)
            fail(r, "GetAll: cannot leave an entry");
    }
    if (r < 0)
        fail(r, "GetAll: cannot enter an entry");
    return values;
}

SignalWatch Client::watch(std::string const& path, std::string const& interface, std::string const& member)
{
    auto state = std::make_unique<SignalWatch::State>();
    sd_bus_slot* slot = nullptr;
    auto const on_signal = [](sd_bus_message* message, void* userdata, sd_bus_error*) -> int {
        static_cast<SignalWatch::State*>(userdata)->messages.emplace_back(message);
        return 0;
    };
    // Synchronous: the daemon knows the match once this returns.
    int const r = sd_bus_match_signal(bus_.get(), &slot, nullptr, path.empty() ? nullptr : path.c_str(),
                                      interface.empty() ? nullptr : interface.c_str(),
                                      member.empty() ? nullptr : member.c_str(), on_signal, state.get());
    if (r < 0)
        fail(r, "sd_bus_match_signal failed for " + interface + "." + member);
    return SignalWatch(*this, slot, std::move(state));
}

bool Client::wait_for_name(std::string const& name, std::chrono::milliseconds timeout)
{
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        int r = sd_bus_call_method(bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                   "org.freedesktop.DBus", "NameHasOwner", &error, &reply, "s", name.c_str());
        sd_bus_error_free(&error);
        int owned = 0;
        if (r >= 0)
            r = sd_bus_message_read_basic(reply, SD_BUS_TYPE_BOOLEAN, &owned);
        sd_bus_message_unref(reply);
        if (r < 0)
            fail(r, "NameHasOwner failed for " + name);
        if (owned)
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void Client::process()
{
    for (;;) {
        int const r = sd_bus_process(bus_.get(), nullptr);
        if (r < 0)
            fail(r, "sd_bus_process failed");
        if (r == 0)
            return;
    }
}

bool Client::process_until(std::function<bool()> const& done, std::chrono::milliseconds timeout)
{
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (done())
            return true;
        int const r = sd_bus_process(bus_.get(), nullptr);
        if (r < 0)
            fail(r, "sd_bus_process failed");
        if (r > 0)
            continue;
        auto const now = std::chrono::steady_clock::now();
        if (now >= deadline)
            return done();
        int const w = sd_bus_wait(bus_.get(), microseconds(deadline - now));
        if (w < 0 && w != -EINTR)
            fail(w, "sd_bus_wait failed");
    }
}

} // namespace tarvek::test
