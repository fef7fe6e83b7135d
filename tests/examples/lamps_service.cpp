// SPDX-License-Identifier: LGPL-2.1-or-later
#include "examples/lamps_service.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tarvek::test::lamps {

namespace {

[[noreturn]] void fail(std::string const& what, int error = 0)
{
    throw std::runtime_error(what + (error ? ": " + std::string(std::strerror(error)) : ""));
}

std::uint64_t microseconds(std::chrono::steady_clock::duration d)
{
    auto const us = std::chrono::duration_cast<std::chrono::microseconds>(d).count();
    return us > 0 ? static_cast<std::uint64_t>(us) : 0;
}

// Reads what `fd` has within `timeout` into `into`; false when the writer has closed it.
// Waits for at least one byte, or until the time-out or end.
bool read_some(int fd, std::string& into, std::chrono::steady_clock::time_point deadline)
{
    for (;;) {
        auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return true;
        pollfd p{fd, POLLIN, 0};
        int const r = ::poll(&p, 1, static_cast<int>(left.count()));
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0)
            fail("poll", errno);
        if (r == 0)
            return true;
        std::array<char, 512> buffer{};
        ssize_t const n = ::read(fd, buffer.data(), buffer.size());
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (n < 0)
            fail("read", errno);
        if (n == 0)
            return false;
        into.append(buffer.data(), static_cast<std::size_t>(n));
        return true;
    }
}

CallResult outcome(int r, sd_bus_error const& error, sd_bus_message* reply)
{
    CallResult result;
    result.r = r;
    if (r < 0) {
        result.error_name = error.name ? error.name : "";
        result.error_message = error.message ? error.message : "";
    }
    result.reply.reset(reply);
    return result;
}

} // namespace

TemporaryDirectory::TemporaryDirectory()
{
    char const* const tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/tarvek-lamps-XXXXXX";
    if (!::mkdtemp(pattern.data()))
        fail("mkdtemp", errno);
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

ServiceProcess::ServiceProcess(std::vector<std::string> const& arguments,
    std::vector<std::string> const& environment, bool capture_stderr)
{
    // Everything the child needs is built before the fork: after it, the child may only
    // make async-signal-safe calls.
    std::vector<char*> argv;
    for (auto const& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    std::vector<std::string> own_names;
    for (auto const& entry : environment)
        own_names.push_back(entry.substr(0, entry.find('=') + 1));
    std::vector<char*> envp;
    for (char** e = environ; *e; ++e) {
        bool replaced = false;
        for (auto const& name : own_names)
            replaced = replaced || std::strncmp(*e, name.c_str(), name.size()) == 0;
        if (!replaced)
            envp.push_back(*e);
    }
    for (auto const& entry : environment)
        envp.push_back(const_cast<char*>(entry.c_str()));
    envp.push_back(nullptr);

    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0)
        fail("pipe2", errno);
    int err[2] = {-1, -1};
    if (capture_stderr && ::pipe2(err, O_CLOEXEC) != 0) {
        int const error = errno;
        ::close(out[0]);
        ::close(out[1]);
        fail("pipe2", error);
    }

    pid_t const parent = ::getpid();
    pid_ = ::fork();
    if (pid_ < 0) {
        int const error = errno;
        for (int fd : {out[0], out[1], err[0], err[1]})
            if (fd >= 0)
                ::close(fd);
        fail("fork", error);
    }
    if (pid_ == 0) {
        // The service must not outlive a test process that crashes.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(127);
        if (::dup2(out[1], 1) < 0)
            ::_exit(127);
        if (err[1] >= 0 && ::dup2(err[1], 2) < 0)
            ::_exit(127);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    ::close(out[1]);
    stdout_ = out[0];
    if (err[1] >= 0) {
        ::close(err[1]);
        stderr_ = err[0];
    }
}

ServiceProcess::~ServiceProcess()
{
    kill();
    if (stdout_ >= 0)
        ::close(stdout_);
    if (stderr_ >= 0)
        ::close(stderr_);
}

std::optional<std::string> ServiceProcess::read_line(std::chrono::milliseconds timeout)
{
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto const newline = buffered_.find('\n');
        if (newline != std::string::npos) {
            std::string line = buffered_.substr(0, newline);
            buffered_.erase(0, newline + 1);
            return line;
        }
        if (std::chrono::steady_clock::now() >= deadline)
            return std::nullopt;
        if (!read_some(stdout_, buffered_, deadline) && buffered_.find('\n') == std::string::npos)
            return std::nullopt;
    }
}

std::string ServiceProcess::read_stderr(std::chrono::milliseconds timeout)
{
    if (stderr_ < 0)
        fail("stderr is not captured");
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    std::string text;
    while (std::chrono::steady_clock::now() < deadline && read_some(stderr_, text, deadline)) { }
    return text;
}

void ServiceProcess::signal(int number) const
{
    if (pid_ <= 0 || ::kill(pid_, number) != 0)
        fail("cannot signal the service", pid_ > 0 ? errno : 0);
}

std::optional<int> ServiceProcess::wait(std::chrono::milliseconds timeout)
{
    if (pid_ <= 0)
        fail("no process to wait for");
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int status = 0;
        pid_t const r = ::waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            pid_ = -1;
            return status;
        }
        if (r < 0 && errno != EINTR)
            fail("waitpid", errno);
        if (std::chrono::steady_clock::now() >= deadline)
            return std::nullopt;
        std::this_thread::sleep_for(5ms);
    }
}

