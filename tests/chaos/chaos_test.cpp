// SPDX-License-Identifier: LGPL-2.1-or-later
// Chaos test of tarvek-lamps: the service runs on a private dbus-daemon with a policy file
// and a state directory, and batches of random traffic hit it from many connections at
// once: calls of every shape to real and unknown objects, clients that leave with calls
// outstanding, lamps added and removed while they are called, policy rewrites, SIGUSR1
// saves, and a client running as nobody under a policy that refuses it.
//
// After every batch the service must answer, every call of a connected client must have
// had an answer, nothing refused may have changed anything, every lamp must still satisfy
// its validation, its memory and descriptors
// must stay flat, it must not burn a core while idle, and no state file may ever have been
// seen incomplete (a reader thread polls them throughout). Each failure is printed at once with its check, seed, batch and
// the last calls sent; the run ends with a table of figures.
//
//   chaos_tests [--seed N] [--duration SECONDS] [--rss-slack-mib N] [--without CLASS,...]
//
// CLASS: big, deep, empty, badsig, nobody, policy, signals, manager, disconnect. The
// program forks a copy of itself that drops to nobody (--as-nobody, internal).
#include "chaos/random_calls.hpp"
#include "examples/lamps_service.hpp"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tarvek::test::chaos {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr char const* no_reply = "org.freedesktop.DBus.Error.NoReply";

enum class Mode { open, nobody, deny, broken, flap };

char const* mode_name(Mode mode)
{
    switch (mode) {
    case Mode::open: return "open";
    case Mode::nobody: return "nobody";
    case Mode::deny: return "deny";
    case Mode::broken: return "broken";
    case Mode::flap: return "flap";
    }
    return "?";
}

// Under these policies every request that asks the policy must fail.
bool refuses_all(Mode mode) { return mode == Mode::deny || mode == Mode::broken; }

struct Settings {
    std::uint64_t seed = 1;
    double duration = 50;
    std::size_t rss_slack_kib = 64 * 1024;
    int fd_slack = 3;
    std::set<std::string> without;
    std::string self;

    bool with(char const* what) const { return !without.contains(what); }
};

std::uint64_t microseconds(Clock::duration d)
{
    auto const us = std::chrono::duration_cast<std::chrono::microseconds>(d).count();
    return us > 0 ? static_cast<std::uint64_t>(us) : 0;
}

std::uint64_t mix(std::uint64_t seed, std::uint64_t a, std::uint64_t b = 0)
{
    std::uint64_t x = seed * 0x9E3779B97F4A7C15ULL ^ (a + 0x632BE59BD9B4E019ULL) * 0xBF58476D1CE4E5B9ULL ^ b * 0x94D049BB133111EBULL;
    x ^= x >> 31;
    return x;
}

std::string shorten(std::string const& text, std::size_t length = 300)
{
    return text.size() <= length ? text : text.substr(0, length) + "... (" + std::to_string(text.size()) + " bytes)";
}

// Everything counted and every failure found, shared by all threads.
class Report {
public:
    std::atomic<int> batch{-1};
    std::atomic<Mode> mode{Mode::open};
    std::uint64_t seed = 0;
    std::string reproduce;

    std::atomic<std::uint64_t> sent{0}, answered{0}, replies{0}, unanswered{0}, abandoned{0}, unbuilt{0},
        unsendable{0}, guarded_in_refusing{0}, nobody_attempts{0}, nobody_denied{0}, saves{0},
        policy_writes{0}, state_reads{0}, state_incomplete{0}, state_invalid{0}, big_steps{0},
        lamps_added{0}, lamps_removed{0};

    void sent_call(std::string description)
    {
        ++sent;
        remember(std::move(description));
    }

    // For the list of last calls that a failure shows, without counting it as sent.
    void remember(std::string description)
    {
        std::lock_guard lock(mutex_);
        recent_.push_back("b" + std::to_string(batch.load()) + " " + std::move(description));
        if (recent_.size() > 25)
            recent_.pop_front();
    }

    void error(std::string const& name)
    {
        std::lock_guard lock(mutex_);
        ++errors_[name];
    }

    // A failed check: printed at once (the first few of each check), kept for the summary.
    void failure(std::string const& check, std::string const& detail)
    {
        std::lock_guard lock(mutex_);
        auto& count = failures_[check];
        ++count;
        if (count > 5)
            return;
        std::ostringstream out;
        out << "CHAOS FAILURE [" << check << "] seed " << seed << ", batch " << batch.load() << " ("
            << mode_name(mode.load()) << "): " << detail << "\n  last calls sent:\n";
        for (auto const& call : recent_)
            out << "    " << call << "\n";
        out << "  reproduce: " << reproduce << "\n";
        std::cerr << out.str() << std::flush;
        if (!first_.contains(check))
            first_[check] = "batch " + std::to_string(batch.load()) + " (" + mode_name(mode.load()) + "): " + detail;
    }

    std::map<std::string, std::uint64_t> errors() const
    {
        std::lock_guard lock(mutex_);
        return errors_;
    }
    std::map<std::string, std::uint64_t> failures() const
    {
        std::lock_guard lock(mutex_);
        return failures_;
    }
    std::map<std::string, std::string> first_failures() const
    {
        std::lock_guard lock(mutex_);
        return first_;
    }

private:
    mutable std::mutex mutex_;
    std::deque<std::string> recent_;
    std::map<std::string, std::uint64_t> errors_;
    std::map<std::string, std::uint64_t> failures_;
    std::map<std::string, std::string> first_;
};

