// SPDX-License-Identifier: LGPL-2.1-or-later
// A batch is validated against what it will commit: its own values over the live values of
// everything else at the time of the commit, not the copy it was read into. Two batches
// read from one state and committed in turn, resets among them, and the typed setters
// racing a queued batch.
#include "support/provider_fixture.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/empty_range_collection.hpp>
#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/interface_implementation_base.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tarvek::test {
namespace {

// Two numbers and a rule between them, level <= max, with a record of what validate saw.
class BatchValidationTest : public ::testing::Test {
protected:
    // Publishes the interface with `max_default` as the default (and starting) value of
    // "max"; "level" starts at 0 and "note" is a string that no rule looks at.
    void publish(int max_default = 100)
    {
        iface = &add_interface(object,
            std::make_unique<TestInterface>(test_interface_name,
                std::vector<PropertySpec>{{"level", 0}, {"max", max_default}, {"note", std::string()}},
                members));
        iface->validator = [this](TestPropertySet& context) {
            int const level = std::get<int>(context.items[0].value);
            int const max = std::get<int>(context.items[1].value);
            seen.emplace_back(level, max);
            return level <= max;
        };
        registry.add_server(server);
        registry.add_object(object, path);
        server.drive();
    }

    std::shared_ptr<SetOutcome> write(
        std::vector<std::pair<std::string, Value>> const& values, std::vector<std::string> const& resets = {})
    {
        return server.set(path, test_interface_name, values, resets);
    }

    // Runs the object's executor and the server's until both are quiet.
    void settle()
    {
        for (int round = 0; round < 4; ++round) {
            object.execute();
            server.drive();
        }
    }

    int level() const { return std::get<int>(iface->committed(0)); }
    int max() const { return std::get<int>(iface->committed(1)); }

