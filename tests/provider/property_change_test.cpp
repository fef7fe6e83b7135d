// SPDX-License-Identifier: LGPL-2.1-or-later
// Per-property options of typed interfaces: how a change is announced (emits, invalidates,
// constant, none) and ranges that are enforced rather than only published. Driven through
// the registry and a recording protocol server, the way a server drives an interface.
#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/registry.hpp>
#include <tarvek/serialization/json_deserializer.hpp>

#include "support/recording_server.hpp"
#include "support/test_iterators.hpp"

#include <gtest/gtest.h>

#include <sstream>

namespace {

struct Point {
    double x, y;
    bool operator==(Point const&) const = default;
};

} // namespace

template <>
inline constexpr auto tarvek::provider::struct_members<Point> = std::make_tuple(&Point::x, &Point::y);

namespace {

using tarvek::glue::ChangeSignal;
using tarvek::glue::change_signal_of;

class Gauge : public tarvek::provider::Interface {
public:
    Gauge() : Interface("org.sample.Gauge") {}

    Property<std::int32_t> level{*this, "Level", 0};
    Property<std::int32_t> counter{*this, "Counter", 0, Access::read_write, {}, Change::invalidates};
    Property<std::string> note{*this, "Note", "", Access::read_write, Change::none};
    Property<std::string> serial{*this, "Serial", "S-1", Access::read_write, Change::constant};
    Property<std::int32_t> percent{*this, "Percent", 50, Access::read_write, {{0, 100}}, RangeCheck::enforced};
    Property<std::int32_t> hint{*this, "Hint", 50, Access::read_write, {{0, 100}}};
    // Admits 1, 3 and 10 to 20; the third value of the last entry bounds nothing.
    Property<std::int32_t> mode{
        *this, "Mode", 1, Access::read_write, {{1}, {3}, {10, 20, 5}}, RangeCheck::enforced};
    // A default outside the enforced range.
    Property<std::int32_t> spare{*this, "Spare", 500, Access::read_write, {{0, 100}}, RangeCheck::enforced};

    unsigned long validations = 0;

protected:
    bool validate(Values const&) const override
    {
        ++const_cast<Gauge*>(this)->validations;
        return true;
    }
};

// A source per written value, from the JSON text of the value.
class JsonWrites
    : public tarvek::test::VectorIterator<std::pair<tarvek::glue::IProperty&, tarvek::glue::IDeserializer&>> {
public:
    void add(tarvek::glue::IProperty& property, std::string text)
    {
        entries_.push_back(std::make_unique<Entry>(property, std::move(text)));
    }

protected:
    std::size_t count() const override { return entries_.size(); }
    std::pair<tarvek::glue::IProperty&, tarvek::glue::IDeserializer&> element(std::size_t index) override
    {
        return {entries_[index]->property, entries_[index]->source};
    }

private:
    struct Entry {
        Entry(tarvek::glue::IProperty& p, std::string text) : property(p), stream(std::move(text)), source(stream) {}
        tarvek::glue::IProperty& property;
        std::istringstream stream;
        tarvek::serialization::JSON_Deserializer source;
    };
    std::vector<std::unique_ptr<Entry>> entries_;
};

class PropertyChangeTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        gauge = &tarvek::provider::add_interface<Gauge>(object);
        registry.add_server(server);
        registry.add_object(object, path);
        server.drive();
        glue = &server.interface(path, "org.sample.Gauge");
    }

    tarvek::glue::IProperty& property(std::string const& name)
    {
        auto& properties = glue->properties();
        for (unsigned long i = 0; i < properties.size(); ++i)
            if (properties[i].name().str() == name)
                return properties[i];
        throw std::out_of_range(name);
    }
    boost::future<void> write(std::vector<std::pair<std::string, std::string>> const& values)
    {
        JsonWrites writes;
        for (auto const& [name, text] : values)
            writes.add(property(name), text);
        tarvek::test::ResetIterator resets;
        auto future = glue->set_many(writes, resets);
        object.execute();
        server.drive();
        return future;
    }

    tarvek::ObjectPath const path{"/org/sample/gauge"};
    tarvek::test::RecordingServer server;
    tarvek::API_Registry registry;
    tarvek::Object object;
    Gauge* gauge = nullptr;
    tarvek::glue::IInterface* glue = nullptr;
};