// tarvek-lamps as a child process with stderr going to a log file, which a failure shows.
class Service {
public:
    Service(std::vector<std::string> const& arguments, std::string const& policy, fs::path log)
        : log_(std::move(log))
    {
        std::vector<char*> argv;
        for (auto const& a : arguments)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        std::string const policy_entry = "VREL2_POLICY=" + policy;
        std::vector<char*> envp;
        for (char** e = environ; *e; ++e)
            if (std::strncmp(*e, "VREL2_POLICY=", 13) != 0)
                envp.push_back(*e);
        envp.push_back(const_cast<char*>(policy_entry.c_str()));
        // glibc raises its mmap threshold after every large free, so that the tens of MiB
        // of the big steps end up in the heap and stay in the resident set after they are
        // freed, by chance of which copies met. A fixed threshold gives them back, and the
        // memory check then sees what the service holds, not what the allocator keeps.
        char mmap_threshold[] = "MALLOC_MMAP_THRESHOLD_=1048576";
        envp.push_back(mmap_threshold);
        envp.push_back(nullptr);
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2 failed");
        int const log_fd = ::open(log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        pid_t const parent = ::getpid();
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent)
                ::_exit(127);
            if (::dup2(out[1], 1) < 0 || (log_fd >= 0 && ::dup2(log_fd, 2) < 0))
                ::_exit(127);
            ::execve(argv[0], argv.data(), envp.data());
            ::_exit(127);
        }
        ::close(out[1]);
        if (log_fd >= 0)
            ::close(log_fd);
        stdout_ = out[0];
        if (pid_ < 0)
            throw std::runtime_error("fork failed");
    }
    Service(Service const&) = delete;
    Service& operator=(Service const&) = delete;
    ~Service()
    {
        kill();
        ::close(stdout_);
    }

    pid_t pid() const { return pid_; }

    bool wait_ready(std::chrono::milliseconds timeout)
    {
        auto const deadline = Clock::now() + timeout;
        std::string line;
        while (Clock::now() < deadline) {
            pollfd p{stdout_, POLLIN, 0};
            int const left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
            if (::poll(&p, 1, std::max(left, 1)) <= 0)
                continue;
            char c = 0;
            if (::read(stdout_, &c, 1) != 1)
                return false;
            if (c == '\n')
                return line == "ready";
            line += c;
        }
        return false;
    }

    // Still running? If not, `status` says how it ended.
    bool alive(std::string& status)
    {
        if (pid_ <= 0) {
            status = ended_;
            return false;
        }
        int s = 0;
        if (::waitpid(pid_, &s, WNOHANG) == pid_) {
            pid_ = -1;
            ended_ = describe(s);
            status = ended_;
            return false;
        }
        return true;
    }

    // SIGTERM and the way it ended, or "still running" after `timeout` (then killed).
    std::string stop(std::chrono::milliseconds timeout)
    {
        std::string status;
        if (!alive(status))
            return status;
        ::kill(pid_, SIGTERM);
        auto const deadline = Clock::now() + timeout;
        while (Clock::now() < deadline) {
            int s = 0;
            if (::waitpid(pid_, &s, WNOHANG) == pid_) {
                pid_ = -1;
                return ended_ = describe(s);
            }
            std::this_thread::sleep_for(10ms);
        }
        kill();
        return "still running " + std::to_string(timeout.count()) + " ms after SIGTERM";
    }

    void kill() noexcept
    {
        if (pid_ <= 0)
            return;
        ::kill(pid_, SIGKILL);
        int s = 0;
        while (::waitpid(pid_, &s, 0) < 0 && errno == EINTR) { }
        pid_ = -1;
    }

    // The first and the last lines of the service's stderr: where trouble began, and how
    // it looks now.
    std::string log_tail(std::size_t lines) const
    {
        std::ifstream in(log_);
        std::vector<std::string> head;
        std::deque<std::string> tail;
        std::string line;
        std::size_t total = 0;
        while (std::getline(in, line)) {
            ++total;
            if (head.size() < lines / 2)
                head.push_back(shorten(line, 200));
            else
                tail.push_back(shorten(line, 200));
            if (tail.size() > lines / 2)
                tail.pop_front();
        }
        std::string text;
        for (auto const& l : head)
            text += "    | " + l + "\n";
        if (total > head.size() + tail.size())
            text += "    | ... (" + std::to_string(total - head.size() - tail.size()) + " lines)\n";
        for (auto const& l : tail)
            text += "    | " + l + "\n";
        return text.empty() ? "    (service log empty)\n" : text;
    }

    std::size_t log_lines() const
    {
        std::ifstream in(log_);
        return static_cast<std::size_t>(std::count(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>(), '\n'));
    }

private:
    static std::string describe(int s)
    {
        if (WIFEXITED(s))
            return "exited with status " + std::to_string(WEXITSTATUS(s));
        if (WIFSIGNALED(s))
            return std::string("killed by signal ") + strsignal(WTERMSIG(s));
        return "ended";
    }

    fs::path log_;
    pid_t pid_ = -1;
    int stdout_ = -1;
    std::string ended_;
};

// Policies, always replaced in one step (a new file renamed over the old one).
std::string policy_text(Mode mode, unsigned variant)
{
    std::string const comment = "# chaos policy " + std::to_string(variant) + "\n";
    switch (mode) {
    case Mode::open: return comment + (variant % 2 ? "allow * *\n" : "\n# anyone\nallow   *   *   # all\n");
    case Mode::nobody: return comment + "deny nobody *\n" + (variant % 2 ? "allow root *\n" : "allow * *\n");
    case Mode::deny: return comment + "deny * *\n";
    case Mode::broken: return comment + "allow * *\npermit * *\n";
    case Mode::flap: break;
    }
    return comment;
}

void write_policy(fs::path const& path, std::string const& text, Report& report)
{
    fs::path const temporary = path.string() + ".new";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << text;
    }
    fs::rename(temporary, path);
    ++report.policy_writes;
}

std::size_t rss_kib(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::strtoull(line.c_str() + 6, nullptr, 10);
    return 0;
}

int fd_count(pid_t pid)
{
    std::error_code ec;
    int n = 0;
    for (auto it = fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec); !ec && it != fs::directory_iterator(); it.increment(ec))
        ++n;
    return n;
}

// The share of one core that the service used over `period`, from /proc/<pid>/stat.
double cpu_share(pid_t pid, std::chrono::milliseconds period)
{
    auto ticks = [pid] {
        std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        auto const close = text.rfind(')');
        if (close == std::string::npos)
            return 0.0;
        std::istringstream fields(text.substr(close + 2));
        std::string field;
        double total = 0;
        // After the command: state is field 3; utime and stime are fields 14 and 15.
        for (int i = 3; i <= 15 && fields >> field; ++i)
            if (i >= 14)
                total += std::atof(field.c_str());
        return total;
    };
    double const before = ticks();
    std::this_thread::sleep_for(period);
    double const used = (ticks() - before) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    return used / std::chrono::duration<double>(period).count();
}

std::string cpu_note(pid_t pid)
{
    return "; tarvek-lamps used " + std::to_string(static_cast<int>(cpu_share(pid, 500ms) * 100)) +
        "% of a core over the last 500 ms";
}

sd_bus* connect_to(std::string const& address)
{
    sd_bus* bus = nullptr;
    int r = sd_bus_new(&bus);
    if (r >= 0)
        r = sd_bus_set_address(bus, address.c_str());
    if (r >= 0)
        r = sd_bus_set_bus_client(bus, 1);
    if (r >= 0)
        r = sd_bus_start(bus);
    if (r < 0) {
        sd_bus_unref(bus);
        return nullptr;
    }
    return bus;
}

