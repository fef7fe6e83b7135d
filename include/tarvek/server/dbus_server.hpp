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
//
// An application's loop must not be made to spin by what leaves process(). A failed task
// (say, a change reported for an object removed a moment before: "No such object: ") is
// raised once and has left the queue; the application may note it and call process()
// again. A failure of sd-bus itself is raised once, and a second one in a row closes the
// connection, a handed-in one too, since nobody can use it any more. A lost connection
// is raised once as server::connection_lost (a tarvek::system_error: catch it first), and
// from then on connected() is false and the bus descriptor is out of the set, so
// process() only runs tasks; the name is gone, and a service usually ends (non-zero, for
// its supervisor) when it meets this exception.
#pragma once

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/object_path.hpp>
#include <tarvek/glue/protocol_server.hpp>

#include <memory>
#include <string>

struct sd_bus;

namespace tarvek::server {

// The connection to the bus is gone: the bus dropped it, the socket failed, or sd-bus
// could no longer process it. The error number is what the system or sd-bus said.
class connection_lost : public tarvek::system_error {
public:
    using system_error::system_error;
};

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
    // incoming, lets sd-bus dispatch everything it has and writes what the socket takes;
    // as long as output is left over, the bus descriptor asks for writability too, so
    // that the rest goes out as soon as the socket drains. Raises
    // tarvek::invalid_state_error "Executor is already closed", whatever a task raises,
    // tarvek::system_error "process: Could not process request " (once: the timer brings
    // another round at once, and a second failure in a row closes the connection) and
    // "process: Could not obtain timeout", and connection_lost "process: Connection to the
    // bus lost" once when it finds the connection gone, also while not incoming.
    void process();
    // False from the process() that raised connection_lost on.
    bool connected() const noexcept;
    // Starts or stops the serving of the bus. Raises tarvek::system_error "enable_incoming:
    // Could not obtain timeout" (the server stays incoming then). Once the connection is
    // lost, it only notes the flag.
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
    void serve_bus();
    void check_hang_up();
    void watch_bus();
    [[noreturn]] void lose_connection(int error);

    std::string const name_ = "dbus-server";
    Bus bus_;
    std::unique_ptr<State> state_;
};

} // namespace tarvek::server
