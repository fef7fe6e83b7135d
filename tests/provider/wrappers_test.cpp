// SPDX-License-Identifier: LGPL-2.1-or-later
#include "provider/changed_properties_view.hpp"
#include "provider/vector_collection.hpp"
#include "provider/wrappers.hpp"
#include "support/provider_fixture.hpp"

#include <tarvek/common/exceptions.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarvek::test {
namespace {

std::vector<std::string> drain(glue::IInterface& interface)
{
    std::vector<std::string> names;
    interface.get_changed([&names](glue::ICollection<glue::IProperty>& changed) {
        for (unsigned long i = 0; i < changed.size(); ++i)
            names.push_back(changed[i].name().str());
    });
    return names;
}

// One unregistered object and wrappers made directly on it, for the mark bookkeeping.
class InterfaceWrapperTest : public ::testing::Test {
protected:
    explicit InterfaceWrapperTest(int properties = 8)
    {
        iface = &add_interface(object,
            std::make_unique<TestInterface>(test_interface_name, numbered_properties(properties), members));
    }

    provider::InterfaceWrapper& interface_of(provider::ObjectWrapper& wrapper)
    {
        return static_cast<provider::InterfaceWrapper&>(wrapper.interfaces()[0]);
    }

    TestMembers members;
    RecordingServer server;
    RecordingServer other_server{"other"};
    Object object;
    TestInterface* iface = nullptr;
};

TEST_F(InterfaceWrapperTest, RepeatedMarksNotifyOnceAndAreReportedInIndexOrder)
{
    provider::ObjectWrapper wrapper(object.state(), server);
    auto& interface = interface_of(wrapper);

    interface.set_dirty(5);
    interface.set_dirty(2);
    interface.set_dirty(2);

    EXPECT_EQ(server.changed_calls, 1);
    EXPECT_EQ(drain(interface), (std::vector<std::string>{"p2", "p5"}));
    EXPECT_TRUE(drain(interface).empty()) << "the marks were consumed";
}

TEST_F(InterfaceWrapperTest, MarkAfterGetChangedNotifiesAgain)
{
    provider::ObjectWrapper wrapper(object.state(), server);
    auto& interface = interface_of(wrapper);
    interface.set_dirty(1);
    drain(interface);

    interface.set_dirty(1);

    EXPECT_EQ(server.changed_calls, 2);
}

TEST_F(InterfaceWrapperTest, EachServerKeepsItsOwnMarks)
{
    provider::ObjectWrapper first(object.state(), server);
    provider::ObjectWrapper second(object.state(), other_server);

    iface->change_live(3, 1);
    EXPECT_EQ(server.changed_calls, 1);
    EXPECT_EQ(other_server.changed_calls, 1);
    EXPECT_EQ(drain(interface_of(first)), (std::vector<std::string>{"p3"}));

    EXPECT_EQ(drain(interface_of(second)), (std::vector<std::string>{"p3"}));
}

TEST_F(InterfaceWrapperTest, ThrowingReceiverLosesTheMarksAndSilencesTheWrapper)
{
    provider::ObjectWrapper wrapper(object.state(), server);
    auto& interface = interface_of(wrapper);
    interface.set_dirty(4);

    EXPECT_THROW(
        interface.get_changed([](glue::ICollection<glue::IProperty>&) { throw std::runtime_error("no"); }),
        std::runtime_error);

    interface.set_dirty(6);
    EXPECT_EQ(server.changed_calls, 1) << "notified stays set";
    EXPECT_EQ(drain(interface), (std::vector<std::string>{"p6"})) << "the earlier mark is gone";
}

TEST_F(InterfaceWrapperTest, EmptyReceiverRaisesBadFunctionCall)
{
    provider::ObjectWrapper wrapper(object.state(), server);

    EXPECT_THROW(interface_of(wrapper).get_changed({}), std::bad_function_call);
}

TEST_F(InterfaceWrapperTest, DetachedWrapperFailsRequestsInTheFuture)
{
    provider::ObjectWrapper wrapper(object.state(), server);
    auto& interface = interface_of(wrapper);
    members.methods.add("Noop", "", "", TestMethod::Body([](Values const&) { return Values{}; }));
    auto& property = interface.properties()[0];
    auto& method = interface.methods()[0];
    interface.detach_from_state();
    WriteIterator writes;
    writes.add(property, 1);
    ResetIterator resets;
    ArgumentIterator arguments(Values{});

    auto set = interface.set_many(writes, resets);
    auto call = interface.call_method(method, arguments);

    ASSERT_TRUE(set.is_ready());
    try {
        set.get();
        FAIL() << "no exception";
    } catch (invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "Interface wrapper is already detached");
    }
    try {
        call.get();
        FAIL() << "no exception";
    } catch (invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "Interface wrapper is already detached");
    }
    EXPECT_FALSE(object.execute());
}

