// SPDX-License-Identifier: LGPL-2.1-or-later
// The cost of the library on the bus, next to its peers: one private dbus-daemon, one
// client on the main thread, and several services on their own connections and threads,
// all publishing the same object:
//
//   com.omno.Bench at /bench: Echo(s) -> s, Add(ii) -> i, the read-write int32 Value and the
//   read-only int32 P0..P19; and 1,000 more such objects under an object manager at /many.
//
// Services (one column each):
//   library          tarvek::Object on the executor of the server's own FDPoller loop;
//   library, worker  the same objects on a worker's executor, a second thread;
//   plain, no checks the interface by hand on a static sd_bus_vtable, in a bare
//                    sd_bus_process/sd_bus_wait loop, without any access check;
//   plain, checked   the same with the library's per-request work: the sender's creds (a
//                    round trip to the daemon), getpwuid and one vrel2 check per action, so
//                    one look-up and check per property read, since sd-bus calls the getter
//                    once per property;
//   sdbus-c++        Debian's libsdbus-c++ (when the build found it), methods and
//                    properties registered through its convenience API, no checks.
//
// Rows: Add(ii) with 1 and with 32 calls in flight, Echo of a 4 KiB string, Properties.Get
// of one property, GetAll of 21, Set of Value (new value every call, so every service
// commits and emits PropertiesChanged), SetMany of 5 values (the library's
// com.omno.ExtendedProperties; the peers have no such call and do 5 Sets in a row, counted
// as one operation), and GetManagedObjects of the 1,000 objects.
//
// The services take turns in short slices, so that drift in the machine's load hits them
// alike; every ratio is the median over rounds of the ratio of neighbouring slices against
// the reference (sdbus-c++ when built in, else plain without checks). Latencies are per call
// (for 32 outstanding: send to reply, queueing included). CPU is the service threads' own
// (their per-thread CPU clocks, as getrusage(RUSAGE_THREAD) counts it) per operation; the
// daemon's and the client's work is not in it.
//
//   tarvek-bench-dbus [SLICE_MS] [--no-pin]
//
// SLICE_MS defaults to 100; every row runs 6 slices per service (GetManagedObjects 2, and at
// least one call each). All service threads share one CPU unless --no-pin: the ratios are
// steadier on a loaded machine then.
#include "support/private_bus.hpp"

#include <tarvek/common/fd_poller.hpp>
#include <tarvek/common/object_path.hpp>
#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/object.hpp>
#include <tarvek/provider/registry.hpp>
#include <tarvek/server/dbus_server.hpp>

#include <systemd/sd-bus.h>
#include <vrel2.h>

#if TARVEK_BENCH_SDBUSCPP
#include <sdbus-c++/sdbus-c++.h>
#endif

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
#include <ctime>
#include <deque>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <pthread.h>
#include <pwd.h>
#include <sched.h>

