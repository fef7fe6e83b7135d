// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/private_bus.hpp"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

#include <sys/socket.h>
#include <unistd.h>

namespace tarvek::test {

namespace {

[[noreturn]] void fail(std::string const& what, int error = 0)
{
    throw std::runtime_error("test bus: " + what + (error ? ": " + std::string(std::strerror(error)) : ""));
}

} // namespace

OfflineConnection::OfflineConnection()
{
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        fail("socketpair", errno);
    peer = ends[1];
    int r = sd_bus_new(&bus);
    if (r >= 0) {
        r = sd_bus_set_fd(bus, ends[0], ends[0]);
        if (r < 0)
            ::close(ends[0]);
        else
            r = sd_bus_start(bus); // the connection owns ends[0] from here
    } else {
        ::close(ends[0]);
    }
    if (r < 0) {
        sd_bus_close_unref(bus);
        ::close(peer);
        fail("cannot open an offline connection", -r);
    }
}

OfflineConnection::~OfflineConnection()
{
    sd_bus_close_unref(bus);
    ::close(peer);
}

MessagePtr new_call(sd_bus* bus, char const* member)
{
    sd_bus_message* call = nullptr;
    int const r = sd_bus_message_new_method_call(bus, &call, "org.example.Peer", "/test", "com.omno.Test", member);
    if (r < 0)
        fail("sd_bus_message_new_method_call", -r);
    return MessagePtr(call);
}

std::string unique_name(sd_bus* bus)
{
    char const* name = nullptr;
    int const r = sd_bus_get_unique_name(bus, &name);
    if (r < 0)
        fail("sd_bus_get_unique_name", -r);
    return name;
}

MessagePtr new_call_to_self(sd_bus* bus, char const* member)
{
    sd_bus_message* call = nullptr;
    int const r = sd_bus_message_new_method_call(bus, &call, unique_name(bus).c_str(), "/test", "com.omno.Test",
                                                 member);
    if (r < 0)
        fail("sd_bus_message_new_method_call", -r);
    return MessagePtr(call);
}

void seal_for_reading(sd_bus_message* message)
{
    static std::uint64_t cookie = 1;
    int r = sd_bus_message_seal(message, cookie++, 0);
    if (r < 0)
        fail("sd_bus_message_seal", -r);
    if ((r = sd_bus_message_rewind(message, 1)) < 0)
        fail("sd_bus_message_rewind", -r);
}

namespace {

MessagePtr receive(sd_bus* bus, std::function<bool(sd_bus_message*)> const& wanted,
                   std::chrono::milliseconds timeout, char const* what)
{
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        sd_bus_message* received = nullptr;
        int const r = sd_bus_process(bus, &received);
        if (r < 0)
            fail("sd_bus_process", -r);
        MessagePtr message(received);
        if (message && wanted(message.get()))
            return message;
        if (r > 0)
            continue;
        auto const left = std::chrono::duration_cast<std::chrono::microseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            fail(std::string(what) + " did not arrive in time");
        int const w = sd_bus_wait(bus, static_cast<std::uint64_t>(left.count()));
        if (w < 0 && w != -EINTR)
            fail("sd_bus_wait", -w);
    }
}

} // namespace

MessagePtr receive_method_call(sd_bus* bus, std::chrono::milliseconds timeout)
{
    return receive(
        bus, [](sd_bus_message* m) { return sd_bus_message_is_method_call(m, nullptr, nullptr) > 0; }, timeout,
        "a method call");
}

MessagePtr receive_reply(sd_bus* bus, std::uint64_t cookie, std::chrono::milliseconds timeout)
{
    return receive(
        bus,
        [cookie](sd_bus_message* m) {
            std::uint64_t reply_to = 0;
            return sd_bus_message_get_reply_cookie(m, &reply_to) >= 0 && reply_to == cookie;
        },
        timeout, "the reply");
}

MessagePtr send_to_self(sd_bus* bus, sd_bus_message* call, std::chrono::milliseconds timeout)
{
    // With a cookie to return, sd-bus leaves the call expecting a reply, so that the
    // test can answer it.
    std::uint64_t cookie = 0;
    int const r = sd_bus_send(bus, call, &cookie);
    if (r < 0)
        fail("sd_bus_send", -r);
    return receive_method_call(bus, timeout);
}

} // namespace tarvek::test
