// SPDX-License-Identifier: LGPL-2.1-or-later
#include "provider/wrappers.hpp"
#include "support/provider_fixture.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/executors/executor_base.hpp>
#include <tarvek/provider/interface_state.hpp>
#include <tarvek/provider/object.hpp>

#include <boost/thread/exceptions.hpp>
#include <boost/throw_exception.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <system_error>

namespace tarvek::test {
namespace {

using InterfaceStateTest = ProviderFixture;

TEST_F(InterfaceStateTest, CommitsABatchOnTheObjectsExecutorAndReportsItOnce)
{
    auto outcome = server.set(path, test_interface_name, {{"a", 7}, {"b", std::string("y")}});
    EXPECT_FALSE(outcome->ready());
    EXPECT_EQ(iface->committed(0), Value(0)) << "nothing changes before the executor runs";

    settle();

    ASSERT_TRUE(outcome->succeeded()) << outcome->message();
    EXPECT_EQ(iface->committed(0), Value(7));
    EXPECT_EQ(iface->committed(1), Value(std::string("y")));
    EXPECT_EQ(server.changed_calls, 1);
    auto const changes = server.changes();
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].names, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(changes[0].values, (Values{7, std::string("y")}));
    EXPECT_EQ(iface->recorded_changes(), (std::vector<std::vector<unsigned long>>{{0, 1}}));
}

TEST_F(InterfaceStateTest, ReadOnlyPropertyStopsTheWholeBatch)
{
    auto outcome
        = server.set(path, test_interface_name, {{"a", 1}, {"b", std::string("q")}, {"c", true}, {"d", 4L}});

    EXPECT_TRUE(outcome->thrown());
    EXPECT_THROW(outcome->rethrow(), property_readonly);
    EXPECT_EQ(outcome->message(), "Property c is readonly");
    EXPECT_FALSE(object.execute()) << "no task was queued";
    EXPECT_EQ(iface->committed(0), Value(0));
    EXPECT_EQ(iface->validate_calls, 0);
}

TEST_F(InterfaceStateTest, ResetOfAReadOnlyPropertyIsRefusedToo)
{
    auto outcome = server.set(path, test_interface_name, {}, {"c"});

    EXPECT_TRUE(outcome->thrown());
    EXPECT_EQ(outcome->message(), "Property c is readonly");
}

TEST_F(InterfaceStateTest, ValueOfTheWrongTypeFailsTheCallItself)
{
    auto outcome = server.set(path, test_interface_name, {{"a", 1}, {"b", 2}});

    EXPECT_TRUE(outcome->thrown());
    EXPECT_THROW(outcome->rethrow(), deserialize_error);
    EXPECT_FALSE(object.execute());
    EXPECT_EQ(iface->committed(0), Value(0));
}

TEST_F(InterfaceStateTest, BatchRefusedByValidateFailsTheFutureAndMarksNothing)
{
    iface->validator = [](TestPropertySet& context) { return std::get<int>(context.items[0].value) < 100; };

    auto outcome = server.set(path, test_interface_name, {{"a", 100}});
    settle();

    ASSERT_TRUE(outcome->ready());
    EXPECT_FALSE(outcome->thrown());
    EXPECT_THROW(outcome->rethrow(), validation_failed);
    EXPECT_EQ(outcome->message(), "com.example.Test: Property validation failure");
    EXPECT_EQ(server.changed_calls, 0);
    EXPECT_EQ(iface->committed(0), Value(0));
    EXPECT_TRUE(iface->recorded_changes().empty());
}

TEST_F(InterfaceStateTest, ExceptionFromValidateReachesTheClientInPlaceOfTheValidationText)
{
    iface->validator
        = [](TestPropertySet&) -> bool { boost::throw_exception(invalid_argument("a must be even")); };

    auto outcome = server.set(path, test_interface_name, {{"a", 3}});
    settle();

    EXPECT_THROW(outcome->rethrow(), invalid_argument);
    EXPECT_EQ(outcome->message(), "a must be even");
}

TEST_F(InterfaceStateTest, BatchThatChangesNothingStillValidatesCommitsAndSucceeds)
{
    auto outcome = server.set(path, test_interface_name, {});
    settle();

    EXPECT_TRUE(outcome->succeeded()) << outcome->message();
    EXPECT_EQ(iface->validate_calls, 1);
    EXPECT_EQ(server.changed_calls, 0);
    EXPECT_TRUE(iface->recorded_changes().empty()) << "on_changed isn't called for an empty view";
}

TEST_F(InterfaceStateTest, WritingTheCurrentValueProducesACommitWithAnEmptyView)
{
    auto outcome = server.set(path, test_interface_name, {{"a", 0}, {"b", std::string("x")}});
    settle();

    EXPECT_TRUE(outcome->succeeded()) << outcome->message();
    EXPECT_EQ(iface->validate_calls, 1);
    EXPECT_TRUE(iface->recorded_changes().empty());
    EXPECT_EQ(server.changed_calls, 0);
    EXPECT_TRUE(server.changes().empty());
}

TEST_F(InterfaceStateTest, ResetCommitsTheDefaultValue)
{
    server.set(path, test_interface_name, {{"a", 5}});
    settle();
    ASSERT_EQ(iface->committed(0), Value(5));

    auto outcome = server.set(path, test_interface_name, {}, {"a"});
    settle();

    EXPECT_TRUE(outcome->succeeded()) << outcome->message();
    EXPECT_EQ(iface->committed(0), Value(0));
    EXPECT_EQ(server.changes().size(), 2u);
}

TEST_F(InterfaceStateTest, SetManyAfterTheImplementationIsGoneFailsTheFutureWithObjectRemoved)
{
    auto state = iface->internal_get_state();
    state->detach_from_impl();
    WriteIterator writes;
    writes.add(state->properties()[0], 1);
    ResetIterator resets;

    auto future = state->set_many(writes, resets);

    ASSERT_TRUE(future.is_ready());
    EXPECT_THROW(future.get(), invalid_argument);
    EXPECT_FALSE(object.execute());
}

TEST_F(InterfaceStateTest, MethodCallAfterTheImplementationIsGoneRaisesObjectRemoved)
{
    auto state = iface->internal_get_state();
    state->detach_from_impl();
    ArgumentIterator arguments(Values{1, 2});

    try {
        state->method_call(method(0), arguments);
        FAIL() << "no exception";
    } catch (invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "Object removed");
    }
    EXPECT_EQ(method(0).invocations, 0);
}

