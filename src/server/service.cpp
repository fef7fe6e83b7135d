// SPDX-License-Identifier: LGPL-2.1-or-later
// server::Service: the connection, the loops and the order of start and stop around the
// registry and the DBusServer. One mutex guards the phase and the objects; it is taken
// outside the registry's, and no callback of the application runs under it.
#include <tarvek/server/service.hpp>

#include <tarvek/common/hard_assert.hpp>
#include <tarvek/common/str_join.hpp>
#include <tarvek/provider/object.hpp>
#include <tarvek/provider/registry.hpp>
#include <tarvek/server/dbus_server.hpp>

#include <boost/throw_exception.hpp>

#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <cstdint>
#include <iostream>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include <csignal>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace tarvek::server {

namespace {

// A failed task is the application's to know of, and the service goes on: one line, as
// the examples have always written it.
void report(std::exception const& error) noexcept
{
    try {
        std::cerr << program_invocation_short_name << ": " << error.what() << "\n";
    } catch (...) {
    }
}

// The connection's one reference of its own: flushed and closed after the server that
// shares it has gone.
struct Connection {
    sd_bus* bus = nullptr;
    ~Connection() { sd_bus_flush_close_unref(bus); }
};

} // namespace

Bus Bus::system()
{
    Bus bus;
    bus.kind_ = Kind::system;
    return bus;
}

Bus Bus::session()
{
    Bus bus;
    bus.kind_ = Kind::session;
    return bus;
}

Bus Bus::address(std::string address)
{
    Bus bus;
    bus.kind_ = Kind::address;
    bus.address_ = std::move(address);
    return bus;
}

std::string Bus::describe() const
{
    switch (kind_) {
    case Kind::system:
        return "the system bus";
    case Kind::session:
        return "the session bus";
    case Kind::address:
        return address_;
    case Kind::default_bus:
        break;
    }
    return "the default bus";
}

sd_bus* Bus::open() const
{
    sd_bus* bus = nullptr;
    int r = 0;
    switch (kind_) {
    case Kind::default_bus:
        r = sd_bus_open(&bus);
        break;
    case Kind::system:
        r = sd_bus_open_system(&bus);
        break;
    case Kind::session:
        r = sd_bus_open_user(&bus);
        break;
    case Kind::address:
        r = sd_bus_new(&bus);
        if (r >= 0)
            r = sd_bus_set_address(bus, address_.c_str());
        if (r >= 0)
            r = sd_bus_set_bus_client(bus, 1);
        if (r >= 0)
            r = sd_bus_start(bus);
        break;
    }
    if (r < 0) {
        sd_bus_unref(bus);
        boost::throw_exception(tarvek::system_error(-r, str::join("Could not connect to ", describe())));
    }
    return bus;
}

struct Service::Impl {
    enum class Phase { idle, running, stopping, stopped };

    struct Entry {
        std::unique_ptr<Object> object;
        Executor executor;
    };

    // Declared in the order of their dependencies: the server outlives the registry, the
    // connection outlives the server, the loops outlive the objects.
    std::string name;
    Connection connection;
    std::unique_ptr<DBusServer> server;
    API_Registry registry;
    common::FDPoller main_loop;
    Executor const main_executor{main_loop.executor()};
    std::list<std::unique_ptr<Worker>> workers;

    std::mutex mutex;
    Phase phase = Phase::idle;
    std::map<ObjectPath, Entry> objects;
    // Removed objects on their way to their executor, by a number of their own.
    std::map<std::uint64_t, Entry> dying;
    std::uint64_t next_dying = 0;

    std::vector<std::function<void()>> ready_callbacks;
    std::vector<std::function<void()>> stop_callbacks;
    std::map<int, std::function<void()>> signal_callbacks;
    sigset_t signals{};
    sigset_t old_mask{};
    std::vector<common::FileDescriptor> descriptors;

    std::atomic<bool> stop_requested = false;
    std::exception_ptr lost;

    // One round of the server; a failed task is reported, a lost connection is kept.
    void process() noexcept
    {
        try {
            server->process();
        } catch (connection_lost const&) {
            lost = std::current_exception();
        } catch (std::exception const& error) {
            report(error);
        }
    }

