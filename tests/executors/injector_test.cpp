// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>
#include <tarvek/executors/executor_base.hpp>
#include <tarvek/executors/injector.hpp>

#include <common/descriptor_helpers.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/exception/exception.hpp>
#include <boost/thread/future.hpp>

#include <memory>
#include <string>

using tarvek::detail::executors::ExecutorBase;
using tarvek::detail::executors::IExecutorSharedState;
using tarvek::detail::executors::Injector;
using tarvek::test::is_open;
using testing::StrEq;
using testing::ThrowsMessage;

namespace {

auto raises_no_state() { return ThrowsMessage<tarvek::invalid_state_error>(StrEq("Injector.submit(): Executor is closed")); }

auto raises_closed() { return ThrowsMessage<tarvek::invalid_state_error>(StrEq("Executor is already closed")); }

} // namespace

TEST(Injector, SubmitQueuesWithoutRunning)
{
    ExecutorBase executor;
    Injector injector(executor);
    bool ran = false;
    injector.submit([&ran] { ran = true; });
    EXPECT_FALSE(ran);
    executor.run_dry();
    EXPECT_TRUE(ran);
}

TEST(Injector, SubmitAcceptsMoveOnlyCallables)
{
    ExecutorBase executor;
    int seen = 0;
    Injector(executor).submit([value = std::make_unique<int>(7), &seen] { seen = *value; });
    executor.run_dry();
    EXPECT_EQ(seen, 7);
}

TEST(Injector, DefaultInjectorRaisesExecutorIsClosedWithAPlainThrow)
{
    Injector injector;
    EXPECT_THAT([&] { injector.submit([] {}); }, raises_no_state());
    // Not wrapped for transport through a future, unlike the rest of the family.
    try {
        injector.submit([] {});
    } catch (tarvek::invalid_state_error const& error) {
        EXPECT_EQ(dynamic_cast<boost::exception const*>(&error), nullptr);
    }
}

TEST(Injector, SubmitWithoutStateDestroysTheFunctionAndBreaksItsPromise)
{
    Injector injector;
    boost::promise<void> promise;
    boost::future<void> result = promise.get_future();
    EXPECT_THAT([&] { injector.submit([promise = std::move(promise)]() mutable { promise.set_value(); }); },
                raises_no_state());
    ASSERT_TRUE(result.is_ready());
    EXPECT_THROW(result.get(), boost::broken_promise);
}

TEST(Injector, InjectorOfAClosedExecutorHasNoState)
{
    ExecutorBase executor;
    executor.close();
    Injector injector(executor);
    EXPECT_THAT([&] { injector.submit([] {}); }, raises_no_state());
}

TEST(Injector, MovedFromInjectorHasNoState)
{
    ExecutorBase executor;
    Injector source(executor);
    Injector target(std::move(source));
    EXPECT_THAT([&] { source.submit([] {}); }, raises_no_state()); // NOLINT(bugprone-use-after-move)
    EXPECT_NO_THROW(target.submit([] {}));
}

TEST(Injector, CopyTakenBeforeCloseRaisesAlreadyClosedAndBreaksThePromise)
{
    ExecutorBase executor;
    Injector const copy(executor);
    executor.close();
    boost::promise<void> promise;
    boost::future<void> result = promise.get_future();
    EXPECT_THAT([&] { Injector(copy).submit([promise = std::move(promise)]() mutable { promise.set_value(); }); },
                raises_closed());
    ASSERT_TRUE(result.is_ready());
    EXPECT_THROW(result.get(), boost::broken_promise);
}

TEST(Injector, ClosingTheOwnerLeavesTheStateAliveClosedAndItsDescriptorOpenUntilTheLastCopyGoes)
{
    auto executor = std::make_unique<ExecutorBase>();
    int const descriptor = executor->event_fd();
    std::weak_ptr<IExecutorSharedState> const watched = executor->state();
    auto injector = std::make_unique<Injector>(*executor);
    Injector const second = *injector;
    executor.reset();
    ASSERT_FALSE(watched.expired());
    EXPECT_TRUE(watched.lock()->closed());
    EXPECT_TRUE(is_open(descriptor));
    injector.reset();
    EXPECT_FALSE(watched.expired());
    EXPECT_TRUE(is_open(descriptor));
    EXPECT_THAT([&] { Injector(second).submit([] {}); }, raises_closed());
}

TEST(Injector, StateIsReleasedWithTheLastCopy)
{
    std::weak_ptr<IExecutorSharedState> watched;
    int descriptor = -1;
    {
        ExecutorBase executor;
        descriptor = executor.event_fd();
        watched = executor.state();
        Injector const copy(executor);
        executor.close();
        EXPECT_FALSE(watched.expired());
    }
    EXPECT_TRUE(watched.expired());
    EXPECT_FALSE(is_open(descriptor));
}

TEST(Injector, ThenOnAReadyFutureQueuesTheContinuationWithoutRunningIt)
{
    ExecutorBase executor;
    bool ran = false;
    boost::future<int> result = Injector(executor).then(boost::make_ready_future(20), [&ran](boost::future<int> value) {
        ran = true;
        return value.get() * 2;
    });
    EXPECT_FALSE(ran);
    EXPECT_FALSE(result.is_ready());
    executor.run_dry();
    EXPECT_TRUE(ran);
    ASSERT_TRUE(result.is_ready());
    EXPECT_EQ(result.get(), 40);
}