TEST_F(InterfaceWrapperTest, MovedObjectWrapperKeepsItsInterfaceWrappersRegistered)
{
    provider::ObjectWrapper original(object.state(), server);
    provider::ObjectWrapper moved(std::move(original));
    auto& interface = interface_of(moved);

    iface->change_live(0, 4);

    EXPECT_EQ(server.changed_calls, 1);
    EXPECT_EQ(drain(interface), (std::vector<std::string>{"p0"}));
}

TEST(ObjectWrapper, WrappersMovedByTheVectorsGrowthAreEachRegisteredOnceAtTheirFinalPlace)
{
    TestMembers members;
    RecordingServer server;
    Object object;
    char const* const names[] = {"com.example.A", "com.example.B", "com.example.C"};
    for (auto const* name : names)
        add_interface(object,
            std::make_unique<TestInterface>(ConstString::from_c_str(name), numbered_properties(2), members));
    provider::ObjectWrapper wrapper(object.state(), server);
    ASSERT_EQ(wrapper.interfaces().size(), 3u);

    for (unsigned long i = 0; i < 3; ++i) {
        auto& interface = static_cast<provider::InterfaceWrapper&>(wrapper.interfaces()[i]);
        EXPECT_EQ(interface.interface_name(), ConstString::from_c_str(names[i]));
        static_cast<TestInterface&>(object.interface(i)).change_live(1, 5);
        EXPECT_EQ(drain(interface), (std::vector<std::string>{"p1"}));
        auto state = object.interface(i).internal_get_state();
        EXPECT_TRUE(state->try_remove_wrapper(interface));
        EXPECT_FALSE(state->try_remove_wrapper(interface)) << "registered once only";
        state->add_wrapper(interface);
    }
    EXPECT_EQ(server.changed_calls, 3);
}

TEST_F(InterfaceWrapperTest, WrapperPathFollowsTheObjectsRegistration)
{
    API_Registry registry;
    provider::ObjectWrapper wrapper(object.state(), server);
    EXPECT_TRUE(wrapper.path()->empty());

    registry.add_object(object, ObjectPath("/p"));
    EXPECT_EQ(*wrapper.path(), ObjectPath("/p"));

    registry.remove_object(ObjectPath("/p"));
    EXPECT_TRUE(wrapper.path()->empty());
}

class WideInterfaceWrapperTest : public InterfaceWrapperTest {
protected:
    WideInterfaceWrapperTest()
        : InterfaceWrapperTest(33)
    {
    }
};

TEST_F(WideInterfaceWrapperTest, ChangeOfThe33rdPropertyIsReportedAsIndexZero)
{
    provider::ObjectWrapper wrapper(object.state(), server);

    iface->change_live(32, 1);

    EXPECT_EQ(drain(interface_of(wrapper)), (std::vector<std::string>{"p0"}));
}

class EmptyInterfaceWrapperTest : public InterfaceWrapperTest {
protected:
    EmptyInterfaceWrapperTest()
        : InterfaceWrapperTest(0)
    {
    }
};

TEST_F(EmptyInterfaceWrapperTest, InterfaceWithoutPropertiesHandsOverAnEmptyCollection)
{
    provider::ObjectWrapper wrapper(object.state(), server);
    bool called = false;
    unsigned long size = 99;

    interface_of(wrapper).get_changed([&](glue::ICollection<glue::IProperty>& changed) {
        called = true;
        size = changed.size();
    });

    EXPECT_TRUE(called);
    EXPECT_EQ(size, 0u);
}

using PublishedWrapperTest = ProviderFixture;

TEST_F(PublishedWrapperTest, TwoChangesBeforeTheServerReactsProduceOneNotification)
{
    iface->change_live(0, 1);
    iface->change_live(3, 2L);

    EXPECT_EQ(server.changed_calls, 1);
    server.drive();
    auto const changes = server.changes();
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].names, (std::vector<std::string>{"a", "d"}));
    EXPECT_EQ(changes[0].values, (Values{1, 2L}));
}

