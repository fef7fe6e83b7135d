// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/file_descriptor.hpp>
#include <tarvek/executors/executor_state.hpp>

#include <common/descriptor_helpers.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

using tarvek::common::EventFd;
using tarvek::detail::executors::IExecutorSharedState;
using tarvek::detail::executors::PollableLoopExecutorSharedState;
using tarvek::detail::executors::work;
using tarvek::test::is_readable;
using tarvek::test::raises_system_error;
using testing::ElementsAre;
using testing::StrEq;
using testing::ThrowsMessage;

namespace {

// Sets the counter to its largest value, so that the next write fails with EAGAIN.
void fill_counter(int fd)
{
    std::uint64_t const value = 0xfffffffffffffffeU;
    ASSERT_EQ(::write(fd, &value, sizeof value), static_cast<ssize_t>(sizeof value));
}

// Logs its name when destroyed, so that tests see when and in which order tasks go.
struct Token {
    Token(std::vector<std::string>& destination, std::string label) : log(destination), name(std::move(label)) {}
    Token(Token const&) = delete;
    Token& operator=(Token const&) = delete;
    ~Token() { log.push_back("~" + name); }

    std::vector<std::string>& log;
    std::string name;
};

work token_task(std::vector<std::string>& log, std::string const& name)
{
    return work([token = std::make_shared<Token>(log, name)] { token->log.push_back(token->name); });
}

} // namespace

class PollableStateTest : public testing::Test {
protected:
    int event_fd() { return state.event().fd(); }

    PollableLoopExecutorSharedState state;
};

TEST_F(PollableStateTest, DescriptorIsReadableExactlyWhileTheQueueHasWork)
{
    EXPECT_FALSE(is_readable(event_fd()));
    state.submit(work([] {}));
    EXPECT_TRUE(is_readable(event_fd()));
    EXPECT_TRUE(state.try_executing_one());
    EXPECT_FALSE(is_readable(event_fd()));
}

TEST_F(PollableStateTest, TwoSubmitsStayReadableUntilTheSecondTaskHasRun)
{
    state.submit(work([] {}));
    state.submit(work([] {}));
    ASSERT_TRUE(state.try_executing_one());
    EXPECT_TRUE(is_readable(event_fd()));
    ASSERT_TRUE(state.try_executing_one());
    EXPECT_FALSE(is_readable(event_fd()));
}

TEST_F(PollableStateTest, ABurstOfSubmitsWritesTheDescriptorOnce)
{
    for (int i = 0; i < 100; ++i)
        state.submit(work([] {}));
    EXPECT_EQ(EventFd::poll_fd(event_fd()), 1U);
}

TEST_F(PollableStateTest, EachTransitionFromEmptyWritesOnceMore)
{
    state.submit(work([] {}));
    state.submit(work([] {}));
    while (state.try_executing_one()) {
    }
    state.submit(work([] {}));
    state.submit(work([] {}));
    EXPECT_EQ(EventFd::poll_fd(event_fd()), 1U);
}

TEST_F(PollableStateTest, TasksRunInSubmissionOrder)
{
    std::vector<int> order;
    for (int i = 0; i < 5; ++i)
        state.submit(work([&order, i] { order.push_back(i); }));
    while (state.try_executing_one()) {
    }
    EXPECT_THAT(order, ElementsAre(0, 1, 2, 3, 4));
}

TEST_F(PollableStateTest, TryExecutingOneOnAnEmptyQueueReturnsFalse) { EXPECT_FALSE(state.try_executing_one()); }

TEST_F(PollableStateTest, CloseLeavesTheDescriptorReadableForGood)
{
    state.close();
    EXPECT_TRUE(state.closed());
    EXPECT_TRUE(is_readable(event_fd()));
    EXPECT_FALSE(state.try_executing_one());
    EXPECT_TRUE(is_readable(event_fd()));
}

TEST_F(PollableStateTest, SecondCloseDoesNothingAndWritesNothing)
{
    state.close();
    state.close();
    EXPECT_TRUE(state.closed());
    EXPECT_EQ(EventFd::poll_fd(event_fd()), 1U);
}

TEST_F(PollableStateTest, CloseDestroysQueuedTasksUnrunOldestFirstAndWakesTheWaiter)
{
    std::vector<std::string> log;
    state.submit(token_task(log, "first"));
    state.submit(token_task(log, "second"));
    state.close();
    EXPECT_THAT(log, ElementsAre("~first", "~second"));
    // One write for the queue's first task, one for the close.
    EXPECT_EQ(EventFd::poll_fd(event_fd()), 2U);
}

TEST_F(PollableStateTest, TryExecutingOneOnAClosedStateReturnsFalse)
{
    state.submit(work([] {}));
    state.close();
    EXPECT_FALSE(state.try_executing_one());
}

TEST_F(PollableStateTest, SubmitOnAClosedStateRaisesAndLeavesTheTaskWithTheCaller)
{
    state.close();
    bool ran = false;
    work task([&ran] { ran = true; });
    EXPECT_THAT([&] { state.submit(std::move(task)); },
                ThrowsMessage<tarvek::invalid_state_error>(StrEq("Executor is already closed")));
    task(); // NOLINT(bugprone-use-after-move): refused, so still the caller's
    EXPECT_TRUE(ran);
}