TEST(PropertyRange, OneValueIsBothMinimumAndMaximum)
{
    tarvek::provider::Range<int> const only(3);
    EXPECT_EQ(only.minimum(), 3);
    EXPECT_EQ(only.maximum(), 3);
    EXPECT_TRUE(only.contains(3));
    EXPECT_FALSE(only.contains(2));
    EXPECT_FALSE(only.contains(4));
}

TEST(PropertyRange, TwoValuesBoundBothEndsIncluded)
{
    tarvek::provider::Range<int> const span(0, 100);
    EXPECT_TRUE(span.contains(0));
    EXPECT_TRUE(span.contains(100));
    EXPECT_FALSE(span.contains(-1));
    EXPECT_FALSE(span.contains(101));
}

TEST(PropertyRange, AThirdValueBoundsNothing)
{
    tarvek::provider::Range<int> const stepped(10, 20, 5);
    EXPECT_EQ(stepped.minimum(), 10);
    EXPECT_EQ(stepped.maximum(), 20);
    EXPECT_TRUE(stepped.contains(11));
    EXPECT_FALSE(stepped.contains(5));
}

TEST(PropertyRange, NotANumberLiesInNoRange)
{
    tarvek::provider::Range<double> const span(0.0, 1.0);
    EXPECT_FALSE(span.contains(std::numeric_limits<double>::quiet_NaN()));
}

TEST_F(PropertyChangeTest, EachPropertyTellsItsChangeSignal)
{
    EXPECT_EQ(change_signal_of(property("Level")), ChangeSignal::emits);
    EXPECT_EQ(change_signal_of(property("Counter")), ChangeSignal::invalidates);
    EXPECT_EQ(change_signal_of(property("Note")), ChangeSignal::none);
    EXPECT_EQ(change_signal_of(property("Serial")), ChangeSignal::constant);
    EXPECT_EQ(change_signal_of(property("Percent")), ChangeSignal::emits);
}

TEST_F(PropertyChangeTest, ChangesOfEveryKindReachTheServerInOneReport)
{
    // What goes on the bus is the server's choice; the runtime reports every change.
    auto done = write({{"Level", "1"}, {"Counter", "2"}, {"Note", "\"n\""}});
    EXPECT_NO_THROW(done.get());
    auto const changes = server.changes();
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_EQ(changes[0].names, (std::vector<std::string>{"Level", "Counter", "Note"}));
}

TEST_F(PropertyChangeTest, AConstantPropertyRefusesABusWrite)
{
    EXPECT_THROW(
        {
            try {
                write({{"Serial", "\"S-2\""}});
            } catch (tarvek::property_readonly const& e) {
                EXPECT_STREQ(e.what(), "Property Serial is constant");
                throw;
            }
        },
        tarvek::property_readonly);
    EXPECT_EQ(gauge->serial.get(), "S-1");
}

TEST_F(PropertyChangeTest, AConstantPropertyRefusesSetWhileTheObjectIsRegistered)
{
    EXPECT_THROW(
        {
            try {
                gauge->serial.set("S-2");
            } catch (tarvek::invalid_state_error const& e) {
                EXPECT_STREQ(e.what(), "Property Serial is constant while its object is registered");
                throw;
            }
        },
        tarvek::invalid_state_error);
    EXPECT_EQ(gauge->serial.get(), "S-1");
    EXPECT_EQ(gauge->validations, 0U);
    server.drive();
    EXPECT_TRUE(server.changes().empty());
}

TEST_F(PropertyChangeTest, AConstantPropertyAcceptsItsOwnValueWhileRegistered)
{
    // Nothing changes, so nothing is refused.
    EXPECT_NO_THROW(gauge->serial.set("S-1"));
}

TEST_F(PropertyChangeTest, AConstantPropertyRefusesANotificationWhileRegistered)
{
    EXPECT_THROW(gauge->internal_get_state()->notify_property_dirty(gauge->serial.index()),
        tarvek::invalid_state_error);
}

TEST_F(PropertyChangeTest, AConstantPropertyChangesAgainOnceUnregistered)
{
    registry.remove_object(path);
    EXPECT_NO_THROW(gauge->serial.set("S-2"));
    EXPECT_EQ(gauge->serial.get(), "S-2");
}

