// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/executors/executor_base.hpp>
#include <tarvek/executors/injector.hpp>

#include <gtest/gtest.h>

#include <boost/thread/future.hpp>

#include <chrono>
#include <poll.h>
#include <thread>

using tarvek::detail::executors::ExecutorBase;
using tarvek::detail::executors::Injector;

TEST(InjectorConcurrency, ContinuationRunsOnTheDrivingThreadNotTheCompletingOne)
{
    ExecutorBase executor;
    boost::promise<int> promise;
    std::thread::id ran_on;
    boost::future<int> result =
        Injector(executor).then(promise.get_future(), [&ran_on](boost::future<int> value) {
            ran_on = std::this_thread::get_id();
            return value.get() + 1;
        });
    std::thread completer([&promise] { promise.set_value(1); });
    completer.join();

    pollfd entry{executor.event_fd(), POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 10000), 1);
    executor.run_dry();
    EXPECT_EQ(ran_on, std::this_thread::get_id());
    ASSERT_TRUE(result.is_ready());
    EXPECT_EQ(result.get(), 2);
}

TEST(InjectorConcurrency, RoundTripBetweenTwoExecutorsOnTwoThreads)
{
    ExecutorBase object_executor;
    ExecutorBase server_executor;
    Injector object(object_executor);
    boost::promise<int> promise;
    boost::future<int> request = promise.get_future();
    object.submit([promise = std::move(promise)]() mutable { promise.set_value(20); });
    std::thread::id answered_on;
    boost::future<int> answer =
        Injector(server_executor).then(std::move(request), [&answered_on](boost::future<int> value) {
            answered_on = std::this_thread::get_id();
            return value.get() * 2;
        });

    std::thread object_thread([&object_executor] {
        pollfd entry{object_executor.event_fd(), POLLIN, 0};
        if (::poll(&entry, 1, 10000) == 1)
            object_executor.run_dry();
    });
    pollfd entry{server_executor.event_fd(), POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 10000), 1);
    server_executor.run_dry();
    object_thread.join();
    EXPECT_EQ(answered_on, std::this_thread::get_id());
    EXPECT_EQ(answer.get(), 40);
}