TEST_F(PollableStateTest, SubmitFromARunningTaskRunsInTheSameDrainWithoutAWriteWhileQueued)
{
    std::vector<std::string> log;
    IExecutorSharedState& executor = state;
    state.submit(work([&] {
        log.emplace_back("first");
        executor.submit(work([&log] { log.emplace_back("third"); }));
    }));
    state.submit(work([&log] { log.emplace_back("second"); }));
    ASSERT_TRUE(state.try_executing_one());
    // The queue still held "second", so the nested submit wrote nothing.
    EXPECT_EQ(EventFd::poll_fd(event_fd()), 1U);
    while (state.try_executing_one()) {
    }
    EXPECT_THAT(log, ElementsAre("first", "second", "third"));
}

TEST_F(PollableStateTest, SubmitFromTheLastRunningTaskWritesAfresh)
{
    bool nested_ran = false;
    IExecutorSharedState& executor = state;
    state.submit(work([&] { executor.submit(work([&nested_ran] { nested_ran = true; })); }));
    ASSERT_TRUE(state.try_executing_one());
    EXPECT_TRUE(is_readable(event_fd()));
    EXPECT_TRUE(state.try_executing_one());
    EXPECT_TRUE(nested_ran);
    EXPECT_FALSE(is_readable(event_fd()));
}

TEST_F(PollableStateTest, NullWorkIsAcceptedAndCountsAsRun)
{
    state.submit(work());
    EXPECT_TRUE(state.try_executing_one());
    EXPECT_FALSE(state.try_executing_one());
}

TEST_F(PollableStateTest, TaskExceptionLeavesTryExecutingOneAndTheRestStaysQueued)
{
    std::vector<std::string> log;
    auto token = std::make_shared<Token>(log, "failing");
    state.submit(work([token = std::move(token)] { throw std::runtime_error("task failed"); }));
    state.submit(work([&log] { log.emplace_back("next"); }));
    EXPECT_THAT([&] { state.try_executing_one(); }, ThrowsMessage<std::runtime_error>(StrEq("task failed")));
    EXPECT_THAT(log, ElementsAre("~failing"));
    EXPECT_TRUE(is_readable(event_fd()));
    EXPECT_TRUE(state.try_executing_one());
    EXPECT_THAT(log, ElementsAre("~failing", "next"));
}

TEST_F(PollableStateTest, FailingWakeUpInSubmitRaisesWithTheTaskQueued)
{
    fill_counter(event_fd());
    bool ran = false;
    EXPECT_THAT([&] { state.submit(work([&ran] { ran = true; })); }, raises_system_error(EAGAIN));
    EXPECT_TRUE(state.try_executing_one());
    EXPECT_TRUE(ran);
}

TEST_F(PollableStateTest, FailingDrainInTryExecutingOneDropsTheTaskAndReleasesTheLock)
{
    std::vector<std::string> log;
    state.submit(token_task(log, "task"));
    state.event().close();
    EXPECT_THAT([&] { state.try_executing_one(); }, testing::Throws<tarvek::system_error>());
    EXPECT_THAT(log, ElementsAre("~task"));
    // The lock is free again, and the queue is empty.
    EXPECT_FALSE(state.closed());
    EXPECT_FALSE(state.try_executing_one());
}

TEST_F(PollableStateTest, FailingWakeUpInCloseRaisesWithTheStateClosed)
{
    std::vector<std::string> log;
    state.submit(token_task(log, "task"));
    EventFd::poll_fd(event_fd());
    fill_counter(event_fd());
    EXPECT_THAT([&] { state.close(); }, raises_system_error(EAGAIN));
    EXPECT_TRUE(state.closed());
    EXPECT_THAT(log, ElementsAre("~task"));
}

namespace {

// Lets another party take the work between submit's unlock and its hook, once, as a second
// thread driving the executor could.
class DrainedBeforeTheHook : public PollableLoopExecutorSharedState {
public:
    bool steal_next = true;

protected:
    void on_work_queued() override
    {
        if (steal_next) {
            steal_next = false;
            while (try_executing_one()) {
            }
        }
        PollableLoopExecutorSharedState::on_work_queued();
    }
};

} // namespace

TEST(PollableLoopExecutorSharedState, ReadinessThatFindsNoWorkIsToleratedUntilTheNextDrain)
{
    DrainedBeforeTheHook state;
    int runs = 0;
    state.submit(work([&runs] { ++runs; }));
    EXPECT_EQ(runs, 1);
    // The late write leaves the descriptor readable with an empty queue.
    EXPECT_TRUE(is_readable(state.event().fd()));
    EXPECT_FALSE(state.try_executing_one());
    EXPECT_TRUE(is_readable(state.event().fd()));
    // The next drain reads the stale event away together with its own.
    state.submit(work([&runs] { ++runs; }));
    EXPECT_TRUE(state.try_executing_one());
    EXPECT_EQ(runs, 2);
    EXPECT_FALSE(is_readable(state.event().fd()));
}
