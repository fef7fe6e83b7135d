// SPDX-License-Identifier: LGPL-2.1-or-later
// The cost of the library on the bus: one private dbus-daemon, two services on their own
// connections and threads, and one client on the main thread.
//
//   library  tarvek::Object with a typed interface, served by DBusServer in an FDPoller
//            loop that also drives the object's executor;
//   plain    the same interface by hand on a static sd_bus_vtable, in a bare
//            sd_bus_process/sd_bus_wait loop.
//
// Both do the same per-request work as far as access goes: the sender's creds (a round trip
// to the daemon), getpwuid, and one vrel2 check per action; for property reads that is one
// look-up and check per property read, since sd-bus calls the getter once per property.
//
// Rows: Echo(u) -> u with 1 and with 32 calls in flight, Properties.Get of one property,
// Properties.GetAll of 20 properties, and SetMany(sa(sv)) of 5 properties with new values
// every call (so both sides commit and emit PropertiesChanged). The services take turns in
// short slices, so that drift in the machine's load hits both alike; the table gives the
// rates over all slices, the lowest, median and highest ratio of neighbouring slices, and the
// latency percentiles of every call (for 32 outstanding: send to reply, queueing included).
//
//   tarvek-bench-dbus [SLICE_MS] [--no-pin]
//
// SLICE_MS defaults to 125; every row runs 8 slices per service. The two service threads
// share one CPU unless --no-pin: the ratios are steadier on a loaded machine then, but with
// free cores the unpinned run shows more of the services' own cost under 32 outstanding.
#include "support/private_bus.hpp"

#include <tarvek/common/fd_poller.hpp>
#include <tarvek/common/object_path.hpp>
#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/object.hpp>
#include <tarvek/provider/registry.hpp>
#include <tarvek/server/dbus_server.hpp>

#include <systemd/sd-bus.h>
#include <vrel2.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <pwd.h>
#include <sched.h>

namespace {

using Clock = std::chrono::steady_clock;
using tarvek::test::BusPtr;
using tarvek::test::MessagePtr;

constexpr char const* bench_interface = "com.omno.Bench";
constexpr char const* bench_extended = "com.omno.ExtendedProperties";
constexpr char const* object_path = "/bench";
constexpr int property_count = 20;
constexpr int in_flight = 32;
// Long enough for a loaded machine, short enough that a stuck service ends the run.
constexpr std::uint64_t call_timeout_usec = 5'000'000;

[[noreturn]] void fail(std::string const& what, int error = 0)
{
    throw std::runtime_error(what + (error ? std::string(": ") + std::strerror(error) : std::string()));
}

void check(int r, char const* what)
{
    if (r < 0)
        fail(what, -r);
}

// The CPU that both service threads share, or -1. On a loaded machine a thread that lands on
// the busier core runs slower for the whole run; sharing one core makes that luck the same
// for both services, which is what the ratios need.
int service_cpu = -1;

void pick_service_cpu()
{
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0 || CPU_COUNT(&allowed) < 2)
        return;
    for (int cpu = CPU_SETSIZE - 1; cpu >= 0; --cpu) {
        if (CPU_ISSET(cpu, &allowed)) {
            service_cpu = cpu;
            return;
        }
    }
}

void pin_service_thread()
{
    if (service_cpu < 0)
        return;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(service_cpu, &one);
    // Best effort: an unpinned thread only makes the run noisier.
    (void)sched_setaffinity(0, sizeof one, &one);
}

// ---------------------------------------------------------------------------------------
// The library service.

class BenchInterface : public tarvek::provider::Interface {
public:
    BenchInterface() : Interface(bench_interface) {}

