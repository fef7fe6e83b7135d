// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/fd_poller.hpp>
#include <tarvek/common/file_descriptor.hpp>
#include <tarvek/executors/injector.hpp>

#include <common/descriptor_helpers.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <thread>
#include <vector>

using tarvek::common::EventFd;
using tarvek::common::FDPoller;
using tarvek::common::FileDescriptor;
using tarvek::detail::executors::Injector;
using tarvek::test::exit_with_verdict;
using tarvek::test::raises_system_error;
using tarvek::test::refuse_system_calls;
using tarvek::test::system_code;
using testing::ElementsAre;
using testing::StrEq;
using testing::Throws;
using testing::ThrowsMessage;

namespace {

// A descriptor that stays readable until drained.
EventFd ready_event()
{
    EventFd event;
    event.increment(1);
    return event;
}

// A one-shot monotonic timer that becomes readable after `delay`.
FileDescriptor timer_after(std::chrono::milliseconds delay)
{
    FileDescriptor timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    itimerspec setting{};
    setting.it_value.tv_sec = static_cast<time_t>(delay.count() / 1000);
    setting.it_value.tv_nsec = static_cast<long>(delay.count() % 1000) * 1000000L;
    ::timerfd_settime(timer.fd(), 0, &setting, nullptr);
    return timer;
}

FDPoller::Handler record(std::vector<std::string>& log, std::string name)
{
    return [&log, name = std::move(name)](pollfd&) { log.push_back(name); };
}

} // namespace

TEST(FDPoller, PassRunsTheExecutorBeforeApplicationDescriptorsInOrderOfCommit)
{
    FDPoller poller;
    std::vector<std::string> log;
    EventFd const b = ready_event();
    EventFd const a = ready_event();
    poller.add(b.fd(), POLLIN, record(log, "b"));
    poller.add(a.fd(), POLLIN, record(log, "a"));
    Injector(poller.executor()).submit([&log] { log.emplace_back("executor"); });
    poller.poll_and_run();
    EXPECT_THAT(log, ElementsAre("executor", "b", "a"));
}

TEST(FDPoller, WakeUpCounterIsDrainedByThePassItEnds)
{
    FDPoller poller;
    FileDescriptor const timer = timer_after(std::chrono::milliseconds(50));
    int timer_calls = 0;
    poller.add(timer.fd(), POLLIN, [&timer_calls](pollfd&) { ++timer_calls; });
    poller.wakeup();
    poller.poll_and_run();
    ASSERT_EQ(timer_calls, 0);
    // Only the timer can end this pass if the wake-up counter was drained.
    poller.poll_and_run();
    EXPECT_EQ(timer_calls, 1);
}

TEST(FDPoller, HandlerAddedFromAHandlerFirstRunsInTheFollowingPass)
{
    FDPoller poller;
    EventFd const first = ready_event();
    EventFd const second = ready_event();
    std::vector<std::string> log;
    bool added = false;
    poller.add(first.fd(), POLLIN, [&](pollfd&) {
        log.emplace_back("first");
        if (!added) {
            added = true;
            poller.add(second.fd(), POLLIN, record(log, "second"));
        }
    });
    poller.poll_and_run();
    EXPECT_THAT(log, ElementsAre("first"));
    poller.poll_and_run();
    EXPECT_THAT(log, ElementsAre("first", "first", "second"));
}

TEST(FDPoller, StopFromAHandlerLetsTheRestOfThePassRunThenLoopReturns)
{
    FDPoller poller;
    EventFd const first = ready_event();
    EventFd const second = ready_event();
    std::vector<std::string> log;
    poller.add(first.fd(), POLLIN, [&](pollfd&) {
        log.emplace_back("first");
        poller.stop();
        EXPECT_FALSE(poller.is_looping());
    });
    poller.add(second.fd(), POLLIN, record(log, "second"));
    poller.loop();
    EXPECT_THAT(log, ElementsAre("first", "second"));
    EXPECT_FALSE(poller.is_looping());
}

TEST(FDPoller, StopBeforeLoopIsLost)
{
    FDPoller poller;
    poller.stop();
    EventFd const event = ready_event();
    int passes = 0;
    poller.add(event.fd(), POLLIN, [&](pollfd&) {
        ++passes;
        EXPECT_TRUE(poller.is_looping());
        poller.stop();
    });
    poller.loop();
    EXPECT_EQ(passes, 1);
}

TEST(FDPoller, TaskAndTheTaskItSubmitsRunInTheSamePassBeforeApplicationHandlers)
{
    FDPoller poller;
    std::vector<std::string> log;
    EventFd const event = ready_event();
    poller.add(event.fd(), POLLIN, record(log, "handler"));
    Injector injector(poller.executor());
    injector.submit([&log, injector]() mutable {
        log.emplace_back("task");
        injector.submit([&log] { log.emplace_back("follow-up"); });
    });
    poller.poll_and_run();
    EXPECT_THAT(log, ElementsAre("task", "follow-up", "handler"));
}