// A state file: org:sample:lamps:NAME.json with NAME a path element. Anything else in
// the directory (a temporary file of a save in progress) is not looked at.
bool is_state_file(std::string const& name)
{
    std::string const prefix = "org:sample:lamps:";
    if (name.rfind(prefix, 0) != 0 || name.size() <= prefix.size() + 5 || !name.ends_with(".json"))
        return false;
    std::string const element = name.substr(prefix.size(), name.size() - prefix.size() - 5);
    return std::all_of(element.begin(), element.end(), [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; });
}

// Reads every state file over and over while the service runs; each must always be a
// complete JSON document. Also samples the service's memory and descriptors.
class StateReader {
public:
    StateReader(fs::path dir, pid_t pid, Report& report) : dir_(std::move(dir)), pid_(pid), report_(report)
    {
        thread_ = std::thread([this] { run(); });
    }
    ~StateReader() { stop(); }
    void stop()
    {
        stopping_ = true;
        if (thread_.joinable())
            thread_.join();
    }
    // One pass now, from the caller's thread (after the service ended).
    void pass() { read_all(); }

    std::atomic<std::size_t> max_rss{0};
    std::atomic<int> max_fds{0};

private:
    void run()
    {
        // Bounded by the run itself: stop() ends it.
        int round = 0;
        while (!stopping_) {
            read_all();
            if (++round % 16 == 0) {
                max_rss = std::max(max_rss.load(), rss_kib(pid_));
                max_fds = std::max(max_fds.load(), fd_count(pid_));
            }
            std::this_thread::sleep_for(3ms);
        }
    }

    void read_all()
    {
        std::error_code ec;
        for (auto it = fs::directory_iterator(dir_, ec); !ec && it != fs::directory_iterator(); it.increment(ec)) {
            std::string const name = it->path().filename().string();
            if (!is_state_file(name))
                continue;
            std::ifstream in(it->path(), std::ios::binary);
            if (!in)
                continue; // gone since the listing
            std::string const text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            ++report_.state_reads;
            rapidjson::Document document;
            document.Parse(text.c_str(), text.size());
            if (!document.HasParseError() && document.IsObject())
                continue;
            bool const cut = text.empty() || document.GetParseError() == rapidjson::kParseErrorDocumentEmpty ||
                document.GetErrorOffset() >= text.size();
            ++(cut ? report_.state_incomplete : report_.state_invalid);
            report_.failure(cut ? "state files are complete" : "state files are valid JSON",
                name + " (" + std::to_string(text.size()) + " bytes): " +
                    (document.HasParseError() ? rapidjson::GetParseError_En(document.GetParseError()) : "not an object") +
                    " at offset " + std::to_string(document.GetErrorOffset()) + "; ends with \"" +
                    shorten(text.size() > 60 ? text.substr(text.size() - 60) : text, 60) + "\"");
        }
    }

