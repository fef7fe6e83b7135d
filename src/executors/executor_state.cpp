// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>
#include <tarvek/executors/executor_state.hpp>

#include <boost/throw_exception.hpp>

namespace tarvek::detail::executors {

void LoopExecutorSharedState::submit(work&& task)
{
    bool was_empty = false;
    {
        std::lock_guard const lock(mutex_);
        if (closed_flag_)
            boost::throw_exception(tarvek::invalid_state_error("Executor is already closed"));
        was_empty = queue_.empty();
        queue_.push_back(std::move(task));
    }
    // Outside the lock, so that a waiter woken by the hook finds the queue free.
    if (was_empty)
        on_work_queued();
}

bool LoopExecutorSharedState::try_executing_one()
{
    work task;
    {
        std::lock_guard const lock(mutex_);
        if (queue_.empty())
            return false;
        task = std::move(queue_.front());
        queue_.pop_front();
        // Under the lock, so that no submit comes between the check and the read of the
        // counter and has its wake-up swallowed.
        if (queue_.empty())
            on_queue_drained();
    }
    // No lock while the task runs: it may submit here, and a long task delays nobody.
    task();
    return true;
}

void LoopExecutorSharedState::close()
{
    std::lock_guard const lock(mutex_);
    if (closed_flag_)
        return;
    closed_flag_ = true;
    while (!queue_.empty())
        queue_.pop_front();
    // Wakes a waiter so that it notices the end.
    on_work_queued();
}

bool LoopExecutorSharedState::closed() const
{
    std::lock_guard const lock(mutex_);
    return closed_flag_;
}

} // namespace tarvek::detail::executors