void ServiceProcess::kill() noexcept
{
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGKILL);
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) { }
    pid_ = -1;
}

CallResult call(sd_bus* bus, std::string const& path, char const* interface, char const* member,
    Fill const& fill, std::chrono::milliseconds timeout)
{
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus, &raw, service_name, path.c_str(), interface, member);
    if (r < 0)
        fail("cannot make a call to " + std::string(member), -r);
    MessagePtr message(raw);
    if (fill)
        fill(message.get());
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    r = sd_bus_call(bus, message.get(), microseconds(timeout), &error, &reply);
    CallResult result = outcome(r, error, reply);
    sd_bus_error_free(&error);
    return result;
}

CallResult get(sd_bus* bus, std::string const& path, char const* interface, char const* property)
{
    CallResult result = call(bus, path, properties_interface, "Get",
        [&](sd_bus_message* m) { sd_bus_message_append(m, "ss", interface, property); });
    return result;
}

CallResult set(sd_bus* bus, std::string const& path, char const* interface, char const* property,
    Fill const& fill)
{
    return call(bus, path, properties_interface, "Set", [&](sd_bus_message* m) {
        sd_bus_message_append(m, "ss", interface, property);
        fill(m);
    });
}

std::string render(sd_bus_message* message)
{
    char type = 0;
    char const* contents = nullptr;
    int r = sd_bus_message_peek_type(message, &type, &contents);
    if (r <= 0)
        fail("no value to read", r < 0 ? -r : 0);
    std::ostringstream out;
    switch (type) {
    case SD_BUS_TYPE_ARRAY:
    case SD_BUS_TYPE_STRUCT:
    case SD_BUS_TYPE_DICT_ENTRY: {
        if ((r = sd_bus_message_enter_container(message, type, contents)) <= 0)
            fail("cannot enter a container", r < 0 ? -r : 0);
        bool const dictionary = type == SD_BUS_TYPE_ARRAY && contents[0] == '{';
        char const* const separator = type == SD_BUS_TYPE_DICT_ENTRY ? ": " : ", ";
        if (type == SD_BUS_TYPE_ARRAY)
            out << (dictionary ? "{" : "[");
        else if (type == SD_BUS_TYPE_STRUCT)
            out << "(";
        bool first = true;
        while (sd_bus_message_at_end(message, false) == 0) {
            if (!first)
                out << separator;
            first = false;
            out << render(message);
        }
        if (type == SD_BUS_TYPE_ARRAY)
            out << (dictionary ? "}" : "]");
        else if (type == SD_BUS_TYPE_STRUCT)
            out << ")";
        sd_bus_message_exit_container(message);
        return out.str();
    }
    case SD_BUS_TYPE_VARIANT: {
        std::string const signature = contents;
        if ((r = sd_bus_message_enter_container(message, type, contents)) <= 0)
            fail("cannot enter a variant", r < 0 ? -r : 0);
        out << "<" << signature << " " << render(message) << ">";
        sd_bus_message_exit_container(message);
        return out.str();
    }
    default:
        break;
    }
    union {
        std::uint8_t y;
        int b;
        std::int16_t n;
        std::uint16_t q;
        std::int32_t i;
        std::uint32_t u;
        std::int64_t x;
        std::uint64_t t;
        double d;
        char const* s;
    } value{};
    if ((r = sd_bus_message_read_basic(message, type, &value)) <= 0)
        fail(std::string("cannot read a value of type ") + type, r < 0 ? -r : 0);
    switch (type) {
    case SD_BUS_TYPE_BYTE: out << unsigned(value.y); break;
    case SD_BUS_TYPE_BOOLEAN: out << (value.b ? "true" : "false"); break;
    case SD_BUS_TYPE_INT16: out << value.n; break;
    case SD_BUS_TYPE_UINT16: out << value.q; break;
    case SD_BUS_TYPE_INT32: out << value.i; break;
    case SD_BUS_TYPE_UINT32: out << value.u; break;
    case SD_BUS_TYPE_INT64: out << value.x; break;
    case SD_BUS_TYPE_UINT64: out << value.t; break;
    case SD_BUS_TYPE_DOUBLE: out << value.d; break;
    case SD_BUS_TYPE_STRING:
    case SD_BUS_TYPE_OBJECT_PATH:
    case SD_BUS_TYPE_SIGNATURE: out << '"' << value.s << '"'; break;
    default: out << "?" << type; break;
    }
    return out.str();
}