TEST_F(InterfaceStateTest, TaskThatOutlivesItsImplementationEndsInTheValidationFailure)
{
    auto outcome = server.set(path, test_interface_name, {{"a", 9}});
    iface->internal_get_state()->detach_from_impl();

    settle();

    EXPECT_THROW(outcome->rethrow(), validation_failed);
    EXPECT_EQ(iface->committed(0), Value(0));
    EXPECT_EQ(iface->validate_calls, 0);
}

TEST_F(InterfaceStateTest, InterfaceNeverAddedToAnObjectRaisesThatTheInjectorHasNoExecutor)
{
    TestInterface lone(test_interface_name, five_properties(), members);
    WriteIterator writes;
    writes.add(lone.state().properties()[0], 1);
    ResetIterator resets;
    ArgumentIterator arguments(Values{1, 2});

    try {
        lone.state().set_many(writes, resets);
        FAIL() << "no exception";
    } catch (invalid_state_error const& e) {
        EXPECT_STREQ(e.what(), "Injector.submit(): Executor is closed");
    }
    EXPECT_THROW(lone.state().method_call(method(0), arguments), invalid_state_error);
    EXPECT_EQ(lone.committed(0), Value(0));
}

TEST_F(InterfaceStateTest, ClosedExecutorRaisesOutOfSetManyAndCallMethod)
{
    object.executor().close();

    auto set = server.set(path, test_interface_name, {{"a", 1}});
    auto call = server.call(path, test_interface_name, "Add", {1, 2});

    EXPECT_TRUE(set->thrown());
    EXPECT_EQ(set->message(), "Executor is already closed");
    EXPECT_TRUE(call->thrown());
    EXPECT_EQ(call->message(), "Executor is already closed");
}