    Property<std::uint32_t> p0{*this, "P0", 0};
    Property<std::uint32_t> p1{*this, "P1", 0};
    Property<std::uint32_t> p2{*this, "P2", 0};
    Property<std::uint32_t> p3{*this, "P3", 0};
    Property<std::uint32_t> p4{*this, "P4", 0};
    Property<std::uint32_t> p5{*this, "P5", 0};
    Property<std::uint32_t> p6{*this, "P6", 0};
    Property<std::uint32_t> p7{*this, "P7", 0};
    Property<std::uint32_t> p8{*this, "P8", 0};
    Property<std::uint32_t> p9{*this, "P9", 0};
    Property<std::uint32_t> p10{*this, "P10", 0};
    Property<std::uint32_t> p11{*this, "P11", 0};
    Property<std::uint32_t> p12{*this, "P12", 0};
    Property<std::uint32_t> p13{*this, "P13", 0};
    Property<std::uint32_t> p14{*this, "P14", 0};
    Property<std::uint32_t> p15{*this, "P15", 0};
    Property<std::uint32_t> p16{*this, "P16", 0};
    Property<std::uint32_t> p17{*this, "P17", 0};
    Property<std::uint32_t> p18{*this, "P18", 0};
    Property<std::uint32_t> p19{*this, "P19", 0};
    Method echo{*this, "Echo", [](std::uint32_t v) { return v; }};
};

// Server and object share one FDPoller thread, as a small service would run them.
class LibraryService {
public:
    explicit LibraryService(tarvek::test::PrivateBus const& daemon)
        : bus_(daemon.connect()), unique_name_(tarvek::test::unique_name(bus_.get())), server_(bus_.get()),
          object_(loop_.executor())
    {
        tarvek::provider::add_interface<BenchInterface>(object_);
        registry_.add_server(server_);
        registry_.add_object(object_, tarvek::ObjectPath(object_path));
        server_.enable_incoming(true);
        loop_.add(server_.epoll_fd(), POLLIN, [this](pollfd&) { server_.process(); });
        thread_ = std::thread([this] {
            pin_service_thread();
            try {
                // The object's publication is queued; the first pass sends it.
                server_.process();
                loop_.loop();
            } catch (...) {
                error_ = std::current_exception();
            }
        });
    }
    LibraryService(LibraryService const&) = delete;
    LibraryService& operator=(LibraryService const&) = delete;

    ~LibraryService()
    {
        if (thread_.joinable()) {
            try {
                stop();
            } catch (...) {
                // Already failing; the first error is the one reported.
            }
        }
    }

    // Rethrows what ended the loop thread, if anything did. Called after calls have been
    // answered, so loop() has begun and the stop can't be lost.
    void stop()
    {
        loop_.stop();
        loop_.wakeup();
        thread_.join();
        // Forgets the server too, so the server may go before the registry.
        registry_.remove_all();
        if (error_)
            std::rethrow_exception(error_);
    }

    std::string const& name() const { return unique_name_; }

private:
    BusPtr bus_;
    std::string unique_name_;
    tarvek::common::FDPoller loop_;
    tarvek::API_Registry registry_;
    tarvek::server::DBusServer server_;
    tarvek::Object object_;
    std::thread thread_;
    std::exception_ptr error_;
};

// ---------------------------------------------------------------------------------------
// The plain sd-bus service.

// Who sent a request, looked up as the library's AuthorityChecker::User does.
struct Sender {
    std::string name;
    std::string username;
};

int look_up_sender(sd_bus_message* message, Sender& sender, sd_bus_error* error)
{
    sd_bus_creds* creds = nullptr;
    // The same mask as the library's look-up, so that both pay for the same query.
    int r = sd_bus_query_sender_creds(message, SD_BUS_CREDS_EUID, &creds);
    if (r < 0)
        return r;
    uid_t uid = 0;
    r = sd_bus_creds_get_euid(creds, &uid);
    sd_bus_creds_unref(creds);
    if (r < 0)
        return r;
    if (char const* const name = sd_bus_message_get_sender(message))
        sender.name = name;
    if (passwd const* const entry = getpwuid(uid))
        sender.username = entry->pw_name;
    if (sender.name.empty() || sender.username.empty())
        return sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED, "Failed to lookup sender/username");
    return 0;
}