std::map<std::string, std::string> read_properties(sd_bus_message* message)
{
    std::map<std::string, std::string> properties;
    if (sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sv}") <= 0)
        fail("no a{sv}");
    while (sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv") > 0) {
        char const* name = nullptr;
        sd_bus_message_read(message, "s", &name);
        std::string const key = name;
        properties[key] = render(message);
        sd_bus_message_exit_container(message);
    }
    sd_bus_message_exit_container(message);
    return properties;
}

std::string property(sd_bus* bus, std::string const& path, char const* interface, char const* name)
{
    CallResult const result = get(bus, path, interface, name);
    if (!result.ok())
        return "error: " + result.error_name + ": " + result.error_message;
    return render(result.reply.get());
}

SignalWatch::SignalWatch(sd_bus* bus, char const* path, char const* interface, char const* member)
    : bus_(bus)
{
    // Synchronous: the daemon knows the match once this returns, so nothing sent later is
    // missed.
    int const r = sd_bus_match_signal(bus, &slot_, nullptr, path, interface, member, &SignalWatch::on_signal, this);
    if (r < 0)
        fail("sd_bus_match_signal", -r);
}

SignalWatch::~SignalWatch()
{
    sd_bus_slot_unref(slot_);
}

int SignalWatch::on_signal(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    static_cast<SignalWatch*>(userdata)->messages.emplace_back(sd_bus_message_ref(message));
    return 0;
}

bool SignalWatch::wait_for(std::size_t count, std::chrono::milliseconds timeout)
{
    return pump_until(bus_, [&] { return messages.size() >= count; }, timeout);
}

bool pump_until(sd_bus* bus, std::function<bool()> const& done, std::chrono::milliseconds timeout)
{
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (done())
            return true;
        int const r = sd_bus_process(bus, nullptr);
        if (r < 0)
            fail("sd_bus_process", -r);
        if (r > 0)
            continue;
        auto const now = std::chrono::steady_clock::now();
        if (now >= deadline)
            return done();
        sd_bus_wait(bus, microseconds(deadline - now));
    }
}