    // Runs the server's queue dry, also past failed tasks, which each leave one round.
    void drain() noexcept
    {
        for (int round = 0; round < 1000; ++round) {
            try {
                server->process();
                return;
            } catch (connection_lost const&) {
                if (!lost)
                    lost = std::current_exception();
                return;
            } catch (std::exception const& error) {
                report(error);
            }
        }
    }

    void destroy_dying(std::uint64_t number) noexcept
    {
        std::unique_lock lock(mutex);
        auto node = dying.extract(number);
        lock.unlock();
        // The object dies here, on its executor's thread, outside the lock.
    }
};

Service::Service(std::string name, Bus const& bus)
    : impl_(std::make_unique<Impl>())
{
    impl_->name = std::move(name);
    impl_->connection.bus = bus.open();
    impl_->server = std::make_unique<DBusServer>(impl_->connection.bus);
    impl_->registry.add_server(*impl_->server);
    sigemptyset(&impl_->signals);
    sigaddset(&impl_->signals, SIGINT);
    sigaddset(&impl_->signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &impl_->signals, &impl_->old_mask);
}

Service::~Service()
{
    std::exception_ptr const ignored = shut_down();
    (void)ignored;
    // Signals that came after the loop ended would take their default action once
    // unblocked: take them first.
    timespec const now{};
    while (sigtimedwait(&impl_->signals, nullptr, &now) > 0) { }
    pthread_sigmask(SIG_SETMASK, &impl_->old_mask, nullptr);
}

std::string const& Service::name() const noexcept
{
    return impl_->name;
}

Executor const& Service::main_executor() const noexcept
{
    return impl_->main_executor;
}

Worker& Service::add_worker()
{
    std::lock_guard lock(impl_->mutex);
    if (impl_->phase != Impl::Phase::idle)
        boost::throw_exception(tarvek::invalid_state_error("add_worker: the service runs already"));
    return *impl_->workers.emplace_back(new Worker());
}

Object& Service::add_object(
    ObjectPath const& path, Executor const& executor, std::function<void(Object&)> const& setup)
{
    if (!executor)
        boost::throw_exception(tarvek::invalid_argument("add_object: no executor"));
    auto object = std::make_unique<Object>(executor.base());
    if (setup)
        setup(*object);
    std::lock_guard lock(impl_->mutex);
    if (impl_->phase == Impl::Phase::stopping || impl_->phase == Impl::Phase::stopped)
        boost::throw_exception(tarvek::invalid_state_error("Service has stopped"));
    impl_->registry.add_object(*object, path);
    Object& added = *object;
    impl_->objects.emplace(path, Impl::Entry{std::move(object), executor});
    return added;
}

Object& Service::add_object(ObjectPath const& path, std::function<void(Object&)> const& setup)
{
    return add_object(path, main_executor(), setup);
}

void Service::remove_object(ObjectPath const& path)
{
    Impl::Entry entry;
    std::optional<std::uint64_t> number;
    {
        std::lock_guard lock(impl_->mutex);
        auto found = impl_->objects.find(path);
        if (found == impl_->objects.end())
            boost::throw_exception(tarvek::invalid_argument(str::join("No such object: ", path.str())));
        entry = std::move(found->second);
        impl_->objects.erase(found);
        impl_->registry.remove_object(path);
        if (impl_->phase == Impl::Phase::running) {
            number = impl_->next_dying++;
            impl_->dying.emplace(*number, Impl::Entry{std::move(entry.object), entry.executor});
        }
    }
    if (!number)
        return; // no thread drives the executor: the object dies here, as the entry goes
    try {
        entry.executor.post([impl = impl_.get(), number = *number] { impl->destroy_dying(number); });
    } catch (tarvek::invalid_state_error const&) {
        // The executor has closed under a shutdown, which destroys what is left dying.
    }
}

void Service::add_object_manager(ObjectPath const& path)
{
    impl_->server->add_object_manager(path);
}

void Service::on_ready(std::function<void()> callback)
{
    std::lock_guard lock(impl_->mutex);
    if (impl_->phase != Impl::Phase::idle)
        boost::throw_exception(tarvek::invalid_state_error("on_ready: the service runs already"));
    impl_->ready_callbacks.push_back(std::move(callback));
}

