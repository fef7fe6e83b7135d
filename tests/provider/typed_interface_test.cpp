// SPDX-License-Identifier: LGPL-2.1-or-later
// Typed interfaces end to end: a complete interface written with the helpers, published
// through the registry to a recording protocol server, and driven the way a server does.
#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/registry.hpp>
#include <tarvek/serialization/json_deserializer.hpp>
#include <tarvek/serialization/json_serializer.hpp>

#include "support/recording_server.hpp"
#include "support/test_iterators.hpp"

#include <gtest/gtest.h>

#include <sstream>

namespace {

struct Color {
    double r, g, b;
    bool operator==(Color const&) const = default;
};

} // namespace

template <>
inline constexpr auto tarvek::provider::struct_members<Color> = std::make_tuple(&Color::r, &Color::g, &Color::b);

namespace {

// The example: three properties, two methods and a signal. (The recording server records
// values of the signed basic types only, which is why they are used here.)
class Lamp : public tarvek::provider::Interface {
public:
    Lamp() : Interface("org.sample.Lamp") {}

    Property<bool> on{*this, "On", false};
    Property<std::int32_t> level{*this, "Level", 0, Access::read_write, {{0, 100}}};
    Property<Color> color{*this, "Color", {1, 1, 1}, Access::read_write, {{{0, 0, 0}, {1, 1, 1}}}};
    Signal<std::int64_t> blinked{*this, "Blinked"};
    Method toggle{*this, "Toggle", &Lamp::do_toggle};
    Method blink{*this, "Blink", &Lamp::do_blink};

    // Kept by Blink until the test answers it.
    std::optional<Responder<std::int64_t>> pending;

protected:
    bool validate(Values const& v) const override
    {
        auto const& c = v[color];
        return v[level] <= 100 && c.r <= 1 && c.g <= 1 && c.b <= 1;
    }
    void on_changed(Values const&, Changed const& changed) override
    {
        changes += changed.size();
        level_changed = level_changed || changed.contains(level);
    }

private:
    bool do_toggle()
    {
        on.set(!on.get());
        return on.get();
    }
    void do_blink(Responder<std::int64_t> reply, std::int32_t times)
    {
        if (times <= 0)
            throw tarvek::invalid_argument("times must be positive");
        pending = reply;
    }

public:
    unsigned long changes = 0;
    bool level_changed = false;
};

// A source per written value, from the JSON text of the value.
class JsonWrites : public tarvek::test::VectorIterator<std::pair<tarvek::glue::IProperty&, tarvek::glue::IDeserializer&>> {
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

class JsonArguments : public tarvek::test::VectorIterator<tarvek::glue::IDeserializer&> {
public:
    explicit JsonArguments(std::vector<std::string> const& texts)
    {
        for (auto const& text : texts)
            entries_.push_back(std::make_unique<Entry>(text));
    }

protected:
    std::size_t count() const override { return entries_.size(); }
    tarvek::glue::IDeserializer& element(std::size_t index) override { return entries_[index]->source; }

private:
    struct Entry {
        explicit Entry(std::string text) : stream(std::move(text)), source(stream) {}
        std::istringstream stream;
        tarvek::serialization::JSON_Deserializer source;
    };
    std::vector<std::unique_ptr<Entry>> entries_;
};

std::string json_of(auto const& writer)
{
    std::ostringstream out;
    tarvek::serialization::JSON_Serializer sink(out);
    writer(sink);
    return out.str();
}

class TypedInterfaceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        lamp = &tarvek::provider::add_interface<Lamp>(object);
        registry.add_server(server);
        registry.add_object(object, path);
        server.drive();
        glue = &server.interface(path, "org.sample.Lamp");
    }

    tarvek::glue::IProperty& property(std::string const& name)
    {
        auto& properties = glue->properties();
        for (unsigned long i = 0; i < properties.size(); ++i)
            if (properties[i].name().str() == name)
                return properties[i];
        throw std::out_of_range(name);
    }
    tarvek::glue::IMethod& method(std::string const& name)
    {
        auto& methods = glue->methods();
        for (unsigned long i = 0; i < methods.size(); ++i)
            if (methods[i].name().str() == name)
                return methods[i];
        throw std::out_of_range(name);
    }
    boost::future<void> write(std::vector<std::pair<std::string, std::string>> const& values)
    {
        JsonWrites writes;
        for (auto const& [name, text] : values)
            writes.add(property(name), text);
        tarvek::test::ResetIterator resets;
        return glue->set_many(writes, resets);
    }
    boost::future<std::unique_ptr<tarvek::glue::IMethodReturnValue>> call(std::string const& name,
                                                                         std::vector<std::string> const& arguments)
    {
        JsonArguments iterator(arguments);
        return glue->call_method(method(name), iterator);
    }
    // Runs what the object's executor has queued, then what the server has.
    void run()
    {
        object.execute();
        server.drive();
    }

