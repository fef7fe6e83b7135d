// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/recording_server.hpp"
#include "support/test_interface.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/object.hpp>
#include <tarvek/provider/object_state.hpp>
#include <tarvek/provider/registry.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarvek::test {
namespace {

// A server that refuses every object: what a failing server does to add_object.
class RefusingServer : public glue::IProtocolServer {
public:
    std::string const& name() const override { return name_; }
    void on_object_added(std::unique_ptr<glue::IObject>, ObjectPath const&) override
    {
        throw std::runtime_error("refused");
    }
    void on_object_removed(ObjectPath const&) override { }
    void on_properties_changed(glue::IObject&, ObjectPath const&, glue::IInterface&) override { }
    void on_signal(glue::IObject&, ObjectPath const&, glue::IInterface&, glue::ISignal&,
        std::shared_ptr<glue::ISignalValue>) override
    {
    }

private:
    std::string name_ = "refusing";
};

template <class F> std::string message_of(F&& action)
{
    try {
        action();
    } catch (std::exception const& e) {
        return e.what();
    }
    return "no exception";
}

class RegistryTest : public ::testing::Test {
protected:
    Object& make_object()
    {
        auto& object = objects.emplace_back(std::make_unique<Object>());
        add_interface(*object,
            std::make_unique<TestInterface>(
                "com.example.Test", std::vector<PropertySpec>{{"a", 0}}, members));
        return *object;
    }

