// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek::Executor: the application's handle of an executor that someone else drives,
// such as the main loop or a worker of a server::Service. It names where objects run
// (Service::add_object) and takes work for that thread (post, then). Copied freely and
// used from any thread; a copy keeps the queue alive but never closes it, and the
// executor's owner must outlive every object built on it. A default-constructed handle
// names no executor: post raises, and it cannot carry objects.
#pragma once

#include <tarvek/executors/injector.hpp>

#include <boost/thread/future.hpp>

#include <type_traits>
#include <utility>

namespace tarvek {

class Executor {
public:
    Executor() = default;
    explicit Executor(detail::executors::ExecutorBase& owner)
        : owner_(&owner)
        , injector_(owner)
    {
    }

    // Queues `function` (any callable without arguments, move-only ones too) to run on the
    // executor's thread, after what was queued before; never runs it on the caller's
    // thread. Raises tarvek::invalid_state_error once the executor has closed (its owner
    // has stopped for good), and the function is then destroyed unrun.
    template <class F> void post(F function) const { injector_.submit(std::move(function)); }

    // Runs `function(completed_future)` on the executor's thread once `future` is ready.
    template <class T, class F>
    auto then(boost::future<T>&& future, F function) const
        -> boost::future<std::invoke_result_t<F&, boost::future<T>>>
    {
        return injector_.then(std::move(future), std::move(function));
    }

    explicit operator bool() const noexcept { return owner_ != nullptr; }
    bool operator==(Executor const& other) const noexcept { return owner_ == other.owner_; }

    // The owner's handle, for tarvek::Object's constructor; only valid while the owner lives.
    detail::executors::ExecutorBase& base() const noexcept { return *owner_; }

private:
    detail::executors::ExecutorBase* owner_ = nullptr;
    detail::executors::Injector injector_;
};

} // namespace tarvek