    tarvek::ObjectPath const path{"/org/sample/lamps/lamp1"};
    tarvek::test::RecordingServer server;
    tarvek::API_Registry registry;
    tarvek::Object object;
    Lamp* lamp = nullptr;
    tarvek::glue::IInterface* glue = nullptr;
};

TEST_F(TypedInterfaceTest, SignaturesFollowTheCppTypes)
{
    EXPECT_EQ(property("On").signature(), tarvek::ConstString("b"));
    EXPECT_EQ(property("Level").signature(), tarvek::ConstString("i"));
    EXPECT_EQ(property("Color").signature(), tarvek::ConstString("(ddd)"));
    EXPECT_EQ(method("Toggle").parameter_signature(), tarvek::ConstString(""));
    EXPECT_EQ(method("Toggle").result_signature(), tarvek::ConstString("b"));
    EXPECT_EQ(method("Blink").parameter_signature(), tarvek::ConstString("i"));
    EXPECT_EQ(method("Blink").result_signature(), tarvek::ConstString("x"));
    ASSERT_EQ(glue->signals().size(), 1U);
    EXPECT_EQ(glue->signals()[0].signature(), tarvek::ConstString("x"));
}

TEST_F(TypedInterfaceTest, PropertiesKeepTheirDeclarationOrderAsIndices)
{
    EXPECT_EQ(lamp->on.index(), 0);
    EXPECT_EQ(lamp->level.index(), 1);
    EXPECT_EQ(lamp->color.index(), 2);
    EXPECT_EQ(glue->properties()[1].name(), tarvek::ConstString("Level"));
}

TEST_F(TypedInterfaceTest, DefaultsAndRangesAreReported)
{
    EXPECT_TRUE(property("Level").is_default());
    EXPECT_EQ(json_of([&](auto& sink) { property("Color").serialize_default(sink); }), "[1, 1, 1]");
    auto const& ranges = property("Level").ranges();
    ASSERT_EQ(ranges.size(), 1U);
    EXPECT_TRUE(ranges[0].has_second());
    EXPECT_FALSE(ranges[0].has_third());
    EXPECT_EQ(json_of([&](auto& sink) { ranges[0].serialize_second(sink); }), "100");
    EXPECT_EQ(property("On").ranges().size(), 0);
}

TEST_F(TypedInterfaceTest, BusWriteCommitsOnTheExecutorAndIsReported)
{
    auto done = write({{"Level", "40"}, {"Color", "[0.5, 0, 1]"}});
    EXPECT_EQ(lamp->level.get(), 0) << "nothing commits before the executor runs";
    run();
    ASSERT_TRUE(done.is_ready());
    EXPECT_NO_THROW(done.get());
    EXPECT_EQ(lamp->level.get(), 40);
    EXPECT_EQ(lamp->color.get(), (Color{0.5, 0, 1}));
    EXPECT_EQ(lamp->changes, 2U);
    EXPECT_TRUE(lamp->level_changed);
    auto const changes = server.changes();
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_EQ(changes[0].names, (std::vector<std::string>{"Level", "Color"}));
}

TEST_F(TypedInterfaceTest, RefusedBatchChangesNothing)
{
    auto done = write({{"Level", "40"}, {"Color", "[2, 0, 0]"}});
    run();
    EXPECT_THROW(done.get(), tarvek::validation_failed);
    EXPECT_EQ(lamp->level.get(), 0);
    EXPECT_EQ(lamp->changes, 0);
    EXPECT_TRUE(server.changes().empty());
}

TEST_F(TypedInterfaceTest, ApplicationSetIsValidatedCommittedAndReported)
{
    lamp->level.set(7);
    EXPECT_EQ(lamp->level.get(), 7);
    EXPECT_THROW(lamp->level.set(101), tarvek::validation_failed);
    EXPECT_EQ(lamp->level.get(), 7);
    server.drive();
    auto const changes = server.changes();
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_EQ(changes[0].names, std::vector<std::string>{"Level"});
}

TEST_F(TypedInterfaceTest, SettingAnEqualValueReportsNothing)
{
    lamp->level.set(0);
    server.drive();
    EXPECT_TRUE(server.changes().empty());
    EXPECT_EQ(lamp->changes, 0);
}

TEST_F(TypedInterfaceTest, UpdateCommitsSeveralValuesAsOneBatch)
{
    lamp->update([&](tarvek::provider::Values& v) {
        v.set(lamp->level, 30);
        v.set(lamp->on, true);
    });
    server.drive();
    auto const changes = server.changes();
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_EQ(changes[0].names, (std::vector<std::string>{"On", "Level"}));
}

TEST_F(TypedInterfaceTest, SynchronousMethodReturnsItsValue)
{
    auto result = call("Toggle", {});
    run();
    ASSERT_TRUE(result.is_ready());
    EXPECT_EQ(json_of([&](auto& sink) { result.get()->serialize(sink); }), "true");
    EXPECT_TRUE(lamp->on.get());
}

