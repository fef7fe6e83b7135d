// SPDX-License-Identifier: LGPL-2.1-or-later
// Many objects under one object manager: how long they take to register, how much resident
// memory each costs, how long GetManagedObjects of all of them takes, and how long it takes
// to remove them again; for the library and, at a smaller count, for sdbus-c++ and plain
// sd-bus with the same object.
//
// The object is the D-Bus bench's: com.omno.Bench with Echo(s) -> s, Add(ii) -> i, the
// read-write int32 Value and read-only int32 P0.. (20 of them by default, so 21 properties;
// the property sweep uses 1, 10 and 100 in all), at /many/oN under an object manager at
// /many. Every measurement runs in a child process of its own, so that one's memory does not
// hide in another's RSS; all share one private dbus-daemon.
//
//   registration  from the first object made until the service answers a Ping sent after
//                 the last: the library publishes on its loop (and announces every object
//                 with InterfacesAdded), the peers register synchronously and announce
//                 nothing;
//   RSS/object    the growth of the process's resident set over the registration, divided
//                 by the count;
//   GetManagedObjects  one call from another connection, reply received and counted;
//   removal       the library: remove_object of each (InterfacesRemoved) until a Ping comes
//                 back, then the objects destroyed; the peers: their registrations dropped
//                 and the objects destroyed. A removal that outlasts its budget (60 s) stops
//                 and says how many objects went in that time ("only K").
//
//   tarvek-bench-scale [N] [--peers M] [--managed-all]
//
// N (default 100,000) objects for the library's own row; M (default 10,000) for the rows
// that compare it with the peers and for the property sweep. GetManagedObjects runs only
// for the rows of M objects with 21 properties unless --managed-all: with a policy look-up
// per property read, the library takes seconds per thousand objects.
#include "support/private_bus.hpp"

#include <tarvek/common/fd_poller.hpp>
#include <tarvek/common/object_path.hpp>
#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/object.hpp>
#include <tarvek/provider/registry.hpp>
#include <tarvek/server/dbus_server.hpp>

#include <systemd/sd-bus.h>

#if TARVEK_BENCH_SDBUSCPP
#include <sdbus-c++/sdbus-c++.h>
#endif

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <sys/wait.h>

namespace {

using Clock = std::chrono::steady_clock;
using tarvek::test::BusPtr;
using tarvek::test::MessagePtr;

constexpr char const* bench_interface = "com.omno.Bench";
constexpr char const* many_root = "/many";
constexpr std::uint64_t ping_timeout_usec = 600'000'000;

[[noreturn]] void fail(std::string const& what, int error = 0)
{
    throw std::runtime_error(what + (error ? std::string(": ") + std::strerror(error) : std::string()));
}

void check(int r, char const* what)
{
    if (r < 0)
        fail(what, -r);
}

std::string many_path(long i)
{
    return std::string(many_root) + "/o" + std::to_string(i);
}

double seconds_since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The process's resident set in bytes.
double resident_bytes()
{
    std::ifstream statm("/proc/self/statm");
    long size = 0;
    long resident = 0;
    statm >> size >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// What one child measured; negative: not measured.
struct Measured {
    double registration_s = -1;
    double rss_bytes = -1;
    double managed_s = -1;
    double removal_s = -1;
    // Fewer than all when the removal ran out of its time budget.
    double removed = -1;
};

// Removal that takes longer than this stops where it is: the figure then says how many
// objects went in that time, and the child leaves the rest to its exit.
constexpr double removal_budget_s = 60;

// The client's side: a Ping that comes back once the service has worked through everything
// queued before it, and a counted GetManagedObjects.
void ping(sd_bus* client, std::string const& service)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    sd_bus_message* call = nullptr;
    check(sd_bus_message_new_method_call(client, &call, service.c_str(), "/", "org.freedesktop.DBus.Peer", "Ping"),
          "new Ping");
    MessagePtr owned(call);
    int const r = sd_bus_call(client, call, ping_timeout_usec, &error, &reply);
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    check(r, "Ping");
}

double get_managed_objects(sd_bus* client, std::string const& service, long expected)
{
    sd_bus_message* call = nullptr;
    check(sd_bus_message_new_method_call(client, &call, service.c_str(), many_root,
                                         "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"),
          "new GetManagedObjects");
    MessagePtr owned(call);
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* raw = nullptr;
    auto const start = Clock::now();
    int r = sd_bus_call(client, call, ping_timeout_usec, &error, &raw);
    double const took = seconds_since(start);
    std::string const name = error.name ? error.name : "";
    sd_bus_error_free(&error);
    if (r < 0)
        fail("GetManagedObjects " + name, -r);
    MessagePtr reply(raw);
    check(sd_bus_message_enter_container(raw, 'a', "{oa{sa{sv}}}"), "enter a{oa{sa{sv}}}");
    long objects = 0;
    while ((r = sd_bus_message_enter_container(raw, 'e', "oa{sa{sv}}")) > 0) {
        check(sd_bus_message_skip(raw, "oa{sa{sv}}"), "skip object");
        check(sd_bus_message_exit_container(raw), "exit object");
        ++objects;
    }
    check(r, "enter object");
    if (objects != expected)
        fail("GetManagedObjects returned " + std::to_string(objects) + " objects, not " + std::to_string(expected));
    return took;
}

// ---------------------------------------------------------------------------------------
// The library.

class ScaleInterface : public tarvek::provider::Interface {
public:
    explicit ScaleInterface(int properties) : Interface(bench_interface)
    {
        for (int i = 0; i + 1 < properties; ++i)
            read_only.emplace_back(*this, "P" + std::to_string(i), 0, Access::read_only);
    }