TEST(PropertyChange, AConstantPropertyTakesItsValueBeforeRegistration)
{
    tarvek::Object object;
    auto& gauge = tarvek::provider::add_interface<Gauge>(object);
    gauge.serial.set("S-9");
    tarvek::API_Registry registry;
    registry.add_object(object, tarvek::ObjectPath("/org/sample/gauge"));
    EXPECT_EQ(gauge.serial.get(), "S-9");
    EXPECT_THROW(gauge.serial.set("S-10"), tarvek::invalid_state_error);
}

TEST_F(PropertyChangeTest, AWriteOutsideAnEnforcedRangeIsRefusedLikeAValidation)
{
    auto done = write({{"Level", "5"}, {"Percent", "101"}});
    EXPECT_THROW(done.get(), tarvek::validation_failed);
    EXPECT_EQ(gauge->percent.get(), 50);
    EXPECT_EQ(gauge->level.get(), 0);
    EXPECT_EQ(gauge->validations, 0U) << "validate isn't asked about a value out of range";
    EXPECT_TRUE(server.changes().empty());
}

TEST_F(PropertyChangeTest, AWriteInsideAnEnforcedRangePasses)
{
    EXPECT_NO_THROW(write({{"Percent", "100"}}).get());
    EXPECT_EQ(gauge->percent.get(), 100);
    EXPECT_NO_THROW(write({{"Percent", "0"}}).get());
    EXPECT_EQ(gauge->percent.get(), 0);
}

TEST_F(PropertyChangeTest, SetOutsideAnEnforcedRangeRaisesAndChangesNothing)
{
    EXPECT_THROW(gauge->percent.set(-1), tarvek::validation_failed);
    EXPECT_EQ(gauge->percent.get(), 50);
    EXPECT_NO_THROW(gauge->percent.set(99));
    EXPECT_EQ(gauge->percent.get(), 99);
}

TEST_F(PropertyChangeTest, SeveralEnforcedEntriesAdmitTheirUnion)
{
    for (int value : {1, 3, 10, 15, 20})
        EXPECT_NO_THROW(gauge->mode.set(value)) << value;
    for (int value : {0, 2, 4, 9, 21, 25})
        EXPECT_THROW(gauge->mode.set(value), tarvek::validation_failed) << value;
    EXPECT_EQ(gauge->mode.get(), 20);
}

TEST_F(PropertyChangeTest, APublishedRangeIsNotEnforced)
{
    EXPECT_NO_THROW(write({{"Hint", "101"}}).get());
    EXPECT_EQ(gauge->hint.get(), 101);
    EXPECT_NO_THROW(gauge->hint.set(-5));
}

TEST_F(PropertyChangeTest, ABatchIsJudgedOnlyOnWhatItChanges)
{
    // Spare starts outside its enforced range; a write that leaves it alone still passes.
    EXPECT_NO_THROW(write({{"Level", "3"}}).get());
    EXPECT_EQ(gauge->level.get(), 3);
    EXPECT_EQ(gauge->spare.get(), 500);
    EXPECT_THROW(write({{"Spare", "501"}}).get(), tarvek::validation_failed);
}

class Unordered : public tarvek::provider::Interface {
public:
    Unordered() : Interface("org.sample.Unordered") {}
    Property<Point> where{*this, "Where", {0, 0}, Access::read_write, {{{0, 0}, {1, 1}}}, RangeCheck::enforced};
};

TEST(PropertyChange, EnforcingRangesOnATypeWithoutOrderIsRefused)
{
    EXPECT_THROW(Unordered(), tarvek::invalid_argument);
}

class Reversed : public tarvek::provider::Interface {
public:
    Reversed() : Interface("org.sample.Reversed") {}
    Property<std::int32_t> level{*this, "Level", 0, Access::read_write, {{10, 0}}, RangeCheck::enforced};
};

TEST(PropertyChange, AnEnforcedRangeWithItsEndsReversedIsRefused)
{
    EXPECT_THROW(Reversed(), tarvek::invalid_argument);
}

class PublishedReversed : public tarvek::provider::Interface {
public:
    PublishedReversed() : Interface("org.sample.PublishedReversed") {}
    Property<std::int32_t> level{*this, "Level", 0, Access::read_write, {{10, 0}}};
};

TEST(PropertyChange, APublishedRangeIsCarriedAsItIs)
{
    // Published only, the library doesn't interpret the entries.
    EXPECT_NO_THROW(PublishedReversed());
}

} // namespace