TEST_F(TypedInterfaceTest, ResponderAnswersLater)
{
    auto result = call("Blink", {"3"});
    run();
    ASSERT_TRUE(lamp->pending.has_value());
    EXPECT_FALSE(result.is_ready());
    lamp->blinked.emit(3);
    lamp->pending->reply(3);
    EXPECT_THROW(lamp->pending->reply(4), boost::promise_already_satisfied);
    ASSERT_TRUE(result.is_ready());
    EXPECT_EQ(json_of([&](auto& sink) { result.get()->serialize(sink); }), "3");
    server.drive();
    auto const signals = server.signals();
    ASSERT_EQ(signals.size(), 1U);
    EXPECT_EQ(signals[0].signal, "Blinked");
}

TEST_F(TypedInterfaceTest, HandlerExceptionReachesTheFutureWithItsClass)
{
    auto result = call("Blink", {"0"});
    run();
    ASSERT_TRUE(result.is_ready());
    try {
        result.get();
        FAIL() << "no exception";
    } catch (tarvek::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "times must be positive");
    }
}

TEST_F(TypedInterfaceTest, DroppedResponderLosesTheRequest)
{
    auto result = call("Blink", {"2"});
    run();
    lamp->pending.reset();
    ASSERT_TRUE(result.is_ready());
    EXPECT_THROW(result.get(), boost::broken_promise);
}

TEST_F(TypedInterfaceTest, WrongArgumentCountIsRefusedOnTheCallersThread)
{
    EXPECT_THROW(call("Blink", {}), tarvek::invalid_argument);
    EXPECT_THROW(call("Blink", {"1", "2"}), tarvek::invalid_argument);
}

TEST_F(TypedInterfaceTest, BadValueTextIsRefusedOnTheCallersThread)
{
    EXPECT_THROW(write({{"Level", "\"ten\""}}), tarvek::deserialize_error);
    EXPECT_EQ(lamp->level.get(), 0);
}

TEST_F(TypedInterfaceTest, OverlappingBatchesKeepEachOthersValues)
{
    // Both are read against the same committed state; each names another property.
    auto first = write({{"Level", "10"}});
    auto second = write({{"On", "true"}});
    run();
    EXPECT_NO_THROW(first.get());
    EXPECT_NO_THROW(second.get());
    EXPECT_EQ(lamp->level.get(), 10);
    EXPECT_TRUE(lamp->on.get());
}

TEST_F(TypedInterfaceTest, MembersCannotBeDeclaredAfterTheInterfaceIsAdded)
{
    EXPECT_THROW(tarvek::provider::Property<int>(*lamp, "Late", 0), tarvek::invalid_state_error);
}

TEST_F(TypedInterfaceTest, CallQueuedBeforeTheObjectGoesIsNotLostSilently)
{
    auto result = call("Toggle", {});
    {
        tarvek::Object doomed = std::move(object);
    }
    ASSERT_TRUE(result.is_ready());
    EXPECT_ANY_THROW(result.get());
}

TEST(TypedInterface, AddingTwoInterfacesOfOneNameIsRefused)
{
    tarvek::Object object;
    tarvek::provider::add_interface<Lamp>(object);
    EXPECT_THROW(tarvek::provider::add_interface<Lamp>(object), tarvek::invalid_argument);
}

TEST(TypedInterface, ValueChangedBeforeRegistrationIsTheStartingValue)
{
    tarvek::Object object;
    auto& lamp = tarvek::provider::add_interface<Lamp>(object);
    lamp.level.set(55);
    EXPECT_EQ(lamp.level.get(), 55);
    EXPECT_FALSE(lamp.get_properties()->operator[](1).is_default());
}

} // namespace

namespace {

TEST(TypedInterface, WriteQueuedOnASharedExecutorOutlivesItsObject)
{
    tarvek::detail::executors::ExecutorBase executor;
    tarvek::test::RecordingServer server;
    tarvek::API_Registry registry;
    registry.add_server(server);
    boost::future<void> done;
    {
        tarvek::Object object(executor);
        tarvek::provider::add_interface<Lamp>(object);
        tarvek::ObjectPath const path("/lamp");
        registry.add_object(object, path);
        server.drive();
        auto& glue = server.interface(path, "org.sample.Lamp");
        tarvek::test::WriteIterator writes;
        writes.add(glue.properties()[1], 5);
        tarvek::test::ResetIterator resets;
        done = glue.set_many(writes, resets);
    }
    server.drive(); // the server lets go of the object: nothing but the task holds its state
    executor.run_dry();
    ASSERT_TRUE(done.is_ready());
    EXPECT_THROW(done.get(), tarvek::validation_failed);
}

} // namespace
