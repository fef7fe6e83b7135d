// SPDX-License-Identifier: LGPL-2.1-or-later
// Typed methods beyond one result: several results against one struct result, argument
// names, the application's named errors, and the caller that a handler and validate see.
// Driven through a recording protocol server, the way a server drives them.
#include <tarvek/common/caller.hpp>
#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/registry.hpp>
#include <tarvek/serialization/json_deserializer.hpp>
#include <tarvek/serialization/json_serializer.hpp>

#include "support/recording_server.hpp"
#include "support/test_iterators.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string_view>

namespace {

using tarvek::provider::ArgumentNames;

class Dimmer : public tarvek::provider::Interface {
public:
    Dimmer()
        : Interface("org.sample.Dimmer")
    {
    }

    Property<std::int32_t> level{*this, "Level", 0};
    Signal<std::int32_t, std::string> dimmed{*this, "Dimmed", {"level", "reason"}};
    Signal<std::int32_t> plain{*this, "Plain"};
    // Two out arguments, named.
    Method span{*this, "Span", &Dimmer::do_span, {.in = {"scale"}, .out = {"low", "high"}}};
    // One struct result with the same members.
    Method pair{*this, "Pair", [](std::int32_t scale) {
                    return std::tuple<std::int32_t, std::int32_t>{scale, 2 * scale};
                }};
    // Two results, answered later.
    Method later{*this, "Later", [this](Responder<Results<bool, std::int32_t>> reply) { pending = reply; }};
    Method nothing{*this, "Nothing", [] {}, {.in = {}, .out = {}}};
    Method refuse{*this, "Refuse",
        [](std::string text) -> bool { throw tarvek::named_error("org.sample.Dimmer.Error.Refused", text); }};
    Method refuse_later{*this, "RefuseLater", [](Responder<> reply) {
                            reply.fail(tarvek::named_error("org.sample.Dimmer.Error.Later", "not now"));
                        }};
    // What current_caller() says in the handler, and in a local set that it makes.
    Method who{*this, "Who", &Dimmer::do_who};

    std::optional<Responder<Results<bool, std::int32_t>>> pending;
    std::optional<tarvek::Caller> seen_by_handler;
    std::optional<tarvek::Caller> seen_by_validate;
    bool validate_saw_none = false;

protected:
    bool validate(Values const& values) const override
    {
        auto* const self = const_cast<Dimmer*>(this);
        if (tarvek::Caller const* caller = tarvek::current_caller())
            self->seen_by_validate = *caller;
        else
            self->validate_saw_none = true;
        if (values[level] < 0)
            throw tarvek::named_error("org.sample.Dimmer.Error.Negative", "below zero");
        return true;
    }

private:
    Results<std::int32_t, std::int32_t> do_span(std::int32_t scale) { return {scale, 2 * scale}; }
    void do_who()
    {
        if (tarvek::Caller const* caller = tarvek::current_caller())
            seen_by_handler = *caller;
        level.set(level.get() + 1);
    }
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
        explicit Entry(std::string text)
            : stream(std::move(text))
            , source(stream)
        {
        }
        std::istringstream stream;
        tarvek::serialization::JSON_Deserializer source;
    };
    std::vector<std::unique_ptr<Entry>> entries_;
};

// A one-value write from JSON text.
class JsonWrite
    : public tarvek::test::VectorIterator<std::pair<tarvek::glue::IProperty&, tarvek::glue::IDeserializer&>> {
public:
    JsonWrite(tarvek::glue::IProperty& property, std::string text)
        : property_(property)
        , stream_(std::move(text))
        , source_(stream_)
    {
    }

protected:
    std::size_t count() const override { return 1; }
    std::pair<tarvek::glue::IProperty&, tarvek::glue::IDeserializer&> element(std::size_t) override
    {
        return {property_, source_};
    }

private:
    tarvek::glue::IProperty& property_;
    std::istringstream stream_;
    tarvek::serialization::JSON_Deserializer source_;
};

std::string json_of(tarvek::glue::IMethodReturnValue& value)
{
    std::ostringstream out;
    tarvek::serialization::JSON_Serializer sink(out);
    value.serialize(sink);
    return out.str();
}

std::string_view names_of(auto const& member)
{
    auto const& named = dynamic_cast<tarvek::glue::IArgumentNames const&>(member);
    return named.argument_names().view();
}

class TypedMethodsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        dimmer = &tarvek::provider::add_interface<Dimmer>(object);
        registry.add_server(server);
        registry.add_object(object, path);
        server.drive();
        glue = &server.interface(path, "org.sample.Dimmer");
    }

    tarvek::glue::IMethod& method(std::string const& name)
    {
        auto& methods = glue->methods();
        for (unsigned long i = 0; i < methods.size(); ++i)
            if (methods[i].name().str() == name)
                return methods[i];
        throw std::out_of_range(name);
    }
    tarvek::glue::ISignal& signal(std::string const& name)
    {
        auto& signals = glue->signals();
        for (unsigned long i = 0; i < signals.size(); ++i)
            if (signals[i].name().str() == name)
                return signals[i];
        throw std::out_of_range(name);
    }
    boost::future<std::unique_ptr<tarvek::glue::IMethodReturnValue>> call(
        std::string const& name, std::vector<std::string> const& arguments)
    {
        JsonArguments iterator(arguments);
        return glue->call_method(method(name), iterator);
    }
    boost::future<void> write_level(std::string const& text)
    {
        JsonWrite values(glue->properties()[0], text);
        tarvek::test::ResetIterator resets;
        return glue->set_many(values, resets);
    }
    void run()
    {
        object.execute();
        server.drive();
    }

    tarvek::ObjectPath const path{"/org/sample/dimmer"};
    tarvek::test::RecordingServer server;
    tarvek::API_Registry registry;
    tarvek::Object object;
    Dimmer* dimmer = nullptr;
    tarvek::glue::IInterface* glue = nullptr;
    tarvek::Caller const client{":1.7", 1000, 4242, "alice"};
};

TEST_F(TypedMethodsTest, ResultsAreSeveralOutArgumentsAndATupleIsOneStruct)
{
    EXPECT_EQ(method("Span").result_signature(), tarvek::ConstString("ii"));
    EXPECT_EQ(method("Pair").result_signature(), tarvek::ConstString("(ii)"));
    EXPECT_EQ(method("Later").result_signature(), tarvek::ConstString("bi"));
    EXPECT_EQ(method("Nothing").result_signature(), tarvek::ConstString(""));
}

TEST_F(TypedMethodsTest, SeveralResultsAreWrittenWithoutTupleBrackets)
{
    auto span = call("Span", {"3"});
    auto pair = call("Pair", {"3"});
    run();
    // The JSON sink shows the brackets of a tuple as a list and puts nothing between two
    // values at the top.
    EXPECT_EQ(json_of(*span.get()), "36");
    EXPECT_EQ(json_of(*pair.get()), "[3, 6]");
}

TEST_F(TypedMethodsTest, AResponderAnswersWithSeveralResults)
{
    auto result = call("Later", {});
    run();
    ASSERT_TRUE(dimmer->pending.has_value());
    dimmer->pending->reply({true, 9});
    ASSERT_TRUE(result.is_ready());
    EXPECT_EQ(json_of(*result.get()), "true9");
}

TEST_F(TypedMethodsTest, NamesComeParametersFirstEachEndedByANul)
{
    using namespace std::string_view_literals;
    EXPECT_EQ(names_of(method("Span")), "scale\0low\0high\0"sv);
    EXPECT_EQ(names_of(signal("Dimmed")), "level\0reason\0"sv);
}

TEST_F(TypedMethodsTest, AMemberWithoutNamesHasAnEmptyList)
{
    EXPECT_TRUE(names_of(method("Pair")).empty());
    EXPECT_TRUE(names_of(method("Nothing")).empty());
    EXPECT_TRUE(names_of(signal("Plain")).empty());
}

TEST(TypedMethodNames, AWrongCountIsRefusedWhereTheMethodIsDeclared)
{
    struct Bad : tarvek::provider::Interface {
        Bad()
            : Interface("org.sample.Bad")
        {
        }
        Method m{*this, "M", [](std::int32_t) { return Results<bool, bool>{}; }, {.in = {"a"}, .out = {"b"}}};
    };
    try {
        Bad const bad;
        FAIL() << "no exception";
    } catch (tarvek::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "Argument names of M: 1 and 1 given for 1 and 2 arguments");
    }
}

TEST(TypedMethodNames, NamesForTheParametersAloneAreRefused)
{
    struct Bad : tarvek::provider::Interface {
        Bad()
            : Interface("org.sample.Bad")
        {
        }
        Method m{*this, "M", [](std::int32_t) { return true; }, {.in = {"a"}}};
    };
    EXPECT_THROW(Bad{}, tarvek::invalid_argument);
}

