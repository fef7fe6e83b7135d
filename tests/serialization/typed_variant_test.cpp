// SPDX-License-Identifier: LGPL-2.1-or-later
// The operations added to the sinks and sources for tarvek::Variant and for Unix file
// descriptors, back end by back end: the text form of a typed variant, the bus form, and
// where a descriptor is refused.
#include "support/private_bus.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/variant.hpp>
#include <tarvek/serialization/json_deserializer.hpp>
#include <tarvek/serialization/json_serializer.hpp>
#include <tarvek/serialization/sdbus_deserializer.hpp>
#include <tarvek/serialization/sdbus_serializer.hpp>
#include <tarvek/server/dbus/sdbus_message.hpp>

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <fcntl.h>
#include <map>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using tarvek::Variant;
using tarvek::serialization::JSON_Deserializer;
using tarvek::serialization::JSON_Serializer;
using tarvek::serialization::SDBusDeserializer;
using tarvek::serialization::SDBusSerializer;

namespace {

class SDBusTypedVariantTest : public ::testing::Test {
protected:
    tarvek::test::OfflineConnection connection;
    tarvek::test::MessagePtr call = tarvek::test::new_call(connection.get());
};

bool same_file(int a, int b)
{
    struct stat first { };
    struct stat second { };
    return ::fstat(a, &first) == 0 && ::fstat(b, &second) == 0 && first.st_dev == second.st_dev
        && first.st_ino == second.st_ino;
}

} // namespace

TEST(JsonTypedVariant, PrintsTheSignatureBeforeTheValue)
{
    std::ostringstream out;
    JSON_Serializer sink(out);

    tarvek::provider::write_value(
        sink, std::map<std::string, Variant>{{"a", std::vector<int>{1, 2}}, {"b", "x"}});

    EXPECT_EQ(out.str(), R"({"a":{"signature":"ai", "value":[1, 2]}, "b":{"signature":"s", "value":"x"}})");
}

TEST(JsonTypedVariant, KeepsAPlainVariantBare)
{
    std::ostringstream out;
    JSON_Serializer sink(out);

    sink.variant_begin("ai");
    sink.list_begin(1, "i");
    sink.list_entry_begin();
    sink.write(1);
    sink.list_entry_end();
    sink.list_end();
    sink.variant_end();

    EXPECT_EQ(out.str(), "[1]");
}

TEST(JsonTypedVariant, RefusesMembersInAnotherOrder)
{
    std::istringstream in(R"({"value":1, "signature":"i"})");
    JSON_Deserializer source(in);

    EXPECT_THROW(Variant::read(source), tarvek::deserialize_error);
}

TEST(JsonTypedVariant, RefusesAThirdMember)
{
    std::istringstream in(R"({"signature":"i", "value":1, "more":2})");
    JSON_Deserializer source(in);

    EXPECT_THROW(Variant::read(source), tarvek::deserialize_error);
}

TEST(JsonTypedVariant, RefusesAFileDescriptorBothWays)
{
    std::ostringstream out;
    JSON_Serializer sink(out);
    std::istringstream in("3");
    JSON_Deserializer source(in);

    EXPECT_THROW(sink.write_fd(0), tarvek::serialize_error);
    EXPECT_THROW(source.read_fd(), tarvek::deserialize_error);
    EXPECT_EQ(out.str(), "");
}

TEST_F(SDBusTypedVariantTest, WritesAnOrdinaryVariantOnTheBus)
{
    {
        tarvek::server::dbus::SDBusOutboundMessage outbound(call.get());
        SDBusSerializer sink(outbound);
        tarvek::provider::write_value(sink, Variant(std::vector<std::string>{"a"}));
    }
    tarvek::test::seal_for_reading(call.get());

    EXPECT_STREQ(sd_bus_message_get_signature(call.get(), 1), "v");
    ASSERT_GT(sd_bus_message_enter_container(call.get(), 'v', "as"), 0);
    char const* text = nullptr;
    ASSERT_GT(sd_bus_message_enter_container(call.get(), 'a', "s"), 0);
    ASSERT_GT(sd_bus_message_read_basic(call.get(), 's', &text), 0);
    EXPECT_STREQ(text, "a");
}

TEST_F(SDBusTypedVariantTest, ReadsTheContainedSignatureAndLeavesTheVariantAfterwards)
{
    ASSERT_GE(sd_bus_message_append(call.get(), "vi", "(si)", "x", 5, 9), 0);
    tarvek::test::seal_for_reading(call.get());
    SDBusDeserializer source(call.get());

    Variant const read = Variant::read(source);

    EXPECT_EQ(read.signature(), "(si)");
    EXPECT_EQ((read.get<std::tuple<std::string, int>>()), std::make_tuple(std::string("x"), 5));
    EXPECT_EQ(source.read_int32(), 9);
}

TEST_F(SDBusTypedVariantTest, RefusesToEnterSomethingElseAsAVariant)
{
    ASSERT_GE(sd_bus_message_append(call.get(), "i", 5), 0);
    tarvek::test::seal_for_reading(call.get());
    SDBusDeserializer source(call.get());

    try {
        source.typed_variant_enter();
        FAIL() << "no exception";
    } catch (tarvek::system_error const& e) {
        EXPECT_EQ(e.code().value(), ENXIO);
    }
    EXPECT_EQ(source.read_int32(), 5);
}

TEST_F(SDBusTypedVariantTest, ReadsADescriptorAsADuplicateOfTheMessagesOwn)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    tarvek::common::FileDescriptor const read_end(ends[0]);
    tarvek::common::FileDescriptor const write_end(ends[1]);
    {
        tarvek::server::dbus::SDBusOutboundMessage outbound(call.get());
        SDBusSerializer sink(outbound);
        sink.write_fd(write_end.fd());
    }
    tarvek::test::seal_for_reading(call.get());
    SDBusDeserializer source(call.get());

    tarvek::common::FileDescriptor const received = source.read_fd();

    ASSERT_TRUE(received.valid());
    EXPECT_NE(received.fd(), write_end.fd());
    EXPECT_TRUE(same_file(received.fd(), write_end.fd()));
    EXPECT_NE(::fcntl(received.fd(), F_GETFD) & FD_CLOEXEC, 0);
    // The message still holds its own descriptor: ours is independent of it.
    int in_message = -1;
    ASSERT_GE(sd_bus_message_rewind(call.get(), 1), 0);
    ASSERT_GT(sd_bus_message_read_basic(call.get(), 'h', &in_message), 0);
    EXPECT_NE(in_message, received.fd());
    EXPECT_EQ(::fcntl(in_message, F_GETFD) < 0, false);
}