    Method echo{*this, "Echo", [](std::string text) { return text; }};
    Method add{*this, "Add", [](std::int32_t a, std::int32_t b) { return a + b; }};
    Property<std::int32_t> value{*this, "Value", 0};
    std::deque<Property<std::int32_t>> read_only;
};

Measured measure_library(tarvek::test::PrivateBus const& daemon, long count, int properties, bool managed)
{
    Measured measured;
    BusPtr client(daemon.connect());
    // On the heap, so that a removal cut short can leave the rest to the child's exit.
    struct Service {
        BusPtr bus;
        tarvek::common::FDPoller loop;
        tarvek::API_Registry registry;
        tarvek::server::DBusServer server;
        std::deque<tarvek::Object> objects;
        explicit Service(sd_bus* connection) : bus(connection), server(connection) {}
    };
    auto service = std::make_unique<Service>(daemon.connect());
    auto& loop = service->loop;
    auto& registry = service->registry;
    auto& server = service->server;
    auto& objects = service->objects;
    std::string const name = tarvek::test::unique_name(service->bus.get());
    registry.add_server(server);
    server.add_object_manager(tarvek::ObjectPath(many_root));
    server.enable_incoming(true);
    loop.add(server.epoll_fd(), POLLIN, [&server](pollfd&) { server.process(); });
    server.process();

    double const before = resident_bytes();
    auto const start = Clock::now();
    for (long i = 0; i < count; ++i) {
        objects.emplace_back(loop.executor());
        tarvek::provider::add_interface<ScaleInterface>(objects.back(), properties);
        registry.add_object(objects.back(), tarvek::ObjectPath(many_path(i)));
    }
    std::exception_ptr error;
    std::thread thread([&] {
        try {
            server.process();
            loop.loop();
        } catch (...) {
            error = std::current_exception();
        }
    });
    struct Join {
        tarvek::common::FDPoller& loop;
        std::thread& thread;
        ~Join()
        {
            if (thread.joinable()) {
                loop.stop();
                loop.wakeup();
                thread.join();
            }
        }
    } join{loop, thread};
    ping(client.get(), name);
    measured.registration_s = seconds_since(start);
    measured.rss_bytes = resident_bytes() - before;

    if (managed)
        measured.managed_s = get_managed_objects(client.get(), name, count);

    auto const removal = Clock::now();
    long removed = 0;
    while (removed < count) {
        registry.remove_object(tarvek::ObjectPath(many_path(removed)));
        ++removed;
        if (removed % 1000 == 0 && seconds_since(removal) > removal_budget_s)
            break;
    }
    ping(client.get(), name);
    loop.stop();
    loop.wakeup();
    thread.join();
    if (removed < count) {
        measured.removal_s = seconds_since(removal);
        measured.removed = static_cast<double>(removed);
        // Tearing down the rest might take as long again; the child exits right after.
        (void)service.release();
        return measured;
    }
    objects.clear();
    measured.removal_s = seconds_since(removal);
    registry.remove_all();
    if (error)
        std::rethrow_exception(error);
    return measured;
}

// The library with the sender's identity remembered per unique name: its rows join the
// table once that setting exists.
std::optional<Measured> measure_library_with_remembered_sender(tarvek::test::PrivateBus const&, long, int, bool)
{
    return std::nullopt;
}

// ---------------------------------------------------------------------------------------
// Plain sd-bus: one vtable for all objects, the values behind each object's userdata.

int echo(sd_bus_message* message, void*, sd_bus_error*)
{
    char const* text = nullptr;
    int const r = sd_bus_message_read_basic(message, 's', &text);
    return r < 0 ? r : sd_bus_reply_method_return(message, "s", text);
}

int add(sd_bus_message* message, void*, sd_bus_error*)
{
    std::int32_t a = 0;
    std::int32_t b = 0;
    int const r = sd_bus_message_read(message, "ii", &a, &b);
    return r < 0 ? r : sd_bus_reply_method_return(message, "i", a + b);
}

int set_value(sd_bus* bus, char const* path, char const* interface, char const*, sd_bus_message* value,
              void* userdata, sd_bus_error*)
{
    std::int32_t next = 0;
    int r = sd_bus_message_read_basic(value, 'i', &next);
    if (r < 0)
        return r;
    auto& stored = *static_cast<std::int32_t*>(userdata);
    if (stored == next)
        return 1;
    stored = next;
    r = sd_bus_emit_properties_changed(bus, path, interface, "Value", nullptr);
    return r < 0 ? r : 1;
}

// Runs an sd-bus connection's loop on a thread until stopped.
class PlainLoop {
public:
    explicit PlainLoop(sd_bus* bus) : bus_(bus)
    {
        thread_ = std::thread([this] {
            try {
                while (!stopping_.load(std::memory_order_relaxed)) {
                    int const r = sd_bus_process(bus_, nullptr);
                    check(r, "sd_bus_process");
                    if (r > 0)
                        continue;
                    int const w = sd_bus_wait(bus_, 50'000);
                    if (w < 0 && w != -EINTR)
                        check(w, "sd_bus_wait");
                }
            } catch (...) {
                error_ = std::current_exception();
            }
        });
    }
    PlainLoop(PlainLoop const&) = delete;
    PlainLoop& operator=(PlainLoop const&) = delete;
    ~PlainLoop()
    {
        if (thread_.joinable()) {
            stopping_ = true;
            thread_.join();
        }
    }

    void stop()
    {
        stopping_ = true;
        thread_.join();
        if (error_)
            std::rethrow_exception(error_);
    }

private:
    sd_bus* bus_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::exception_ptr error_;
};

Measured measure_plain(tarvek::test::PrivateBus const& daemon, long count, int properties, bool managed)
{
    Measured measured;
    BusPtr client(daemon.connect());
    BusPtr bus(daemon.connect());
    std::string const name = tarvek::test::unique_name(bus.get());
    sd_bus_slot* manager = nullptr;
    check(sd_bus_add_object_manager(bus.get(), &manager, many_root), "sd_bus_add_object_manager");

    // The table is the program's, as a static one would be; names outlive it.
    std::deque<std::string> names;
    std::vector<sd_bus_vtable> table;
    table.push_back(SD_BUS_VTABLE_START(0));
    table.push_back(SD_BUS_METHOD("Echo", "s", "s", echo, SD_BUS_VTABLE_UNPRIVILEGED));
    table.push_back(SD_BUS_METHOD("Add", "ii", "i", add, SD_BUS_VTABLE_UNPRIVILEGED));
    table.push_back(SD_BUS_WRITABLE_PROPERTY("Value", "i", nullptr, set_value, 0,
                                             SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE | SD_BUS_VTABLE_UNPRIVILEGED));
    for (int i = 0; i + 1 < properties; ++i) {
        names.push_back("P" + std::to_string(i));
        table.push_back(SD_BUS_PROPERTY(names.back().c_str(), "i", nullptr,
                                        static_cast<std::size_t>(i + 1) * sizeof(std::int32_t), 0));
    }
    table.push_back(SD_BUS_VTABLE_END);

    double const before = resident_bytes();
    auto const start = Clock::now();
    std::deque<std::vector<std::int32_t>> values;
    std::vector<sd_bus_slot*> slots(static_cast<std::size_t>(count));
    for (long i = 0; i < count; ++i) {
        values.emplace_back(static_cast<std::size_t>(properties));
        check(sd_bus_add_object_vtable(bus.get(), &slots[static_cast<std::size_t>(i)], many_path(i).c_str(),
                                       bench_interface, table.data(), values.back().data()),
              "sd_bus_add_object_vtable");
    }
    std::optional<PlainLoop> loop(std::in_place, bus.get());
    ping(client.get(), name);
    measured.registration_s = seconds_since(start);
    measured.rss_bytes = resident_bytes() - before;

    if (managed)
        measured.managed_s = get_managed_objects(client.get(), name, count);

    // The connection belongs to one thread at a time: the loop stops before the removal.
    loop->stop();
    loop.reset();
    auto const removal = Clock::now();
    for (sd_bus_slot* slot : slots)
        sd_bus_slot_unref(slot);
    values.clear();
    measured.removal_s = seconds_since(removal);
    sd_bus_slot_unref(manager);
    return measured;
}

#if TARVEK_BENCH_SDBUSCPP
// ---------------------------------------------------------------------------------------
// sdbus-c++, through its convenience API.

struct SdbusCppEntry {
    std::unique_ptr<sdbus::IObject> object;
    std::int32_t value = 0;
};

Measured measure_sdbuscpp(tarvek::test::PrivateBus const& daemon, long count, int properties, bool managed)
{
    Measured measured;
    BusPtr client(daemon.connect());
    auto connection = sdbus::createSessionBusConnectionWithAddress(daemon.address());
    std::string const name = connection->getUniqueName();
    auto manager = sdbus::createObject(*connection, many_root);
    manager->addObjectManager();
    manager->finishRegistration();

    double const before = resident_bytes();
    auto const start = Clock::now();
    std::vector<std::unique_ptr<SdbusCppEntry>> entries;
    entries.reserve(static_cast<std::size_t>(count));
    for (long i = 0; i < count; ++i) {
        auto entry = std::make_unique<SdbusCppEntry>();
        SdbusCppEntry* const raw = entry.get();
        entry->object = sdbus::createObject(*connection, many_path(i));
        sdbus::IObject& object = *entry->object;
        object.registerMethod("Echo").onInterface(bench_interface).implementedAs([](std::string const& text) {
            return text;
        });
        object.registerMethod("Add").onInterface(bench_interface).implementedAs([](std::int32_t a, std::int32_t b) {
            return a + b;
        });
        object.registerProperty("Value")
            .onInterface(bench_interface)
            .withGetter([raw] { return raw->value; })
            .withSetter([raw](std::int32_t const& next) {
                if (raw->value == next)
                    return;
                raw->value = next;
                raw->object->emitPropertiesChangedSignal(bench_interface, {"Value"});
            });
        for (int p = 0; p + 1 < properties; ++p)
            object.registerProperty("P" + std::to_string(p)).onInterface(bench_interface).withGetter([] {
                return std::int32_t{0};
            });
        object.finishRegistration();
        entries.push_back(std::move(entry));
    }
    std::exception_ptr error;
    std::thread thread([&] {
        try {
            connection->enterEventLoop();
        } catch (...) {
            error = std::current_exception();
        }
    });
    struct Leave {
        sdbus::IConnection& connection;
        std::thread& thread;
        ~Leave()
        {
            if (thread.joinable()) {
                connection.leaveEventLoop();
                thread.join();
            }
        }
    } leave{*connection, thread};
    ping(client.get(), name);
    measured.registration_s = seconds_since(start);
    measured.rss_bytes = resident_bytes() - before;

    if (managed)
        measured.managed_s = get_managed_objects(client.get(), name, count);

    // The connection belongs to one thread at a time: the loop stops before the removal.
    connection->leaveEventLoop();
    thread.join();
    auto const removal = Clock::now();
    entries.clear();
    measured.removal_s = seconds_since(removal);
    if (error)
        std::rethrow_exception(error);
    return measured;
}
#endif

// ---------------------------------------------------------------------------------------

using Measure = std::function<std::optional<Measured>(tarvek::test::PrivateBus const&, long, int, bool)>;

// Runs one measurement in a child process and reads its figures back through a pipe.
std::optional<Measured> in_child(tarvek::test::PrivateBus const& daemon, Measure const& measure, long count,
                                 int properties, bool managed)
{
    int fds[2];
    if (pipe(fds) != 0)
        fail("pipe", errno);
    std::fflush(nullptr);
    pid_t const child = fork();
    if (child < 0)
        fail("fork", errno);
    if (child == 0) {
        close(fds[0]);
        int status = 0;
        char line[256];
        try {
            std::optional<Measured> const m = measure(daemon, count, properties, managed);
            if (m)
                std::snprintf(line, sizeof line, "%.9g %.9g %.9g %.9g %.9g\n", m->registration_s, m->rss_bytes,
                              m->managed_s, m->removal_s, m->removed);
            else
                std::snprintf(line, sizeof line, "none\n");
        } catch (std::exception const& e) {
            std::fprintf(stderr, "tarvek-bench-scale: %s\n", e.what());
            std::snprintf(line, sizeof line, "failed\n");
            status = 1;
        }
        ssize_t const written = write(fds[1], line, std::strlen(line));
        (void)written;
        // Leaves the daemon, which belongs to the parent, alone.
        _exit(status);
    }
    close(fds[1]);
    std::string text;
    char buffer[256];
    ssize_t n = 0;
    while ((n = read(fds[0], buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<std::size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || text.rfind("failed", 0) == 0 || text.empty())
        fail("a measurement failed");
    if (text.rfind("none", 0) == 0)
        return std::nullopt;
    Measured m;
    if (std::sscanf(text.c_str(), "%lf %lf %lf %lf %lf", &m.registration_s, &m.rss_bytes, &m.managed_s,
                    &m.removal_s, &m.removed) != 5)
        fail("unreadable figures: " + text);
    return m;
}

struct Line {
    std::string who;
    long count;
    int properties;
    Measured measured;
};

void print(Line const& line, Line const* reference)
{
    auto const& m = line.measured;
    double const per_object = static_cast<double>(line.count);
    char registration[64];
    char rss[64];
    char managed[64];
    char removal[64];
    auto const ratio = [reference](double value, double other) {
        return reference && other > 0 && value >= 0 ? value / other : -1;
    };
    auto const cell = [](char* out, double value, double r, char const* unit) {
        if (value < 0)
            std::snprintf(out, 64, "-");
        else if (r >= 0)
            std::snprintf(out, 64, "%.3g %s (x%.2f)", value, unit, r);
        else
            std::snprintf(out, 64, "%.3g %s", value, unit);
    };
    Measured const none;
    Measured const& ref = reference ? reference->measured : none;
    cell(registration, m.registration_s, ratio(m.registration_s, ref.registration_s), "s");
    cell(rss, m.rss_bytes / per_object / 1024.0, ratio(m.rss_bytes, ref.rss_bytes), "KiB");
    cell(managed, m.managed_s, ratio(m.managed_s, ref.managed_s), "s");
    if (m.removed >= 0)
        std::snprintf(removal, sizeof removal, "%.3g s: only %.0f", m.removal_s, m.removed);
    else
        cell(removal, m.removal_s, ratio(m.removal_s, ref.removal_s), "s");
    std::printf("%-22s %8ld %5d  %-22s %-22s %-22s %-22s\n", line.who.c_str(), line.count, line.properties,
                registration, rss, managed, removal);
}

int run(long count, long peers, bool managed_all)
{
    tarvek::test::PrivateBus daemon;

    struct Contestant {
        char const* name;
        Measure measure;
    };
    std::vector<Contestant> contestants;
#if TARVEK_BENCH_SDBUSCPP
    contestants.push_back({"sdbus-c++", measure_sdbuscpp});
#endif
    contestants.push_back({"plain sd-bus", measure_plain});
    contestants.push_back({"library", measure_library});
    contestants.push_back({"library, sender kept", measure_library_with_remembered_sender});

    std::printf("Objects under one object manager, each in a child process on one private dbus-daemon; "
                "(xR) = the first row of the group's figure times R (time or memory: lower is better)\n");
    std::printf("%-22s %8s %5s  %-22s %-22s %-22s %-22s\n", "who", "objects", "props", "registration",
                "RSS per object", "GetManagedObjects", "removal");
    auto const group = [&](long objects, int properties, bool managed, bool library_only) {
        std::vector<Line> lines;
        for (Contestant const& c : contestants) {
            if (library_only && std::string_view(c.name).rfind("library", 0) != 0)
                continue;
            if (auto m = in_child(daemon, c.measure, objects, properties, managed)) {
                lines.push_back({c.name, objects, properties, *m});
                print(lines.back(), lines.size() > 1 ? &lines.front() : nullptr);
            }
        }
    };
    group(peers, 21, true, false);
    group(count, 21, managed_all, true);
    for (int properties : {1, 10, 100})
        group(peers, properties, managed_all, false);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    long count = 100'000;
    long peers = 10'000;
    bool managed_all = false;
    auto const number = [](char const* text, long& out) {
        char* end = nullptr;
        out = std::strtol(text, &end, 10);
        return *text != '\0' && *end == '\0' && out >= 1 && out <= 10'000'000;
    };
    bool ok = true;
    for (int i = 1; i < argc && ok; ++i) {
        std::string_view const argument = argv[i];
        if (argument == "--managed-all")
            managed_all = true;
        else if (argument == "--peers")
            ok = i + 1 < argc && number(argv[++i], peers);
        else
            ok = number(argv[i], count);
    }
    if (!ok) {
        std::fprintf(stderr, "usage: %s [N] [--peers M] [--managed-all]\n", argv[0]);
        return 2;
    }
    try {
        return run(count, peers, managed_all);
    } catch (std::exception const& e) {
        std::fprintf(stderr, "tarvek-bench-scale: %s\n", e.what());
        return 1;
    }
}
