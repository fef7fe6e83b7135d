// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>
#include <tarvek/executors/executor_base.hpp>

#include <boost/throw_exception.hpp>

namespace tarvek::detail::executors {

namespace {

[[noreturn]] void raise_closed()
{
    boost::throw_exception(tarvek::invalid_state_error("Executor is already closed"));
}

} // namespace

ExecutorBase::ExecutorBase() : state_(std::make_shared<PollableLoopExecutorSharedState>()) {}

ExecutorBase& ExecutorBase::operator=(ExecutorBase&& other)
{
    if (this != &other) {
        close();
        state_ = std::move(other.state_);
    }
    return *this;
}

void ExecutorBase::run_dry()
{
    while (true) {
        if (!state_)
            raise_closed();
        if (!state_->try_executing_one())
            return;
    }
}

int ExecutorBase::event_fd() const
{
    if (!state_)
        raise_closed();
    // Every state this class makes is pollable.
    return static_cast<PollableLoopExecutorSharedState&>(*state_).event().fd();
}

void ExecutorBase::close()
{
    if (!state_)
        return;
    // Let go first, so that the handle is empty even when waking a waiter fails.
    auto const state = std::move(state_);
    state->close();
}

} // namespace tarvek::detail::executors
