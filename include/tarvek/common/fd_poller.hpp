// SPDX-License-Identifier: LGPL-2.1-or-later
// FDPoller: a single-threaded event loop over poll(2) that is also an executor, offered to
// applications as their main loop. One thread calls loop(); each pass commits the staged
// additions, waits in poll without time-out, then calls the handler of every descriptor
// with events, in a fixed order: the wake-up counter, the poller's own executor (run dry,
// so tasks submitted to executor() run on the loop thread between handlers), then the
// application's descriptors in order of commit.
//
// Other threads may call add(int, short, ...), stop, wakeup, settle and is_looping at any
// time; additions are staged and take effect at the start of the next pass. A handler may
// call add and stop, but never settle. Everything else (clear, moving, merging) is for a
// poller that does not loop. The mutex is held only for book-keeping, never during poll or
// a handler. Of two pollers' mutexes, the source's is always taken first.
//
// There is no destructor of its own: a poller must not be destroyed while it loops.
#pragma once

#include <tarvek/common/file_descriptor.hpp>
#include <tarvek/executors/executor_base.hpp>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <poll.h>
#include <vector>

namespace tarvek::common {

class FDPoller {
public:
    // Receives the descriptor's entry with revents as poll set it; it may change `events`
    // for the next pass. Any non-zero revents calls it, POLLERR, POLLHUP and POLLNVAL
    // included, so it must deal with those itself or see them again at once.
    using Handler = std::function<void(pollfd&)>;

    FDPoller();
    // Raises tarvek::internal_error "Cannot move from a looping FDPoller". The wake-up
    // counter has been taken by then and is not given back: a refused move leaves `other`
    // unable to wakeup or stop. Tasks and handles of other's executor carry over.
    FDPoller(FDPoller&& other);
    FDPoller& operator=(FDPoller&&) = delete;

    // Stages `fd`; committed at the start of the next pass. No check for duplicates: a
    // descriptor may stand twice, each entry with its own handler.
    void add(int fd, short events, Handler handler);
    // Moves `other`'s descriptors here: its active ones at once, its staged ones staged. Its
    // built-in descriptors and its executor stay with it. This poller must not loop.
    // Raises tarvek::internal_error "Cannot add() a looping FDPoller".
    void add(FDPoller&& other);
    // Removes every descriptor of the application, staged ones included. Raises
    // tarvek::internal_error "Cannot clear() a looping FDPoller".
    void clear();

    // Runs passes until stop(); the exception of a pass ends it with is_looping() false,
    // and a later loop() goes on with the next pass.
    void loop();
    // Ends loop() after the current pass; lost if it comes before loop() has begun.
    void stop();
    bool is_looping() const noexcept { return looping_; }

    // For threads other than the loop thread: returns once everything staged before the
    // call has been committed and polled, and the handlers running at the call have ended.
    // Never returns while no loop runs.
    void settle();
    void wakeup() { event_fd_.increment(1); }

    // One pass. Raises tarvek::system_error if poll fails, EINTR included, and lets a
    // handler's exception through, skipping the rest of the pass.
    void poll_and_run();
    void commit_additions();

    // The built-in handlers of entries 0 and 1. on_executor raises
    // tarvek::invalid_state_error "Executor is already closed" once the executor is gone.
    void on_event_fd() { event_fd_.poll(); }
    void on_executor() { executor_.run_dry(); }

    // The poller's executor, for objects that are to run on the loop thread.
    detail::executors::ExecutorBase& executor() noexcept { return executor_; }

private:
    // Points entries 0 and 1 at this object's wake-up counter and executor. Raises
    // tarvek::invalid_state_error "Executor is already closed".
    void bind_builtin_entries();

    std::vector<pollfd> fds_;
    std::vector<Handler> handlers_;
    EventFd event_fd_;
    std::atomic<bool> looping_;
    detail::executors::ExecutorBase executor_;
    std::mutex mutex_;
    std::condition_variable committed_;
    std::vector<pollfd> pending_fds_;
    std::vector<Handler> pending_handlers_;
};

} // namespace tarvek::common