// One policy question. As in the library, the action is named per request and the policy
// sees a lower-cased copy, while the error text keeps the bus names' case.
int authorize(Sender const& sender, std::string const& action, sd_bus_error* error)
{
    std::string lowered = action;
    for (char& c : lowered)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    vrel2_error record{};
    if (vrel2_check_username(sender.username.c_str(), lowered.c_str(), &record))
        return 0;
    return sd_bus_error_setf(error, SD_BUS_ERROR_ACCESS_DENIED, "Sender %s / %s not permitted to do action %s",
                             sender.name.c_str(), sender.username.c_str(), action.c_str());
}

struct PlainValues {
    std::uint32_t value[property_count] = {};
};

int property_index(std::string_view name)
{
    if (name.size() < 2 || name.size() > 3 || name[0] != 'P')
        return -1;
    int index = 0;
    for (char c : name.substr(1)) {
        if (c < '0' || c > '9')
            return -1;
        index = index * 10 + (c - '0');
    }
    return index < property_count && (name.size() == 2 || name[1] != '0') ? index : -1;
}

int plain_get(sd_bus* bus, char const*, char const* interface, char const*, sd_bus_message* reply, void* userdata,
              sd_bus_error* error)
{
    // Only a client's Get or GetAll is checked; PropertiesChanged is built without getters.
    if (sd_bus_message* const current = sd_bus_get_current_message(bus)) {
        Sender sender;
        int r = look_up_sender(current, sender, error);
        if (r < 0)
            return r;
        if ((r = authorize(sender, std::string(interface) + ".read", error)) < 0)
            return r;
    }
    return sd_bus_message_append_basic(reply, 'u', userdata);
}

int plain_echo(sd_bus_message* message, void*, sd_bus_error* error)
{
    Sender sender;
    int r = look_up_sender(message, sender, error);
    if (r < 0)
        return r;
    r = authorize(sender,
                  std::string(sd_bus_message_get_interface(message)) + ".call." + sd_bus_message_get_member(message),
                  error);
    if (r < 0)
        return r;
    std::uint32_t value = 0;
    if ((r = sd_bus_message_read_basic(message, 'u', &value)) < 0)
        return r;
    return sd_bus_reply_method_return(message, "u", value);
}

