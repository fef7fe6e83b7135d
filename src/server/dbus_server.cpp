// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/server/dbus_server.hpp>

#include "common/vrel.hpp"
#include "server/dbus/object.hpp"
#include "server/dbus/object_manager_set.hpp"

#include <tarvek/common/epoll_fd.hpp>
#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>
#include <tarvek/executors/executor_base.hpp>
#include <tarvek/executors/injector.hpp>

#include <boost/throw_exception.hpp>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdint>
#include <iostream>
#include <utility>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace tarvek::server {

namespace {

constexpr unsigned long no_timeout = ~0UL;

} // namespace

// Members end in reverse order after the timer has been closed: the policy library, the
// epoll set, the executor (dropping queued tasks with what they hold) and then the tree.
struct DBusServer::State {
    explicit State(sd_bus* bus)
        : objects(std::make_unique<dbus::ObjectManagerSet>(bus))
        , timer_fd(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK))
    {
    }
    State(State const&) = delete;
    State& operator=(State const&) = delete;
    ~State() { ::close(timer_fd); }

    std::unique_ptr<dbus::ObjectManagerSet> objects;
    int timer_fd;
    detail::executors::ExecutorBase executor;
    common::EPollFD epoll;
    common::Vrel vrel;
    bool incoming = false;
    // The bus descriptor as it stands in `epoll`, and the events it asks for there while
    // incoming; -1 once the connection is lost and the descriptor has left the set.
    int bus_fd = -1;
    unsigned bus_events = EPOLLIN;
    // The last round of sd-bus failed while the connection still stood open.
    bool failed_round = false;
};

DBusServer::Bus::Bus(sd_bus* bus)
    : bus(bus)
{
    if (bus) {
        sd_bus_ref(bus);
        return;
    }
    int const r = sd_bus_open(&this->bus);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "Could not connect to bus"));
    opened_here = true;
}

void DBusServer::Bus::close() noexcept
{
    if (!bus)
        return;
    if (opened_here) {
        sd_bus_flush(bus);
        sd_bus_close(bus);
    }
    sd_bus_unref(bus);
    bus = nullptr;
}

void DBusServer::Bus::request_name(std::string const& name)
{
    int const r = sd_bus_request_name(bus, name.c_str(), 0);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, str::join("Could not request service name ", name)));
}

DBusServer::DBusServer(sd_bus* bus)
    : bus_(bus)
    , state_(std::make_unique<State>(bus_.get()))
{
    // The bus descriptor stands in the set disabled: no request is read before the
    // application has published its objects and calls enable_incoming(true).
    state_->bus_fd = get_bus_fd();
    state_->epoll.add(state_->bus_fd, state_->bus_events, state_->incoming);
    state_->epoll.add(state_->timer_fd, EPOLLIN, true);
    state_->epoll.add(state_->executor.event_fd(), EPOLLIN, true);
}

DBusServer::~DBusServer() = default;

template <class F> void DBusServer::queue(F task)
{
    detail::executors::Injector(state_->executor).submit(std::move(task));
}

void DBusServer::on_object_added(std::unique_ptr<glue::IObject> object, ObjectPath const& path)
{
    queue([this, object = std::move(object), path]() mutable {
        state_->objects->add_object(
            std::make_unique<dbus::Object>(detail::executors::Injector(state_->executor), bus_.get(),
                std::move(object), path, state_->vrel));
    });
}

void DBusServer::on_object_removed(ObjectPath const& path)
{
    queue([this, path] { state_->objects->remove_object(path); });
}

void DBusServer::on_properties_changed(
    glue::IObject& object, ObjectPath const& path, glue::IInterface& interface)
{
    // The references stay good: the IObject belongs to the tree, and only a later task of
    // this same queue can take it away.
    queue([this, &object, path, &interface] {
        state_->objects->on_properties_changed(object, path, interface);
    });
}

void DBusServer::on_signal(glue::IObject& object, ObjectPath const& path, glue::IInterface& interface,
    glue::ISignal& signal, std::shared_ptr<glue::ISignalValue> value)
{
    queue([this, &object, path, &interface, &signal, value = std::move(value)] {
        state_->objects->on_signal(object, path, interface, signal, value);
    });
}

void DBusServer::request_name(std::string const& name)
{
    queue([this, name] { bus_.request_name(name); });
}

void DBusServer::add_object_manager(ObjectPath const& path)
{
    queue([this, path] { state_->objects->add_object_manager(path); });
}