PendingCall::PendingCall(sd_bus* bus, std::string const& path, char const* interface, char const* member,
    Fill const& fill)
    : bus_(bus)
{
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus, &raw, service_name, path.c_str(), interface, member);
    if (r < 0)
        fail("cannot make a call to " + std::string(member), -r);
    MessagePtr message(raw);
    if (fill)
        fill(message.get());
    r = sd_bus_call_async(bus, &slot_, message.get(), &PendingCall::on_reply, this, microseconds(30s));
    if (r < 0)
        fail("sd_bus_call_async", -r);
    // Out now, not at the next processing of the connection.
    sd_bus_flush(bus);
}

PendingCall::~PendingCall()
{
    sd_bus_slot_unref(slot_);
}

int PendingCall::on_reply(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto& self = *static_cast<PendingCall*>(userdata);
    self.answered_ = true;
    self.answered_at = std::chrono::steady_clock::now();
    sd_bus_error const* error = sd_bus_message_get_error(message);
    if (error) {
        self.result.r = -EIO;
        self.result.error_name = error->name ? error->name : "";
        self.result.error_message = error->message ? error->message : "";
    }
    self.result.reply.reset(sd_bus_message_ref(message));
    return 0;
}

bool PendingCall::wait(std::chrono::milliseconds timeout)
{
    return pump_until(bus_, [this] { return answered_; }, timeout);
}

std::string lamps_binary()
{
    return TARVEK_LAMPS_BINARY;
}

LampsTest::LampsTest()
    : client(daemon.connect())
{
}

void LampsTest::TearDown()
{
    if (service && service->running()) {
        EXPECT_EQ(stop_service(), 0) << "tarvek-lamps did not exit cleanly after SIGTERM";
    }
}

void LampsTest::start_service(ServiceOptions const& options)
{
    auto const policy = directory.path() / "policy.conf";
    {
        std::ofstream out(policy, std::ios::trunc);
        out << options.policy;
        if (!out)
            fail("cannot write " + policy.string());
    }
    std::vector<std::string> arguments{lamps_binary(), "--bus-address", daemon.address()};
    if (options.lamps) {
        arguments.push_back("--lamps");
        arguments.push_back(std::to_string(*options.lamps));
    }
    if (options.state_dir) {
        arguments.push_back("--state-dir");
        arguments.push_back(options.state_dir->string());
    }
    service = std::make_unique<ServiceProcess>(arguments, std::vector<std::string>{"VREL2_POLICY=" + policy.string()},
        false);
    // Generous: a sanitizer build starts slowly on a busy machine.
    auto const line = service->read_line(15s);
    if (line != "ready") {
        service->kill();
        fail("tarvek-lamps did not say ready, but " + (line ? "\"" + *line + "\"" : std::string("nothing")));
    }
}

int LampsTest::stop_service()
{
    if (!service || !service->running())
        fail("no service to stop");
    service->signal(SIGTERM);
    auto const status = service->wait(20s);
    if (!status) {
        service->kill();
        ADD_FAILURE() << "tarvek-lamps did not end within 20 s of SIGTERM";
        return -1;
    }
    if (WIFSIGNALED(*status))
        ADD_FAILURE() << "tarvek-lamps ended by signal " << WTERMSIG(*status);
    return WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
}

std::pair<int, std::string> run_to_exit(std::vector<std::string> const& arguments)
{
    std::vector<std::string> argv{lamps_binary()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    ServiceProcess process(argv, {}, true);
    std::string const errors = process.read_stderr(10s);
    auto const status = process.wait(10s);
    if (!status)
        fail("tarvek-lamps still runs 10 s after it was started with bad arguments");
    return {WIFEXITED(*status) ? WEXITSTATUS(*status) : -1, errors};
}

} // namespace tarvek::test::lamps