void Service::on_stop(std::function<void()> callback)
{
    std::lock_guard lock(impl_->mutex);
    if (impl_->phase != Impl::Phase::idle)
        boost::throw_exception(tarvek::invalid_state_error("on_stop: the service runs already"));
    impl_->stop_callbacks.push_back(std::move(callback));
}

void Service::on_signal(int signal, std::function<void()> callback)
{
    if (signal == SIGINT || signal == SIGTERM || signal <= 0 || signal >= NSIG)
        boost::throw_exception(tarvek::invalid_argument(str::join("on_signal: not for signal ", signal)));
    std::lock_guard lock(impl_->mutex);
    if (impl_->phase != Impl::Phase::idle)
        boost::throw_exception(tarvek::invalid_state_error("on_signal: the service runs already"));
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal);
    pthread_sigmask(SIG_BLOCK, &one, nullptr);
    sigaddset(&impl_->signals, signal);
    impl_->signal_callbacks[signal] = std::move(callback);
}

void Service::stop() noexcept
{
    impl_->stop_requested = true;
    // Through the loop's own queue: a stop of the poller itself would be lost if it came
    // before the loop has begun.
    try {
        impl_->main_executor.post([impl = impl_.get()] { impl->main_loop.stop(); });
    } catch (...) {
        // Closed: the loop has ended already.
    }
}

API_Registry& Service::registry() noexcept
{
    return impl_->registry;
}

DBusServer& Service::server() noexcept
{
    return *impl_->server;
}

sd_bus* Service::bus() const noexcept
{
    return impl_->connection.bus;
}

void Service::start(Worker& worker)
{
    sigset_t const signals = impl_->signals;
    worker.thread_ = std::thread([&worker, signals] {
        // Signals belong to the run() thread's descriptor, whatever thread started us.
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        while (!worker.stopping_) {
            try {
                worker.loop_.loop();
            } catch (std::exception const& error) {
                report(error);
            }
        }
    });
}

void Service::join(Worker& worker) noexcept
{
    if (!worker.thread_.joinable())
        return;
    try {
        // From inside the loop, where a stop cannot come before the loop has begun.
        worker.executor_.post([&worker] {
            worker.stopping_ = true;
            worker.loop_.stop();
        });
    } catch (...) {
        // Only a closed executor refuses, and executors close after the joins.
        common::tarvek_hard_assert(false, "worker executor open", "Service", __FILE__, __LINE__);
    }
    worker.thread_.join();
}

// Objects first, then the name, then requests: a client that sees the name finds every
// object standing, and readiness is told only once the name is ours.
void Service::publish()
{
    Impl& d = *impl_;
    d.process();
    if (d.lost)
        std::rethrow_exception(d.lost);
    int const r = sd_bus_request_name(d.connection.bus, d.name.c_str(), 0);
    if (r == -EEXIST) {
        sd_notifyf(0, "STATUS=The name %s is owned by another connection\nERRNO=%d", d.name.c_str(), EEXIST);
        boost::throw_exception(
            name_taken(EEXIST, str::join("The name ", d.name, " is owned by another connection")));
    }
    if (r < 0)
        boost::throw_exception(
            tarvek::system_error(-r, str::join("Could not request service name ", d.name)));
    d.server->enable_incoming(true);
    d.process();
    if (d.lost)
        std::rethrow_exception(d.lost);
}

