// SPDX-License-Identifier: LGPL-2.1-or-later
// A battery of malformed requests: wrong signatures, values of wrong types, unknown
// names, empty arrays, deep nesting and very long strings. Every one gets a reply, and the
// server goes on serving.
#include "bus/bus_fixture.hpp"

namespace tarvek::test {
namespace {

constexpr char const* lamp_path = "/org/sample/lamp";
constexpr char const* lamp = "org.sample.Lamp";
constexpr char const* extended = "com.omno.ExtendedProperties";
constexpr char const* properties = "org.freedesktop.DBus.Properties";

struct Request {
    char const* what;
    char const* path;
    char const* interface;
    char const* member;
    std::function<void(sd_bus_message*)> fill;
};

// A variant holding `depth` nested arrays around one integer.
void append_deep_variant(sd_bus_message* m, int depth)
{
    std::string signature(depth, 'a');
    signature += 'i';
    sd_bus_message_open_container(m, 'v', signature.c_str());
    for (int level = 0; level < depth; ++level)
        sd_bus_message_open_container(m, 'a', signature.c_str() + level + 1);
    sd_bus_message_append(m, "i", 1);
    for (int level = 0; level < depth; ++level)
        sd_bus_message_close_container(m);
    sd_bus_message_close_container(m);
}

class MalformedTest : public BusTest {
protected:
    MalformedTest()
        : lamp_object(publish_lamp(lamp_path))
    {
        start();
    }

