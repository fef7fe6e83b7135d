// SPDX-License-Identifier: LGPL-2.1-or-later
// The shared state of an executor: a queue of tasks that some thread chosen by the owner
// runs dry. Submitting never runs a task. The owner (ExecutorBase), every Injector made from
// it and every pending continuation share the state; the owner closes it, and the others
// may go on holding it, closed, until they let go.
//
// All operations may be called from any thread, also at once. Tasks driven by one thread run
// one at a time in submission order. The queue mutex is a leaf lock: it is taken under the
// locks of the provider runtime, and nothing is waited for while it is held.
#pragma once

#include <tarvek/common/file_descriptor.hpp>

#include <boost/thread/executors/work.hpp>

#include <deque>
#include <mutex>

namespace tarvek::detail::executors {

// A shared handle to a type-erased callable; a null one is legal and does nothing when run.
using work = boost::executors::work;

// The operation set of boost::executors::executor_ref (submit, try_executing_one, close,
// closed), by which boost::future::then can run a continuation here, plus two hooks.
// The order of the virtual operations is part of the library's ABI.
class IExecutorSharedState {
public:
    virtual ~IExecutorSharedState() = default;

    virtual void submit(work&& task) = 0;
    // Runs the oldest task, if there is one, on the calling thread.
    virtual bool try_executing_one() = 0;
    // Final: drops the queued tasks unrun.
    virtual void close() = 0;
    virtual bool closed() const = 0;

protected:
    // The queue has gone from empty to non-empty, or has been closed.
    virtual void on_work_queued() = 0;
    // The queue has just become empty; called with the queue mutex held.
    virtual void on_queue_drained() = 0;
};

class LoopExecutorSharedState : public IExecutorSharedState {
public:
    // Raises tarvek::invalid_state_error "Executor is already closed"; the task then stays
    // with the caller. A failing hook raises with the task queued already.
    void submit(work&& task) override;
    // A task's exception leaves through here to the driving thread; the task is gone and
    // those behind it stay queued.
    bool try_executing_one() override;
    // Destroys the queued tasks, oldest first, under the lock; a promise among them breaks
    // and may submit its continuation elsewhere at that moment, so no continuation of a
    // task queued here may be bound to this same executor.
    void close() override;
    bool closed() const override;

protected:
    void on_work_queued() override {}
    void on_queue_drained() override {}

private:
    mutable std::mutex mutex_;
    std::deque<work> queue_;
    bool closed_flag_ = false;
};

// Its descriptor is readable while the queue has work (and for good once closed), so that
// any event loop can wait for work without knowing the queue. A readiness that finds the
// queue empty is possible when another thread has taken the work in the meantime; a waiter
// must tolerate it. One write per transition to non-empty, one read per drain.
class PollableLoopExecutorSharedState : public LoopExecutorSharedState {
public:
    common::EventFd& event() noexcept { return event_; }

protected:
    void on_work_queued() override { event_.increment(1); }
    void on_queue_drained() override { event_.poll(); }

private:
    common::EventFd event_;
};

} // namespace tarvek::detail::executors
