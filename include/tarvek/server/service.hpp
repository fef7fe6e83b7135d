// SPDX-License-Identifier: LGPL-2.1-or-later
// server::Service: a D-Bus service in a few lines. It owns the connection, the registry,
// the DBusServer, the main loop on the thread that calls run(), and worker threads that
// each drive one executor; it owns the objects it publishes and takes each to its own
// executor to die. run() publishes, owns the bus name, tells systemd it is ready, serves
// until SIGINT or SIGTERM (or stop()), and then shuts down in an order that leaves no
// request unanswered and no object dying on a foreign thread:
//
//     tarvek::server::Service service("org.sample.Thermostat", tarvek::server::Bus::system());
//     service.add<Thermostat>(tarvek::ObjectPath("/org/sample/Thermostat"));
//     return service.run();
//
// Threads. Construct the service on the thread that will call run(), before starting
// threads of your own: the constructor blocks SIGINT and SIGTERM (and on_signal the
// signals it is given) in the calling thread, so that threads started later inherit the
// mask and the signals reach the service's loop. add_object, remove_object,
// add_object_manager, stop and the executors' post may be called from any thread, also
// from method handlers; add_worker, on_ready, on_stop and on_signal only before run().
// Callbacks of on_ready, on_stop and on_signal run on the run() thread.
//
// Lifetime. What the interfaces refer to must outlive the service (declare it first): the
// service destroys the objects at the end of run(), or in its destructor if run() never
// came. A reference returned by add_object or add stays valid until remove_object.
//
// Shutdown, in this order: STOPPING=1 to systemd; no new request is read; the workers
// end their current task and are joined; the on_stop callbacks run (nothing runs on the
// objects any more, so they may read them from the run() thread); the objects are taken
// off the bus, the executors are closed, which drops what is still queued there, and the
// objects are destroyed; every request still in flight is answered, by its result or by
// "com.omno.Error.RequestLost"; the connection is flushed.
//
// systemd: with NOTIFY_SOCKET set, run() sends READY=1 once the name is owned and the
// objects stand, WATCHDOG=1 at half the interval of WATCHDOG_USEC while the loop runs,
// and STOPPING=1 at the stop, each with a STATUS= line.
#pragma once

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/fd_poller.hpp>
#include <tarvek/common/object_path.hpp>
#include <tarvek/executors/executor.hpp>

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

struct sd_bus;

namespace tarvek {
class API_Registry;
class Object;
} // namespace tarvek

namespace tarvek::server {

class DBusServer;

// run() found the bus name owned by another connection (the error number is EEXIST).
class name_taken : public tarvek::system_error {
public:
    using system_error::system_error;
};

// Which bus a Service connects to. The default is the bus sd-bus chooses for the process
// (the starter's bus of an activated service, else the system bus for root and the user's
// session bus for others).
class Bus {
public:
    Bus() = default;
    static Bus system();
    static Bus session();
    // An address such as "unix:path=/run/dbus/system_bus_socket".
    static Bus address(std::string address);

    // A new, started connection; the caller owns its one reference. Raises
    // tarvek::system_error "Could not connect to " and the bus.
    sd_bus* open() const;
    // "the system bus", "the session bus", "the default bus" or the address.
    std::string describe() const;

private:
    enum class Kind { default_bus, system, session, address };
    Kind kind_ = Kind::default_bus;
    std::string address_;
};

// A thread of the service with a loop of its own. Objects that may be slow run on a worker
// so that they never hold up the bus; objects on one worker run one task at a time.
class Worker {
public:
    Worker(Worker const&) = delete;
    Worker& operator=(Worker const&) = delete;

    Executor const& executor() const noexcept { return executor_; }
    // The worker's loop, for descriptors of the application that belong with its objects
    // (a timer, say): add() may be called from any thread, and the handlers run on the
    // worker's thread between tasks.
    common::FDPoller& loop() noexcept { return loop_; }

private:
    friend class Service;
    Worker() = default;

