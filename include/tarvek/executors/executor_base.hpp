// SPDX-License-Identifier: LGPL-2.1-or-later
// ExecutorBase: the owner's handle of an executor, and the type by which the library's
// interface names one. It creates a pollable state and carries the duty to close it;
// Injectors and pending continuations made from it share the state and never close it.
// The owners in the library (tarvek::Object, server::DBusServer, common::FDPoller) drive it
// the same way: put event_fd() into their poll set and call run_dry() when it is readable.
// The handle itself is not synchronised: one thread uses it at a time.
#pragma once

#include <tarvek/executors/executor_state.hpp>

#include <memory>

namespace tarvek::detail::executors {

class ExecutorBase {
public:
    // A new PollableLoopExecutorSharedState, made in one allocation with its control block.
    ExecutorBase();
    ExecutorBase(ExecutorBase&& other) noexcept = default;
    // Closes the state it held before taking the other's, as a descriptor handle does.
    ExecutorBase& operator=(ExecutorBase&& other);
    ExecutorBase(ExecutorBase const&) = delete;
    ExecutorBase& operator=(ExecutorBase const&) = delete;
    // Closes; a failure to wake a waiter then ends the process, as no destructor fails.
    ~ExecutorBase() { close(); }

    // Empty after close().
    std::shared_ptr<IExecutorSharedState> const& state() const noexcept { return state_; }

    // Runs tasks until the queue is empty, those queued meanwhile included; the state is
    // looked up afresh on each pass. Raises tarvek::invalid_state_error "Executor is already
    // closed", and lets a task's exception through with the tasks behind it still queued.
    void run_dry();

    // The descriptor that is readable while there is work, for a poll set. Raises
    // tarvek::invalid_state_error "Executor is already closed". Once closed, an owner must
    // take it out of its poll set: it stays readable for good.
    int event_fd() const;

    // Closes the state, dropping its queued tasks, and lets go of it. Idempotent.
    void close();

private:
    std::shared_ptr<IExecutorSharedState> state_;
};

} // namespace tarvek::detail::executors