void Service::serve()
{
    Impl& d = *impl_;
    int const signal_fd = signalfd(-1, &d.signals, SFD_NONBLOCK | SFD_CLOEXEC);
    if (signal_fd < 0)
        boost::throw_exception(tarvek::system_error(errno, "signalfd failed"));
    d.descriptors.emplace_back(signal_fd);
    d.main_loop.add(signal_fd, POLLIN, [this, signal_fd](pollfd&) {
        signalfd_siginfo info{};
        while (::read(signal_fd, &info, sizeof info) == sizeof info) {
            int const number = static_cast<int>(info.ssi_signo);
            if (number == SIGINT || number == SIGTERM)
                stop();
            else if (auto found = impl_->signal_callbacks.find(number);
                     found != impl_->signal_callbacks.end())
                found->second();
        }
    });
    d.main_loop.add(d.server->epoll_fd(), POLLIN, [&d, this](pollfd&) {
        d.process();
        if (d.lost)
            stop();
    });

    std::uint64_t watchdog_usec = 0;
    if (sd_watchdog_enabled(0, &watchdog_usec) > 0 && watchdog_usec > 0) {
        int const timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
        if (timer < 0)
            boost::throw_exception(tarvek::system_error(errno, "timerfd_create failed"));
        d.descriptors.emplace_back(timer);
        std::uint64_t const half = watchdog_usec / 2;
        itimerspec every{};
        every.it_interval.tv_sec = static_cast<time_t>(half / 1000000);
        every.it_interval.tv_nsec = static_cast<long>(half % 1000000 * 1000);
        if (every.it_interval.tv_sec == 0 && every.it_interval.tv_nsec == 0)
            every.it_interval.tv_nsec = 1000;
        every.it_value = every.it_interval;
        if (timerfd_settime(timer, 0, &every, nullptr) != 0)
            boost::throw_exception(tarvek::system_error(errno, "timerfd_settime failed"));
        d.main_loop.add(timer, POLLIN, [timer](pollfd&) {
            std::uint64_t expirations = 0;
            (void)::read(timer, &expirations, sizeof expirations);
            sd_notify(0, "WATCHDOG=1");
        });
    }

    for (auto& worker : d.workers)
        start(*worker);
    publish();
    sd_notifyf(0, "READY=1\nSTATUS=Serving %s", d.name.c_str());
    for (auto const& callback : d.ready_callbacks)
        callback();

    while (!d.stop_requested) {
        try {
            d.main_loop.loop();
        } catch (std::exception const& error) {
            report(error);
        }
    }
}

int Service::run()
{
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->phase != Impl::Phase::idle)
            boost::throw_exception(tarvek::invalid_state_error("run: the service has run already"));
        impl_->phase = Impl::Phase::running;
    }
    std::exception_ptr failure;
    try {
        serve();
    } catch (...) {
        failure = std::current_exception();
    }
    sd_notify(0,
        impl_->lost ? "STOPPING=1\nSTATUS=Stopping: the bus connection is lost"
                    : "STOPPING=1\nSTATUS=Stopping");
    std::exception_ptr const stop_failure = shut_down();
    if (impl_->lost)
        std::rethrow_exception(impl_->lost);
    if (failure)
        std::rethrow_exception(failure);
    if (stop_failure)
        std::rethrow_exception(stop_failure);
    return 0;
}

std::exception_ptr Service::shut_down() noexcept
{
    Impl& d = *impl_;
    bool ran = false;
    {
        std::lock_guard lock(d.mutex);
        if (d.phase == Impl::Phase::stopped)
            return {};
        ran = d.phase == Impl::Phase::running;
        d.phase = Impl::Phase::stopping;
    }
    // No new request is read; what has been read is answered below.
    try {
        d.server->enable_incoming(false);
    } catch (std::exception const& error) {
        report(error);
    }
    for (auto& worker : d.workers)
        join(*worker);

    std::exception_ptr failure;
    for (auto const& callback : ran ? d.stop_callbacks : decltype(d.stop_callbacks)()) {
        try {
            callback();
        } catch (...) {
            if (!failure)
                failure = std::current_exception();
        }
    }

    // Nothing drives the executors any more. Closing them drops what is queued there:
    // requests among it break their promises, and the server answers RequestLost. Then
    // every object may die here.
    std::map<ObjectPath, Impl::Entry> objects;
    std::map<std::uint64_t, Impl::Entry> dying;
    {
        std::lock_guard lock(d.mutex);
        d.registry.remove_all();
        objects.swap(d.objects);
        dying.swap(d.dying);
    }
    for (auto& worker : d.workers)
        worker->loop_.executor().close();
    d.main_loop.executor().close();
    dying.clear();
    objects.clear();

    d.drain();
    if (d.server->connected())
        sd_bus_flush(d.connection.bus);
    try {
        d.main_loop.clear();
    } catch (...) {
    }
    d.descriptors.clear();
    {
        std::lock_guard lock(d.mutex);
        d.phase = Impl::Phase::stopped;
    }
    return failure;
}

} // namespace tarvek::server