TEST(FDPoller, ExceptionFromAHandlerLeavesLoopAndASecondLoopGoesOn)
{
    FDPoller poller;
    EventFd const first = ready_event();
    EventFd const second = ready_event();
    std::vector<std::string> log;
    bool thrown = false;
    poller.add(first.fd(), POLLIN, [&](pollfd&) {
        log.emplace_back("first");
        if (!thrown) {
            thrown = true;
            throw std::runtime_error("handler failed");
        }
        poller.stop();
    });
    poller.add(second.fd(), POLLIN, record(log, "second"));
    EXPECT_THAT([&] { poller.loop(); }, ThrowsMessage<std::runtime_error>(StrEq("handler failed")));
    EXPECT_FALSE(poller.is_looping());
    // The skipped handler sees its still pending event in the next loop.
    poller.loop();
    EXPECT_THAT(log, ElementsAre("first", "first", "second"));
}

TEST(FDPoller, ClearOnAnIdlePollerKeepsOnlyTheBuiltInDescriptors)
{
    FDPoller poller;
    std::vector<std::string> log;
    EventFd const active = ready_event();
    EventFd const staged = ready_event();
    poller.add(active.fd(), POLLIN, record(log, "active"));
    poller.commit_additions();
    poller.add(staged.fd(), POLLIN, record(log, "staged"));
    poller.clear();
    // A guard that ends the pass even if the wake-up were gone; it must not be needed.
    FileDescriptor const guard = timer_after(std::chrono::seconds(5));
    poller.add(guard.fd(), POLLIN, record(log, "guard"));
    Injector(poller.executor()).submit([&log] { log.emplace_back("task"); });
    poller.poll_and_run();
    EXPECT_THAT(log, ElementsAre("task"));
    poller.wakeup();
    poller.poll_and_run();
    EXPECT_THAT(log, ElementsAre("task"));
}

TEST(FDPoller, ClearWhileLoopingIsAnInternalError)
{
    FDPoller poller;
    EventFd const event = ready_event();
    poller.add(event.fd(), POLLIN, [&](pollfd&) {
        EXPECT_THAT([&] { poller.clear(); },
                    ThrowsMessage<tarvek::internal_error>(StrEq("Cannot clear() a looping FDPoller")));
        poller.stop();
    });
    poller.loop();
}

TEST(FDPoller, HandlerReceivesReventsAndMayChangeEventsForTheNextPass)
{
    FDPoller poller;
    EventFd const event = ready_event();
    std::vector<short> seen;
    poller.add(event.fd(), POLLIN, [&](pollfd& entry) {
        seen.push_back(entry.revents);
        entry.events = 0;
    });
    poller.poll_and_run();
    poller.wakeup();
    poller.poll_and_run();
    EXPECT_THAT(seen, ElementsAre(POLLIN));
}

TEST(FDPoller, InvalidDescriptorCallsItsHandlerWithPollnval)
{
    FDPoller poller;
    int const closed = EventFd().fd();
    std::vector<short> seen;
    poller.add(closed, POLLIN, [&](pollfd& entry) { seen.push_back(entry.revents); });
    poller.poll_and_run();
    EXPECT_THAT(seen, ElementsAre(POLLNVAL));
}

TEST(FDPoller, DescriptorAddedTwiceRunsBothHandlers)
{
    FDPoller poller;
    EventFd const event = ready_event();
    std::vector<std::string> log;
    poller.add(event.fd(), POLLIN, record(log, "one"));
    poller.add(event.fd(), POLLIN, record(log, "two"));
    poller.poll_and_run();
    EXPECT_THAT(log, ElementsAre("one", "two"));
}

TEST(FDPoller, EmptyHandlerRaisesBadFunctionCall)
{
    FDPoller poller;
    EventFd const event = ready_event();
    poller.add(event.fd(), POLLIN, nullptr);
    EXPECT_THAT([&] { poller.poll_and_run(); }, Throws<std::bad_function_call>());
}

TEST(FDPollerDeathTest, FailingPollRaisesTheSystemTextAlone)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            FDPoller poller;
            refuse_system_calls({SYS_poll, SYS_ppoll}, EINVAL);
            exit_with_verdict([&poller] { poller.poll_and_run(); }, EINVAL, system_code(EINVAL).message());
        },
        testing::ExitedWithCode(0), "");
}

TEST(FDPoller, SignalInterruptingPollEndsThePassWithAnException)
{
    struct sigaction action{};
    action.sa_handler = [](int) {};
    struct sigaction previous{};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);

    FDPoller poller;
    std::atomic<bool> done = false;
    pthread_t const loop_thread = ::pthread_self();
    std::thread signaller([&] {
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!done && std::chrono::steady_clock::now() < deadline) {
            ::pthread_kill(loop_thread, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        // Ends the loop should the signal never land inside poll.
        poller.stop();
    });
    EXPECT_THAT([&] { poller.loop(); }, raises_system_error(EINTR));
    done = true;
    signaller.join();
    EXPECT_FALSE(poller.is_looping());
    ::sigaction(SIGUSR1, &previous, nullptr);
}

