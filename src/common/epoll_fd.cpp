// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/epoll_fd.hpp>
#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>

#include <boost/throw_exception.hpp>

#include <cerrno>
#include <string>
#include <sys/epoll.h>

namespace tarvek::common {

namespace {

int create_epoll_fd()
{
    int const fd = ::epoll_create(1);
    if (fd < 0)
        boost::throw_exception(tarvek::system_error(errno, "could not create epoll_fd"));
    return fd;
}

// The data word stays zero: the set only aggregates readiness, nobody dispatches on it.
int control(int epoll_fd, int op, int fd, unsigned events)
{
    epoll_event event{};
    event.events = events;
    return ::epoll_ctl(epoll_fd, op, fd, op == EPOLL_CTL_DEL ? nullptr : &event);
}

} // namespace

EPollFD::EPollFD() : epoll_(create_epoll_fd()) {}

EPollFD::EPollFD(EPollFD&& other) : epoll_(-1)
{
    std::lock_guard const lock(other.mutex_);
    epoll_ = std::move(other.epoll_);
}

void EPollFD::add(int fd, unsigned events, bool enabled)
{
    std::lock_guard const lock(mutex_);
    if (!wanted_.try_emplace(fd, events).second)
        boost::throw_exception(
            tarvek::internal_error(str::join("fd: ", std::to_string(fd), " already existing")));
    if (control(epoll_.fd(), EPOLL_CTL_ADD, fd, enabled ? events : 0U) < 0)
        boost::throw_exception(tarvek::system_error(
            errno, str::join("epoll_ctl failed to add fd ", std::to_string(fd))));
}

void EPollFD::del(int fd)
{
    std::lock_guard const lock(mutex_);
    if (wanted_.erase(fd) == 0)
        boost::throw_exception(tarvek::invalid_argument(
            str::join("fd: ", std::to_string(fd), " not found, cannot be deleted")));
    if (control(epoll_.fd(), EPOLL_CTL_DEL, fd, 0U) < 0)
        boost::throw_exception(tarvek::system_error(
            errno, str::join("epoll_ctl failed to del fd ", std::to_string(fd))));
}

void EPollFD::mod(int fd, unsigned events)
{
    std::lock_guard const lock(mutex_);
    auto const entry = wanted_.find(fd);
    if (entry == wanted_.end())
        boost::throw_exception(tarvek::invalid_argument(
            str::join("fd: ", std::to_string(fd), " not found, cannot be modified")));
    entry->second = events;
    if (control(epoll_.fd(), EPOLL_CTL_MOD, fd, events) < 0)
        boost::throw_exception(
            tarvek::system_error(errno, str::join("epoll_ctl failed to modify fd ", std::to_string(fd),
                                                  " with events ", std::to_string(events))));
}

void EPollFD::enable(int fd, bool on)
{
    std::lock_guard const lock(mutex_);
    // operator[] enters an unknown descriptor with the mask 0, which is then what it wants.
    unsigned const events = on ? wanted_[fd] : 0U;
    if (control(epoll_.fd(), EPOLL_CTL_MOD, fd, events) < 0)
        boost::throw_exception(tarvek::system_error(
            errno, str::join("epoll failed to ", on ? "enable" : "disable", " fd ", std::to_string(fd))));
}

} // namespace tarvek::common