namespace {

using Clock = std::chrono::steady_clock;
using tarvek::test::BusPtr;
using tarvek::test::MessagePtr;

constexpr char const* bench_interface = "com.omno.Bench";
constexpr char const* properties_interface = "org.freedesktop.DBus.Properties";
constexpr char const* object_path = "/bench";
constexpr char const* many_root = "/many";
constexpr int read_only_count = 20;
constexpr int many_count = 1000;
constexpr int in_flight = 32;
constexpr std::size_t big_size = 4096;
// Long enough for a loaded machine, short enough that a stuck service ends the run; a
// GetManagedObjects with a check per property may take seconds.
constexpr std::uint64_t call_timeout_usec = 5'000'000;
constexpr std::uint64_t long_call_timeout_usec = 60'000'000;

[[noreturn]] void fail(std::string const& what, int error = 0)
{
    throw std::runtime_error(what + (error ? std::string(": ") + std::strerror(error) : std::string()));
}

void check(int r, char const* what)
{
    if (r < 0)
        fail(what, -r);
}

std::string many_path(int i)
{
    return std::string(many_root) + "/o" + std::to_string(i);
}

// The CPU that all service threads share, or -1. On a loaded machine a thread that lands on
// the busier core runs slower for the whole run; sharing one core makes that luck the same
// for every service, which is what the ratios need.
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

// The CPU time a running thread has used so far, in seconds.
double thread_cpu_seconds(std::thread& thread)
{
    clockid_t id{};
    if (pthread_getcpuclockid(thread.native_handle(), &id) != 0)
        return 0;
    timespec t{};
    if (clock_gettime(id, &t) != 0)
        return 0;
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// One column of the table: a service on its own connection and thread(s).
class BenchService {
public:
    BenchService() = default;
    BenchService(BenchService const&) = delete;
    BenchService& operator=(BenchService const&) = delete;
    virtual ~BenchService() = default;

    virtual std::string const& name() const = 0;
    // The CPU time of the threads that serve the bus and run the objects.
    virtual double cpu_seconds() = 0;
    // False: the peer has no SetMany, and the SetMany row does five Sets instead.
    virtual bool has_set_many() const { return false; }
    // Rethrows what ended a service thread, if anything did.
    virtual void stop() = 0;
};

// ---------------------------------------------------------------------------------------
// The library service.

class BenchInterface : public tarvek::provider::Interface {
public:
    BenchInterface() : Interface(bench_interface)
    {
        for (int i = 0; i < read_only_count; ++i)
            read_only.emplace_back(*this, "P" + std::to_string(i), 0, Access::read_only);
    }

    Method echo{*this, "Echo", [](std::string text) { return text; }};
    Method add{*this, "Add", [](std::int32_t a, std::int32_t b) { return a + b; }};
    Property<std::int32_t> value{*this, "Value", 0};
    std::deque<Property<std::int32_t>> read_only;
};

// The server runs in an FDPoller loop that also drives the objects' executor, as a small
// service would run them; on_worker puts the objects on a second loop of their own.
class LibraryService : public BenchService {
public:
    LibraryService(tarvek::test::PrivateBus const& daemon, bool on_worker)
        : bus_(daemon.connect()), unique_name_(tarvek::test::unique_name(bus_.get())), server_(bus_.get()),
          on_worker_(on_worker)
    {
        auto& executor = on_worker ? worker_.executor() : loop_.executor();
        registry_.add_server(server_);
        objects_.emplace_back(executor);
        tarvek::provider::add_interface<BenchInterface>(objects_.back());
        registry_.add_object(objects_.back(), tarvek::ObjectPath(object_path));
        for (int i = 0; i < many_count; ++i) {
            objects_.emplace_back(executor);
            tarvek::provider::add_interface<BenchInterface>(objects_.back());
            registry_.add_object(objects_.back(), tarvek::ObjectPath(many_path(i)));
        }
        server_.add_object_manager(tarvek::ObjectPath(many_root));
        server_.enable_incoming(true);
        loop_.add(server_.epoll_fd(), POLLIN, [this](pollfd&) { server_.process(); });
        thread_ = std::thread([this] {
            pin_service_thread();
            try {
                // The objects' publication is queued; the first pass sends it.
                server_.process();
                loop_.loop();
            } catch (...) {
                error_ = std::current_exception();
            }
        });
        if (on_worker_) {
            worker_thread_ = std::thread([this] {
                pin_service_thread();
                try {
                    worker_.loop();
                } catch (...) {
                    worker_error_ = std::current_exception();
                }
            });
        }
    }

    ~LibraryService() override
    {
        try {
            if (thread_.joinable() || worker_thread_.joinable())
                stop();
        } catch (...) {
            // Already failing; the first error is the one reported.
        }
    }

    std::string const& name() const override { return unique_name_; }
    bool has_set_many() const override { return true; }

    double cpu_seconds() override
    {
        return thread_cpu_seconds(thread_) + (on_worker_ ? thread_cpu_seconds(worker_thread_) : 0.0);
    }

    // Called after calls have been answered, so the loops have begun and the stop can't be
    // lost.
    void stop() override
    {
        if (worker_thread_.joinable()) {
            worker_.stop();
            worker_.wakeup();
            worker_thread_.join();
        }
        if (thread_.joinable()) {
            loop_.stop();
            loop_.wakeup();
            thread_.join();
        }
        // Forgets the server too, so the server may go before the registry.
        registry_.remove_all();
        if (error_)
            std::rethrow_exception(std::exchange(error_, nullptr));
        if (worker_error_)
            std::rethrow_exception(std::exchange(worker_error_, nullptr));
    }

private:
    BusPtr bus_;
    std::string unique_name_;
    tarvek::common::FDPoller loop_;
    tarvek::common::FDPoller worker_;
    tarvek::API_Registry registry_;
    tarvek::server::DBusServer server_;
    bool on_worker_;
    std::deque<tarvek::Object> objects_;
    std::thread thread_;
    std::thread worker_thread_;
    std::exception_ptr error_;
    std::exception_ptr worker_error_;
};

// The library with the sender's identity remembered per unique name and one check per
// action and message: its row joins the table once that setting exists; until then there
// is nothing to measure.
std::unique_ptr<BenchService> make_library_with_remembered_sender(tarvek::test::PrivateBus const&)
{
    return nullptr;
}

// ---------------------------------------------------------------------------------------
// The plain sd-bus services.

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

struct PlainObject {
    std::int32_t value = 0;
    std::int32_t read_only[read_only_count] = {};
};

// Only a client's Get, GetAll or GetManagedObjects is checked: the PropertiesChanged that a
// Set emits is built by the same getter, and the Set has been checked already.
int check_read(sd_bus* bus, char const* interface, sd_bus_error* error)
{
    sd_bus_message* const current = sd_bus_get_current_message(bus);
    if (current == nullptr || sd_bus_message_is_method_call(current, properties_interface, "Set") > 0)
        return 0;
    Sender sender;
    int const r = look_up_sender(current, sender, error);
    if (r < 0)
        return r;
    return authorize(sender, std::string(interface) + ".read", error);
}

int checked_get(sd_bus* bus, char const*, char const* interface, char const*, sd_bus_message* reply,
                void* userdata, sd_bus_error* error)
{
    int const r = check_read(bus, interface, error);
    if (r < 0)
        return r;
    return sd_bus_message_append_basic(reply, 'i', userdata);
}

int set_value(sd_bus* bus, char const* path, char const* interface, sd_bus_message* value, void* userdata)
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

int static_set(sd_bus* bus, char const* path, char const* interface, char const*, sd_bus_message* value,
               void* userdata, sd_bus_error*)
{
    return set_value(bus, path, interface, value, userdata);
}

int checked_set(sd_bus* bus, char const* path, char const* interface, char const* property, sd_bus_message* value,
                void* userdata, sd_bus_error* error)
{
    Sender sender;
    int r = look_up_sender(sd_bus_get_current_message(bus), sender, error);
    if (r < 0)
        return r;
    if ((r = authorize(sender, std::string(interface) + ".write." + property, error)) < 0)
        return r;
    return set_value(bus, path, interface, value, userdata);
}

int check_call(sd_bus_message* message, sd_bus_error* error)
{
    Sender sender;
    int const r = look_up_sender(message, sender, error);
    if (r < 0)
        return r;
    return authorize(sender,
                     std::string(sd_bus_message_get_interface(message)) + ".call." + sd_bus_message_get_member(message),
                     error);
}

int echo(sd_bus_message* message, void*, sd_bus_error*)
{
    char const* text = nullptr;
    int const r = sd_bus_message_read_basic(message, 's', &text);
    if (r < 0)
        return r;
    return sd_bus_reply_method_return(message, "s", text);
}

int add(sd_bus_message* message, void*, sd_bus_error*)
{
    std::int32_t a = 0;
    std::int32_t b = 0;
    int const r = sd_bus_message_read(message, "ii", &a, &b);
    if (r < 0)
        return r;
    return sd_bus_reply_method_return(message, "i", a + b);
}

int checked_echo(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    int const r = check_call(message, error);
    return r < 0 ? r : echo(message, userdata, error);
}

int checked_add(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    int const r = check_call(message, error);
    return r < 0 ? r : add(message, userdata, error);
}

#define READ_ONLY(getter, n)                                                                               \
    SD_BUS_PROPERTY("P" #n, "i", getter, offsetof(PlainObject, read_only) + (n) * sizeof(std::int32_t), 0)
#define READ_ONLY_ALL(getter)                                                                              \
    READ_ONLY(getter, 0), READ_ONLY(getter, 1), READ_ONLY(getter, 2), READ_ONLY(getter, 3),                \
        READ_ONLY(getter, 4), READ_ONLY(getter, 5), READ_ONLY(getter, 6), READ_ONLY(getter, 7),            \
        READ_ONLY(getter, 8), READ_ONLY(getter, 9), READ_ONLY(getter, 10), READ_ONLY(getter, 11),          \
        READ_ONLY(getter, 12), READ_ONLY(getter, 13), READ_ONLY(getter, 14), READ_ONLY(getter, 15),        \
        READ_ONLY(getter, 16), READ_ONLY(getter, 17), READ_ONLY(getter, 18), READ_ONLY(getter, 19)

// No getter: sd-bus reads the int32 at the offset itself.
sd_bus_vtable const static_table[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Echo", "s", "s", echo, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Add", "ii", "i", add, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_WRITABLE_PROPERTY("Value", "i", nullptr, static_set, offsetof(PlainObject, value),
                             SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE | SD_BUS_VTABLE_UNPRIVILEGED),
    READ_ONLY_ALL(nullptr),
    SD_BUS_VTABLE_END,
};

sd_bus_vtable const checked_table[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Echo", "s", "s", checked_echo, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Add", "ii", "i", checked_add, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_WRITABLE_PROPERTY("Value", "i", checked_get, checked_set, offsetof(PlainObject, value),
                             SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE | SD_BUS_VTABLE_UNPRIVILEGED),
    READ_ONLY_ALL(checked_get),
    SD_BUS_VTABLE_END,
};

#undef READ_ONLY_ALL
#undef READ_ONLY

class PlainService : public BenchService {
public:
    PlainService(tarvek::test::PrivateBus const& daemon, bool checked)
        : bus_(daemon.connect()), unique_name_(tarvek::test::unique_name(bus_.get())), objects_(many_count + 1)
    {
        vrel2_error record{};
        if (!vrel2_init(&record))
            fail(std::string("vrel2_init: ") + record.text);
        initialised_ = true;
        sd_bus_vtable const* const table = checked ? checked_table : static_table;
        slots_.resize(many_count + 2);
        check(sd_bus_add_object_vtable(bus_.get(), &slots_[0], object_path, bench_interface, table, &objects_[0]),
              "sd_bus_add_object_vtable");
        for (int i = 0; i < many_count; ++i) {
            auto const at = static_cast<std::size_t>(i) + 1;
            check(sd_bus_add_object_vtable(bus_.get(), &slots_[at], many_path(i).c_str(), bench_interface, table,
                                           &objects_[at]),
                  "sd_bus_add_object_vtable");
        }
        check(sd_bus_add_object_manager(bus_.get(), &slots_.back(), many_root), "sd_bus_add_object_manager");
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

    ~PlainService() override
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

    std::string const& name() const override { return unique_name_; }
    double cpu_seconds() override { return thread_cpu_seconds(thread_); }

    void stop() override
    {
        stopping_ = true;
        thread_.join();
        if (error_)
            std::rethrow_exception(std::exchange(error_, nullptr));
    }

private:
    BusPtr bus_;
    std::string unique_name_;
    std::deque<PlainObject> objects_;
    std::vector<sd_bus_slot*> slots_;
    bool initialised_ = false;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::exception_ptr error_;
};

#if TARVEK_BENCH_SDBUSCPP
// ---------------------------------------------------------------------------------------
// sdbus-c++: what an application written with it would register, on its own event loop.

class SdbusCppService : public BenchService {
public:
    explicit SdbusCppService(tarvek::test::PrivateBus const& daemon)
        : connection_(sdbus::createSessionBusConnectionWithAddress(daemon.address())),
          unique_name_(connection_->getUniqueName())
    {
        add(object_path);
        manager_ = sdbus::createObject(*connection_, many_root);
        manager_->addObjectManager();
        manager_->finishRegistration();
        for (int i = 0; i < many_count; ++i)
            add(many_path(i));
        thread_ = std::thread([this] {
            pin_service_thread();
            try {
                connection_->enterEventLoop();
            } catch (...) {
                error_ = std::current_exception();
            }
        });
    }

    ~SdbusCppService() override
    {
        if (thread_.joinable()) {
            connection_->leaveEventLoop();
            thread_.join();
        }
    }

    std::string const& name() const override { return unique_name_; }
    double cpu_seconds() override { return thread_cpu_seconds(thread_); }

    void stop() override
    {
        connection_->leaveEventLoop();
        thread_.join();
        if (error_)
            std::rethrow_exception(std::exchange(error_, nullptr));
    }

private:
    struct Entry {
        std::unique_ptr<sdbus::IObject> object;
        std::int32_t value = 0;
    };

    void add(std::string const& path)
    {
        auto entry = std::make_unique<Entry>();
        Entry* const raw = entry.get();
        entry->object = sdbus::createObject(*connection_, path);
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
        for (int i = 0; i < read_only_count; ++i)
            object.registerProperty("P" + std::to_string(i)).onInterface(bench_interface).withGetter([] {
                return std::int32_t{0};
            });
        object.finishRegistration();
        entries_.push_back(std::move(entry));
    }

    std::unique_ptr<sdbus::IConnection> connection_;
    std::string unique_name_;
    std::unique_ptr<sdbus::IObject> manager_;
    std::vector<std::unique_ptr<Entry>> entries_;
    std::thread thread_;
    std::exception_ptr error_;
};
#endif

// ---------------------------------------------------------------------------------------
// The client.

enum class Operation { add, echo_big, get, get_all, set, set_many, managed };

std::string const& big_text()
{
    static std::string const text(big_size, 'x');
    return text;
}

MessagePtr make_call(sd_bus* client, std::string const& destination, Operation operation, std::int32_t n)
{
    sd_bus_message* raw = nullptr;
    char const* path = object_path;
    char const* interface = bench_interface;
    char const* member = "Add";
    switch (operation) {
    case Operation::add:
        break;
    case Operation::echo_big:
        member = "Echo";
        break;
    case Operation::get:
        interface = properties_interface;
        member = "Get";
        break;
    case Operation::get_all:
        interface = properties_interface;
        member = "GetAll";
        break;
    case Operation::set:
        interface = properties_interface;
        member = "Set";
        break;
    case Operation::set_many:
        interface = "com.omno.ExtendedProperties";
        member = "SetMany";
        break;
    case Operation::managed:
        path = many_root;
        interface = "org.freedesktop.DBus.ObjectManager";
        member = "GetManagedObjects";
        break;
    }
    check(sd_bus_message_new_method_call(client, &raw, destination.c_str(), path, interface, member),
          "sd_bus_message_new_method_call");
    MessagePtr call(raw);
    int r = 0;
    switch (operation) {
    case Operation::add:
        r = sd_bus_message_append(raw, "ii", n, 1);
        break;
    case Operation::echo_big:
        r = sd_bus_message_append(raw, "s", big_text().c_str());
        break;
    case Operation::get:
        r = sd_bus_message_append(raw, "ss", bench_interface, "P7");
        break;
    case Operation::get_all:
        r = sd_bus_message_append(raw, "s", bench_interface);
        break;
    case Operation::set:
        // A new value every call, so that every call commits and announces a change.
        r = sd_bus_message_append(raw, "ssv", bench_interface, "Value", "i", n);
        break;
    case Operation::set_many:
        // The object has one writable property: five writes of it in one request, the last
        // of which stands.
        r = sd_bus_message_append(raw, "sa(sv)", bench_interface, 5, "Value", "i", n, "Value", "i", n + 1, "Value",
                                  "i", n + 2, "Value", "i", n + 3, "Value", "i", n + 4);
        break;
    case Operation::managed:
        break;
    }
    check(r, "sd_bus_message_append");
    return call;
}

MessagePtr call_sync(sd_bus* client, sd_bus_message* call, std::uint64_t timeout = call_timeout_usec)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int const r = sd_bus_call(client, call, timeout, &error, &reply);
    if (r < 0) {
        std::string const text = std::string("call ") + sd_bus_message_get_member(call) + " failed: "
                                 + (error.name ? error.name : "") + " " + (error.message ? error.message : "");
        sd_bus_error_free(&error);
        fail(text, -r);
    }
    return MessagePtr(reply);
}

// One operation as the service offers it: a peer without SetMany does five Sets.
void perform(sd_bus* client, BenchService const& service, Operation operation, std::int32_t n)
{
    if (operation == Operation::set_many && !service.has_set_many()) {
        for (std::int32_t i = 0; i < 5; ++i)
            call_sync(client, make_call(client, service.name(), Operation::set, n + i).get());
        return;
    }
    call_sync(client, make_call(client, service.name(), operation, n).get(),
              operation == Operation::managed ? long_call_timeout_usec : call_timeout_usec);
}

std::int32_t read_i(sd_bus_message* reply, bool in_variant)
{
    std::int32_t value = 0;
    if (in_variant)
        check(sd_bus_message_enter_container(reply, 'v', "i"), "enter variant");
    check(sd_bus_message_read_basic(reply, 'i', &value), "read i");
    return value;
}

// Proves that a service answers every row as it should before it is timed.
void verify(sd_bus* client, BenchService const& service, char const* who)
{
    auto const expect = [who](bool ok, char const* what) {
        if (!ok)
            fail(std::string(who) + ": " + what);
    };
    std::string const& destination = service.name();
    MessagePtr reply = call_sync(client, make_call(client, destination, Operation::add, 40).get());
    expect(read_i(reply.get(), false) == 41, "Add returned another sum");
    reply = call_sync(client, make_call(client, destination, Operation::echo_big, 0).get());
    char const* text = nullptr;
    check(sd_bus_message_read_basic(reply.get(), 's', &text), "read s");
    expect(text == big_text(), "Echo returned another text");

    perform(client, service, Operation::set_many, 7);
    reply = call_sync(client, make_call(client, destination, Operation::get_all, 0).get());
    check(sd_bus_message_enter_container(reply.get(), 'a', "{sv}"), "enter a{sv}");
    int entries = 0;
    std::int32_t value = 0;
    int r = 0;
    while ((r = sd_bus_message_enter_container(reply.get(), 'e', "sv")) > 0) {
        char const* name = nullptr;
        check(sd_bus_message_read_basic(reply.get(), 's', &name), "read name");
        std::int32_t const read = read_i(reply.get(), true);
        if (std::strcmp(name, "Value") == 0)
            value = read;
        check(sd_bus_message_exit_container(reply.get()), "exit variant");
        check(sd_bus_message_exit_container(reply.get()), "exit entry");
        ++entries;
    }
    check(r, "enter {sv}");
    expect(entries == read_only_count + 1, "GetAll returned another number of properties");
    expect(value == 11, "SetMany did not leave its last value in Value");

    call_sync(client, make_call(client, destination, Operation::set, 3).get());
    reply = call_sync(client, make_call(client, destination, Operation::get, 0).get());
    expect(read_i(reply.get(), true) == 0, "Get P7 returned another value");

    reply = call_sync(client, make_call(client, destination, Operation::managed, 0).get(), long_call_timeout_usec);
    check(sd_bus_message_enter_container(reply.get(), 'a', "{oa{sa{sv}}}"), "enter a{oa{sa{sv}}}");
    int objects = 0;
    while ((r = sd_bus_message_enter_container(reply.get(), 'e', "oa{sa{sv}}")) > 0) {
        check(sd_bus_message_skip(reply.get(), "oa{sa{sv}}"), "skip object");
        check(sd_bus_message_exit_container(reply.get()), "exit object");
        ++objects;
    }
    check(r, "enter object");
    expect(objects == many_count, "GetManagedObjects returned another number of objects");
}

// Waits until the service has its object on the bus.
void wait_until_ready(sd_bus* client, std::string const& destination)
{
    auto const deadline = Clock::now() + std::chrono::seconds(30);
    for (;;) {
        MessagePtr call = make_call(client, destination, Operation::add, 1);
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
    double cpu_seconds = 0;
    std::vector<double> latency_us;
    std::vector<double> slice_rates;

    double rate() const { return seconds > 0 ? static_cast<double>(calls) / seconds : 0; }
    double cpu_us_per_call() const { return calls > 0 ? cpu_seconds * 1e6 / static_cast<double>(calls) : 0; }
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

// One operation at a time: each latency is a full round trip (five for a peer's SetMany).
void run_sync(sd_bus* client, BenchService const& service, Operation operation, Clock::duration slice,
              std::int32_t& counter, Result& result)
{
    auto const start = Clock::now();
    auto const end = start + slice;
    auto now = start;
    do {
        perform(client, service, operation, counter);
        counter += 8;
        auto const done = Clock::now();
        result.latency_us.push_back(micros(done - now));
        ++result.calls;
        now = done;
    } while (now < end);
    result.seconds += std::chrono::duration<double>(now - start).count();
}

// `in_flight` calls outstanding: every reply sends the next call of its lane until the
// slice is over, then the last replies are drained.
struct AsyncRun {
    sd_bus* client = nullptr;
    std::string const* destination = nullptr;
    Operation operation = Operation::add;
    Clock::time_point end;
    std::int32_t* counter = nullptr;
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

void run_async(sd_bus* client, BenchService const& service, Operation operation, Clock::duration slice,
               std::int32_t& counter, Result& result)
{
    auto const start = Clock::now();
    AsyncRun run;
    run.client = client;
    run.destination = &service.name();
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

struct Column {
    char const* label;
    std::unique_ptr<BenchService> service;
};

struct Row {
    char const* label;
    Operation operation;
    bool async;
    int rounds;
    std::vector<Result> results;
};

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    std::size_t const n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

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

    // The first column is the reference of every ratio.
    std::vector<Column> columns;
#if TARVEK_BENCH_SDBUSCPP
    columns.push_back({"sdbus-c++", std::make_unique<SdbusCppService>(daemon)});
#endif
    columns.push_back({"plain, no checks", std::make_unique<PlainService>(daemon, false)});
    columns.push_back({"plain, checked", std::make_unique<PlainService>(daemon, true)});
    columns.push_back({"library", std::make_unique<LibraryService>(daemon, false)});
    columns.push_back({"library, worker", std::make_unique<LibraryService>(daemon, true)});
    if (auto remembered = make_library_with_remembered_sender(daemon))
        columns.push_back({"library, sender kept", std::move(remembered)});

    for (Column const& column : columns)
        wait_until_ready(client.get(), column.service->name());
    for (Column const& column : columns)
        verify(client.get(), *column.service, column.label);

    constexpr int rounds = 6;
    std::vector<Row> rows;
    rows.push_back({"Add(ii), 1 outstanding", Operation::add, false, rounds, {}});
    rows.push_back({"Add(ii), 32 outstanding", Operation::add, true, rounds, {}});
    rows.push_back({"Echo(s) of 4 KiB", Operation::echo_big, false, rounds, {}});
    rows.push_back({"Get, 1 property", Operation::get, false, rounds, {}});
    rows.push_back({"GetAll, 21 properties", Operation::get_all, false, rounds, {}});
    rows.push_back({"Set", Operation::set, false, rounds, {}});
    rows.push_back({"SetMany of 5 (peers: 5 Sets)", Operation::set_many, false, rounds, {}});
    rows.push_back({"GetManagedObjects, 1,000", Operation::managed, false, 2, {}});

    std::int32_t counter = 1000;
    auto const measure = [&](Row const& row, BenchService& service, Result& result, Clock::duration length) {
        long const calls = result.calls;
        double const seconds = result.seconds;
        double const cpu = service.cpu_seconds();
        if (row.async)
            run_async(client.get(), service, row.operation, length, counter, result);
        else
            run_sync(client.get(), service, row.operation, length, counter, result);
        result.cpu_seconds += service.cpu_seconds() - cpu;
        result.slice_rates.push_back(static_cast<double>(result.calls - calls) / (result.seconds - seconds));
    };
    for (Row& row : rows) {
        row.results.resize(columns.size());
        // Untimed warm-up of every service, then the services in turn, round after round.
        for (Column& column : columns) {
            Result scratch;
            measure(row, *column.service, scratch, slice / 10);
        }
        for (int round = 0; round < row.rounds; ++round)
            for (std::size_t c = 0; c < columns.size(); ++c)
                measure(row, *columns[c].service, row.results[c], slice);
    }

    for (Column& column : columns)
        column.service->stop();

    std::string const placement
        = service_cpu < 0 ? std::string("unpinned") : "pinned to CPU " + std::to_string(service_cpu);
    std::printf("D-Bus services on one private dbus-daemon; %lld ms slices; latencies and CPU in us per "
                "operation; service threads %s\n",
                static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(slice).count()),
                placement.c_str());
    std::printf("ratio = calls/s against %s, median of the rounds (lowest-highest round)\n", columns.front().label);
    std::vector<std::vector<double>> medians(rows.size());
    for (std::size_t r = 0; r < rows.size(); ++r) {
        Row const& row = rows[r];
        std::printf("\n%s\n  %-22s %10s %7s %13s %10s %10s %9s\n", row.label, "service", "calls/s", "ratio",
                    "(low-high)", "p50", "p99", "CPU");
        Result const& reference = row.results.front();
        for (std::size_t c = 0; c < columns.size(); ++c) {
            Result const& result = row.results[c];
            // Ratios of neighbouring slices: their median resists a burst of load that hit
            // one service's slice, and their spread shows how much the load moved.
            std::vector<double> ratios;
            for (std::size_t i = 0; i < result.slice_rates.size() && i < reference.slice_rates.size(); ++i)
                ratios.push_back(result.slice_rates[i] / reference.slice_rates[i]);
            double const mid = median(ratios);
            medians[r].push_back(mid);
            char spread[32];
            std::snprintf(spread, sizeof spread, "(%.2f-%.2f)", *std::min_element(ratios.begin(), ratios.end()),
                          *std::max_element(ratios.begin(), ratios.end()));
            std::printf("  %-22s %10.1f %7.2f %13s %10.1f %10.1f %9.1f\n", columns[c].label, result.rate(), mid,
                        spread, result.percentile(0.50), result.percentile(0.99), result.cpu_us_per_call());
        }
    }

    std::printf("\nSummary: calls/s as a ratio to %s\n  %-30s", columns.front().label, "operation");
    for (Column const& column : columns)
        std::printf(" %16s", column.label);
    std::printf("\n");
    for (std::size_t r = 0; r < rows.size(); ++r) {
        std::printf("  %-30s", rows[r].label);
        for (double m : medians[r])
            std::printf(" %16.2f", m);
        std::printf("\n");
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    long slice_ms = 100;
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
    alarm(static_cast<unsigned>(300 + slice_ms * 300 / 1000));
    try {
        if (pin)
            pick_service_cpu();
        return run(std::chrono::milliseconds(slice_ms));
    } catch (std::exception const& e) {
        std::fprintf(stderr, "tarvek-bench-dbus: %s\n", e.what());
        return 1;
    }
}