    fs::path dir_;
    pid_t pid_;
    Report& report_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

// One client connection of a batch, on a thread of its own.
struct ClientPlan {
    int id = 0;
    std::uint64_t seed = 0;
    int max_calls = 0;
    int window = 1;
    Clock::time_point deadline;
    Mode mode = Mode::open;
    bool manager = false;
    CallOptions options;
};

struct Pending {
    std::string description;
    bool guarded = false;
    bool answered = false;
    sd_bus_slot* slot = nullptr;
    struct Client* client = nullptr;
};

struct Client {
    Report* report = nullptr;
    Mode mode = Mode::open;
    int answered = 0;
};

int on_reply(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto& pending = *static_cast<Pending*>(userdata);
    auto& client = *pending.client;
    Report& report = *client.report;
    pending.answered = true;
    ++client.answered;
    sd_bus_error const* error = sd_bus_message_get_error(message);
    if (error && error->name && std::strcmp(error->name, no_reply) == 0) {
        // The daemon says the service went away, or sd-bus gave up: no answer from it.
        ++report.unanswered;
        report.failure("every call is answered", "no reply to " + pending.description + ": " +
            (error->message ? error->message : ""));
        return 0;
    }
    ++report.answered;
    if (error) {
        report.error(error->name ? error->name : "(no name)");
    } else {
        ++report.replies;
        if (pending.guarded && refuses_all(client.mode))
            report.failure("refused calls never succeed",
                pending.description + " succeeded under the " + mode_name(client.mode) + " policy");
    }
    if (pending.guarded && refuses_all(client.mode))
        ++report.guarded_in_refusing;
    return 0;
}

void run_client(std::string const& address, ClientPlan const& plan, Report& report)
{
    BusPtr bus(connect_to(address));
    if (!bus) {
        report.failure("clients can connect", "client " + std::to_string(plan.id) + " could not connect to the bus");
        return;
    }
    Rng rng(plan.seed);
    Client client{&report, plan.mode, 0};
    std::vector<std::unique_ptr<Pending>> pendings;
    static std::vector<std::string> const pool{"c1", "c2", "c3", "c4"};
    int sent = 0;
    int attempts = 0;
    bool broken = false;
    while (sent < plan.max_calls && Clock::now() < plan.deadline && !broken) {
        while (sent - client.answered < plan.window && sent < plan.max_calls && attempts++ < plan.max_calls * 3) {
            Call call = plan.manager ? manager_call(bus.get(), rng, pool) : random_call(bus.get(), rng, plan.options);
            if (!call.message) {
                ++report.unbuilt;
                continue;
            }
            auto pending = std::make_unique<Pending>();
            pending->description = "c" + std::to_string(plan.id) + " " + call.description;
            pending->guarded = call.guarded;
            pending->client = &client;
            int const r = sd_bus_call_async(bus.get(), &pending->slot, call.message.get(), &on_reply, pending.get(),
                microseconds(120s));
            if (r < 0) {
                ++report.unsendable; // too big for sd-bus, say: nothing went out
                continue;
            }
            report.sent_call(pending->description);
            pendings.push_back(std::move(pending));
            ++sent;
        }
        int r = 0;
        for (int i = 0; i < 1000 && (r = sd_bus_process(bus.get(), nullptr)) > 0; ++i) { }
        if (r < 0) {
            report.failure("clients stay connected", "client " + std::to_string(plan.id) +
                " lost its connection: " + std::strerror(-r));
            broken = true;
            break;
        }
        sd_bus_wait(bus.get(), microseconds(20ms));
    }
    // Every call must be answered; the time-out is generous, the service is busy.
    auto const drain = Clock::now() + 30s;
    while (!broken && sent > client.answered && Clock::now() < drain) {
        int r = 0;
        for (int i = 0; i < 1000 && (r = sd_bus_process(bus.get(), nullptr)) > 0; ++i) { }
        if (r < 0) {
            report.failure("clients stay connected", "client " + std::to_string(plan.id) +
                " lost its connection while waiting: " + std::strerror(-r));
            broken = true;
            break;
        }
        sd_bus_wait(bus.get(), microseconds(50ms));
    }
    int missing = 0;
    std::string examples;
    for (auto const& p : pendings)
        if (!p->answered) {
            ++missing;
            if (missing <= 5)
                examples += "\n    unanswered: " + p->description;
        }
    if (missing > 0) {
        report.unanswered += static_cast<std::uint64_t>(missing);
        report.failure("every call is answered", std::to_string(missing) + " of " + std::to_string(sent) +
            " calls of client " + std::to_string(plan.id) + " had no answer within 30 s of the batch's end" + examples);
    }
    for (auto const& p : pendings)
        sd_bus_slot_unref(p->slot);
}

// Clients that send slow calls and leave without waiting for the answers.
void run_leavers(std::string const& address, std::uint64_t seed, int count, Clock::time_point deadline,
    CallOptions const& options, Report& report)
{
    Rng rng(seed);
    for (int i = 0; i < count && Clock::now() < deadline; ++i) {
        sd_bus* bus = connect_to(address);
        if (!bus) {
            report.failure("clients can connect", "a leaving client could not connect");
            return;
        }
        for (int k = 0, n = 1 + pick(rng, 6); k < n; ++k) {
            Call call = slow_call(bus, rng, options);
            if (!call.message)
                continue;
            if (sd_bus_send(bus, call.message.get(), nullptr) >= 0) {
                ++report.abandoned;
                report.remember("leaver " + call.description + " (not waited for)");
            }
        }
        sd_bus_flush(bus);
        sd_bus_close(bus);
        sd_bus_unref(bus);
        std::this_thread::sleep_for(std::chrono::milliseconds(20 + pick(rng, 150)));
    }
}

// The client that runs as nobody: a copy of this program, dropped to nobody before exec,
// that prints one line per attempt ("OK ..." or "ERR name ...").
class NobodyClient {
public:
    NobodyClient(Settings const& settings, std::string const& address, int attempts, std::uint64_t seed, double seconds)
    {
        passwd const* user = ::getpwnam("nobody");
        if (!user)
            throw std::runtime_error("no user nobody");
        uid_t const uid = user->pw_uid;
        gid_t const gid = user->pw_gid;
        std::vector<std::string> const arguments{settings.self, "--as-nobody", address, std::to_string(attempts),
            std::to_string(seed), std::to_string(seconds)};
        std::vector<char*> argv;
        for (auto const& a : arguments)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2 failed");
        pid_t const parent = ::getpid();
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent)
                ::_exit(127);
            if (::dup2(out[1], 1) < 0 || ::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0)
                ::_exit(126);
            ::execve(argv[0], argv.data(), environ);
            ::_exit(127);
        }
        ::close(out[1]);
        out_ = out[0];
    }
    NobodyClient(NobodyClient const&) = delete;
    NobodyClient& operator=(NobodyClient const&) = delete;
    ~NobodyClient()
    {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        ::close(out_);
    }

    // Reads its lines until it ends (or `timeout`), and checks every one.
    void collect(std::chrono::milliseconds timeout, Report& report)
    {
        auto const deadline = Clock::now() + timeout;
        std::string buffer;
        bool open = true;
        while (open && Clock::now() < deadline) {
            pollfd p{out_, POLLIN, 0};
            if (::poll(&p, 1, 100) <= 0)
                continue;
            char chunk[4096];
            ssize_t const n = ::read(out_, chunk, sizeof chunk);
            if (n <= 0) {
                open = false;
                break;
            }
            buffer.append(chunk, static_cast<std::size_t>(n));
            std::size_t newline = 0;
            while ((newline = buffer.find('\n')) != std::string::npos) {
                check(buffer.substr(0, newline), report);
                buffer.erase(0, newline + 1);
            }
        }
        if (open)
            report.failure("the nobody client finishes", "it still ran " + std::to_string(timeout.count()) + " ms later");
        int status = 0;
        if (pid_ > 0 && ::waitpid(pid_, &status, open ? WNOHANG : 0) == pid_) {
            pid_ = -1;
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
                report.failure("the nobody client finishes", "it ended with status " + std::to_string(status));
        }
    }

private:
    static void check(std::string const& line, Report& report)
    {
        ++report.nobody_attempts;
        report.remember("nobody: " + line);
        if (line.rfind("ERR org.freedesktop.DBus.Error.AccessDenied ", 0) == 0) {
            ++report.nobody_denied;
            return;
        }
        report.failure("nobody is always refused", "the nobody client got: " + shorten(line));
    }

    pid_t pid_ = -1;
    int out_ = -1;
};

int run_as_nobody(std::string const& address, int attempts, std::uint64_t seed, double seconds)
{
    BusPtr bus(connect_to(address));
    if (!bus) {
        std::printf("ERR connect could not connect as uid %u\n", ::getuid());
        return 1;
    }
    Rng rng(seed);
    auto const deadline = Clock::now() + std::chrono::milliseconds(static_cast<long>(seconds * 1000));
    for (int i = 0; i < attempts && Clock::now() < deadline; ++i) {
        Call call = refused_call(bus.get(), rng, static_cast<unsigned>(i));
        if (!call.message)
            continue;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        int const r = sd_bus_call(bus.get(), call.message.get(), microseconds(20s), &error, &reply);
        if (r >= 0)
            std::printf("OK %s\n", call.description.c_str());
        else
            std::printf("ERR %s %s (%s)\n", error.name ? error.name : "-", call.description.c_str(),
                error.message ? error.message : "");
        std::fflush(stdout);
        sd_bus_error_free(&error);
        sd_bus_message_unref(reply);
    }
    return 0;
}

// What a client may see of the lamps: every lamp's org.sample.Lamp properties, and the list.
using Snapshot = std::map<std::string, std::string>;

std::string call_text(sd_bus* bus, std::string const& path, char const* interface, char const* member, lamps::Fill const& fill)
{
    lamps::CallResult const result = lamps::call(bus, path, interface, member, fill, 20s);
    if (!result.ok())
        return "error: " + result.error_name + ": " + result.error_message;
    std::string text;
    while (sd_bus_message_at_end(result.reply.get(), true) == 0)
        text += lamps::render(result.reply.get()) + " ";
    return text;
}

std::vector<std::string> lamp_list(sd_bus* bus)
{
    std::vector<std::string> paths;
    lamps::CallResult const result = lamps::call(bus, lamps::root_path, lamps::manager_interface, "List", {}, 20s);
    if (!result.ok())
        return paths;
    char const* path = nullptr;
    sd_bus_message_enter_container(result.reply.get(), 'a', "o");
    while (sd_bus_message_read_basic(result.reply.get(), 'o', &path) > 0)
        paths.emplace_back(path);
    return paths;
}