    common::FDPoller loop_;
    Executor const executor_{loop_.executor()};
    std::thread thread_;
    std::atomic<bool> stopping_ = false;
};

class Service {
public:
    // Connects; raises tarvek::system_error "Could not connect to " and the bus, and what
    // the DBusServer's constructor raises. The name is requested only by run().
    explicit Service(std::string name, Bus const& bus = Bus());
    Service(Service const&) = delete;
    Service& operator=(Service const&) = delete;
    // Shuts down if run() has not, and gives the signal mask back to the calling thread.
    ~Service();

    std::string const& name() const noexcept;

    // The executor of the loop that run() drives: method calls of its objects run on the
    // thread that serves the bus. Fine for objects whose handlers are quick.
    Executor const& main_executor() const noexcept;
    // A new worker thread, started by run() and joined at its end.
    Worker& add_worker();

    // Makes an object on `executor` (the main one or a worker's of this service), lets
    // `setup` add its interfaces, and publishes it at `path`. Raises
    // tarvek::invalid_argument "Path already exists: " and the path, and
    // tarvek::invalid_state_error "Service has stopped" after run().
    Object& add_object(
        ObjectPath const& path, Executor const& executor, std::function<void(Object&)> const& setup);
    Object& add_object(ObjectPath const& path, std::function<void(Object&)> const& setup);
    // An object with the one interface I, made of `arguments`, on the main executor or on
    // `executor`.
    template <class I, class... A> I& add(ObjectPath const& path, A&&... arguments);
    template <class I, class... A> I& add(Executor const& executor, ObjectPath const& path, A&&... arguments);

    // Takes the object off the bus now and destroys it on its executor's thread, after what
    // was queued there before; at once if no thread drives the executor. Raises
    // tarvek::invalid_argument "No such object: " and the path.
    void remove_object(ObjectPath const& path);
    // org.freedesktop.DBus.ObjectManager at `path`.
    void add_object_manager(ObjectPath const& path);

    // Called once the name is owned and the objects are served, after READY=1.
    void on_ready(std::function<void()> callback);
    // Called at the stop, after the workers have been joined and before the objects go.
    void on_stop(std::function<void()> callback);
    // Runs `callback` on the run() thread whenever `signal` arrives; SIGINT and SIGTERM
    // stop the service and are not for this.
    void on_signal(int signal, std::function<void()> callback);

    // Serves until stopped, then shuts down (see above) and returns 0. Raises name_taken
    // if another connection owns the name, server::connection_lost when the bus has gone
    // (after the shutdown: on_stop callbacks have run), and the first exception of an
    // on_stop callback. A task that fails on the main loop or a worker is written to
    // std::cerr as "program: what" and the service goes on. Once only.
    int run();
    // Ends run() from any thread, also before it has begun: never lost.
    void stop() noexcept;

    // The parts, for what the layer does not cover. Everything on the DBusServer and the
    // connection belongs to the run() thread.
    API_Registry& registry() noexcept;
    DBusServer& server() noexcept;
    sd_bus* bus() const noexcept;

private:
    struct Impl;

    void start(Worker& worker);
    void join(Worker& worker) noexcept;
    void publish();
    void serve();
    std::exception_ptr shut_down() noexcept;

    std::unique_ptr<Impl> impl_;
};

} // namespace tarvek::server

#include <tarvek/provider/interface.hpp>

namespace tarvek::server {

template <class I, class... A> I& Service::add(ObjectPath const& path, A&&... arguments)
{
    return add<I>(main_executor(), path, std::forward<A>(arguments)...);
}

template <class I, class... A>
I& Service::add(Executor const& executor, ObjectPath const& path, A&&... arguments)
{
    I* added = nullptr;
    add_object(path, executor,
        [&](Object& object) { added = &provider::add_interface<I>(object, std::forward<A>(arguments)...); });
    return *added;
}

} // namespace tarvek::server
