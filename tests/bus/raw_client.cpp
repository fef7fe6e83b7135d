// SPDX-License-Identifier: LGPL-2.1-or-later
#include "bus/raw_client.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace tarvek::test {

namespace {

[[noreturn]] void fail(std::string const& what)
{
    throw std::runtime_error("raw client: " + what);
}

std::uint32_t read_u32(std::string const& data, std::size_t offset)
{
    std::uint32_t value = 0;
    std::memcpy(&value, data.data() + offset, sizeof(value));
    return value;
}

std::size_t aligned(std::size_t offset, std::size_t boundary)
{
    return (offset + boundary - 1) / boundary * boundary;
}

} // namespace

void RawBody::align(std::size_t boundary)
{
    data.resize(aligned(data.size(), boundary), '\0');
}

void RawBody::byte(std::uint8_t value)
{
    data.push_back(static_cast<char>(value));
}

void RawBody::u32(std::uint32_t value)
{
    align(4);
    data.append(reinterpret_cast<char const*>(&value), sizeof(value));
}

void RawBody::string(std::string const& text)
{
    u32(static_cast<std::uint32_t>(text.size()));
    data.append(text);
    data.push_back('\0');
}

void RawBody::signature(std::string const& text)
{
    byte(static_cast<std::uint8_t>(text.size()));
    data.append(text);
    data.push_back('\0');
}

std::size_t RawBody::begin_array(std::size_t element_alignment)
{
    u32(0);
    std::size_t const length_at = data.size() - 4;
    align(element_alignment);
    array_start = data.size();
    return length_at;
}

void RawBody::end_array(std::size_t handle)
{
    std::uint32_t const length = static_cast<std::uint32_t>(data.size() - array_start);
    std::memcpy(data.data() + handle, &length, sizeof(length));
}

RawClient::RawClient(std::string const& address)
{
    std::size_t const start = address.find("path=");
    if (address.rfind("unix:", 0) != 0 || start == std::string::npos)
        fail("unsupported address " + address);
    std::string const path = address.substr(start + 5, address.find(',', start) - start - 5);
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        fail("socket");
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    std::strncpy(where.sun_path, path.c_str(), sizeof(where.sun_path) - 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&where), sizeof(where)) != 0) {
        ::close(fd);
        fail("connect " + path);
    }
    std::string const uid = std::to_string(::getuid());
    std::string hex;
    for (char c : uid) {
        char two[3];
        std::snprintf(two, sizeof(two), "%02x", static_cast<unsigned char>(c));
        hex += two;
    }
    write_all(std::string(1, '\0') + "AUTH EXTERNAL " + hex + "\r\n");
    std::string line;
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (line.find("\r\n") == std::string::npos) {
        std::string chunk;
        if (!read_exactly(chunk, 1, deadline))
            fail("no answer to AUTH");
        line += chunk;
    }
    if (line.rfind("OK ", 0) != 0)
        fail("authentication refused: " + line);
    write_all("BEGIN\r\n");
    std::uint32_t const hello = send_call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello");
    if (wait_reply(hello).type != 2)
        fail("Hello failed");
}

RawClient::~RawClient()
{
    if (fd >= 0)
        ::close(fd);
}

std::uint32_t RawClient::send_call(std::string const& destination, std::string const& path,
                                   std::string const& interface, std::string const& member,
                                   std::string const& signature, RawBody const& body)
{
    std::uint32_t const serial = next_serial++;
    RawBody header;
    header.byte('l');
    header.byte(1); // method call
    header.byte(0);
    header.byte(1); // protocol version
    header.u32(static_cast<std::uint32_t>(body.bytes().size()));
    header.u32(serial);
    std::size_t const fields = header.begin_array(8);
    auto field = [&](std::uint8_t code, char const* type, auto write) {
        header.align(8);
        header.byte(code);
        header.signature(type);
        write();
    };
    field(1, "o", [&] { header.string(path); });
    if (!interface.empty())
        field(2, "s", [&] { header.string(interface); });
    field(3, "s", [&] { header.string(member); });
    field(6, "s", [&] { header.string(destination); });
    if (!signature.empty())
        field(8, "g", [&] { header.signature(signature); });
    header.end_array(fields);
    header.align(8);
    write_all(header.bytes() + body.bytes());
    return serial;
}

RawClient::Reply RawClient::wait_reply(std::uint32_t serial, std::chrono::milliseconds timeout)
{
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    std::string message;
    while (read_message(message, deadline)) {
        Reply reply;
        reply.type = static_cast<unsigned char>(message[1]);
        std::uint32_t reply_serial = 0;
        std::size_t const end = 16 + read_u32(message, 12);
        std::size_t at = 16;
        while (at < end) {
            at = aligned(at, 8);
            std::uint8_t const code = static_cast<std::uint8_t>(message[at]);
            std::size_t const type_length = static_cast<unsigned char>(message[at + 1]);
            char const type = message[at + 2];
            at += 2 + type_length + 1;
            if (type == 'u') {
                at = aligned(at, 4);
                if (code == 5)
                    reply_serial = read_u32(message, at);
                at += 4;
            } else if (type == 'g') {
                at += 1 + static_cast<unsigned char>(message[at]) + 1;
            } else {
                at = aligned(at, 4);
                std::uint32_t const length = read_u32(message, at);
                if (code == 4)
                    reply.error_name = message.substr(at + 4, length);
                at += 4 + length + 1;
            }
        }
        if ((reply.type == 2 || reply.type == 3) && reply_serial == serial)
            return reply;
    }
    return {};
}

void RawClient::write_all(std::string const& bytes)
{
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t const n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            fail("send");
        done += static_cast<std::size_t>(n);
    }
}

bool RawClient::read_exactly(std::string& into, std::size_t size, std::chrono::steady_clock::time_point deadline)
{
    into.resize(size);
    std::size_t done = 0;
    while (done < size) {
        auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        pollfd p{fd, POLLIN, 0};
        int const r = ::poll(&p, 1, static_cast<int>(left.count()));
        if (r <= 0)
            continue;
        ssize_t const n = ::recv(fd, into.data() + done, size - done, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            fail("connection lost");
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool RawClient::read_message(std::string& message, std::chrono::steady_clock::time_point deadline)
{
    if (!read_exactly(message, 16, deadline))
        return false;
    std::size_t const total = aligned(16 + read_u32(message, 12), 8) + read_u32(message, 4);
    std::string rest;
    if (!read_exactly(rest, total - 16, deadline))
        return false;
    message += rest;
    return true;
}

} // namespace tarvek::test