Snapshot snapshot(sd_bus* bus)
{
    Snapshot s;
    auto const paths = lamp_list(bus);
    std::string list;
    for (auto const& p : paths)
        list += p + " ";
    s["List"] = list;
    for (auto const& p : paths)
        s[p] = call_text(bus, p, lamps::properties_interface, "GetAll",
            [](sd_bus_message* m) { sd_bus_message_append(m, "s", lamps::lamp_interface); });
    return s;
}

// What validation promises of every lamp at all times: Level <= MaxLevel <= 100 and each
// component of Color within 0..1. Empty if it holds (or the lamp went away meanwhile).
std::string broken_invariant(sd_bus* bus, std::string const& path)
{
    lamps::CallResult const result = lamps::call(bus, path, lamps::extended_interface, "GetMany",
        [](sd_bus_message* m) { sd_bus_message_append(m, "sas", lamps::lamp_interface, 3, "Level", "MaxLevel", "Color"); },
        20s);
    if (!result.ok())
        return {};
    sd_bus_message* m = result.reply.get();
    std::uint32_t level = 0, max_level = 0;
    double color[3] = {0, 0, 0};
    if (sd_bus_message_enter_container(m, 'a', "{sv}") <= 0)
        return "GetMany answered no a{sv}";
    char const* name = nullptr;
    while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
        sd_bus_message_read(m, "s", &name);
        std::string const key = name;
        if (key == "Level")
            sd_bus_message_read(m, "v", "u", &level);
        else if (key == "MaxLevel")
            sd_bus_message_read(m, "v", "u", &max_level);
        else
            sd_bus_message_read(m, "v", "(ddd)", &color[0], &color[1], &color[2]);
        sd_bus_message_exit_container(m);
    }
    bool const colors_ok = std::all_of(std::begin(color), std::end(color), [](double c) { return c >= 0 && c <= 1; });
    if (level <= max_level && max_level <= 100 && colors_ok)
        return {};
    std::ostringstream out;
    out << path << ": Level " << level << ", MaxLevel " << max_level << ", Color (" << color[0] << ", " << color[1]
        << ", " << color[2] << ")";
    return out.str();
}

std::string difference(Snapshot const& before, Snapshot const& after, std::string const& only = {})
{
    std::string text;
    std::set<std::string> keys;
    for (auto const& [k, v] : before)
        keys.insert(k);
    for (auto const& [k, v] : after)
        keys.insert(k);
    for (auto const& k : keys) {
        if (!only.empty() && k != only)
            continue;
        auto const b = before.contains(k) ? before.at(k) : "(absent)";
        auto const a = after.contains(k) ? after.at(k) : "(absent)";
        if (a != b)
            text += "\n    " + k + ": before " + shorten(b, 400) + "\n    " + std::string(k.size(), ' ') + "  after  " + shorten(a, 400);
    }
    return text;
}

// Values near the daemon's message limit (32 MiB by default): each write fits, the replies
// that carry them together don't.
void big_step(std::string const& address, Report& report)
{
    BusPtr bus(connect_to(address));
    if (!bus)
        return;
    ++report.big_steps;
    std::string const lamp2 = lamps::lamp2_path;
    // After a call without an answer the rest is skipped, so that a stuck service costs one
    // time-out, not seven.
    bool stuck = false;
    auto note = [&](char const* what, lamps::CallResult const& r) {
        report.sent_call(std::string("big: ") + what);
        if (r.ok()) {
            ++report.answered;
            ++report.replies;
        } else if (r.error_name.empty() || r.error_name == no_reply || r.error_name == "org.freedesktop.DBus.Error.Timeout") {
            ++report.unanswered;
            stuck = true;
            report.failure("every call is answered", std::string("big: ") + what + " had no answer: " +
                r.error_name + " " + r.error_message + " (" + std::strerror(-r.r) + ")");
        } else {
            ++report.answered;
            report.error(r.error_name);
        }
        return r.ok();
    };
    std::string const label(20u << 20, 'L');
    note("Set Label of lamp2 to 20 MiB", lamps::call(bus.get(), lamp2, lamps::properties_interface, "Set",
        [&](sd_bus_message* m) { sd_bus_message_append(m, "ssv", lamps::lamp_interface, "Label", "s", label.c_str()); },
        60s));
    if (stuck)
        return;
    note("Set Tags of lamp2 to 16 Ki x 1000 bytes", lamps::call(bus.get(), lamp2, lamps::properties_interface, "Set",
        [&](sd_bus_message* m) {
            sd_bus_message_append(m, "ss", lamps::lamp_interface, "Tags");
            sd_bus_message_open_container(m, 'v', "as");
            sd_bus_message_open_container(m, 'a', "s");
            std::string const tag(1000, 't');
            for (int i = 0; i < 16 * 1024; ++i)
                sd_bus_message_append_basic(m, 's', tag.c_str());
            sd_bus_message_close_container(m);
            sd_bus_message_close_container(m);
        }, 60s));
    if (stuck)
        return;
    note("GetAll of lamp2 (36 MiB)", lamps::call(bus.get(), lamp2, lamps::properties_interface, "GetAll",
        [](sd_bus_message* m) { sd_bus_message_append(m, "s", lamps::lamp_interface); }, 60s));
    if (stuck)
        return;
    note("GetMany Label Tags of lamp2", lamps::call(bus.get(), lamp2, lamps::extended_interface, "GetMany",
        [](sd_bus_message* m) { sd_bus_message_append(m, "sas", lamps::lamp_interface, 2, "Label", "Tags"); }, 60s));
    if (stuck)
        return;
    note("GetManagedObjects", lamps::call(bus.get(), lamps::root_path, lamps::object_manager_interface,
        "GetManagedObjects", {}, 60s));
    if (stuck)
        return;
    note("Get Label of lamp2 (20 MiB)", lamps::call(bus.get(), lamp2, lamps::properties_interface, "Get",
        [](sd_bus_message* m) { sd_bus_message_append(m, "ss", lamps::lamp_interface, "Label"); }, 60s));
    if (stuck)
        return;
    if (!note("Reset Label Tags of lamp2", lamps::call(bus.get(), lamp2, lamps::extended_interface, "Reset",
            [](sd_bus_message* m) { sd_bus_message_append(m, "sas", lamps::lamp_interface, 2, "Label", "Tags"); }, 60s)))
        report.failure("big values can be reset", "Reset of Label and Tags of lamp2 failed after the big step");
}

