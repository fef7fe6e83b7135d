// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/fd_poller.hpp>
#include <tarvek/common/file_descriptor.hpp>
#include <tarvek/executors/injector.hpp>

#include <gtest/gtest.h>

#include <boost/thread/future.hpp>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

using tarvek::common::EventFd;
using tarvek::common::FDPoller;
using tarvek::detail::executors::Injector;

namespace {

constexpr auto time_limit = std::chrono::seconds(10);

// Runs a poller's loop on its own thread; stops and joins it at the end. Declared after
// everything its handlers use, so that the loop has ended before those go.
class LoopThread {
public:
    explicit LoopThread(FDPoller& poller) : poller_(poller), thread_([this] { poller_.loop(); })
    {
        auto const deadline = std::chrono::steady_clock::now() + time_limit;
        while (!poller_.is_looping() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
    }
    LoopThread(LoopThread const&) = delete;
    LoopThread& operator=(LoopThread const&) = delete;
    ~LoopThread()
    {
        poller_.stop();
        thread_.join();
    }

    std::thread::id id() const { return thread_.get_id(); }

private:
    FDPoller& poller_;
    std::thread thread_;
};

} // namespace

TEST(FDPollerConcurrency, SettleReturnsWithAnEarlierAdditionCommittedAndPolled)
{
    FDPoller poller;
    EventFd event;
    event.increment(1);
    std::atomic<bool> handled = false;
    LoopThread const loop(poller);
    poller.add(event.fd(), POLLIN, [&handled, &event](pollfd&) {
        event.poll();
        handled = true;
    });
    poller.settle();
    EXPECT_TRUE(handled);
}

TEST(FDPollerConcurrency, SettleWithoutARunningLoopWaitsUntilOneRuns)
{
    FDPoller poller;
    auto settled = std::async(std::launch::async, [&poller] { poller.settle(); });
    EXPECT_EQ(settled.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    {
        LoopThread const loop(poller);
        EXPECT_EQ(settled.wait_for(time_limit), std::future_status::ready);
    }
}

TEST(FDPollerConcurrency, StopFromAnotherThreadEndsTheLoop)
{
    FDPoller poller;
    auto looped = std::async(std::launch::async, [&poller] { poller.loop(); });
    auto const deadline = std::chrono::steady_clock::now() + time_limit;
    while (!poller.is_looping() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    ASSERT_TRUE(poller.is_looping());
    poller.stop();
    ASSERT_EQ(looped.wait_for(time_limit), std::future_status::ready);
    looped.get();
    EXPECT_FALSE(poller.is_looping());
}

TEST(FDPollerConcurrency, SubmittedTaskWakesTheLoopAndRunsOnItsThread)
{
    FDPoller poller;
    LoopThread const loop(poller);
    std::promise<std::thread::id> ran_on;
    auto result = ran_on.get_future();
    Injector(poller.executor()).submit([&ran_on] { ran_on.set_value(std::this_thread::get_id()); });
    ASSERT_EQ(result.wait_for(time_limit), std::future_status::ready);
    EXPECT_EQ(result.get(), loop.id());
}

TEST(FDPollerConcurrency, AdditionsFromManyThreadsWhileLoopingAllGetHandled)
{
    FDPoller poller;
    constexpr int adders = 4;
    EventFd events[adders];
    std::atomic<int> handled = 0;
    LoopThread const loop(poller);
    std::vector<std::thread> threads;
    for (int i = 0; i < adders; ++i) {
        threads.emplace_back([&, i] {
            events[i].increment(1);
            poller.add(events[i].fd(), POLLIN, [&handled, &event = events[i]](pollfd&) {
                if (event.poll() != 0)
                    ++handled;
            });
        });
    }
    for (auto& thread : threads)
        thread.join();
    poller.settle();
    EXPECT_EQ(handled, adders);
}

TEST(FDPollerConcurrency, HopToTheLoopAndBackToTheCallersExecutor)
{
    FDPoller poller;
    tarvek::detail::executors::ExecutorBase home;
    LoopThread const loop(poller);
    boost::promise<int> promise;
    boost::future<int> answer = Injector(home).then(promise.get_future(), [](boost::future<int> value) {
        return value.get() + 1;
    });
    Injector(poller.executor()).submit([promise = std::move(promise)]() mutable { promise.set_value(41); });
    pollfd entry{home.event_fd(), POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 10000), 1);
    home.run_dry();
    EXPECT_EQ(answer.get(), 42);
}