TEST_F(PublishedWrapperTest, KeptWrapperAfterRemoveObjectFailsCallsAndStillServesReads)
{
    server.keep_removed = true;
    server.set(path, test_interface_name, {{"a", 11}});
    settle();

    registry.remove_object(path);
    server.drive();
    auto call = server.call(path, test_interface_name, "Add", {1, 2});
    auto set = server.set(path, test_interface_name, {{"a", 12}});
    server.drive();

    EXPECT_FALSE(call->thrown());
    EXPECT_EQ(call->message(), "Interface/object has been removed");
    EXPECT_EQ(set->message(), "Interface/object has been removed");
    EXPECT_EQ(method(0).invocations, 0);
    EXPECT_EQ(server.get(path, test_interface_name, {"a", "b"}), (Values{11, std::string("x")}));
}

TEST_F(PublishedWrapperTest, SetManyThroughAnUnflaggedWrapperOfACutOffStateFailsWithObjectRemoved)
{
    // What an implementation's destructor does, without the object's detach before it.
    iface->internal_get_state()->detach_from_impl();

    auto set = server.set(path, test_interface_name, {{"a", 1}});
    auto call = server.call(path, test_interface_name, "Add", {1, 2});
    server.drive();

    EXPECT_FALSE(set->thrown());
    EXPECT_THROW(set->rethrow(), invalid_argument);
    EXPECT_EQ(set->message(), "Object removed");
    EXPECT_TRUE(call->thrown());
    EXPECT_EQ(call->message(), "Object removed");
}

TEST_F(PublishedWrapperTest, SetManyAfterTheObjectIsDestroyedFailsWithInterfaceObjectRemoved)
{
    server.keep_removed = true;
    {
        Object gone(std::move(object));
    }
    server.drive();

    auto set = server.set(path, test_interface_name, {{"a", 1}});
    server.drive();

    EXPECT_FALSE(set->thrown());
    EXPECT_EQ(set->message(), "Interface/object has been removed");
    EXPECT_EQ(server.removed(), std::vector<ObjectPath>{path});
    EXPECT_EQ(server.get(path, test_interface_name, {"a"}), (Values{0})) << "reads go on";
}

TEST_F(PublishedWrapperTest, CallOnADetachedObjectFailsTheFutureAndRunsNoApplicationCode)
{
    // Detaches every object and tells no server, which so keeps its wrappers.
    registry.remove_all();

    auto call = server.call(path, test_interface_name, "Add", {1, 2});
    settle();

    EXPECT_FALSE(call->thrown());
    EXPECT_EQ(call->message(), "Interface/object has been removed");
    EXPECT_EQ(method(0).invocations, 0);
}

TEST_F(PublishedWrapperTest, MarksAndNotificationsGoOnForARemovedWrapper)
{
    server.keep_removed = true;
    registry.remove_object(path);
    server.drive();

    iface->change_live(1, std::string("late"));

    EXPECT_EQ(server.changed_calls, 1);
    server.drive();
    ASSERT_EQ(server.changes().size(), 1u);
    EXPECT_EQ(server.changes()[0].values, (Values{std::string("late")}));
}

TEST_F(PublishedWrapperTest, SignalsReachEveryServer)
{
    RecordingServer second("second");
    registry.add_server(second);
    second.drive();

    iface->emit(ping(), {std::string("both")});
    server.drive();
    second.drive();

    ASSERT_EQ(server.signals().size(), 1u);
    ASSERT_EQ(second.signals().size(), 1u);
    EXPECT_EQ(second.signals()[0].values, (Values{std::string("both")}));
    registry.remove_server(second);
}

TEST(ChangedPropertiesView, HoldsTheAddedPropertiesUntilReset)
{
    TestPropertySet properties(numbered_properties(4));
    provider::ChangedPropertiesView view(properties);

    view.add(1);
    view.add(3);
    ASSERT_EQ(view.size(), 2u);
    EXPECT_EQ(&view[0], &properties[1]);
    EXPECT_EQ(&view[1], &properties[3]);

    view.reset();
    EXPECT_EQ(view.size(), 0u);
}

TEST(VectorCollection, IndexEqualToTheSizeRaisesOutOfRange)
{
    provider::util::VectorCollection<TestSignal, glue::ISignal> collection;
    collection.elements.emplace_back("A", "s");

    EXPECT_EQ(collection.size(), 1u);
    EXPECT_EQ(collection[0].name().str(), "A");
    EXPECT_THROW((void)collection[1], std::out_of_range);
    EXPECT_THROW((void)std::as_const(collection)[1], std::out_of_range);
}

} // namespace
} // namespace tarvek::test