    TestMembers members;
    RecordingServer server;
    RecordingServer other{"other"};
    API_Registry registry;
    std::vector<std::unique_ptr<Object>> objects;
};

TEST_F(RegistryTest, AddObjectHandsEveryServerAWrapper)
{
    registry.add_server(server);
    registry.add_server(other);
    auto& object = make_object();

    registry.add_object(object, ObjectPath("/a"));
    server.drive();
    other.drive();

    EXPECT_TRUE(object.is_registered());
    EXPECT_TRUE(static_cast<bool>(object));
    EXPECT_EQ(object.path(), ObjectPath("/a"));
    EXPECT_EQ(ObjectPath(object), ObjectPath("/a"));
    EXPECT_EQ(server.added(), std::vector<ObjectPath>{ObjectPath("/a")});
    EXPECT_EQ(other.added(), std::vector<ObjectPath>{ObjectPath("/a")});
    EXPECT_EQ(server.interface(ObjectPath("/a"), "com.example.Test").interface_name(),
        ConstString("com.example.Test"));
}

TEST_F(RegistryTest, AddObjectWithAnEmptyPathFailsAndLeavesTheObjectUnregistered)
{
    auto& object = make_object();

    EXPECT_EQ(message_of([&] { registry.add_object(object, ObjectPath()); }), "Invalid object path");
    EXPECT_FALSE(object.is_registered());
}

TEST_F(RegistryTest, AddObjectAtATakenPathFailsAndLeavesBothObjectsAsTheyWere)
{
    registry.add_server(server);
    auto& first = make_object();
    auto& second = make_object();
    registry.add_object(first, ObjectPath("/a"));

    EXPECT_EQ(message_of([&] { registry.add_object(second, ObjectPath("/a")); }), "Path already exists: /a");

    EXPECT_EQ(first.path(), ObjectPath("/a"));
    EXPECT_FALSE(second.is_registered());
    EXPECT_EQ(server.added_calls, 1);
}

TEST_F(RegistryTest, SecondAddOfARegisteredObjectListsItTwiceAndItsDestructionRemovesTheNewerEntry)
{
    registry.add_server(server);
    auto object = std::make_unique<Object>();
    registry.add_object(*object, ObjectPath("/old"));

    registry.add_object(*object, ObjectPath("/new"));
    EXPECT_EQ(object->path(), ObjectPath("/new"));
    EXPECT_EQ(server.added_calls, 2);

    object.reset();
    EXPECT_EQ(server.removed_calls, 1);
    server.drive();
    EXPECT_EQ(server.removed(), std::vector<ObjectPath>{ObjectPath("/new")});
    // The older entry refers to the dead state still; only adding at that path shows it.
    auto& fresh = make_object();
    EXPECT_EQ(
        message_of([&] { registry.add_object(fresh, ObjectPath("/old")); }), "Path already exists: /old");
    registry.remove_object_no_detach(ObjectPath("/old"));
}

TEST_F(RegistryTest, RemoveObjectOfAnUnknownPathTellsEveryServerAndThenFails)
{
    registry.add_server(server);
    registry.add_server(other);

    EXPECT_EQ(
        message_of([&] { registry.remove_object(ObjectPath("/nowhere")); }), "No such object: /nowhere");

    EXPECT_EQ(server.removed_calls, 1);
    EXPECT_EQ(other.removed_calls, 1);
}

TEST_F(RegistryTest, RemoveObjectDetachesTheObjectAndFlagsItsWrappers)
{
    registry.add_server(server);
    server.keep_removed = true;
    auto& object = make_object();
    registry.add_object(object, ObjectPath("/a"));
    server.drive();

    registry.remove_object(ObjectPath("/a"));
    server.drive();

    EXPECT_FALSE(object.is_registered());
    EXPECT_TRUE(object.path().empty());
    EXPECT_EQ(server.removed(), std::vector<ObjectPath>{ObjectPath("/a")});
    auto outcome = server.set(ObjectPath("/a"), "com.example.Test", {{"a", 1}});
    server.drive();
    EXPECT_EQ(outcome->message(), "Interface/object has been removed");
}

TEST_F(RegistryTest, ReregisteredObjectRevivesTheWrappersAServerKept)
{
    registry.add_server(server);
    server.keep_removed = true;
    auto& object = make_object();
    registry.add_object(object, ObjectPath("/a"));
    server.drive();
    auto& old_interface = server.interface(ObjectPath("/a"), "com.example.Test");
    registry.remove_object(ObjectPath("/a"));

    registry.add_object(object, ObjectPath("/b"));
    server.drive();

    WriteIterator writes;
    writes.add(old_interface.properties()[0], 3);
    ResetIterator resets;
    auto future = old_interface.set_many(writes, resets);
    object.execute();
    EXPECT_NO_THROW(future.get());
    EXPECT_EQ(server.added_calls, 2);
}

TEST_F(RegistryTest, RemoveObjectNoDetachLeavesTheObjectAttached)
{
    registry.add_server(server);
    auto& object = make_object();
    registry.add_object(object, ObjectPath("/a"));

    registry.remove_object_no_detach(ObjectPath("/a"));

    EXPECT_EQ(server.removed_calls, 1);
    EXPECT_TRUE(object.is_registered());
    EXPECT_EQ(object.path(), ObjectPath("/a"));
    // What the destructor would otherwise repeat, ending the process.
    object.state().detach();
}

TEST_F(RegistryTest, ServerAddedLaterReceivesEveryObjectInPathOrder)
{
    registry.add_object(make_object(), ObjectPath("/a0"));
    registry.add_object(make_object(), ObjectPath("/a/b"));
    registry.add_object(make_object(), ObjectPath("/a"));

    registry.add_server(server);
    server.drive();

    EXPECT_EQ(server.added_calls, 3);
    EXPECT_EQ(
        server.added(), (std::vector<ObjectPath>{ObjectPath("/a"), ObjectPath("/a/b"), ObjectPath("/a0")}));
}

TEST_F(RegistryTest, AddingAServerTwiceFails)
{
    registry.add_server(server);

    EXPECT_EQ(message_of([&] { registry.add_server(server); }), "Server already added");
}

TEST_F(RegistryTest, RemovingAnUnknownServerFails)
{
    EXPECT_EQ(message_of([&] { registry.remove_server(server); }), "No such server");
}

TEST_F(RegistryTest, RemovedServerKeepsItsWrappersAndStillHearsOfChanges)
{
    registry.add_server(server);
    registry.add_server(other);
    auto& object = make_object();
    registry.add_object(object, ObjectPath("/a"));
    server.drive();

    registry.remove_server(server);
    static_cast<TestInterface&>(object.interface(0)).change_live(0, 5);
    registry.add_object(make_object(), ObjectPath("/b"));

    EXPECT_EQ(server.changed_calls, 1);
    EXPECT_EQ(server.added_calls, 1) << "forgotten for future objects";
    EXPECT_EQ(other.added_calls, 2);
}

TEST_F(RegistryTest, FailingServerLeavesTheObjectRegisteredWithoutRollback)
{
    RefusingServer refusing;
    registry.add_server(server);
    registry.add_server(refusing);
    registry.add_server(other);
    auto& object = make_object();

    EXPECT_EQ(message_of([&] { registry.add_object(object, ObjectPath("/a")); }), "refused");

    EXPECT_TRUE(object.is_registered());
    EXPECT_EQ(server.added_calls, 1);
    EXPECT_EQ(other.added_calls, 0);
    registry.remove_server(refusing);
}

TEST_F(RegistryTest, RemoveAllTellsNoServerAndForgetsTheServers)
{
    registry.add_server(server);
    auto& object = make_object();
    registry.add_object(object, ObjectPath("/a"));

    registry.remove_all();

    EXPECT_FALSE(object.is_registered());
    EXPECT_EQ(server.removed_calls, 0);
    registry.add_object(object, ObjectPath("/a"));
    EXPECT_EQ(server.added_calls, 1) << "the next add_object reaches no server";
}

TEST_F(RegistryTest, DestroyedObjectUnregistersItselfAndTellsTheServers)
{
    registry.add_server(server);
    auto object = std::make_unique<Object>();
    registry.add_object(*object, ObjectPath("/a"));

    object.reset();

    EXPECT_EQ(server.removed_calls, 1);
    EXPECT_EQ(message_of([&] { registry.remove_object(ObjectPath("/a")); }), "No such object: /a");
}

TEST_F(RegistryTest, ObjectOutlivesItsRegistry)
{
    auto& object = make_object();
    {
        API_Registry short_lived;
        short_lived.add_server(server);
        short_lived.add_object(object, ObjectPath("/a"));
    }

    EXPECT_FALSE(object.is_registered());
    EXPECT_EQ(server.removed_calls, 0) << "servers aren't told";
}

TEST(API_Registry, MovedFromRegistryFailsWithNullDereference)
{
    RecordingServer server;
    API_Registry original;
    API_Registry moved(std::move(original));

    EXPECT_EQ(message_of([&] { original.add_server(server); }), "null dereference");
    EXPECT_THROW(original.remove_all(), internal_error);
    EXPECT_NO_THROW(moved.add_server(server));
}

} // namespace
} // namespace tarvek::test
