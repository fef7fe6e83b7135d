// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>
#include <tarvek/executors/executor_base.hpp>
#include <tarvek/executors/inline_executor.hpp>

#include <common/descriptor_helpers.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/thread/future.hpp>

#include <memory>
#include <stdexcept>
#include <thread>
#include <unistd.h>
#include <vector>

using tarvek::detail::executors::ExecutorBase;
using tarvek::detail::executors::IExecutorSharedState;
using tarvek::detail::executors::PollableLoopExecutorSharedState;
using tarvek::detail::executors::work;
using tarvek::test::is_open;
using tarvek::test::is_readable;
using testing::ElementsAre;
using testing::StrEq;
using testing::ThrowsMessage;

TEST(ExecutorBase, CreatesAPollableStateWhoseDescriptorIsOpen)
{
    ExecutorBase executor;
    auto* const state = dynamic_cast<PollableLoopExecutorSharedState*>(executor.state().get());
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(executor.event_fd(), state->event().fd());
    EXPECT_TRUE(is_open(executor.event_fd()));
    EXPECT_FALSE(state->closed());
}

TEST(ExecutorBase, RunDryRunsTheQueueIncludingTasksQueuedMeanwhile)
{
    ExecutorBase executor;
    std::vector<int> order;
    IExecutorSharedState& state = *executor.state();
    state.submit(work([&] {
        order.push_back(1);
        state.submit(work([&order] { order.push_back(3); }));
    }));
    state.submit(work([&order] { order.push_back(2); }));
    executor.run_dry();
    EXPECT_THAT(order, ElementsAre(1, 2, 3));
    EXPECT_FALSE(is_readable(executor.event_fd()));
}

TEST(ExecutorBase, RunDryLetsATasksExceptionThroughWithTheRestQueued)
{
    ExecutorBase executor;
    bool second_ran = false;
    executor.state()->submit(work([] { throw std::runtime_error("task failed"); }));
    executor.state()->submit(work([&second_ran] { second_ran = true; }));
    EXPECT_THAT([&] { executor.run_dry(); }, ThrowsMessage<std::runtime_error>(StrEq("task failed")));
    EXPECT_FALSE(second_ran);
    executor.run_dry();
    EXPECT_TRUE(second_ran);
}

TEST(ExecutorBase, RunDryLooksUpTheStateAfreshOnEachPass)
{
    ExecutorBase executor;
    executor.state()->submit(work([&executor] { executor.close(); }));
    EXPECT_THAT([&] { executor.run_dry(); },
                ThrowsMessage<tarvek::invalid_state_error>(StrEq("Executor is already closed")));
}

TEST(ExecutorBase, RunDryOnAClosedExecutorRaises)
{
    ExecutorBase executor;
    executor.close();
    EXPECT_THAT([&] { executor.run_dry(); },
                ThrowsMessage<tarvek::invalid_state_error>(StrEq("Executor is already closed")));
}

TEST(ExecutorBase, EventFdOfAClosedExecutorRaises)
{
    ExecutorBase executor;
    executor.close();
    EXPECT_THAT([&] { executor.event_fd(); },
                ThrowsMessage<tarvek::invalid_state_error>(StrEq("Executor is already closed")));
}

TEST(ExecutorBase, CloseClosesAndReleasesTheStateAndIsIdempotent)
{
    ExecutorBase executor;
    std::weak_ptr<IExecutorSharedState> const watched = executor.state();
    int const descriptor = executor.event_fd();
    executor.close();
    EXPECT_EQ(executor.state(), nullptr);
    EXPECT_TRUE(watched.expired());
    EXPECT_FALSE(is_open(descriptor));
    EXPECT_NO_THROW(executor.close());
}

TEST(ExecutorBase, DestructionClosesTheState)
{
    auto executor = std::make_unique<ExecutorBase>();
    std::shared_ptr<IExecutorSharedState> const state = executor->state();
    executor.reset();
    EXPECT_TRUE(state->closed());
}

TEST(ExecutorBase, MoveConstructionTakesTheState)
{
    ExecutorBase source;
    auto const* const state = source.state().get();
    ExecutorBase target(std::move(source));
    EXPECT_EQ(target.state().get(), state);
    EXPECT_EQ(source.state(), nullptr); // NOLINT(bugprone-use-after-move)
    EXPECT_FALSE(target.state()->closed());
}

TEST(ExecutorBase, MoveAssignmentClosesTheStateItHeldBefore)
{
    ExecutorBase source;
    ExecutorBase target;
    std::shared_ptr<IExecutorSharedState> const replaced = target.state();
    auto const* const taken = source.state().get();
    target = std::move(source);
    EXPECT_TRUE(replaced->closed());
    EXPECT_EQ(target.state().get(), taken);
    EXPECT_FALSE(target.state()->closed());
    EXPECT_EQ(source.state(), nullptr); // NOLINT(bugprone-use-after-move)
}

TEST(ExecutorBase, FailedCloseStillReleasesTheState)
{
    ExecutorBase executor;
    std::uint64_t const full = 0xfffffffffffffffeU;
    ASSERT_EQ(::write(executor.event_fd(), &full, sizeof full), static_cast<ssize_t>(sizeof full));
    std::shared_ptr<IExecutorSharedState> const state = executor.state();
    EXPECT_THROW(executor.close(), tarvek::system_error);
    EXPECT_EQ(executor.state(), nullptr);
    EXPECT_TRUE(state->closed());
}

TEST(ExecutorBaseDeathTest, DestructionEndsTheProcessWhenWakingAWaiterFails)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            ExecutorBase executor;
            std::uint64_t const full = 0xfffffffffffffffeU;
            if (::write(executor.event_fd(), &full, sizeof full) != static_cast<ssize_t>(sizeof full))
                std::exit(0);
        },
        "");
}

TEST(InlineExecutor, RunsAContinuationAtOnceOnTheCompletingThread)
{
    EXPECT_FALSE(tarvek::inline_executor.closed());
    boost::promise<int> promise;
    std::thread::id ran_on;
    auto continued = promise.get_future().then(tarvek::inline_executor, [&ran_on](boost::future<int> value) {
        ran_on = std::this_thread::get_id();
        return value.get() + 1;
    });
    std::thread::id completed_on;
    std::thread completer([&] {
        completed_on = std::this_thread::get_id();
        promise.set_value(41);
    });
    completer.join();
    EXPECT_EQ(ran_on, completed_on);
    EXPECT_TRUE(continued.is_ready());
    EXPECT_EQ(continued.get(), 42);
}