// Writes sent back to back on one connection to a lamp that nothing else touches, while
// the batch keeps the lamps' executor busy: each must be validated against the state that
// the writes before it left, and none may be lost.
void pipeline_probe(std::string const& address, int rounds, Clock::time_point deadline, Report& report)
{
    BusPtr bus(connect_to(address));
    if (!bus)
        return;
    std::string const path = "/org/sample/lamps/probe";
    for (int k = 0; k < rounds && Clock::now() < deadline; ++k) {
        auto const reset = lamps::call(bus.get(), path, lamps::extended_interface, "SetMany", [](sd_bus_message* m) {
            sd_bus_message_append(m, "sa(sv)", lamps::lamp_interface, 4, "Level", "u", 0U, "MaxLevel", "u", 100U,
                "Label", "s", "", "Tags", "as", 0);
        }, 30s);
        if (!reset.ok()) {
            report.failure("the service answers", "the probe lamp could not be reset: " +
                reset.error_name + " " + reset.error_message);
            return;
        }
        std::string const mark = "p" + std::to_string(k);
        std::vector<std::pair<std::string, lamps::Fill>> const writes{
            {"Set Label " + mark, [&](sd_bus_message* m) {
                sd_bus_message_append(m, "sa(sv)", lamps::lamp_interface, 1, "Label", "s", mark.c_str()); }},
            {"Set Tags [" + mark + "]", [&](sd_bus_message* m) {
                sd_bus_message_append(m, "sa(sv)", lamps::lamp_interface, 1, "Tags", "as", 1, mark.c_str()); }},
            {"SetMany MaxLevel=50", [](sd_bus_message* m) {
                sd_bus_message_append(m, "sa(sv)", lamps::lamp_interface, 1, "MaxLevel", "u", 50U); }},
            {"SetMany Level=60 (above MaxLevel 50)", [](sd_bus_message* m) {
                sd_bus_message_append(m, "sa(sv)", lamps::lamp_interface, 1, "Level", "u", 60U); }},
            {"SetMany Level=40", [](sd_bus_message* m) {
                sd_bus_message_append(m, "sa(sv)", lamps::lamp_interface, 1, "Level", "u", 40U); }},
        };
        std::vector<std::unique_ptr<lamps::PendingCall>> pending;
        for (auto const& [what, fill] : writes) {
            pending.push_back(std::make_unique<lamps::PendingCall>(bus.get(), path, lamps::extended_interface, "SetMany", fill));
            report.sent_call("probe: " + what);
        }
        std::string outcome;
        bool wrong = false;
        for (std::size_t i = 0; i < pending.size(); ++i) {
            if (!pending[i]->wait(30s)) {
                ++report.unanswered;
                report.failure("every call is answered", "probe: " + writes[i].first + " had no answer in 30 s");
                return;
            }
            ++report.answered;
            bool const ok = pending[i]->result.ok();
            ok ? ++report.replies : (report.error(pending[i]->result.error_name), 0);
            outcome += "\n    " + writes[i].first + ": " + (ok ? "ok" : pending[i]->result.error_name);
            wrong = wrong || ok != (i != 3);
        }
        std::string const label = lamps::property(bus.get(), path, lamps::lamp_interface, "Label");
        std::string const tags = lamps::property(bus.get(), path, lamps::lamp_interface, "Tags");
        std::string const level = lamps::property(bus.get(), path, lamps::lamp_interface, "Level");
        std::string const max_level = lamps::property(bus.get(), path, lamps::lamp_interface, "MaxLevel");
        outcome += "\n    then Label " + label + ", Tags " + tags + ", Level " + level + ", MaxLevel " + max_level;
        if (wrong)
            report.failure("pipelined writes are validated in order", "writes sent back to back were answered:" + outcome);
        if (label != "<s \"" + mark + "\">" || tags != "<as [\"" + mark + "\"]>" || level != "<u 40>" || max_level != "<u 50>")
            report.failure("pipelined writes are all kept", "after writes sent back to back:" + outcome);
    }
}

struct Batch {
    int number = 0;
    Mode mode = Mode::open;
    bool big = false;
};

Batch plan_batch(int number, Settings const& settings, Rng& rng)
{
    // A fixed opening so that a short run sees every kind of batch; then at random.
    static Mode const opening[] = {Mode::open, Mode::open, Mode::nobody, Mode::deny, Mode::open, Mode::broken,
        Mode::flap, Mode::nobody};
    Batch batch{number, Mode::open, false};
    if (number < 8) {
        batch.mode = opening[number];
        batch.big = number == 1 || number == 4;
    } else {
        static Mode const later[] = {Mode::open, Mode::open, Mode::nobody, Mode::deny, Mode::broken, Mode::flap};
        batch.mode = later[pick(rng, 6)];
        batch.big = batch.mode == Mode::open && chance(rng, 0.4);
    }
    if (!settings.with("policy") && batch.mode != Mode::nobody)
        batch.mode = Mode::open;
    if (!settings.with("nobody") && batch.mode == Mode::nobody)
        batch.mode = Mode::open;
    if (!settings.with("big"))
        batch.big = false;
    return batch;
}