TEST_F(InterfaceStateTest, CallReadsArgumentsAtOnceAndRunsTheBodyOnTheObjectsExecutor)
{
    auto outcome = server.call(path, test_interface_name, "Add", {2, 3});
    EXPECT_EQ(method(0).invocations, 0);
    EXPECT_EQ(method(0).last_target, static_cast<void*>(iface)) << "bind gets the method target";

    settle();

    ASSERT_TRUE(outcome->succeeded()) << outcome->message();
    EXPECT_EQ(outcome->value(), (Values{5}));
    EXPECT_EQ(method(0).invocations, 1);
}

TEST_F(InterfaceStateTest, MissingArgumentFailsTheCallItself)
{
    auto outcome = server.call(path, test_interface_name, "Add", {2});

    EXPECT_TRUE(outcome->thrown());
    EXPECT_THROW(outcome->rethrow(), length_error);
    EXPECT_FALSE(object.execute());
}

TEST_F(InterfaceStateTest, ExceptionStoredByInvokeFailsTheFuture)
{
    auto outcome = server.call(path, test_interface_name, "Fail", {});
    settle();

    EXPECT_FALSE(outcome->thrown());
    EXPECT_THROW(outcome->rethrow(), std::runtime_error);
    EXPECT_EQ(outcome->message(), "body failed");
}

TEST_F(InterfaceStateTest, MethodMayAnswerLater)
{
    auto outcome = server.call(path, test_interface_name, "Later", {});
    settle();
    ASSERT_EQ(kept_promises.size(), 1u);
    EXPECT_FALSE(outcome->ready());

    kept_promises[0].set_value(std::make_unique<TestReturnValue>(Values{42}));
    server.drive();

    EXPECT_EQ(outcome->value(), (Values{42}));
}

TEST_F(InterfaceStateTest, ClosingTheExecutorWithACallQueuedBreaksItsPromise)
{
    auto outcome = server.call(path, test_interface_name, "Add", {1, 1});

    object.executor().close();
    server.drive();

    EXPECT_THROW(outcome->rethrow(), boost::broken_promise);
    EXPECT_EQ(method(0).invocations, 0);
}

TEST_F(InterfaceStateTest, SetPropertiesWithASetOfAnotherSizeRaisesPropertySetMismatch)
{
    TestPropertySet other(numbered_properties(2));
    other.items[0].dirty = true;

    try {
        iface->set_properties(other);
        FAIL() << "no exception";
    } catch (internal_error const& e) {
        EXPECT_STREQ(e.what(), "PropertySet mismatch");
    }
}

TEST_F(InterfaceStateTest, SetPropertiesWithoutDirtyOrDifferentValuesCallsNoValidateAndNotifiesNobody)
{
    auto copy = iface->get_properties();
    auto& values = static_cast<TestPropertySet&>(*copy);
    values.items[0].value = 5; // changed, but not marked
    values.items[1].dirty = true; // marked, but equal

    iface->set_properties(values);
    server.drive();

    EXPECT_EQ(iface->validate_calls, 0);
    EXPECT_EQ(server.changed_calls, 0);
    EXPECT_EQ(iface->committed(0), Value(0));
}