// SetMany(sa(sv)): one creds look-up, one check per written property, all values read
// before any is stored, then one PropertiesChanged with the values that really changed.
int plain_set_many(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    auto& values = *static_cast<PlainValues*>(userdata);
    char const* interface = nullptr;
    int r = sd_bus_message_read_basic(message, 's', &interface);
    if (r < 0)
        return r;
    if (std::strcmp(interface, bench_interface) != 0)
        return sd_bus_error_setf(error, SD_BUS_ERROR_UNKNOWN_INTERFACE, "No interface %s", interface);
    Sender sender;
    if ((r = look_up_sender(message, sender, error)) < 0)
        return r;

    std::array<std::uint32_t, property_count> staged{};
    std::array<bool, property_count> written{};
    if ((r = sd_bus_message_enter_container(message, 'a', "(sv)")) < 0)
        return r;
    while ((r = sd_bus_message_enter_container(message, 'r', "sv")) > 0) {
        char const* name = nullptr;
        if ((r = sd_bus_message_read_basic(message, 's', &name)) < 0)
            return r;
        int const index = property_index(name);
        if (index < 0)
            return sd_bus_error_setf(error, SD_BUS_ERROR_UNKNOWN_PROPERTY, "No property %s", name);
        if ((r = authorize(sender, std::string(bench_interface) + ".write." + name, error)) < 0)
            return r;
        r = sd_bus_message_enter_container(message, 'v', "u");
        if (r == -ENXIO)
            return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_SIGNATURE, "Property type mismatch");
        if (r < 0)
            return r;
        if ((r = sd_bus_message_read_basic(message, 'u', &staged[static_cast<std::size_t>(index)])) < 0)
            return r;
        written[static_cast<std::size_t>(index)] = true;
        if ((r = sd_bus_message_exit_container(message)) < 0 || (r = sd_bus_message_exit_container(message)) < 0)
            return r;
    }
    if (r < 0 || (r = sd_bus_message_exit_container(message)) < 0)
        return r;

    std::array<int, property_count> changed{};
    std::size_t changed_count = 0;
    for (int i = 0; i < property_count; ++i) {
        auto const at = static_cast<std::size_t>(i);
        if (written[at] && values.value[at] != staged[at]) {
            values.value[at] = staged[at];
            changed[changed_count++] = i;
        }
    }
    if ((r = sd_bus_reply_method_return(message, "")) < 0)
        return r;
    if (changed_count == 0)
        return 1;

    sd_bus* const bus = sd_bus_message_get_bus(message);
    sd_bus_message* raw = nullptr;
    if ((r = sd_bus_message_new_signal(bus, &raw, object_path, "org.freedesktop.DBus.Properties",
                                       "PropertiesChanged")) < 0)
        return r;
    MessagePtr signal(raw);
    r = sd_bus_message_append_basic(raw, 's', bench_interface);
    if (r >= 0)
        r = sd_bus_message_open_container(raw, 'a', "{sv}");
    for (std::size_t i = 0; r >= 0 && i < changed_count; ++i) {
        std::string const name = "P" + std::to_string(changed[i]);
        r = sd_bus_message_append(raw, "{sv}", name.c_str(), "u",
                                  values.value[static_cast<std::size_t>(changed[i])]);
    }
    if (r >= 0)
        r = sd_bus_message_close_container(raw);
    if (r >= 0)
        r = sd_bus_message_append_strv(raw, nullptr);
    if (r >= 0)
        r = sd_bus_send(bus, raw, nullptr);
    return r < 0 ? r : 1;
}

#define BENCH_PROPERTY(n)                                                                                  \
    SD_BUS_PROPERTY("P" #n, "u", plain_get, offsetof(PlainValues, value) + (n) * sizeof(std::uint32_t), \
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE)

sd_bus_vtable const plain_table[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Echo", "u", "u", plain_echo, SD_BUS_VTABLE_UNPRIVILEGED),
    BENCH_PROPERTY(0), BENCH_PROPERTY(1), BENCH_PROPERTY(2), BENCH_PROPERTY(3), BENCH_PROPERTY(4),
    BENCH_PROPERTY(5), BENCH_PROPERTY(6), BENCH_PROPERTY(7), BENCH_PROPERTY(8), BENCH_PROPERTY(9),
    BENCH_PROPERTY(10), BENCH_PROPERTY(11), BENCH_PROPERTY(12), BENCH_PROPERTY(13), BENCH_PROPERTY(14),
    BENCH_PROPERTY(15), BENCH_PROPERTY(16), BENCH_PROPERTY(17), BENCH_PROPERTY(18), BENCH_PROPERTY(19),
    SD_BUS_VTABLE_END,
};

#undef BENCH_PROPERTY

