// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/testing/private_bus.hpp>

#include "testing/connection.hpp"

#include <tarvek/common/exceptions.hpp>

#include <boost/throw_exception.hpp>

#include <systemd/sd-bus.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarvek::test {

namespace {

[[noreturn]] void fail(std::string const& what, int error)
{
    boost::throw_exception(tarvek::system_error(error ? error : EIO, "private bus: " + what));
}

// The program's path as execv wants it: a name without a slash is looked up in PATH here,
// before the fork, so that a missing daemon is told apart from one that fails.
std::string find_program(std::string const& program)
{
    if (program.find('/') != std::string::npos) {
        if (::access(program.c_str(), X_OK) != 0)
            fail(program + " cannot be run", errno);
        return program;
    }
    char const* const path = std::getenv("PATH");
    std::istringstream folders(path && *path ? path : "/usr/local/bin:/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        std::string const candidate = (folder.empty() ? "." : folder) + "/" + program;
        if (::access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    fail(program + " not found in PATH" +
             (program == "dbus-daemon" ? " (it comes with the package dbus-daemon)" : std::string()),
         ENOENT);
}

std::string make_directory()
{
    char const* const tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/tarvek-bus-XXXXXX";
    if (!::mkdtemp(pattern.data()))
        fail("cannot make a directory " + pattern, errno);
    // Other users must reach the socket inside.
    if (::chmod(pattern.c_str(), 0755) != 0) {
        int const error = errno;
        std::filesystem::remove(pattern);
        fail("cannot chmod " + pattern, error);
    }
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
        fail("cannot write " + path, errno);
}

// Reads one line from `fd` within `timeout`; empty if the daemon closed it first.
std::string read_line(int fd, std::chrono::milliseconds timeout)
{
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    std::string line;
    while (line.empty() || line.back() != '\n') {
        auto const left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            fail("dbus-daemon printed no address within " + std::to_string(timeout.count()) + " ms", ETIMEDOUT);
        pollfd p{fd, POLLIN, 0};
        int const r = ::poll(&p, 1, static_cast<int>(left.count()));
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0)
            fail("poll failed", errno);
        if (r == 0)
            continue;
        std::array<char, 256> buffer{};
        ssize_t const n = ::read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            fail("read failed", errno);
        if (n == 0)
            return {};
        line.append(buffer.data(), static_cast<std::size_t>(n));
    }
    line.pop_back();
    return line;
}

} // namespace

void BusCloser::operator()(sd_bus* bus) const noexcept
{
    sd_bus_flush_close_unref(bus);
}

PrivateBus::PrivateBus(std::chrono::milliseconds startup, std::string const& program) : owner_(::getpid())
{
    std::string const executable = find_program(program);
    directory_ = make_directory();
    try {
        std::string const config = directory_ + "/bus.conf";
        std::string const socket = directory_ + "/bus";
        write_config(config, socket);

        int pipe[2];
        if (::pipe2(pipe, O_CLOEXEC) != 0)
            fail("pipe2 failed", errno);
        // Everything the child needs is prepared before the fork.
        std::string const config_argument = "--config-file=" + config;
        char const* const argv[] = {executable.c_str(), config_argument.c_str(), "--print-address=3", "--nofork",
                                    nullptr};
        // The daemon's complaints (as root it can't raise its descriptor limit here) go
        // to a log, which a failed start shows.
        std::string const log_path = directory_ + "/daemon.log";
        int const log = ::open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (log < 0) {
            int const error = errno;
            ::close(pipe[0]);
            ::close(pipe[1]);
            fail("cannot open " + log_path, error);
        }
        pid_t const parent = ::getpid();
        daemon_ = ::fork();
        if (daemon_ < 0) {
            int const error = errno;
            ::close(pipe[0]);
            ::close(pipe[1]);
            ::close(log);
            fail("fork failed", error);
        }
        if (daemon_ == 0) {
            // Only async-signal-safe calls from here on.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent)
                ::_exit(127);
            if (::dup2(pipe[1], 3) < 0 || ::dup2(log, 2) < 0)
                ::_exit(127);
            ::execv(argv[0], const_cast<char* const*>(argv));
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
            fail(program + " exited before it printed its address: " + complaints, ECHILD);
        }
        address_ = line;
        // Clients of other users need write access to the socket.
        if (::chmod(socket.c_str(), 0777) != 0)
            fail("cannot chmod " + socket, errno);
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
    // A forked child (a death test, a client of another user) shares the object but not
    // the daemon.
    if (::getpid() != owner_)
        return;
    if (daemon_ > 0) {
        ::kill(daemon_, SIGTERM);
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        int status = 0;
        pid_t r = 0;
        while ((r = ::waitpid(daemon_, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        if (r == 0) {
            ::kill(daemon_, SIGKILL);
            while (::waitpid(daemon_, &status, 0) < 0 && errno == EINTR) {
            }
        }
        daemon_ = -1;
    }
    if (!directory_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
        directory_.clear();
    }
}

sd_bus* PrivateBus::connect() const
{
    if (daemon_ <= 0)
        boost::throw_exception(tarvek::invalid_state_error("private bus: stopped, nothing to connect to"));
    return impl::open_connection(address_);
}

} // namespace tarvek::test