TEST_F(InterfaceStateTest, SetPropertiesCommitsOnTheCallersThreadAndReportsOnlyChangedProperties)
{
    auto copy = iface->get_properties();
    auto& values = static_cast<TestPropertySet&>(*copy);
    values.items[0].value = 5;
    values.items[0].dirty = true;
    values.items[3].value = 8L;
    values.items[3].dirty = true;

    iface->set_properties(values);

    EXPECT_EQ(iface->committed(0), Value(5));
    EXPECT_EQ(iface->committed(3), Value(8L));
    EXPECT_EQ(iface->recorded_changes(), (std::vector<std::vector<unsigned long>>{{0, 3}}));
    server.drive();
    ASSERT_EQ(server.changes().size(), 1u);
    EXPECT_EQ(server.changes()[0].names, (std::vector<std::string>{"a", "d"}));
}

TEST_F(InterfaceStateTest, SetPropertiesRefusedByValidateRaisesValidationFailed)
{
    iface->validator = [](TestPropertySet&) { return false; };
    auto copy = iface->get_properties();
    auto& values = static_cast<TestPropertySet&>(*copy);
    values.items[0].value = 5;
    values.items[0].dirty = true;

    try {
        iface->set_properties(values);
        FAIL() << "no exception";
    } catch (validation_failed const& e) {
        EXPECT_STREQ(e.what(), "com.example.Test: Property validation failure");
    }
    EXPECT_EQ(iface->committed(0), Value(0));
}

TEST_F(InterfaceStateTest, NotifyPropertyDirtyUnderTheExclusiveLockRaisesADeadlockErrorInsteadOfHanging)
{
    std::unique_lock lock(iface->state().state_mutex());

    try {
        iface->state().notify_property_dirty(0);
        FAIL() << "no exception";
    } catch (std::system_error const& e) {
        EXPECT_EQ(e.code(), std::errc::resource_deadlock_would_occur);
    }
}

TEST_F(InterfaceStateTest, NotifyPropertyDirtyFromOnChangedFailsTheFutureButTheCommitStands)
{
    iface->on_changed_hook = [this](TestPropertySet&) { iface->state().notify_property_dirty(0); };

    auto outcome = server.set(path, test_interface_name, {{"a", 1}});
    settle();

    // A standard system_error crosses the future as a runtime_error with its text.
    EXPECT_THROW(outcome->rethrow(), std::runtime_error);
    EXPECT_EQ(outcome->message(), std::make_error_code(std::errc::resource_deadlock_would_occur).message());
    EXPECT_EQ(iface->committed(0), Value(1)) << "the commit stands";
    EXPECT_EQ(server.changes().size(), 1u) << "servers are told all the same";
}

TEST_F(InterfaceStateTest, EmitSignalFromValidateRaisesADeadlockError)
{
    iface->validator = [this](TestPropertySet&) {
        iface->emit(ping(), {std::string("x")});
        return true;
    };

    auto outcome = server.set(path, test_interface_name, {{"a", 1}});
    settle();

    EXPECT_EQ(outcome->message(), std::make_error_code(std::errc::resource_deadlock_would_occur).message());
    EXPECT_EQ(server.signal_calls, 0);
    EXPECT_EQ(iface->committed(0), Value(0));
}

TEST_F(InterfaceStateTest, LiveChangeClearsThePropertysMarkAndTellsTheServer)
{
    iface->change_live(4, 2.5);
    server.drive();

    auto const changes = server.changes();
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].names, (std::vector<std::string>{"e"}));
    EXPECT_EQ(changes[0].values, (Values{2.5}));
    EXPECT_FALSE(iface->state().properties()[4].is_dirty());
}

TEST_F(InterfaceStateTest, SignalReachesTheServerWithItsValues)
{
    iface->emit(ping(), {std::string("hello")});
    EXPECT_EQ(server.signal_calls, 1);

    server.drive();

    auto const signals = server.signals();
    ASSERT_EQ(signals.size(), 1u);
    EXPECT_EQ(signals[0].path, path);
    EXPECT_EQ(signals[0].signal, "Ping");
    EXPECT_EQ(signals[0].values, (Values{std::string("hello")}));
}

