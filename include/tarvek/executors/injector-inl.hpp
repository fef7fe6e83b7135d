// SPDX-License-Identifier: LGPL-2.1-or-later
// Template bodies of injector.hpp; included at its end only.
#pragma once

#include <tarvek/common/exceptions.hpp>

#include <boost/exception_ptr.hpp>
#include <boost/throw_exception.hpp>

#include <utility>

namespace tarvek::detail::executors {

template <class F>
void Injector::submit(F function) const
{
    // The closure is built before the check: simple, and the failure path is rare.
    work task(std::move(function));
    if (!state_) {
        // A plain throw: callers catch and convert this at once, and it never travels
        // through a future.
        throw tarvek::invalid_state_error("Injector.submit(): Executor is closed");
    }
    state_->submit(std::move(task));
}

template <class T, class F>
auto Injector::then(boost::future<T>&& future, F function) const
    -> boost::future<std::invoke_result_t<F&, boost::future<T>>>
{
    // Boost adapts the state through an executor_ref, which holds only a reference; the
    // copy of the Injector in the closure keeps the state alive while it is pending.
    return future.then(*state_, [injector = *this, function = std::move(function)](
                                    boost::future<T> completed) mutable {
        return function(std::move(completed));
    });
}

} // namespace tarvek::detail::executors

namespace tarvek {

template <class T, class E, class... Args>
boost::future<T> make_exception_future(Args&&... arguments)
{
    boost::promise<T> promise;
    // Raising and catching yields a captured exception that get() rethrows as E.
    try {
        boost::throw_exception(E(std::forward<Args>(arguments)...));
    } catch (...) {
        promise.set_exception(boost::current_exception());
    }
    return promise.get_future();
}

} // namespace tarvek