void DBusServer::process()
{
    int const old_fd = get_bus_fd();
    // Tasks first, so that the replies and signals they make are queued at sd-bus before
    // it runs, and the time-out computed below covers them.
    try {
        state_->executor.run_dry();
    } catch (...) {
        // A failed task ends this round before sd-bus has written what the earlier tasks
        // queued; the timer brings the next round at once instead of the next message.
        if (state_->incoming && state_->bus_fd >= 0)
            update_timeout(0);
        throw;
    }

    std::uint64_t expirations = 0;
    ssize_t const got = ::read(state_->timer_fd, &expirations, sizeof(expirations));
    if (got != sizeof(expirations) && errno != EAGAIN)
        std::cerr << "read(2) fail, " << got << ": " << errno << '\n';

    if (state_->bus_fd < 0)
        return; // the connection is gone and was reported; the tasks above still ran

    if (state_->incoming)
        serve_bus();
    else
        check_hang_up();

    int const new_fd = get_bus_fd();
    if (new_fd < 0)
        lose_connection(ENOTCONN);
    if (new_fd != old_fd) {
        std::cerr << "Swapfd: " << old_fd << " -> " << new_fd << '\n';
        state_->epoll.del(old_fd);
        state_->bus_fd = new_fd;
        state_->epoll.add(new_fd, state_->bus_events, state_->incoming);
    }
}

void DBusServer::serve_bus()
{
    sd_bus* const bus = bus_.get();
    int r = 0;
    while ((r = sd_bus_process(bus, nullptr)) > 0) { }
    if (r < 0) {
        // sd-bus has run through its closing steps within the loop above when the peer went
        // away; a closed connection never comes back.
        if (sd_bus_is_open(bus) <= 0)
            lose_connection(-r);
        // One failure may pass (it is reported, and the timer brings the next round at
        // once, also when the socket has nothing new); a second one in a row means that
        // sd-bus is stuck, and going on would only fail again on every round.
        if (state_->failed_round) {
            sd_bus_close(bus);
            lose_connection(-r);
        }
        state_->failed_round = true;
        update_timeout(0);
        boost::throw_exception(tarvek::system_error(-r, "process: Could not process request "));
    }
    state_->failed_round = false;
    std::uint64_t usec = UINT64_MAX;
    r = sd_bus_get_timeout(bus, &usec);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "process: Could not obtain timeout"));
    update_timeout(usec);
    watch_bus();
}

void DBusServer::check_hang_up()
{
    // A disabled descriptor still makes the set readable on a hang-up or an error, which
    // would call process() again and again while it doesn't read the bus.
    pollfd entry{state_->bus_fd, 0, 0};
    if (::poll(&entry, 1, 0) == 1 && (entry.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0)
        lose_connection(ECONNRESET);
}

void DBusServer::watch_bus()
{
    // While sd-bus holds output that the socket didn't take, it has to hear when the
    // socket drains; otherwise a large reply, and everything queued behind it, would wait
    // for the next unrelated message.
    int const wanted = sd_bus_get_events(bus_.get());
    unsigned const events = wanted > 0 && (wanted & POLLOUT) != 0 ? EPOLLIN | EPOLLOUT : EPOLLIN;
    if (events == state_->bus_events)
        return;
    state_->epoll.mod(state_->bus_fd, events);
    state_->bus_events = events;
}

void DBusServer::lose_connection(int error)
{
    // The descriptor leaves the set, so that it can't keep the set readable. sd-bus may
    // have closed it already, which has taken it out of the kernel's set: epoll_ctl's
    // complaint about that is of no interest.
    int const fd = std::exchange(state_->bus_fd, -1);
    try {
        state_->epoll.del(fd);
    } catch (tarvek::system_error const&) {
    }
    state_->failed_round = false;
    update_timeout(no_timeout);
    boost::throw_exception(connection_lost(error, "process: Connection to the bus lost"));
}

void DBusServer::enable_incoming(bool enable)
{
    state_->incoming = enable;
    if (state_->bus_fd < 0)
        return; // nothing to serve any more
    state_->epoll.enable(state_->bus_fd, enable);
    if (!enable) {
        update_timeout(no_timeout);
        return;
    }
    std::uint64_t usec = UINT64_MAX;
    int const r = sd_bus_get_timeout(bus_.get(), &usec);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "enable_incoming: Could not obtain timeout"));
    update_timeout(usec);
    // Output that tasks queued while the door was shut goes out now.
    watch_bus();
}

void DBusServer::update_timeout(unsigned long usec)
{
    itimerspec timer{};
    if (usec == 0) {
        // A zero value would disarm the timer instead of firing it at once.
        timer.it_value.tv_nsec = 1;
    } else if (usec != no_timeout) {
        timer.it_value.tv_sec = static_cast<time_t>(usec / 1000000);
        timer.it_value.tv_nsec = static_cast<long>(usec % 1000000 * 1000);
    }
    timerfd_settime(state_->timer_fd, TFD_TIMER_ABSTIME, &timer, nullptr);
}

int DBusServer::get_bus_fd() const
{
    // sd-bus answers a closed connection with a negative error number.
    int const fd = bus_.get() ? sd_bus_get_fd(bus_.get()) : -1;
    return fd < 0 ? -1 : fd;
}

bool DBusServer::connected() const noexcept
{
    return state_->bus_fd >= 0;
}

int DBusServer::epoll_fd() const
{
    return state_->epoll.fd();
}

} // namespace tarvek::server