int run(Settings const& settings)
{
    Report report;
    report.seed = settings.seed;
    {
        std::ostringstream cmd;
        cmd << "scripts/chaos.sh " << settings.duration << " " << settings.seed;
        if (!settings.without.empty()) {
            cmd << " --without ";
            bool first = true;
            for (auto const& w : settings.without)
                cmd << (first ? "" : ",") << w, first = false;
        }
        report.reproduce = cmd.str();
    }
    auto const started = Clock::now();
    auto const end = started + std::chrono::milliseconds(static_cast<long>(settings.duration * 1000));

    PrivateBus daemon;
    lamps::TemporaryDirectory directory;
    fs::path const state = directory.path() / "state";
    fs::create_directories(state);
    fs::path const policy = directory.path() / "policy.conf";
    write_policy(policy, policy_text(Mode::open, 0), report);

    Service service({lamps::lamps_binary(), "--bus-address", daemon.address(), "--lamps", "4", "--state-dir",
                        state.string()},
        policy.string(), directory.path() / "service.log");
    if (!service.wait_ready(20s)) {
        std::cerr << "CHAOS FAILURE [the service starts] tarvek-lamps did not say ready\n" << service.log_tail(20);
        return 1;
    }
    std::vector<std::string> const stable{"/org/sample/lamps/lamp1", "/org/sample/lamps/lamp2",
        "/org/sample/lamps/lamp3", "/org/sample/lamps/lamp4"};

    StateReader reader(state, service.pid(), report);
    BusPtr checker(daemon.connect());
    auto const probe = lamps::call(checker.get(), lamps::root_path, lamps::manager_interface, "AddLamp",
        [](sd_bus_message* m) { sd_bus_message_append(m, "s", "probe"); }, 20s);
    if (!probe.ok())
        report.failure("the service starts", "AddLamp(\"probe\") failed: " + probe.error_name + " " + probe.error_message);

    std::size_t rss_start = 0, rss_base = 0, rss_end = 0;
    int fds_start = 0, fds_base = 0, fds_end = 0;
    std::map<std::string, int> modes;
    Rng planner(mix(settings.seed, 0xC4A05));
    int batches = 0;
    bool fatal = false;
    bool died = false;

    // Bounded by the duration, and by a count in case a batch is very short.
    for (int number = 0; number < 10000 && !fatal && (number < 2 || Clock::now() < end); ++number) {
        Batch const batch = plan_batch(number, settings, planner);
        report.batch = number;
        report.mode = batch.mode;
        ++modes[mode_name(batch.mode)];
        ++batches;
        if (number == 0) {
            rss_start = rss_kib(service.pid());
            fds_start = fd_count(service.pid());
        }

        Snapshot const before = snapshot(checker.get());
        write_policy(policy, policy_text(batch.mode, 1), report);

        auto const deadline = Clock::now() + 3500ms;
        CallOptions options;
        options.features.big = settings.with("big");
        options.features.deep = settings.with("deep");
        options.features.empty = settings.with("empty");
        options.features.badsig = settings.with("badsig");
        // The nobody batch leaves lamp1 alone, so that any change to it is the nobody client's.
        for (auto const& p : stable)
            if (batch.mode != Mode::nobody || p != stable[0])
                options.lamps.push_back(p);
        for (auto const* name : {"c1", "c2"})
            options.lamps.push_back(std::string("/org/sample/lamps/") + name);

        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        for (int c = 0; c < 3; ++c) {
            ClientPlan plan;
            plan.id = c;
            plan.seed = mix(settings.seed, static_cast<std::uint64_t>(number), static_cast<std::uint64_t>(c) + 1);
            plan.max_calls = 400;
            plan.window = 16;
            plan.deadline = deadline;
            plan.mode = batch.mode;
            plan.options = options;
            threads.emplace_back([&, plan] { run_client(daemon.address(), plan, report); });
        }
        if (settings.with("manager"))
            for (int c = 3; c < 5; ++c) {
                ClientPlan plan;
                plan.id = c;
                plan.seed = mix(settings.seed, static_cast<std::uint64_t>(number), static_cast<std::uint64_t>(c) + 1);
                plan.max_calls = 120;
                plan.window = 4;
                plan.deadline = deadline;
                plan.mode = batch.mode;
                plan.manager = true;
                plan.options = options;
                threads.emplace_back([&, plan] { run_client(daemon.address(), plan, report); });
            }
        if (settings.with("disconnect"))
            threads.emplace_back([&] {
                run_leavers(daemon.address(), mix(settings.seed, static_cast<std::uint64_t>(number), 99), 12, deadline,
                    options, report);
            });
        if (settings.with("signals"))
            threads.emplace_back([&, seed = mix(settings.seed, static_cast<std::uint64_t>(number), 77)] {
                Rng rng(seed);
                for (int i = 0; i < 200 && !stop && Clock::now() < deadline; ++i) {
                    ::kill(service.pid(), SIGUSR1);
                    ++report.saves;
                    std::this_thread::sleep_for(std::chrono::milliseconds(30 + pick(rng, 90)));
                }
            });
        if (settings.with("policy"))
            threads.emplace_back([&, seed = mix(settings.seed, static_cast<std::uint64_t>(number), 55)] {
                Rng rng(seed);
                static Mode const flapping[] = {Mode::open, Mode::deny, Mode::broken, Mode::nobody};
                for (unsigned i = 2; i < 200 && !stop && Clock::now() < deadline; ++i) {
                    Mode const m = batch.mode == Mode::flap ? flapping[pick(rng, 4)] : batch.mode;
                    write_policy(policy, policy_text(m, i), report);
                    std::this_thread::sleep_for(std::chrono::milliseconds(
                        batch.mode == Mode::flap ? 40 + pick(rng, 200) : 150 + pick(rng, 400)));
                }
            });
        if (batch.big)
            threads.emplace_back([&] { big_step(daemon.address(), report); });
        if (batch.mode == Mode::open || batch.mode == Mode::nobody)
            threads.emplace_back([&] { pipeline_probe(daemon.address(), 5, deadline, report); });
        std::unique_ptr<NobodyClient> nobody;
        if (batch.mode == Mode::nobody)
            nobody = std::make_unique<NobodyClient>(settings, daemon.address(), 80,
                mix(settings.seed, static_cast<std::uint64_t>(number), 11), 3.5);

        if (nobody)
            nobody->collect(60s, report);
        for (auto& t : threads)
            t.join();
        stop = true;
        nobody.reset();

        // Checks. The policy allows everything again, then: is it alive and answering?
        write_policy(policy, policy_text(Mode::open, 0), report);
        std::string status;
        if (!service.alive(status)) {
            report.failure("the service keeps running", "tarvek-lamps " + status + "; its log ends:\n" + service.log_tail(25));
            fatal = true;
            died = true;
            break;
        }
        auto const ping = lamps::call(checker.get(), "/", "org.freedesktop.DBus.Peer", "Ping", {}, 10s);
        if (!ping.ok()) {
            report.failure("the service answers", "Ping had no answer within 10 s: " + ping.error_name + " " +
                ping.error_message + cpu_note(service.pid()) + "; its log ends:\n" + service.log_tail(25));
            fatal = true;
            break;
        }
        // Blinks of clients that left end within 150 ms; a Sleep queues behind everything
        // still on the lamps' executor.
        std::this_thread::sleep_for(300ms);
        auto const barrier = lamps::call(checker.get(), lamps::lamp2_path, lamps::lamp_interface, "Sleep",
            [](sd_bus_message* m) { sd_bus_message_append(m, "u", 0U); }, 20s);
        if (!barrier.ok()) {
            report.failure("the service answers", "Sleep(0) on lamp2 had no answer within 20 s: " + barrier.error_name +
                " " + barrier.error_message + "; its log ends:\n" + service.log_tail(25));
            fatal = true;
            break;
        }
        std::string const serial = lamps::property(checker.get(), lamps::lamp2_path, lamps::lamp_interface, "Serial");
        if (serial != "<s \"LMP-2\">")
            report.failure("the service answers", "Get Serial of lamp2 answered " + shorten(serial));

        // Nothing is asked of it now: an idle service must not burn a core.
        double const idle_cpu = cpu_share(service.pid(), 500ms);
        if (idle_cpu > 0.5)
            report.failure("the service idles between batches", "tarvek-lamps used " +
                std::to_string(static_cast<int>(idle_cpu * 100)) + "% of a core while no client asked anything");

        Snapshot const after = snapshot(checker.get());
        for (auto const& [key, value] : after)
            if (key != "List")
                if (auto const broken = broken_invariant(checker.get(), key); !broken.empty())
                    report.failure("validated values stay valid", broken);
        if (refuses_all(batch.mode)) {
            std::string const diff = difference(before, after);
            if (!diff.empty())
                report.failure("refused writes change nothing", std::string("under the ") + mode_name(batch.mode) +
                    " policy the lamps changed:" + diff);
        }
        if (batch.mode == Mode::nobody) {
            std::string const diff = difference(before, after, stable[0]);
            if (!diff.empty())
                report.failure("refused writes change nothing", "lamp1, which only the refused nobody client touched, changed:" + diff);
            for (auto const& [key, value] : after)
                if (value.find("nobody") != std::string::npos)
                    report.failure("refused writes change nothing", key + " carries a value of the nobody client: " + shorten(value, 400));
        }

        std::size_t const rss = rss_kib(service.pid());
        int const fds = fd_count(service.pid());
        rss_end = rss;
        fds_end = fds;
        if (number <= 1) {
            rss_base = std::max(rss_base, rss);
            fds_base = std::max(fds_base, fds);
        } else {
            if (rss > rss_base + settings.rss_slack_kib)
                report.failure("memory stays flat", "VmRSS " + std::to_string(rss) + " KiB after batch " +
                    std::to_string(number) + ", " + std::to_string(rss_base) + " KiB after the warm-up (slack " +
                    std::to_string(settings.rss_slack_kib) + " KiB)");
            if (fds > fds_base + settings.fd_slack)
                report.failure("descriptors stay flat", std::to_string(fds) + " descriptors after batch " +
                    std::to_string(number) + ", " + std::to_string(fds_base) + " after the warm-up");
        }
        std::cerr << "chaos: batch " << number << " " << mode_name(batch.mode) << (batch.big ? "+big" : "")
                  << ": sent " << report.sent << ", answered " << report.answered << ", VmRSS " << rss
                  << " KiB, fds " << fds << "\n";
    }

    // A clean stop must save complete files and exit 0.
    std::string const stopped = service.stop(20s);
    if (stopped != "exited with status 0" && !died)
        report.failure("the service stops cleanly", "after SIGTERM tarvek-lamps " + stopped + "; its log ends:\n" +
            service.log_tail(25));
    reader.stop();
    reader.pass();

    double const seconds = std::chrono::duration<double>(Clock::now() - started).count();
    auto const failures = report.failures();
    std::ostringstream t;
    auto row = [&t](std::string const& what, auto const& value) {
        t << "  " << what << std::string(what.size() < 44 ? 44 - what.size() : 1, ' ') << value << "\n";
    };
    t << "\nchaos: seed " << settings.seed << ", " << batches << " batches in " << static_cast<int>(seconds) << " s (";
    for (auto const& [m, n] : modes)
        t << m << " " << n << (m == modes.rbegin()->first ? "" : ", ");
    t << ")\n";
    row("calls sent", report.sent.load());
    row("  answered", report.answered.load());
    row("    with a reply", report.replies.load());
    row("    with an error", report.answered.load() - report.replies.load());
    row("  unanswered", report.unanswered.load());
    row("calls left behind by clients that quit", report.abandoned.load());
    row("calls not built / not sendable", std::to_string(report.unbuilt.load()) + " / " + std::to_string(report.unsendable.load()));
    t << "  errors by name:\n";
    for (auto const& [name, count] : report.errors())
        row("  " + name, count);
    row("policy-checked calls under deny/broken", report.guarded_in_refusing.load());
    row("attempts of the nobody client", report.nobody_attempts.load());
    row("  refused with AccessDenied", report.nobody_denied.load());
    row("big-value steps", report.big_steps.load());
    row("SIGUSR1 saves / policy rewrites", std::to_string(report.saves.load()) + " / " + std::to_string(report.policy_writes.load()));
    row("VmRSS KiB start / after warm-up / end / max",
        std::to_string(rss_start) + " / " + std::to_string(rss_base) + " / " + std::to_string(rss_end) + " / " +
            std::to_string(std::max(reader.max_rss.load(), rss_end)));
    row("descriptors start / after warm-up / end / max",
        std::to_string(fds_start) + " / " + std::to_string(fds_base) + " / " + std::to_string(fds_end) + " / " +
            std::to_string(std::max(reader.max_fds.load(), fds_end)));
    row("state-file reads", report.state_reads.load());
    row("  incomplete / not valid JSON", std::to_string(report.state_incomplete.load()) + " / " + std::to_string(report.state_invalid.load()));
    row("lines the service wrote to stderr", service.log_lines());
    if (failures.empty()) {
        t << "  failed checks: none\n";
    } else {
        t << "  failed checks:\n";
        auto const firsts = report.first_failures();
        for (auto const& [check, count] : failures)
            t << "    " << check << ": " << count << "x, first in " << shorten(firsts.at(check), 300) << "\n";
        t << "  reproduce: " << report.reproduce << "\n";
        t << "  the service's stderr:\n" << service.log_tail(20);
    }
    std::cout << t.str() << std::flush;
    return failures.empty() ? 0 : 1;
}

} // namespace
} // namespace tarvek::test::chaos