TEST(FDPoller, ExecutorClosedUnderTheLoopRaisesFromOnExecutor)
{
    FDPoller poller;
    poller.executor().close();
    EXPECT_THAT([&] { poller.on_executor(); },
                ThrowsMessage<tarvek::invalid_state_error>(StrEq("Executor is already closed")));
    // The closed executor's descriptor is gone, so the next pass reports it and raises.
    EXPECT_THAT([&] { poller.poll_and_run(); },
                ThrowsMessage<tarvek::invalid_state_error>(StrEq("Executor is already closed")));
}

TEST(FDPoller, MovedToPollerRunsTheSourcesDescriptorsAndTasks)
{
    FDPoller source;
    std::vector<std::string> log;
    EventFd const active = ready_event();
    EventFd const staged = ready_event();
    source.add(active.fd(), POLLIN, record(log, "active"));
    source.commit_additions();
    source.add(staged.fd(), POLLIN, record(log, "staged"));
    Injector const injector(source.executor());
    auto const* const state = source.executor().state().get();
    Injector(injector).submit([&log] { log.emplace_back("task"); });

    FDPoller target(std::move(source));
    EXPECT_EQ(target.executor().state().get(), state);
    target.poll_and_run();
    EXPECT_THAT(log, ElementsAre("task", "active", "staged"));
    // The built-in entries are bound to the new object: its wake-up ends a pass.
    target.wakeup();
    target.poll_and_run();
    EXPECT_THAT(log, ElementsAre("task", "active", "staged", "active", "staged"));
}

TEST(FDPoller, MoveFromAMovedFromPollerRaisesExecutorAlreadyClosed)
{
    FDPoller source;
    FDPoller first(std::move(source));
    EXPECT_THAT([&] { FDPoller second(std::move(source)); },
                ThrowsMessage<tarvek::invalid_state_error>(StrEq("Executor is already closed")));
}

TEST(FDPoller, RefusedMoveFromALoopingPollerCostsItsWakeUpCounter)
{
    FDPoller poller;
    EventFd const event = ready_event();
    poller.add(event.fd(), POLLIN, [&](pollfd&) {
        EXPECT_THAT([&] { FDPoller target(std::move(poller)); },
                    ThrowsMessage<tarvek::internal_error>(StrEq("Cannot move from a looping FDPoller")));
        EXPECT_THAT([&] { poller.wakeup(); }, Throws<tarvek::system_error>());
        // stop clears the flag before its wake-up fails, so the loop still ends.
        EXPECT_THAT([&] { poller.stop(); }, Throws<tarvek::system_error>());
    });
    poller.loop();
    EXPECT_FALSE(poller.is_looping());
}

TEST(FDPoller, MergeRunsTheActiveAndStagedDescriptorsOfTheSource)
{
    FDPoller receiver;
    FDPoller other;
    std::vector<std::string> log;
    EventFd const active = ready_event();
    EventFd const staged = ready_event();
    other.add(active.fd(), POLLIN, record(log, "active"));
    other.commit_additions();
    other.add(staged.fd(), POLLIN, record(log, "staged"));
    receiver.add(std::move(other));
    receiver.poll_and_run();
    EXPECT_THAT(log, ElementsAre("active", "staged"));
}

TEST(FDPoller, MergedFromPollerKeepsItsExecutorAndItsWakeUp)
{
    FDPoller receiver;
    FDPoller other;
    bool ran = false;
    Injector(other.executor()).submit([&ran] { ran = true; });
    receiver.add(std::move(other));
    receiver.poll_and_run();
    EXPECT_FALSE(ran);
    EXPECT_NO_THROW(other.wakeup()); // NOLINT(bugprone-use-after-move)
    other.executor().run_dry();
    EXPECT_TRUE(ran);
}

TEST(FDPoller, MergeOfALoopingPollerIsRefused)
{
    FDPoller receiver;
    FDPoller other;
    EventFd const event = ready_event();
    other.add(event.fd(), POLLIN, [&](pollfd&) {
        EXPECT_THAT([&] { receiver.add(std::move(other)); },
                    ThrowsMessage<tarvek::internal_error>(StrEq("Cannot add() a looping FDPoller")));
        other.stop();
    });
    other.loop();
}

TEST(FDPoller, LoopCanRunAgainAndKeepsAdditionsStagedMeanwhile)
{
    FDPoller poller;
    EventFd const first = ready_event();
    int first_calls = 0;
    poller.add(first.fd(), POLLIN, [&](pollfd&) {
        ++first_calls;
        poller.stop();
    });
    poller.loop();
    EventFd const second = ready_event();
    bool second_ran = false;
    poller.add(second.fd(), POLLIN, [&](pollfd&) { second_ran = true; });
    poller.loop();
    EXPECT_EQ(first_calls, 2);
    EXPECT_TRUE(second_ran);
}

TEST(FDPollerDeathTest, RefusedWakeUpCounterFailsTheConstruction)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            refuse_system_calls({SYS_eventfd, SYS_eventfd2}, EMFILE);
            exit_with_verdict([] { FDPoller poller; }, EMFILE, system_code(EMFILE).message());
        },
        testing::ExitedWithCode(0), "");
}
