// SPDX-License-Identifier: LGPL-2.1-or-later
// RawClient: a bus client that writes the D-Bus wire format itself, for requests that
// sd-bus refuses to build as a client (object paths beyond its own limit, in the header
// or in a value) but that the dbus-daemon passes on. It speaks just enough of the
// protocol: EXTERNAL authentication, Hello, method calls with a body built by the test,
// and the type and error name of the reply. Little-endian only; used from the test's
// thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tarvek::test {

// The body of a message in the wire format, built value by value.
class RawBody {
public:
    void align(std::size_t boundary);
    void byte(std::uint8_t value);
    void u32(std::uint32_t value);
    // A string or object path: length word, text, NUL.
    void string(std::string const& text);
    void signature(std::string const& text);
    // Opens an array whose elements align to `element_alignment`; returns what
    // end_array needs.
    std::size_t begin_array(std::size_t element_alignment);
    void end_array(std::size_t handle);

    std::string const& bytes() const noexcept { return data; }

private:
    std::string data;
    std::size_t array_start = 0;
};

class RawClient {
public:
    struct Reply {
        // 2 a method return, 3 an error; 0 when none came in time.
        int type = 0;
        std::string error_name;
    };

    // Connects to the unix socket of a bus address such as "unix:path=...,guid=...",
    // authenticates and says Hello. Raises std::runtime_error on failure.
    explicit RawClient(std::string const& address);
    RawClient(RawClient const&) = delete;
    RawClient& operator=(RawClient const&) = delete;
    ~RawClient();

    // Sends a method call; returns its serial.
    std::uint32_t send_call(std::string const& destination, std::string const& path,
                            std::string const& interface, std::string const& member,
                            std::string const& signature = {}, RawBody const& body = {});
    Reply wait_reply(std::uint32_t serial, std::chrono::milliseconds timeout = std::chrono::seconds(10));

private:
    void write_all(std::string const& bytes);
    // One whole message, or false when nothing came before `deadline`.
    bool read_message(std::string& message, std::chrono::steady_clock::time_point deadline);
    bool read_exactly(std::string& into, std::size_t size, std::chrono::steady_clock::time_point deadline);

    int fd = -1;
    std::uint32_t next_serial = 1;
};

} // namespace tarvek::test