TEST(InterfaceStateAlone, InterfaceWithNoWrappersCommitsAndCallsOnChanged)
{
    TestMembers members;
    Object object;
    auto& iface = add_interface(
        object, std::make_unique<TestInterface>(test_interface_name, five_properties(), members));
    WriteIterator writes;
    writes.add(iface.state().properties()[0], 3);
    ResetIterator resets;

    auto future = iface.state().set_many(writes, resets);
    object.execute();

    EXPECT_NO_THROW(future.get());
    EXPECT_EQ(iface.committed(0), Value(3));
    EXPECT_EQ(iface.recorded_changes(), (std::vector<std::vector<unsigned long>>{{0}}));
}

TEST(InterfaceStateAlone, SetManyWithTwoEmptyIteratorsStillSubmitsATask)
{
    TestMembers members;
    Object object;
    auto& iface = add_interface(
        object, std::make_unique<TestInterface>(test_interface_name, five_properties(), members));
    WriteIterator writes;
    ResetIterator resets;

    auto future = iface.state().set_many(writes, resets);
    EXPECT_FALSE(future.is_ready());

    EXPECT_TRUE(object.execute());
    EXPECT_NO_THROW(future.get());
    EXPECT_EQ(iface.validate_calls, 1);
}

TEST(InterfaceStateAlone, AddingOneWrapperTwiceRaisesAndRemovingItTwiceReportsTheSecondAsAbsent)
{
    TestMembers members;
    RecordingServer server;
    Object object;
    add_interface(object, std::make_unique<TestInterface>(test_interface_name, five_properties(), members));
    provider::ObjectWrapper wrapper(object.state(), server);
    auto& interface = static_cast<provider::InterfaceWrapper&>(wrapper.interfaces()[0]);
    auto state = object.interface(0).internal_get_state();

    try {
        state->add_wrapper(interface);
        FAIL() << "no exception";
    } catch (internal_error const& e) {
        EXPECT_STREQ(e.what(), "Wrapper already added");
    }
    EXPECT_TRUE(state->try_remove_wrapper(interface));
    EXPECT_FALSE(state->try_remove_wrapper(interface));
}

TEST(InterfaceStateAlone, StateKnowsItsParentObjectAfterBeingAdded)
{
    TestMembers members;
    Object object;
    auto implementation = std::make_unique<TestInterface>(test_interface_name, five_properties(), members);
    auto state = implementation->internal_get_state();
    EXPECT_EQ(state->get_parent_object(), nullptr);

    add_interface(object, std::move(implementation));

    EXPECT_EQ(state->get_parent_object(), &object);
    EXPECT_EQ(object.interface(0).internal_get_parent_object(), &object);
}

TEST(InterfaceImplementationBase, MovedFromObjectDestroysWithoutTouchingTheStateAndTheNewOneStaysAttached)
{
    TestMembers members;
    auto original = std::make_unique<TestInterface>(test_interface_name, five_properties(), members);
    auto state = original->internal_get_state();
    auto moved = std::make_unique<TestInterface>(std::move(*original));
    original.reset();
    Object object;
    auto& attached = add_interface(object, std::move(moved));
    WriteIterator writes;
    writes.add(state->properties()[0], 6);
    ResetIterator resets;

    auto future = state->set_many(writes, resets);
    object.execute();

    EXPECT_NO_THROW(future.get());
    EXPECT_EQ(attached.validate_calls, 1);
    EXPECT_EQ(attached.committed(0), Value(6));
}

TEST(InterfaceImplementationBase, DestroyingTheImplementationCutsTheStateOff)
{
    TestMembers members;
    auto implementation = std::make_unique<TestInterface>(test_interface_name, five_properties(), members);
    auto state = implementation->internal_get_state();

    implementation.reset();

    ArgumentIterator arguments(Values{});
    members.methods.add("Noop", "", "", TestMethod::Body([](Values const&) { return Values{}; }));
    EXPECT_THROW(state->method_call(*members.methods.elements[0], arguments), invalid_argument);
    EXPECT_EQ(state->properties().size(), 5u) << "the committed set lives on with the state";
}

} // namespace
} // namespace tarvek::test
