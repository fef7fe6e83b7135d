// SPDX-License-Identifier: LGPL-2.1-or-later
// A batch is validated against what it will commit: its own values over the live values of
// everything else at the time of the commit, not the copy it was read into. Two batches
// read from one state and committed in turn, resets among them, and the typed setters
// racing a queued batch.
#include "support/provider_fixture.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/interface.hpp>

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