    ObjectPath const path{"/test/limited"};
    TestMembers members;
    RecordingServer server;
    API_Registry registry;
    Object object;
    TestInterface* iface = nullptr;
    // (level, max) as validate saw them, in order; only the object's executor writes it.
    std::vector<std::pair<int, int>> seen;
};

TEST_F(BatchValidationTest, SecondBatchIsRefusedWhenTheFirstMadeItInvalid)
{
    publish();
    // Both read from level 0 / max 100, and each is valid against that.
    auto lower_max = write({{"max", 50}});
    auto raise_level = write({{"level", 80}});

    settle();

    EXPECT_TRUE(lower_max->succeeded()) << lower_max->message();
    ASSERT_TRUE(raise_level->ready());
    EXPECT_THROW(raise_level->rethrow(), validation_failed);
    EXPECT_EQ(raise_level->message(), "com.example.Test: Property validation failure");
    EXPECT_EQ(level(), 0);
    EXPECT_EQ(max(), 50);
    EXPECT_EQ(seen, (std::vector<std::pair<int, int>>{{0, 50}, {80, 50}}))
        << "the second batch was judged with the first one's max";
    EXPECT_EQ(iface->recorded_changes(), (std::vector<std::vector<unsigned long>>{{1}}));
}

TEST_F(BatchValidationTest, BatchesThatStayValidTogetherBothCommit)
{
    publish();
    auto lower_max = write({{"max", 90}});
    auto raise_level = write({{"level", 80}});

    settle();

    EXPECT_TRUE(lower_max->succeeded()) << lower_max->message();
    EXPECT_TRUE(raise_level->succeeded()) << raise_level->message();
    EXPECT_EQ(level(), 80);
    EXPECT_EQ(max(), 90);
    EXPECT_EQ(seen.back(), std::make_pair(80, 90));
}

TEST_F(BatchValidationTest, BatchTouchingNothingTheOtherChangedKeepsBothChangesAndReportsOnlyItsOwn)
{
    publish();
    auto first = write({{"level", 10}});
    auto second = write({{"note", std::string("kept")}});

    settle();

    EXPECT_TRUE(first->succeeded()) << first->message();
    EXPECT_TRUE(second->succeeded()) << second->message();
    EXPECT_EQ(level(), 10) << "the second batch's stale copy of level didn't restore 0";
    EXPECT_EQ(iface->committed(2), Value(std::string("kept")));
    EXPECT_EQ(seen, (std::vector<std::pair<int, int>>{{10, 100}, {10, 100}}));
    EXPECT_EQ(iface->recorded_changes(), (std::vector<std::vector<unsigned long>>{{0}, {2}}));
    auto const changes = server.changes();
    ASSERT_EQ(changes.size(), 1u) << "one notification for the two batches, as the server hadn't looked yet";
    EXPECT_EQ(changes[0].names, (std::vector<std::string>{"level", "note"}));
}

TEST_F(BatchValidationTest, ResetInABatchIsJudgedWithTheLiveValuesOfTheOthers)
{
    publish(10);
    write({{"max", 100}});
    settle();
    ASSERT_EQ(max(), 100);
    // Valid against level 0 / max 100 each: level 50, and max back to its default of 10.
    auto raise_level = write({{"level", 50}});
    auto reset_max = write({}, {"max"});

    settle();

    EXPECT_TRUE(raise_level->succeeded()) << raise_level->message();
    EXPECT_THROW(reset_max->rethrow(), validation_failed);
    EXPECT_EQ(level(), 50);
    EXPECT_EQ(max(), 100);
    EXPECT_EQ(seen.back(), std::make_pair(50, 10));
}

TEST_F(BatchValidationTest, ResetOfAValueThatWasAtItsDefaultWhenReadStillWins)
{
    publish();
    auto raise_level = write({{"level", 30}});
    // level was at its default when this batch was read, so the reset itself changes
    // nothing in its copy; by its commit the live level is 30.
    auto reset_level = write({}, {"level"});

    settle();

    EXPECT_TRUE(raise_level->succeeded()) << raise_level->message();
    EXPECT_TRUE(reset_level->succeeded()) << reset_level->message();
    EXPECT_EQ(level(), 0);
    EXPECT_EQ(iface->recorded_changes(), (std::vector<std::vector<unsigned long>>{{0}, {0}}))
        << "the reset is reported as the change it is";
}

TEST_F(BatchValidationTest, PropertyNamedByBothBatchesTakesTheLaterValue)
{
    publish();
    auto first = write({{"level", 30}, {"max", 60}});
    auto second = write({{"level", 0}});

    settle();

    EXPECT_TRUE(first->succeeded()) << first->message();
    EXPECT_TRUE(second->succeeded()) << second->message();
    EXPECT_EQ(level(), 0);
    EXPECT_EQ(max(), 60) << "max, which the later batch didn't name, keeps the earlier value";
    EXPECT_EQ(seen.back(), std::make_pair(0, 60));
}

TEST_F(BatchValidationTest, BatchWithNothingMovedUnderItIsJudgedAsRead)
{
    publish();
    auto only = write({{"level", 100}});

    settle();

    EXPECT_TRUE(only->succeeded()) << only->message();
    EXPECT_EQ(seen, (std::vector<std::pair<int, int>>{{100, 100}}));
    EXPECT_EQ(iface->recorded_changes(), (std::vector<std::vector<unsigned long>>{{0}}));
}

TEST_F(BatchValidationTest, BatchIsJudgedWithAValueTheApplicationChangedAfterItWasRead)
{
    publish();
    auto raise_level = write({{"level", 70}});
    iface->change_live(1, 40);

    settle();

    EXPECT_THROW(raise_level->rethrow(), validation_failed);
    EXPECT_EQ(level(), 0);
    EXPECT_EQ(max(), 40);
}

TEST_F(BatchValidationTest, ApplicationSetPropertiesIsJudgedWithTheLiveValues)
{
    publish();
    // The application's copy is taken before a batch commits under it.
    auto copy = iface->get_properties();
    auto& values = static_cast<TestPropertySet&>(*copy);
    write({{"max", 50}});
    settle();
    values.items[0].value = 80;
    values.items[0].dirty = true;

    EXPECT_THROW(iface->set_properties(values), validation_failed);
    EXPECT_EQ(level(), 0);
    EXPECT_EQ(max(), 50);
}

// Interface code whose copy_from takes every value, marked or not, which the runtime allows
// as well: batches laid over the live values must come out the same with it.
class PlainProperty : public provider::IPropertyEx {
public:
    PlainProperty(char const* name, int initial, unsigned short index)
        : value(initial)
        , name_(name)
        , initial_(initial)
        , index_(index)
    {
    }

    ConstString name() const override { return ConstString::from_c_str(name_); }
    ConstString signature() const override { return ConstString("i"); }
    void serialize(glue::ISerializer& sink) const override { write_value(sink, value); }
    bool is_default() const override { return value == initial_; }
    void serialize_default(glue::ISerializer& sink) const override { write_value(sink, initial_); }
    bool is_readonly() const override { return false; }
    glue::ICollection<glue::IPropertyRange> const& ranges() const override
    {
        return provider::range::EmptyRangeCollection::instance;
    }
    void deserialize(glue::IDeserializer& source) override { assign(source.read_int32()); }
    void reset() override { assign(initial_); }
    void set_dirty() override { dirty = true; }
    void clear_dirty() override { dirty = false; }
    bool is_dirty() const override { return dirty; }
    unsigned short index() const override { return index_; }
    void copy_from(provider::IPropertyEx const& other) override
    {
        value = static_cast<PlainProperty const&>(other).value;
    }
    bool equals(provider::IPropertyEx const& other) const override
    {
        return value == static_cast<PlainProperty const&>(other).value;
    }

    int value;
    bool dirty = false;

private:
    void assign(int next)
    {
        if (next != value) {
            value = next;
            dirty = true;
        }
    }

    char const* name_;
    int initial_;
    unsigned short index_;
};

class PlainSet : public provider::IPropertyExCollection {
public:
    unsigned long size() const override { return items.size(); }
    PlainProperty& operator[](unsigned long index) override { return items.at(index); }
    PlainProperty const& operator[](unsigned long index) const override { return items.at(index); }

