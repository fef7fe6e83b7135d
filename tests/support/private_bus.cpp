// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/private_bus.hpp"

#include <array>
#include <cerrno>
#include <cstdint>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarvek::test {

namespace {

[[noreturn]] void fail(std::string const& what, int error = 0)
{
    throw std::runtime_error("private bus: " + what + (error ? ": " + std::string(std::strerror(error)) : ""));
}

std::string make_directory()
{
    char const* const tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/tarvek-bus-XXXXXX";
    if (!::mkdtemp(pattern.data()))
        fail("mkdtemp", errno);
    // Other users must reach the socket inside.
    if (::chmod(pattern.c_str(), 0755) != 0)
        fail("chmod " + pattern, errno);
    return pattern;
}

void write_config(std::string const& path, std::string const& socket)
{
    std::ofstream out(path);
    out << R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=)"
        << socket << R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
  <!-- The limits of a session bus rather than the low built-in ones, so that only the
       protocol's own bounds (128 MiB a message, 64 MiB an array) apply to what tests send. -->
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_message_size">1000000000</limit>
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
)";
    out.close();
    if (!out)
        fail("cannot write " + path);
}

// Reads one line from `fd` within `timeout`; empty if the daemon closed it first.
std::string read_line(int fd, std::chrono::milliseconds timeout)
{
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    std::string line;
    while (line.empty() || line.back() != '\n') {
        auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            fail("dbus-daemon printed no address in time");
        pollfd p{fd, POLLIN, 0};
        int const r = ::poll(&p, 1, static_cast<int>(left.count()));
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0)
            fail("poll", errno);
        if (r == 0)
            continue;
        std::array<char, 256> buffer{};
        ssize_t const n = ::read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            fail("read", errno);
        if (n == 0)
            return {};
        line.append(buffer.data(), static_cast<std::size_t>(n));
    }
    line.pop_back();
    return line;
}

} // namespace

PrivateBus::PrivateBus(std::chrono::milliseconds startup) : owner(::getpid()), directory(make_directory())
{
    try {
        std::string const config = directory + "/bus.conf";
        std::string const socket = directory + "/bus";
        write_config(config, socket);

        int pipe[2];
        if (::pipe2(pipe, O_CLOEXEC) != 0)
            fail("pipe2", errno);
        // Everything the child needs is prepared before the fork.
        std::string const config_argument = "--config-file=" + config;
        char const* const argv[] = {"dbus-daemon", config_argument.c_str(), "--print-address=3", "--nofork",
                                    nullptr};
        // The daemon's complaints (as root it can't raise its descriptor limit here) go
        // to a log, which a failed start shows.
        std::string const log_path = directory + "/daemon.log";
        int const log = ::open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (log < 0) {
            int const error = errno;
            ::close(pipe[0]);
            ::close(pipe[1]);
            fail("open " + log_path, error);
        }
        pid_t const parent = ::getpid();
        daemon = ::fork();
        if (daemon < 0) {
            int const error = errno;
            ::close(pipe[0]);
            ::close(pipe[1]);
            ::close(log);
            fail("fork", error);
        }
        if (daemon == 0) {
            // Only async-signal-safe calls from here on.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent)
                ::_exit(127);
            if (::dup2(pipe[1], 3) < 0 || ::dup2(log, 2) < 0)
                ::_exit(127);
            ::execvp("dbus-daemon", const_cast<char* const*>(argv));
            ::_exit(127);
        }
        ::close(pipe[1]);
        ::close(log);
        std::string line;
        try {
            line = read_line(pipe[0], startup);
        } catch (...) {
            ::close(pipe[0]);
            throw;
        }
        ::close(pipe[0]);
        if (line.empty()) {
            std::ifstream in(log_path);
            std::string const complaints((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            fail("dbus-daemon exited before it printed its address: " + complaints);
        }
        address_ = line;
        // Clients of other users need write access to the socket.
        if (::chmod(socket.c_str(), 0777) != 0)
            fail("chmod " + socket, errno);
    } catch (...) {
        stop();
        throw;
    }
}

PrivateBus::~PrivateBus()
{
    stop();
}

void PrivateBus::stop() noexcept
{
    // A forked child (a death test) shares the object but not the daemon.
    if (::getpid() != owner)
        return;
    if (daemon > 0) {
        ::kill(daemon, SIGTERM);
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        int status = 0;
        pid_t r = 0;
        while ((r = ::waitpid(daemon, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        if (r == 0) {
            ::kill(daemon, SIGKILL);
            ::waitpid(daemon, &status, 0);
        }
        daemon = -1;
    }
    if (!directory.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
        directory.clear();
    }
}

sd_bus* PrivateBus::connect() const
{
    sd_bus* bus = nullptr;
    int r = sd_bus_new(&bus);
    if (r < 0)
        fail("sd_bus_new", -r);
    BusPtr owned(bus);
    if ((r = sd_bus_set_address(bus, address_.c_str())) < 0)
        fail("sd_bus_set_address", -r);
    if ((r = sd_bus_set_bus_client(bus, 1)) < 0)
        fail("sd_bus_set_bus_client", -r);
    if ((r = sd_bus_start(bus)) < 0)
        fail("sd_bus_start", -r);
    return owned.release();
}

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
