// SPDX-License-Identifier: LGPL-2.1-or-later
// Injector: the borrower's handle of an executor, by which code that doesn't own one hands
// it work. Copied freely, it keeps the shared state alive and never closes it; a default
// constructed or moved-from Injector has no state. Its value isn't guarded: each thread uses
// its own copy or one that doesn't change.
//
// make_exception_future: a future that has failed already, so that a function returning a
// future reports an early failure the same way as a late one.
#pragma once

#include <tarvek/executors/executor_base.hpp>
#include <tarvek/executors/executor_state.hpp>

#include <boost/thread/future.hpp>

#include <memory>
#include <type_traits>

namespace tarvek::detail::executors {

class Injector {
public:
    Injector() = default;
    // Implicit: wherever a borrower's handle is wanted, the owner's will do. Empty if the
    // executor has been closed.
    Injector(ExecutorBase& executor) : state_(executor.state()) {}

    // Queues `function` (any callable without arguments, move-only ones included) without
    // waiting for it. Raises tarvek::invalid_state_error "Injector.submit(): Executor is
    // closed" without a state, and "Executor is already closed" from a closed one; either
    // way the function is destroyed unrun, and a promise in it breaks. Safe to call under
    // the provider's locks: it takes only the executor's leaf lock.
    template <class F>
    void submit(F function) const;

    // Attaches `function`, which takes the completed boost::future<T>, so that it runs in
    // this executor's run-dry loop rather than on the completing thread. On a ready future
    // the continuation is queued at once, on the calling thread, and submit's failures
    // raise out of here; otherwise they raise on the completing thread. The Injector must
    // have a state.
    template <class T, class F>
    auto then(boost::future<T>&& future, F function) const
        -> boost::future<std::invoke_result_t<F&, boost::future<T>>>;

private:
    std::shared_ptr<IExecutorSharedState> state_;
};

} // namespace tarvek::detail::executors

namespace tarvek {

// A ready future that rethrows E(arguments...), with its class and message, from get().
template <class T, class E, class... Args>
boost::future<T> make_exception_future(Args&&... arguments);

} // namespace tarvek

#include <tarvek/executors/injector-inl.hpp>