TEST(Injector, ThenRunsTheContinuationOnlyWhenTheFutureCompletesAndTheExecutorIsDriven)
{
    ExecutorBase executor;
    boost::promise<void> promise;
    bool ran = false;
    boost::future<void> result =
        Injector(executor).then(promise.get_future(), [&ran](boost::future<void> done) {
            done.get();
            ran = true;
        });
    executor.run_dry();
    EXPECT_FALSE(ran);
    promise.set_value();
    EXPECT_FALSE(ran);
    executor.run_dry();
    EXPECT_TRUE(ran);
    EXPECT_NO_THROW(result.get());
}

TEST(Injector, ThenCarriesAMoveOnlyResult)
{
    ExecutorBase executor;
    boost::future<int> result = Injector(executor).then(
        boost::make_ready_future(std::make_unique<int>(5)),
        [](boost::future<std::unique_ptr<int>> value) { return *value.get(); });
    executor.run_dry();
    EXPECT_EQ(result.get(), 5);
}

TEST(Injector, ThenOnAReadyFutureWithAClosedStateRaisesInTheCaller)
{
    ExecutorBase executor;
    Injector const copy(executor);
    executor.close();
    bool ran = false;
    EXPECT_THAT([&] { Injector(copy).then(boost::make_ready_future(), [&ran](boost::future<void>) { ran = true; }); },
                raises_closed());
    EXPECT_FALSE(ran);
}

TEST(Injector, FutureCompletingAfterCloseRaisesOutOfSetValue)
{
    ExecutorBase executor;
    boost::promise<int> promise;
    bool ran = false;
    boost::future<void> result =
        Injector(executor).then(promise.get_future(), [&ran](boost::future<int>) { ran = true; });
    executor.close();
    EXPECT_THAT([&] { promise.set_value(1); }, raises_closed());
    EXPECT_FALSE(ran);
}

TEST(Injector, QueuedContinuationDroppedByCloseIsNeverCalled)
{
    ExecutorBase executor;
    bool ran = false;
    boost::future<void> result =
        Injector(executor).then(boost::make_ready_future(), [&ran](boost::future<void>) { ran = true; });
    executor.close();
    EXPECT_FALSE(ran);
    EXPECT_FALSE(result.is_ready());
}

TEST(Injector, TaskDroppedByCloseBreaksItsPromiseAndTheContinuationGoesToTheOtherExecutor)
{
    ExecutorBase object_executor;
    ExecutorBase server_executor;
    boost::promise<int> promise;
    boost::future<int> pending = promise.get_future();
    Injector(object_executor).submit([promise = std::move(promise)]() mutable { promise.set_value(1); });
    bool broken = false;
    boost::future<void> answered =
        Injector(server_executor).then(std::move(pending), [&broken](boost::future<int> value) {
            try {
                value.get();
            } catch (boost::broken_promise const&) {
                broken = true;
            }
        });
    object_executor.close();
    EXPECT_FALSE(broken);
    server_executor.run_dry();
    EXPECT_TRUE(broken);
}

TEST(Injector, PendingContinuationKeepsTheStateAlive)
{
    auto executor = std::make_unique<ExecutorBase>();
    std::weak_ptr<IExecutorSharedState> const watched = executor->state();
    boost::promise<void> promise;
    auto result = std::make_unique<boost::future<void>>(
        Injector(*executor).then(promise.get_future(), [](boost::future<void>) {}));
    executor.reset();
    EXPECT_FALSE(watched.expired());
    EXPECT_THAT([&] { promise.set_value(); }, raises_closed());
    result.reset();
    EXPECT_TRUE(watched.expired());
}

TEST(MakeExceptionFuture, IsReadyAndRethrowsTheClassWithTheMessage)
{
    boost::future<void> failed = tarvek::make_exception_future<void, tarvek::invalid_argument>("x");
    EXPECT_TRUE(failed.is_ready());
    EXPECT_TRUE(failed.has_exception());
    EXPECT_THAT([&] { failed.get(); }, ThrowsMessage<tarvek::invalid_argument>(StrEq("x")));
}

TEST(MakeExceptionFuture, CarriesTheLibrarysInstancesWithTheirTexts)
{
    auto detached = tarvek::make_exception_future<std::unique_ptr<int>, tarvek::invalid_argument>(
        "Interface wrapper is already detached");
    auto removed = tarvek::make_exception_future<void, tarvek::invalid_argument>("Interface/object has been removed");
    EXPECT_THAT([&] { detached.get(); },
                ThrowsMessage<tarvek::invalid_argument>(StrEq("Interface wrapper is already detached")));
    EXPECT_THAT([&] { removed.get(); },
                ThrowsMessage<tarvek::invalid_argument>(StrEq("Interface/object has been removed")));
}

TEST(MakeExceptionFuture, ContinuationThroughThenSeesTheFailure)
{
    ExecutorBase executor;
    boost::future<std::string> result = Injector(executor).then(
        tarvek::make_exception_future<int, tarvek::internal_error>("early"), [](boost::future<int> value) {
            try {
                value.get();
            } catch (tarvek::internal_error const& error) {
                return std::string(error.what());
            }
            return std::string();
        });
    executor.run_dry();
    EXPECT_EQ(result.get(), "early");
}
