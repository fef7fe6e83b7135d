// SPDX-License-Identifier: LGPL-2.1-or-later
// Clients of another user: a test that checks what its service refuses to somebody else
// runs a piece of client code in a forked child that has become that user. Only root can
// switch users; elsewhere cannot_run_as says why, and a test skips with that reason:
//
//     if (auto why = tarvek::test::cannot_run_as("nobody"))
//         GTEST_SKIP() << *why;
//     std::string const answer = tarvek::test::run_as("nobody", [&] {
//         tarvek::test::Client client(bus.address());
//         return client.call(...).error().name;
//     });
//
// The child is a fork of the test process: it sees the test's memory as it was at the
// fork, but only the thread that called run_as goes on in it. Its code must not wait for
// anything that the test's other threads would do, nor use their sd-bus connections
// (sd-bus refuses connections of another process anyway); it opens its own.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace tarvek::test {

// Why this process can't run code as `user`, such as "switching to user nobody needs
// root (this test runs as uid 1000)" or "no user nobody on this system"; nullopt when
// it can.
std::optional<std::string> cannot_run_as(std::string const& user = "nobody");

// Runs `body` in a forked child that has dropped every group and taken the uid and the
// primary group of `user`, and returns the text that `body` returned. Waits at most
// `timeout`, then kills the child. Raises tarvek::invalid_state_error with the reason of
// cannot_run_as when the switch is not possible, and when the child fails: `body` raised
// (its what() is in the text), the child crashed, or the time ran out.
std::string run_as(std::string const& user, std::function<std::string()> const& body,
                   std::chrono::milliseconds timeout = std::chrono::seconds(30));

} // namespace tarvek::test
