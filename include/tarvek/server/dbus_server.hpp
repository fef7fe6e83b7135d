// SPDX-License-Identifier: LGPL-2.1-or-later
// DBusServer: the protocol server that publishes the registry's objects on D-Bus through
// one sd-bus connection. It starts no thread. Everything that touches sd-bus, bus
// messages or the server's object tree happens inside process(), on the thread that calls
// it: the server's thread. The application polls epoll_fd() (the bus descriptor, a timer
// for sd-bus's time-outs and the server's own task queue in one set) and calls process()
// when it is readable, typically from a common::FDPoller.
//
//     tarvek::server::DBusServer server(nullptr);      // the default bus of the process
//     registry.add_server(server);
//     registry.add_object(object, tarvek::ObjectPath("/org/sample/Lamp"));
//     server.request_name("org.sample.Lamp");
//     server.add_object_manager(tarvek::ObjectPath("/org/sample"));
//     server.enable_incoming(true);                    // last: the objects stand by now
//     poller.add(server.epoll_fd(), POLLIN, [&](pollfd&) { server.process(); });
//
// The notifications of glue::IProtocolServer, request_name and add_object_manager may be
// called from any thread, also under the provider's locks: they only queue a task, and
// their effects reach the bus in the order of the calls. Their failures, and the failures
// of the tasks, leave the next process() as exceptions; later tasks stay queued for the
// following one. The constructor, the destructor, process(), enable_incoming,
// update_timeout and get_bus_fd belong to the server's thread, or to the time before the
// polling starts. The server must outlive its registration with the registry.
#pragma once

#include <tarvek/common/object_path.hpp>
#include <tarvek/glue/protocol_server.hpp>

#include <memory>
#include <string>

struct sd_bus;

namespace tarvek::server {

class DBusServer final : public glue::IProtocolServer {
public:
    // The connection. One reference is owned; a connection made here is flushed and
    // closed at the end, one handed in is only released.
    class Bus {
    public:
        // Null opens the default bus of the process; raises tarvek::system_error "Could not
        // connect to bus" if that fails.
        explicit Bus(sd_bus* bus);
        Bus(Bus const&) = delete;
        Bus& operator=(Bus const&) = delete;
        ~Bus() { close(); }

        void close() noexcept;
        // No flags. Raises tarvek::system_error "Could not request service name <name>".
        void request_name(std::string const& name);
        sd_bus* get() const noexcept { return bus; }

    private:
        sd_bus* bus = nullptr;
        bool opened_here = false;
    };

    // `bus` may be null: the server then opens the default bus itself. The new server runs
    // its tasks but doesn't read the bus before enable_incoming(true). Raises
    // tarvek::system_error "Could not connect to bus", and what the access-policy library
    // raises ("Could not init vrel library: ").
    explicit DBusServer(sd_bus* bus);
    DBusServer(DBusServer const&) = delete;
    DBusServer& operator=(DBusServer const&) = delete;
    // Drops queued tasks unrun and ends every published object without InterfacesRemoved.
    ~DBusServer() override;

    // "dbus-server".
    std::string const& name() const override { return name_; }
    void on_object_added(std::unique_ptr<glue::IObject> object, ObjectPath const& path) override;
    void on_object_removed(ObjectPath const& path) override;
    void on_properties_changed(
        glue::IObject& object, ObjectPath const& path, glue::IInterface& interface) override;
    void on_signal(glue::IObject& object, ObjectPath const& path, glue::IInterface& interface,
        glue::ISignal& signal, std::shared_ptr<glue::ISignalValue> value) override;

    // One round: runs the queued tasks and method completions, empties the timer and, while
    // incoming, lets sd-bus dispatch everything it has. Raises tarvek::invalid_state_error
    // "Executor is already closed", tarvek::system_error "process: Could not process
    // request " and "process: Could not obtain timeout", and whatever a task raises.
    void process();
    // Starts or stops the serving of the bus. Raises tarvek::system_error "enable_incoming:
    // Could not obtain timeout" (the server stays incoming then).
    void enable_incoming(bool enable);
    // An absolute time on the monotonic clock in microseconds, as sd-bus gives it; all
    // ones disarms the timer.
    void update_timeout(unsigned long usec);
    // -1 once the connection has gone.
    int get_bus_fd() const;
    // The descriptor to poll for readability.
    int epoll_fd() const;

    void request_name(std::string const& name);
    void add_object_manager(ObjectPath const& path);

private:
    struct State;

    template <class F> void queue(F task);

    std::string const name_ = "dbus-server";
    Bus bus_;
    std::unique_ptr<State> state_;
};

} // namespace tarvek::server
