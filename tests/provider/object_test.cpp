// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/test_interface.hpp"
#include "support/test_iterators.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/executors/executor_base.hpp>
#include <tarvek/executors/injector.hpp>
#include <tarvek/provider/empty_range_collection.hpp>
#include <tarvek/provider/object.hpp>
#include <tarvek/provider/object_state.hpp>
#include <tarvek/provider/registry.hpp>
#include <tarvek/provider/tarvek_helper.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarvek::test {
namespace {

template <class F> std::string message_of(F&& action)
{
    try {
        action();
    } catch (std::exception const& e) {
        return e.what();
    }
    return "no exception";
}

std::unique_ptr<TestInterface> make_interface(TestMembers& members, ConstString name = "com.example.Test")
{
    return std::make_unique<TestInterface>(name, std::vector<PropertySpec>{{"a", 0}}, members);
}

TEST(Object, MovedFromHandleIsFalseAndFailsEveryOperation)
{
    TestMembers members;
    Object o1;
    Object o2(std::move(o1));

    EXPECT_FALSE(static_cast<bool>(o1));
    EXPECT_EQ(message_of([&] { o1.path(); }), "Object is no longer valid");
    EXPECT_EQ(message_of([&] { o1.state(); }), "Object is no longer valid");
    EXPECT_EQ(message_of([&] { o1.executor(); }), "Object is no longer valid");
    EXPECT_EQ(message_of([&] { o1.is_registered(); }), "Object is no longer valid");
    EXPECT_EQ(message_of([&] { o1.num_interfaces(); }), "Object is no longer valid");
    EXPECT_EQ(message_of([&] { o1.interface(0); }), "Object is no longer valid");
    EXPECT_EQ(message_of([&] { o1.get_by_name("com.example.Test"); }), "Object is no longer valid");
    EXPECT_EQ(
        message_of([&] { o1.add_interface_internal(make_interface(members)); }), "Object is no longer valid");
    EXPECT_THROW(o1.path(), invalid_argument);
    EXPECT_NO_THROW(o2.path());
}

TEST(Object, MoveTellsTheInterfacesTheirNewObject)
{
    TestMembers members;
    Object original;
    add_interface(original, make_interface(members));

    Object moved(std::move(original));

    EXPECT_EQ(moved.interface(0).internal_get_parent_object(), &moved);
}

TEST(Object, RegisteredObjectCanBeMovedAndStaysRegistered)
{
    TestMembers members;
    API_Registry registry;
    auto original = std::make_unique<Object>();
    add_interface(*original, make_interface(members));
    registry.add_object(*original, ObjectPath("/m"));

    Object moved(std::move(*original));
    original.reset();

    EXPECT_TRUE(moved.is_registered());
    EXPECT_EQ(moved.path(), ObjectPath("/m"));
}

TEST(Object, InterfacesCanBeAddedOnlyBeforeRegistrationAndOnlyOncePerName)
{
    TestMembers members;
    API_Registry registry;
    Object object;
    add_interface(object, make_interface(members));

    EXPECT_EQ(message_of([&] { object.check_can_add_interface("com.example.Test"); }),
        "Object already has interface: com.example.Test");
    registry.add_object(object, ObjectPath("/o"));
    EXPECT_EQ(message_of([&] { object.check_can_add_interface("com.example.Other"); }),
        "Cannot add interface, object already registered");
}

TEST(Object, InterfacesAreFoundByNameAndByIndex)
{
    TestMembers members;
    Object object;
    auto& first = add_interface(object, make_interface(members, "com.example.One"));
    auto& second = add_interface(object, make_interface(members, "com.example.Two"));

    EXPECT_EQ(object.num_interfaces(), 2u);
    EXPECT_EQ(&object.interface(0), &first);
    EXPECT_EQ(&object.get_by_name("com.example.Two"), &second);
    EXPECT_EQ(
        message_of([&] { object.get_by_name("com.example.Three"); }), "No such interface: com.example.Three");
}

TEST(Object, StateWithoutAnObjectRefusesInterfaces)
{
    TestMembers members;
    Object object;
    object.state().set_object(nullptr);

    try {
        object.add_interface_internal(make_interface(members));
        FAIL() << "no exception";
    } catch (internal_error const& e) {
        EXPECT_STREQ(e.what(), "ObjectState: No associated object");
    }
    EXPECT_EQ(object.num_interfaces(), 0u);
}

TEST(Object, ExecuteWithNothingQueuedReturnsFalse)
{
    Object object;

    EXPECT_FALSE(object.execute());
}

TEST(Object, ExecuteRunsTheQueueDry)
{
    Object object;
    detail::executors::Injector injector(object.executor());
    int runs = 0;
    injector.submit([&runs] { ++runs; });
    injector.submit([&runs] { ++runs; });

    EXPECT_TRUE(object.execute());
    EXPECT_EQ(runs, 2);
}

TEST(Object, ExecuteWithAThrowingTaskPassesTheExceptionOnAndKeepsTheTasksBehindIt)
{
    Object object;
    detail::executors::Injector injector(object.executor());
    bool later_ran = false;
    injector.submit([] { throw std::runtime_error("task failed"); });
    injector.submit([&later_ran] { later_ran = true; });

    EXPECT_EQ(message_of([&] { object.execute(); }), "task failed");
    EXPECT_FALSE(later_ran);
    EXPECT_TRUE(object.execute());
    EXPECT_TRUE(later_ran);
}

TEST(Object, ExecuteOnAClosedExecutorRaises)
{
    Object object;
    object.executor().close();

    EXPECT_EQ(message_of([&] { object.execute(); }), "Executor is already closed");
}

TEST(Object, ObjectOnAGivenExecutorHasNoPrivateExecutor)
{
    detail::executors::ExecutorBase executor;
    Object object(executor);

    EXPECT_THROW(object.executor(), std::bad_optional_access);
    EXPECT_THROW(object.execute(), std::bad_optional_access);
}

TEST(Object, ObjectOnAGivenExecutorQueuesItsRequestsThere)
{
    TestMembers members;
    detail::executors::ExecutorBase executor;
    Object object(executor);
    auto& iface = add_interface(object, make_interface(members));
    WriteIterator writes;
    writes.add(iface.state().properties()[0], 4);
    ResetIterator resets;

    auto future = iface.state().set_many(writes, resets);
    executor.run_dry();

    EXPECT_NO_THROW(future.get());
    EXPECT_EQ(iface.committed(0), Value(4));
}

TEST(Object, ObjectOnAClosedExecutorRaisesThatTheInjectorHasNoExecutor)
{
    TestMembers members;
    detail::executors::ExecutorBase executor;
    executor.close();
    Object object(executor);
    auto& iface = add_interface(object, make_interface(members));
    WriteIterator writes;
    ResetIterator resets;

    EXPECT_EQ(
        message_of([&] { iface.state().set_many(writes, resets); }), "Injector.submit(): Executor is closed");
}

TEST(Object, DestroyingAnObjectBreaksThePromisesOfItsQueuedRequests)
{
    TestMembers members;
    auto object = std::make_unique<Object>();
    auto& iface = add_interface(*object, make_interface(members));
    auto state = iface.internal_get_state();
    WriteIterator writes;
    writes.add(state->properties()[0], 4);
    ResetIterator resets;
    auto future = state->set_many(writes, resets);

    object.reset();

    EXPECT_THROW(future.get(), boost::broken_promise);
}

TEST(EmptyRangeCollection, HasNoElementsAndRefusesEveryIndex)
{
    auto& ranges = provider::range::EmptyRangeCollection::instance;

    EXPECT_EQ(ranges.size(), 0u);
    EXPECT_EQ(message_of([&] { (void)ranges[0]; }), "Index out of range");
    EXPECT_THROW((void)std::as_const(ranges)[7], invalid_argument);
}

TEST(TarvekHelper, SecondLiveInstanceIsRefusedUntilTheFirstIsReleased)
{
    auto first = std::make_shared<TarvekHelper>();
    first->service_name = "first";
    TarvekHelper::set_global_instance(first);
    auto second = std::make_shared<TarvekHelper>();
    second->service_name = "second";

    EXPECT_EQ(message_of([&] { TarvekHelper::set_global_instance(second); }),
        "There is already a global helper instance set");
    EXPECT_EQ(TarvekHelper::global_helper().service_name, "first");

    first.reset();
    EXPECT_NO_THROW(TarvekHelper::set_global_instance(second));
    EXPECT_EQ(TarvekHelper::global_helper().service_name, "second");
}

} // namespace
} // namespace tarvek::test