    std::vector<PlainProperty> items;
};

class PlainLimited : public provider::InterfaceImplementationBase {
public:
    explicit PlainLimited(TestMembers& members)
        : InterfaceImplementationBase(std::make_shared<provider::InterfaceState>(
            *this, ConstString("com.example.Plain"), make_set(), members.methods, members.signals))
    {
    }

    std::unique_ptr<provider::IPropertyExCollection> get_properties() const override
    {
        return std::make_unique<PlainSet>(live());
    }
    void set_properties(provider::IPropertyExCollection& context) override
    {
        state_->set_properties(context);
    }
    void* method_target() override { return this; }
    bool validate(provider::IPropertyExCollection& context) override
    {
        auto const& set = static_cast<PlainSet&>(context);
        return set.items[0].value <= set.items[1].value;
    }
    void on_changed(provider::IPropertyExCollection&, provider::IChangedProperties&) override { }

    PlainSet const& live() const { return static_cast<PlainSet const&>(std::as_const(*state_).properties()); }

private:
    static std::shared_ptr<PlainSet> make_set()
    {
        auto set = std::make_shared<PlainSet>();
        set->items.emplace_back("level", 0, 0);
        set->items.emplace_back("max", 100, 1);
        return set;
    }
};

TEST(PlainCopyBatchValidation, SecondBatchIsRefusedAndTheFirstSurvivesWithACopyOfEveryValue)
{
    TestMembers members;
    RecordingServer server;
    API_Registry registry;
    Object object;
    auto implementation = std::make_unique<PlainLimited>(members);
    auto& plain = *implementation;
    object.check_can_add_interface(implementation->interface_name());
    object.add_interface_internal(std::move(implementation));
    registry.add_server(server);
    ObjectPath const path("/test/plain");
    registry.add_object(object, path);
    server.drive();

    auto lower_max = server.set(path, "com.example.Plain", {{"max", 50}});
    auto raise_level = server.set(path, "com.example.Plain", {{"level", 80}});
    auto note_level = server.set(path, "com.example.Plain", {{"level", 20}});
    object.execute();
    server.drive();

    EXPECT_TRUE(lower_max->succeeded()) << lower_max->message();
    EXPECT_THROW(raise_level->rethrow(), validation_failed);
    EXPECT_TRUE(note_level->succeeded()) << note_level->message();
    EXPECT_EQ(plain.live().items[0].value, 20);
    EXPECT_EQ(plain.live().items[1].value, 50)
        << "the stale copy of max in the later batches didn't restore 100";
}

// The same with the typed helpers: a lamp whose level may not pass its maximum.
class Dimmer : public provider::Interface {
public:
    Dimmer()
        : Interface("org.sample.Dimmer")
    {
    }
    Property<std::int32_t> level{*this, "Level", 0};
    Property<std::int32_t> max_level{*this, "MaxLevel", 100};

protected:
    bool validate(Values const& v) const override { return v[level] <= v[max_level]; }
};

class TypedBatchValidationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        dimmer = &provider::add_interface<Dimmer>(object);
        registry.add_server(server);
        registry.add_object(object, path);
        server.drive();
    }

    std::shared_ptr<SetOutcome> write(std::vector<std::pair<std::string, Value>> const& values)
    {
        return server.set(path, "org.sample.Dimmer", values);
    }
    void settle()
    {
        for (int round = 0; round < 4; ++round) {
            object.execute();
            server.drive();
        }
    }

    ObjectPath const path{"/test/dimmer"};
    RecordingServer server;
    API_Registry registry;
    Object object;
    Dimmer* dimmer = nullptr;
};

TEST_F(TypedBatchValidationTest, QueuedBatchIsRefusedWhenAnApplicationSetterMadeItInvalid)
{
    auto raise_level = write({{"Level", 80}});
    dimmer->max_level.set(50);

    settle();

    EXPECT_THROW(raise_level->rethrow(), validation_failed);
    EXPECT_EQ(dimmer->level.get(), 0);
    EXPECT_EQ(dimmer->max_level.get(), 50);
}

TEST_F(TypedBatchValidationTest, SetterIsRefusedWhenABatchCommittedUnderItsCopy)
{
    // update's edit works on a copy; a batch commits in the meantime.
    EXPECT_THROW(dimmer->update([&](provider::Values& v) {
        write({{"MaxLevel", 50}});
        settle();
        v.set(dimmer->level, 80);
    }),
        validation_failed);

    EXPECT_EQ(dimmer->level.get(), 0);
    EXPECT_EQ(dimmer->max_level.get(), 50);
}

TEST_F(TypedBatchValidationTest, SetterValueEqualToItsCopyStillWinsOverAValueCommittedMeanwhile)
{
    dimmer->update([&](provider::Values& v) {
        dimmer->level.set(30);
        v.set(dimmer->level, 0); // equal to the copy, no longer to the live value
    });

    EXPECT_EQ(dimmer->level.get(), 0);
}

TEST_F(TypedBatchValidationTest, SetterOfTheLiveValueChangesNothingAndNotifiesNobody)
{
    dimmer->level.set(0);
    server.drive();

    EXPECT_TRUE(server.changes().empty());
    EXPECT_EQ(server.changed_calls, 0);
}

} // namespace
} // namespace tarvek::test