    Lamp& lamp_object;
};

TEST_F(MalformedTest, EveryRequestGetsAReplyAndTheServerStaysUp)
{
    std::string const long_text(200000, 'x');
    char const* const long_name = long_text.c_str();
    std::vector<Request> const requests = {
        {"Get without a property", lamp_path, properties, "Get",
            [](sd_bus_message* m) { sd_bus_message_append(m, "s", lamp); }},
        {"Set without a property name", lamp_path, properties, "Set",
            [](sd_bus_message* m) { sd_bus_message_append(m, "s", lamp); }},
        {"Set without a value", lamp_path, properties, "Set",
            [](sd_bus_message* m) { sd_bus_message_append(m, "ss", lamp, "Level"); }},
        {"Set without arguments", lamp_path, properties, "Set", {}},
        {"Get of an unknown property", lamp_path, properties, "Get",
            [](sd_bus_message* m) { sd_bus_message_append(m, "ss", lamp, "Nothing"); }},
        {"Set with an array for an integer", lamp_path, properties, "Set",
            [](sd_bus_message* m) { sd_bus_message_append(m, "ssv", lamp, "Level", "as", 1, "x"); }},
        {"Set with deep nesting", lamp_path, properties, "Set",
            [](sd_bus_message* m) {
                sd_bus_message_append(m, "ss", lamp, "Level");
                append_deep_variant(m, 30);
            }},
        {"Set with a further argument", lamp_path, properties, "Set",
            [](sd_bus_message* m) { sd_bus_message_append(m, "ssvs", lamp, "Level", "u", 3U, "more"); }},
        {"Set with an empty interface name", lamp_path, properties, "Set",
            [](sd_bus_message* m) { sd_bus_message_append(m, "ssv", "", "Level", "u", 3U); }},
        {"Set with a very long property name", lamp_path, properties, "Set",
            [&](sd_bus_message* m) { sd_bus_message_append(m, "ssv", lamp, long_name, "u", 3U); }},
        {"Set at a path without an object", "/org/sample/nothing", properties, "Set",
            [](sd_bus_message* m) { sd_bus_message_append(m, "ssv", lamp, "Level", "u", 3U); }},
        {"extended Set with the wrong signature", lamp_path, extended, "Set",
            [](sd_bus_message* m) { sd_bus_message_append(m, "ss", lamp, "Level"); }},
        {"SetMany with a boolean for an integer", lamp_path, extended, "SetMany",
            [](sd_bus_message* m) { sd_bus_message_append(m, "sa(sv)", lamp, 1, "Level", "b", 1); }},
        {"SetMany with deep nesting", lamp_path, extended, "SetMany",
            [](sd_bus_message* m) {
                sd_bus_message_append(m, "s", lamp);
                sd_bus_message_open_container(m, 'a', "(sv)");
                sd_bus_message_open_container(m, 'r', "sv");
                sd_bus_message_append(m, "s", "Level");
                append_deep_variant(m, 30);
                sd_bus_message_close_container(m);
                sd_bus_message_close_container(m);
            }},
        {"SetMany with an empty name", lamp_path, extended, "SetMany",
            [](sd_bus_message* m) { sd_bus_message_append(m, "sa(sv)", lamp, 1, "", "u", 1U); }},
        {"SetMany with an unknown interface", lamp_path, extended, "SetMany",
            [](sd_bus_message* m) { sd_bus_message_append(m, "sa(sv)", "org.sample.Nothing", 0); }},
        {"SetMany with the wrong signature", lamp_path, extended, "SetMany",
            [](sd_bus_message* m) { sd_bus_message_append(m, "sas", lamp, 1, "Level"); }},
        {"Reset with an empty array", lamp_path, extended, "Reset",
            [](sd_bus_message* m) { sd_bus_message_append(m, "sas", lamp, 0); }},
        {"Reset of an unknown interface with an empty array", lamp_path, extended, "Reset",
            [](sd_bus_message* m) { sd_bus_message_append(m, "sas", "org.sample.Nothing", 0); }},
        {"GetMany with an empty array", lamp_path, extended, "GetMany",
            [](sd_bus_message* m) { sd_bus_message_append(m, "sas", lamp, 0); }},
        {"IsDefaulted with an empty array", lamp_path, extended, "IsDefaulted",
            [](sd_bus_message* m) { sd_bus_message_append(m, "sas", lamp, 0); }},
        {"GetDefault with an empty array", lamp_path, extended, "GetDefault",
            [](sd_bus_message* m) { sd_bus_message_append(m, "sas", lamp, 0); }},
        {"GetRanges with an empty array", lamp_path, extended, "GetRanges",
            [](sd_bus_message* m) { sd_bus_message_append(m, "sas", lamp, 0); }},
        {"GetMany with a very long name", lamp_path, extended, "GetMany",
            [&](sd_bus_message* m) { sd_bus_message_append(m, "sas", lamp, 1, long_name); }},
        {"GetMany of a very long interface name", lamp_path, extended, "GetMany",
            [&](sd_bus_message* m) { sd_bus_message_append(m, "sas", long_name, 1, "Level"); }},
        {"GetAllRanges with a further argument", lamp_path, extended, "GetAllRanges",
            [](sd_bus_message* m) { sd_bus_message_append(m, "ss", lamp, lamp); }},
        {"a method with the wrong signature", lamp_path, lamp, "Add",
            [](sd_bus_message* m) { sd_bus_message_append(m, "is", 1, "two"); }},
        {"a method without arguments", lamp_path, lamp, "Add", {}},
        {"a method with a very long string", lamp_path, lamp, "Fail",
            [&](sd_bus_message* m) { sd_bus_message_append(m, "s", long_name); }},
        {"an unknown member", lamp_path, lamp, "Nothing", {}},
        {"an unknown interface", lamp_path, "org.sample.Nothing", "Toggle", {}},
    };
    for (Request const& request : requests) {
        SCOPED_TRACE(request.what);
        CallResult const result = call(request.path, request.interface, request.member, request.fill);
        EXPECT_NE(result.r, -ETIMEDOUT);
        EXPECT_TRUE(result.ok() || !result.error_name.empty());
    }
    CallResult const read = get(lamp_path, lamp, "Level", "u");
    EXPECT_TRUE(read.ok()) << read.error_message;
    EXPECT_TRUE(server_errors().empty());
}

} // namespace
} // namespace tarvek::test