TEST(TypedMethodNames, ANameThatDBusWouldNotTakeIsRefused)
{
    struct Bad : tarvek::provider::Interface {
        Bad()
            : Interface("org.sample.Bad")
        {
        }
        Signal<std::int32_t> s{*this, "S", {"2nd"}};
    };
    try {
        Bad const bad;
        FAIL() << "no exception";
    } catch (tarvek::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "Not a valid argument name: 2nd");
    }
    struct Dotted : tarvek::provider::Interface {
        Dotted()
            : Interface("org.sample.Bad")
        {
        }
        Signal<std::int32_t> s{*this, "S", {"a.b"}};
    };
    EXPECT_THROW(Dotted{}, tarvek::invalid_argument);
}

TEST_F(TypedMethodsTest, ANamedErrorFromAHandlerKeepsItsClassNameAndText)
{
    auto result = call("Refuse", {"\"too bright\""});
    run();
    try {
        result.get();
        FAIL() << "no exception";
    } catch (tarvek::named_error const& e) {
        EXPECT_STREQ(e.name(), "org.sample.Dimmer.Error.Refused");
        EXPECT_STREQ(e.what(), "too bright");
    }
}

TEST_F(TypedMethodsTest, ANamedErrorGivenToAResponderKeepsItsName)
{
    auto result = call("RefuseLater", {});
    run();
    try {
        result.get();
        FAIL() << "no exception";
    } catch (tarvek::named_error const& e) {
        EXPECT_STREQ(e.name(), "org.sample.Dimmer.Error.Later");
        EXPECT_STREQ(e.what(), "not now");
    }
}

TEST_F(TypedMethodsTest, ANamedErrorFromValidateFailsTheWriteWithIt)
{
    auto done = write_level("-1");
    run();
    try {
        done.get();
        FAIL() << "no exception";
    } catch (tarvek::named_error const& e) {
        EXPECT_STREQ(e.name(), "org.sample.Dimmer.Error.Negative");
    }
    EXPECT_EQ(dimmer->level.get(), 0);
}

TEST_F(TypedMethodsTest, TheHandlerSeesTheCallerThatTheServerNamed)
{
    auto result = [&] {
        tarvek::CallerScope const scope(&client);
        return call("Who", {});
    }();
    EXPECT_EQ(tarvek::current_caller(), nullptr) << "the scope has ended";
    run();
    result.get();
    ASSERT_TRUE(dimmer->seen_by_handler.has_value());
    EXPECT_EQ(dimmer->seen_by_handler->sender, ":1.7");
    EXPECT_EQ(dimmer->seen_by_handler->uid, 1000U);
    EXPECT_EQ(dimmer->seen_by_handler->pid, 4242);
    EXPECT_EQ(dimmer->seen_by_handler->user, "alice");
    EXPECT_EQ(tarvek::current_caller(), nullptr) << "nothing is left behind on the executor's thread";
}

TEST_F(TypedMethodsTest, ALocalSetInsideAHandlerHasNoCaller)
{
    auto result = [&] {
        tarvek::CallerScope const scope(&client);
        return call("Who", {});
    }();
    run();
    result.get();
    EXPECT_TRUE(dimmer->validate_saw_none);
    EXPECT_FALSE(dimmer->seen_by_validate.has_value());
}

TEST_F(TypedMethodsTest, ACallWithoutACallerScopeHasNone)
{
    auto result = call("Who", {});
    run();
    result.get();
    EXPECT_FALSE(dimmer->seen_by_handler.has_value());
}

TEST_F(TypedMethodsTest, ValidateOfABusWriteSeesItsCaller)
{
    auto done = [&] {
        tarvek::CallerScope const scope(&client);
        return write_level("5");
    }();
    run();
    done.get();
    ASSERT_TRUE(dimmer->seen_by_validate.has_value());
    EXPECT_EQ(dimmer->seen_by_validate->sender, ":1.7");
    EXPECT_EQ(dimmer->seen_by_validate->user, "alice");
    EXPECT_EQ(dimmer->level.get(), 5);
}

TEST_F(TypedMethodsTest, ValidateOfALocalSetHasNoCallerEvenInsideAScope)
{
    tarvek::CallerScope const scope(&client);
    dimmer->level.set(3);
    EXPECT_TRUE(dimmer->validate_saw_none);
    EXPECT_FALSE(dimmer->seen_by_validate.has_value());
    EXPECT_EQ(tarvek::current_caller(), &client) << "the scope is back after the set";
}

} // namespace