sd_bus_vtable const plain_extended_table[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("SetMany", "sa(sv)", "", plain_set_many, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

class PlainService {
public:
    explicit PlainService(tarvek::test::PrivateBus const& daemon)
        : bus_(daemon.connect()), unique_name_(tarvek::test::unique_name(bus_.get()))
    {
        vrel2_error record{};
        if (!vrel2_init(&record))
            fail(std::string("vrel2_init: ") + record.text);
        initialised_ = true;
        check(sd_bus_add_object_vtable(bus_.get(), &slots_[0], object_path, bench_interface, plain_table, &values_),
              "sd_bus_add_object_vtable");
        check(sd_bus_add_object_vtable(bus_.get(), &slots_[1], object_path, bench_extended, plain_extended_table,
                                       &values_),
              "sd_bus_add_object_vtable");
        thread_ = std::thread([this] {
            pin_service_thread();
            try {
                while (!stopping_.load(std::memory_order_relaxed)) {
                    int const r = sd_bus_process(bus_.get(), nullptr);
                    check(r, "sd_bus_process");
                    if (r > 0)
                        continue;
                    // Bounded, so that the stop flag is seen without a wake-up of its own.
                    int const w = sd_bus_wait(bus_.get(), 50'000);
                    if (w < 0 && w != -EINTR)
                        check(w, "sd_bus_wait");
                }
            } catch (...) {
                error_ = std::current_exception();
            }
        });
    }
    PlainService(PlainService const&) = delete;
    PlainService& operator=(PlainService const&) = delete;

    ~PlainService()
    {
        if (thread_.joinable()) {
            stopping_ = true;
            thread_.join();
        }
        for (sd_bus_slot* slot : slots_)
            sd_bus_slot_unref(slot);
        if (initialised_)
            vrel2_release();
    }

    void stop()
    {
        stopping_ = true;
        thread_.join();
        if (error_)
            std::rethrow_exception(error_);
    }

    std::string const& name() const { return unique_name_; }

private:
    BusPtr bus_;
    std::string unique_name_;
    PlainValues values_;
    std::array<sd_bus_slot*, 2> slots_{};
    bool initialised_ = false;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::exception_ptr error_;
};

// ---------------------------------------------------------------------------------------
// The client.

enum class Operation { echo, get, get_all, set_many };

MessagePtr make_call(sd_bus* client, std::string const& destination, Operation operation, std::uint32_t n)
{
    sd_bus_message* raw = nullptr;
    char const* interface = bench_interface;
    char const* member = "Echo";
    switch (operation) {
    case Operation::echo:
        break;
    case Operation::get:
        interface = "org.freedesktop.DBus.Properties";
        member = "Get";
        break;
    case Operation::get_all:
        interface = "org.freedesktop.DBus.Properties";
        member = "GetAll";
        break;
    case Operation::set_many:
        interface = bench_extended;
        member = "SetMany";
        break;
    }
    check(sd_bus_message_new_method_call(client, &raw, destination.c_str(), object_path, interface, member),
          "sd_bus_message_new_method_call");
    MessagePtr call(raw);
    int r = 0;
    switch (operation) {
    case Operation::echo:
        r = sd_bus_message_append(raw, "u", n);
        break;
    case Operation::get:
        r = sd_bus_message_append(raw, "ss", bench_interface, "P7");
        break;
    case Operation::get_all:
        r = sd_bus_message_append(raw, "s", bench_interface);
        break;
    case Operation::set_many:
        // New values every call, so that every call commits and announces a change.
        r = sd_bus_message_append(raw, "sa(sv)", bench_interface, 5, "P0", "u", n, "P1", "u", n + 1, "P2", "u",
                                  n + 2, "P3", "u", n + 3, "P4", "u", n + 4);
        break;
    }
    check(r, "sd_bus_message_append");
    return call;
}

MessagePtr call_sync(sd_bus* client, sd_bus_message* call)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int const r = sd_bus_call(client, call, call_timeout_usec, &error, &reply);
    if (r < 0) {
        std::string const text = std::string("call ") + sd_bus_message_get_member(call) + " failed: "
                                 + (error.name ? error.name : "") + " " + (error.message ? error.message : "");
        sd_bus_error_free(&error);
        fail(text, -r);
    }
    return MessagePtr(reply);
}

std::uint32_t read_u(sd_bus_message* reply, bool in_variant)
{
    std::uint32_t value = 0;
    if (in_variant)
        check(sd_bus_message_enter_container(reply, 'v', "u"), "enter variant");
    check(sd_bus_message_read_basic(reply, 'u', &value), "read u");
    return value;
}

// Proves that a service answers every row as it should before it is timed.
void verify(sd_bus* client, std::string const& destination, char const* who)
{
    auto const expect = [who](bool ok, char const* what) {
        if (!ok)
            fail(std::string(who) + ": " + what);
    };
    MessagePtr reply = call_sync(client, make_call(client, destination, Operation::echo, 12345).get());
    expect(read_u(reply.get(), false) == 12345, "Echo returned another value");

    call_sync(client, make_call(client, destination, Operation::set_many, 7).get());
    reply = call_sync(client, make_call(client, destination, Operation::get_all, 0).get());
    check(sd_bus_message_enter_container(reply.get(), 'a', "{sv}"), "enter a{sv}");
    int entries = 0;
    std::uint32_t p3 = 0;
    std::uint32_t p7 = 1;
    int r = 0;
    while ((r = sd_bus_message_enter_container(reply.get(), 'e', "sv")) > 0) {
        char const* name = nullptr;
        check(sd_bus_message_read_basic(reply.get(), 's', &name), "read name");
        std::uint32_t const value = read_u(reply.get(), true);
        if (std::strcmp(name, "P3") == 0)
            p3 = value;
        if (std::strcmp(name, "P7") == 0)
            p7 = value;
        check(sd_bus_message_exit_container(reply.get()), "exit variant");
        check(sd_bus_message_exit_container(reply.get()), "exit entry");
        ++entries;
    }
    check(r, "enter {sv}");
    expect(entries == property_count, "GetAll returned another number of properties");
    expect(p3 == 10, "SetMany did not reach P3");
    expect(p7 == 0, "P7 changed unasked");
    reply = call_sync(client, make_call(client, destination, Operation::get, 0).get());
    expect(read_u(reply.get(), true) == 0, "Get P7 returned another value");
}

// Waits until the service has its object on the bus.
void wait_until_ready(sd_bus* client, std::string const& destination)
{
    auto const deadline = Clock::now() + std::chrono::seconds(10);
    for (;;) {
        MessagePtr call = make_call(client, destination, Operation::echo, 1);
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        int const r = sd_bus_call(client, call.get(), call_timeout_usec, &error, &reply);
        sd_bus_error_free(&error);
        sd_bus_message_unref(reply);
        if (r >= 0)
            return;
        if (Clock::now() > deadline)
            fail("service did not come up", -r);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

struct Result {
    long calls = 0;
    double seconds = 0;
    std::vector<double> latency_us;
    std::vector<double> slice_rates;

    double rate() const { return seconds > 0 ? static_cast<double>(calls) / seconds : 0; }
    double percentile(double q) const
    {
        if (latency_us.empty())
            return 0;
        std::vector<double> sorted = latency_us;
        auto const at = std::min(sorted.size() - 1, static_cast<std::size_t>(q * static_cast<double>(sorted.size())));
        std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(at), sorted.end());
        return sorted[at];
    }
};

double micros(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

// One call at a time: each latency is a full round trip.
void run_sync(sd_bus* client, std::string const& destination, Operation operation, Clock::duration slice,
              std::uint32_t& counter, Result& result)
{
    auto const start = Clock::now();
    auto const end = start + slice;
    auto now = start;
    while (now < end) {
        MessagePtr call = make_call(client, destination, operation, counter);
        counter += 8;
        call_sync(client, call.get());
        auto const done = Clock::now();
        result.latency_us.push_back(micros(done - now));
        ++result.calls;
        now = done;
    }
    result.seconds += std::chrono::duration<double>(now - start).count();
}

// `in_flight` calls outstanding: every reply sends the next call of its lane until the
// slice is over, then the last replies are drained.
struct AsyncRun {
    sd_bus* client = nullptr;
    std::string const* destination = nullptr;
    Operation operation = Operation::echo;
    Clock::time_point end;
    std::uint32_t* counter = nullptr;
    Result* result = nullptr;
    int outstanding = 0;
    std::string failure;
    struct Lane {
        AsyncRun* run;
        Clock::time_point sent;
    };
    std::array<Lane, in_flight> lanes{};

    void send(Lane& lane)
    {
        MessagePtr call = make_call(client, *destination, operation, *counter);
        *counter += 8;
        lane.sent = Clock::now();
        check(sd_bus_call_async(client, nullptr, call.get(), &AsyncRun::on_reply, &lane, call_timeout_usec),
              "sd_bus_call_async");
        ++outstanding;
    }

    static int on_reply(sd_bus_message* reply, void* userdata, sd_bus_error*)
    {
        auto& lane = *static_cast<Lane*>(userdata);
        AsyncRun& run = *lane.run;
        auto const now = Clock::now();
        --run.outstanding;
        if (sd_bus_message_is_method_error(reply, nullptr)) {
            sd_bus_error const* const error = sd_bus_message_get_error(reply);
            run.failure = std::string("async call failed: ") + (error && error->name ? error->name : "?");
            return 0;
        }
        run.result->latency_us.push_back(micros(now - lane.sent));
        ++run.result->calls;
        if (now < run.end && run.failure.empty()) {
            try {
                run.send(lane);
            } catch (std::exception const& e) {
                run.failure = e.what();
            }
        }
        return 0;
    }
};

void run_async(sd_bus* client, std::string const& destination, Operation operation, Clock::duration slice,
               std::uint32_t& counter, Result& result)
{
    auto const start = Clock::now();
    AsyncRun run;
    run.client = client;
    run.destination = &destination;
    run.operation = operation;
    run.end = start + slice;
    run.counter = &counter;
    run.result = &result;
    for (auto& lane : run.lanes) {
        lane.run = &run;
        run.send(lane);
    }
    // The call time-out ends every lane anyway; this only keeps a broken loop from spinning.
    auto const give_up = start + slice + std::chrono::microseconds(2 * call_timeout_usec);
    while (run.outstanding > 0) {
        int const r = sd_bus_process(client, nullptr);
        check(r, "sd_bus_process");
        if (r > 0)
            continue;
        if (Clock::now() > give_up)
            fail("async calls did not come back");
        int const w = sd_bus_wait(client, 100'000);
        if (w < 0 && w != -EINTR)
            check(w, "sd_bus_wait");
    }
    result.seconds += std::chrono::duration<double>(Clock::now() - start).count();
    if (!run.failure.empty())
        fail(run.failure);
}

struct Row {
    char const* label;
    Operation operation;
    bool async;
    Result library;
    Result plain;
};

int run(Clock::duration slice)
{
    // A policy that allows everything: the checks run in full but never refuse.
    char policy_template[] = "/tmp/tarvek-dbus-bench-policy-XXXXXX";
    int const policy_fd = mkstemp(policy_template);
    if (policy_fd < 0)
        fail("mkstemp", errno);
    close(policy_fd);
    std::string const policy = policy_template;
    struct Remove {
        std::string path;
        ~Remove() { std::filesystem::remove(path); }
    } const remove_policy{policy};
    {
        std::ofstream out(policy);
        out << "allow * *\n";
        if (!out.flush())
            fail("cannot write " + policy);
    }
    setenv("VREL2_POLICY", policy.c_str(), 1);

    tarvek::test::PrivateBus daemon;
    BusPtr client(daemon.connect());
    LibraryService library(daemon);
    PlainService plain(daemon);

    wait_until_ready(client.get(), library.name());
    wait_until_ready(client.get(), plain.name());
    verify(client.get(), library.name(), "library");
    verify(client.get(), plain.name(), "plain");

    std::vector<Row> rows;
    rows.push_back({"Echo, 1 outstanding", Operation::echo, false, {}, {}});
    rows.push_back({"Echo, 32 outstanding", Operation::echo, true, {}, {}});
    rows.push_back({"Get, 1 property", Operation::get, false, {}, {}});
    rows.push_back({"GetAll, 20 properties", Operation::get_all, false, {}, {}});
    rows.push_back({"SetMany, 5 properties", Operation::set_many, false, {}, {}});

    std::uint32_t counter = 1000;
    auto const measure = [&](Row& row, std::string const& destination, Result& result, Clock::duration length) {
        long const calls = result.calls;
        double const seconds = result.seconds;
        if (row.async)
            run_async(client.get(), destination, row.operation, length, counter, result);
        else
            run_sync(client.get(), destination, row.operation, length, counter, result);
        result.slice_rates.push_back(static_cast<double>(result.calls - calls) / (result.seconds - seconds));
    };
    constexpr int rounds = 8;
    for (Row& row : rows) {
        // Untimed warm-up of both, then alternating slices.
        Result scratch;
        measure(row, library.name(), scratch, slice / 10);
        measure(row, plain.name(), scratch, slice / 10);
        for (int round = 0; round < rounds; ++round) {
            measure(row, library.name(), row.library, slice);
            measure(row, plain.name(), row.plain, slice);
        }
    }

    library.stop();
    plain.stop();

    std::string const placement
        = service_cpu < 0 ? std::string("unpinned") : "pinned to CPU " + std::to_string(service_cpu);
    std::printf("D-Bus services on one private dbus-daemon; %d x %lld ms per service and row; latencies in us; "
                "service threads %s\n",
                rounds, static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(slice).count()),
                placement.c_str());
    std::printf("%-24s %10s %10s %9s %16s %9s %9s %9s %9s\n", "operation", "library/s", "plain/s", "lib/plain",
                "slices min/med/max", "lib p50", "lib p99", "plain p50", "plain p99");
    for (Row const& row : rows) {
        // Ratios of neighbouring slices: their median resists a burst of load that hit
        // one service's slice, and their spread shows how much the load moved.
        std::vector<double> ratios;
        for (std::size_t i = 0; i < row.library.slice_rates.size() && i < row.plain.slice_rates.size(); ++i)
            ratios.push_back(row.library.slice_rates[i] / row.plain.slice_rates[i]);
        std::sort(ratios.begin(), ratios.end());
        std::size_t const n = ratios.size();
        double const median = n % 2 ? ratios[n / 2] : (ratios[n / 2 - 1] + ratios[n / 2]) / 2;
        char spread[64];
        std::snprintf(spread, sizeof spread, "%.2f/%.2f/%.2f", ratios.front(), median, ratios.back());
        std::printf("%-24s %10.0f %10.0f %9.2f %18s %9.1f %9.1f %9.1f %9.1f\n", row.label, row.library.rate(),
                    row.plain.rate(), row.library.rate() / row.plain.rate(), spread, row.library.percentile(0.50),
                    row.library.percentile(0.99), row.plain.percentile(0.50), row.plain.percentile(0.99));
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    long slice_ms = 125;
    bool pin = true;
    for (int i = 1; i < argc; ++i) {
        std::string_view const argument = argv[i];
        char* end = nullptr;
        if (argument == "--no-pin") {
            pin = false;
            continue;
        }
        slice_ms = std::strtol(argv[i], &end, 10);
        if (argument.empty() || *end != '\0' || slice_ms < 10 || slice_ms > 10'000) {
            std::fprintf(stderr, "usage: %s [SLICE_MS (10..10000)] [--no-pin]\n", argv[0]);
            return 2;
        }
    }
    // A last resort against a hang nobody foresaw: the run must end by itself.
    alarm(static_cast<unsigned>(60 + slice_ms * 100 / 1000));
    try {
        if (pin)
            pick_service_cpu();
        return run(std::chrono::milliseconds(slice_ms));
    } catch (std::exception const& e) {
        std::fprintf(stderr, "tarvek-bench-dbus: %s\n", e.what());
        return 1;
    }
}
