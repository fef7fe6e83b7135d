// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/fd_poller.hpp>

#include <boost/throw_exception.hpp>

#include <cerrno>
#include <iterator>

namespace tarvek::common {

namespace {

// Entries 0 and 1 of the active set belong to the poller itself.
constexpr std::size_t builtin_entries = 2;

template <class T>
void append(std::vector<T>& to, std::vector<T>& from, std::size_t first)
{
    to.insert(to.end(), std::make_move_iterator(from.begin() + static_cast<std::ptrdiff_t>(first)),
              std::make_move_iterator(from.end()));
}

} // namespace

FDPoller::FDPoller() : looping_(false)
{
    add(event_fd_.fd(), POLLIN, [this](pollfd&) { on_event_fd(); });
    add(executor_.event_fd(), POLLIN, [this](pollfd&) { on_executor(); });
    // Both additions have incremented the wake-up counter, so the first pass returns from
    // poll at once; harmless.
    commit_additions();
}

FDPoller::FDPoller(FDPoller&& other) : event_fd_(std::move(other.event_fd_)), looping_(false)
{
    std::lock_guard const lock(other.mutex_);
    if (other.looping_)
        boost::throw_exception(tarvek::internal_error("Cannot move from a looping FDPoller"));
    executor_ = std::move(other.executor_);
    fds_ = std::move(other.fds_);
    handlers_ = std::move(other.handlers_);
    pending_fds_ = std::move(other.pending_fds_);
    pending_handlers_ = std::move(other.pending_handlers_);
    bind_builtin_entries();
    other.fds_.clear();
    other.handlers_.clear();
    other.pending_fds_.clear();
    other.pending_handlers_.clear();
}

void FDPoller::bind_builtin_entries()
{
    int const executor_fd = executor_.event_fd();
    // A merged-from source has no entries at all.
    if (fds_.size() < builtin_entries) {
        fds_.resize(builtin_entries);
        handlers_.resize(builtin_entries);
    }
    fds_[0] = {event_fd_.fd(), POLLIN, 0};
    fds_[1] = {executor_fd, POLLIN, 0};
    handlers_[0] = [this](pollfd&) { on_event_fd(); };
    handlers_[1] = [this](pollfd&) { on_executor(); };
}

void FDPoller::add(int fd, short events, Handler handler)
{
    std::lock_guard const lock(mutex_);
    pending_fds_.push_back({fd, events, 0});
    pending_handlers_.push_back(std::move(handler));
    // Brings a loop waiting in poll round to commit.
    wakeup();
}

void FDPoller::add(FDPoller&& other)
{
    std::lock_guard const source_lock(other.mutex_);
    std::lock_guard const lock(mutex_);
    if (other.looping_)
        boost::throw_exception(tarvek::internal_error("Cannot add() a looping FDPoller"));
    if (other.fds_.size() > builtin_entries) {
        append(fds_, other.fds_, builtin_entries);
        append(handlers_, other.handlers_, builtin_entries);
    }
    append(pending_fds_, other.pending_fds_, 0);
    append(pending_handlers_, other.pending_handlers_, 0);
    other.fds_.clear();
    other.handlers_.clear();
    other.pending_fds_.clear();
    other.pending_handlers_.clear();
    wakeup();
}

void FDPoller::clear()
{
    std::lock_guard const lock(mutex_);
    if (looping_)
        boost::throw_exception(tarvek::internal_error("Cannot clear() a looping FDPoller"));
    fds_.resize(builtin_entries);
    handlers_.resize(builtin_entries);
    pending_fds_.clear();
    pending_handlers_.clear();
}

void FDPoller::loop()
{
    looping_ = true;
    try {
        while (looping_)
            poll_and_run();
    } catch (...) {
        looping_ = false;
        throw;
    }
    looping_ = false;
}

void FDPoller::stop()
{
    bool expected = true;
    if (looping_.compare_exchange_strong(expected, false))
        wakeup();
}

void FDPoller::settle()
{
    // No predicate: each commit notifies, and the second wait can only be satisfied by a
    // pass that began after the first. A spurious wake-up shortens the barrier by one wait.
    std::unique_lock lock(mutex_);
    wakeup();
    committed_.wait(lock);
    wakeup();
    committed_.wait(lock);
}

void FDPoller::poll_and_run()
{
    commit_additions();
    auto const n = fds_.size();
    int const ready = ::poll(fds_.data(), n, -1);
    if (ready < 0)
        boost::throw_exception(tarvek::system_error(errno));
    if (ready == 0 || n == 0)
        return;
    // Indexed afresh for each entry and called in place: a pass allocates nothing, and
    // the vectors keep their size because additions are staged.
    for (std::size_t i = 0; i < n; ++i) {
        if (fds_[i].revents != 0)
            handlers_[i](fds_[i]);
    }
}

void FDPoller::commit_additions()
{
    std::lock_guard const lock(mutex_);
    append(fds_, pending_fds_, 0);
    append(handlers_, pending_handlers_, 0);
    pending_fds_.clear();
    pending_handlers_.clear();
    committed_.notify_all();
}

} // namespace tarvek::common