int main(int argc, char** argv)
{
    using namespace tarvek::test::chaos;
    std::signal(SIGPIPE, SIG_IGN);
    if (argc == 6 && std::string(argv[1]) == "--as-nobody")
        return run_as_nobody(argv[2], std::atoi(argv[3]), std::strtoull(argv[4], nullptr, 10), std::atof(argv[5]));
    Settings settings;
    settings.self = fs::canonical("/proc/self/exe").string();
    for (int i = 1; i < argc; ++i) {
        std::string const option = argv[i];
        if (i + 1 >= argc) {
            std::cerr << "chaos_tests: " << option << " needs a value\n";
            return 2;
        }
        std::string const value = argv[++i];
        if (option == "--seed")
            settings.seed = std::strtoull(value.c_str(), nullptr, 10);
        else if (option == "--duration")
            settings.duration = std::max(1.0, std::atof(value.c_str()));
        else if (option == "--rss-slack-mib")
            settings.rss_slack_kib = std::strtoull(value.c_str(), nullptr, 10) * 1024;
        else if (option == "--without") {
            std::stringstream list(value);
            std::string item;
            while (std::getline(list, item, ','))
                if (!item.empty())
                    settings.without.insert(item);
        } else {
            std::cerr << "usage: chaos_tests [--seed N] [--duration SECONDS] [--rss-slack-mib N] [--without CLASS,...]\n";
            return 2;
        }
    }
    try {
        return run(settings);
    } catch (std::exception const& e) {
        std::cerr << "chaos_tests: " << e.what() << "\n";
        return 1;
    }
}
