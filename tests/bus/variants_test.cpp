// SPDX-License-Identifier: LGPL-2.1-or-later
// Variants and Unix file descriptors on the bus, with real clients: sd-bus, busctl and
// gdbus. A property of type `v` and one of `a{sv}`, methods that take and answer them, a
// signal with a variant, descriptors passed both ways, and hostile clients whose variants
// or descriptors the server refuses while it stays up.
#include "bus/bus_fixture.hpp"
#include "bus/raw_client.hpp"

#include <tarvek/common/file_descriptor.hpp>
#include <tarvek/provider/variant.hpp>
#include <tarvek/serialization/sdbus_deserializer.hpp>

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <future>
#include <map>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace tarvek::test {
namespace {

constexpr char const* player_path = "/org/sample/player";
constexpr char const* player_interface = "org.sample.Player";
constexpr char const* properties_interface = "org.freedesktop.DBus.Properties";

using Meta = std::map<std::string, Variant>;

class Player : public provider::Interface {
public:
    Player()
        : Interface(player_interface)
    {
    }

    Property<Variant> value{*this, "Value", Variant(0)};
    Property<Meta> metadata{*this, "Metadata", Meta{{"title", "none"}}};
    Signal<std::string, Variant> changed{*this, "Changed"};
    Method echo{*this, "Echo", [](Variant v) { return v; }};
    // Answers the dictionary with the number of its entries added as "count".
    Method describe{*this, "Describe", [](Meta meta) {
                        auto const count = static_cast<std::uint32_t>(meta.size());
                        meta["count"] = count;
                        return meta;
                    }};
    // Wants a string inside; any other type fails as the client's fault.
    Method length{
        *this, "Length", [](Variant v) { return static_cast<std::uint32_t>(v.get<std::string>().size()); }};
    Method write_to{*this, "WriteTo", [](common::FileDescriptor fd, std::string text) {
                        if (::write(fd.fd(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
                            throw tarvek::invalid_argument("could not write");
                    }};
    // Keeps the descriptor beyond the call, for the test to use.
    Method keep{*this, "Keep", [this](common::FileDescriptor fd) { kept.set_value(std::move(fd)); }};
    // A pipe whose read end goes to the client with `text` in it.
    Method open{
        *this, "Open", [](std::string text) {
            int ends[2];
            if (::pipe2(ends, O_CLOEXEC) != 0)
                throw tarvek::invalid_argument("no pipe");
            common::FileDescriptor read_end(ends[0]);
            common::FileDescriptor write_end(ends[1]);
            if (::write(write_end.fd(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
                throw tarvek::invalid_argument("could not write");
            return read_end;
        }};

    std::promise<common::FileDescriptor> kept;
};

struct Pipe {
    Pipe()
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2");
        read_end = common::FileDescriptor(ends[0]);
        write_end = common::FileDescriptor(ends[1]);
    }
    common::FileDescriptor read_end;
    common::FileDescriptor write_end;
};

std::string read_some(int fd, std::size_t size)
{
    std::string text(size, '\0');
    std::size_t got = 0;
    while (got < size) {
        ssize_t const n = ::read(fd, text.data() + got, size - got);
        if (n <= 0)
            break;
        got += static_cast<std::size_t>(n);
    }
    text.resize(got);
    return text;
}

// Runs a command line of a bus tool and gives its standard output; the exit status goes
// to `status`.
std::string run(std::string const& command, int& status)
{
    std::string output;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr)
        throw std::runtime_error("popen");
    std::array<char, 4096> buffer{};
    std::size_t n = 0;
    while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
        output.append(buffer.data(), n);
    int const raw = ::pclose(pipe);
    status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return output;
}

class VariantsTest : public BusTest {
protected:
    VariantsTest()
    {
        publish(
            player_path, [&](tarvek::Object& object) { player = &provider::add_interface<Player>(object); });
    }

    // "busctl --address=... " with the server's name and the player's path filled in.
    std::string busctl(std::string const& arguments)
    {
        return "timeout 20 busctl --address='" + daemon.address() + "' " + arguments + " 2>&1";
    }
    std::string gdbus_call(std::string const& method, std::string const& arguments)
    {
        return "timeout 20 gdbus call --address '" + daemon.address() + "' --dest " + server_name
            + " --object-path " + player_path + " --method " + player_interface + "." + method + " "
            + arguments + " 2>&1";
    }

    Player* player = nullptr;
};

TEST_F(VariantsTest, GetOfAVariantPropertyAnswersTheVariantInsideTheValue)
{
    player->value.set(Variant(std::vector<std::string>{"a", "b"}));
    start();

    CallResult const result = get(player_path, player_interface, "Value", "v");

    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    ASSERT_GT(sd_bus_message_enter_container(result.reply.get(), 'v', "as"), 0);
    char const* first = nullptr;
    char const* second = nullptr;
    ASSERT_GT(sd_bus_message_read(result.reply.get(), "as", 2, &first, &second), 0);
    EXPECT_STREQ(first, "a");
    EXPECT_STREQ(second, "b");
}

TEST_F(VariantsTest, SetOfAVariantPropertyTakesWhateverTypeTheClientSends)
{
    start();

    CallResult const result = call(player_path, properties_interface, "Set", [](sd_bus_message* m) {
        sd_bus_message_append(m, "ssv", player_interface, "Value", "v", "(si)", "x", 3);
    });

    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(player->value.get(), Variant(std::make_tuple(std::string("x"), 3)));
}

TEST_F(VariantsTest, SetOfADictionaryPropertyThroughBusctlStoresEveryEntry)
{
    start();
    int status = -1;

    std::string const output = run(busctl("set-property " + server_name + " " + player_path + " "
                                       + player_interface + " Metadata 'a{sv}' 2 title s Song length x 240"),
        status);

    ASSERT_EQ(status, 0) << output;
    Meta const stored = player->metadata.get();
    EXPECT_EQ(stored, (Meta{{"title", "Song"}, {"length", 240L}}));
}

TEST_F(VariantsTest, SetOfADictionaryPropertyWithAnotherTypeInTheVariantIsRefused)
{
    start();

    CallResult const result = call(player_path, properties_interface, "Set", [](sd_bus_message* m) {
        sd_bus_message_append(m, "ssv", player_interface, "Metadata", "s", "not a dictionary");
    });

    EXPECT_EQ(result.error_name, "org.freedesktop.DBus.Error.InvalidSignature") << result.error_message;
    EXPECT_EQ(player->metadata.get(), (Meta{{"title", "none"}}));
}

TEST_F(VariantsTest, GetAllAnswersBothPropertiesWithTheirSignatures)
{
    player->metadata.set(Meta{{"title", "Song"}});
    start();

    CallResult const result = call(player_path, properties_interface, "GetAll",
        [](sd_bus_message* m) { sd_bus_message_append(m, "s", player_interface); });

    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    sd_bus_message* reply = result.reply.get();
    std::map<std::string, std::string> signatures;
    ASSERT_GT(sd_bus_message_enter_container(reply, 'a', "{sv}"), 0);
    while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
        char const* name = nullptr;
        char type = 0;
        char const* contents = nullptr;
        ASSERT_GT(sd_bus_message_read(reply, "s", &name), 0);
        ASSERT_GT(sd_bus_message_peek_type(reply, &type, &contents), 0);
        signatures[name] = contents;
        ASSERT_GE(sd_bus_message_skip(reply, "v"), 0);
        ASSERT_GE(sd_bus_message_exit_container(reply), 0);
    }
    EXPECT_EQ(signatures.at("Value"), "v");
    EXPECT_EQ(signatures.at("Metadata"), "a{sv}");
}

TEST_F(VariantsTest, AChangedDictionaryIsReportedInPropertiesChanged)
{
    watch(properties_interface, "PropertiesChanged");
    start();

    player->metadata.set(Meta{{"title", "Other"}, {"rate", 1.5}});

    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    sd_bus_message* signal = signals.front().get();
    EXPECT_EQ(changed_names(signal), std::vector<std::string>{"Metadata"});
    ASSERT_GE(sd_bus_message_rewind(signal, 1), 0);
    ASSERT_GE(sd_bus_message_skip(signal, "s"), 0);
    ASSERT_GT(sd_bus_message_enter_container(signal, 'a', "{sv}"), 0);
    ASSERT_GT(sd_bus_message_enter_container(signal, 'e', "sv"), 0);
    ASSERT_GE(sd_bus_message_skip(signal, "s"), 0);
    serialization::SDBusDeserializer source(signal);
    Variant const value = Variant::read(source);
    ASSERT_EQ(value.signature(), "a{sv}");
    EXPECT_EQ(value.get<Meta>(), (Meta{{"title", "Other"}, {"rate", 1.5}}));
}

TEST_F(VariantsTest, AMethodTakesAndAnswersAStringToVariantDictionary)
{
    start();

    CallResult const result = call(player_path, player_interface, "Describe",
        [](sd_bus_message* m) { sd_bus_message_append(m, "a{sv}", 2, "a", "i", 1, "b", "as", 1, "x"); });

    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    serialization::SDBusDeserializer source(result.reply.get());
    Meta const answer = provider::read_value<Meta>(source);
    EXPECT_EQ(answer, (Meta{{"a", 1}, {"b", std::vector<std::string>{"x"}}, {"count", std::uint32_t{2}}}));
}

TEST_F(VariantsTest, AMethodEchoesAVariantToBusctl)
{
    start();
    int status = -1;

    std::string const output = run(
        busctl("call " + server_name + " " + player_path + " " + player_interface + " Echo v ai 3 1 2 3"),
        status);

    ASSERT_EQ(status, 0) << output;
    EXPECT_EQ(output, "v ai 3 1 2 3\n");
}

TEST_F(VariantsTest, AMethodTakesAndAnswersADictionaryFromGdbus)
{
    start();
    int status = -1;

    std::string const output = run(gdbus_call("Describe", "\"{'title': <'Song'>, 'n': <int64 5>}\""), status);

    ASSERT_EQ(status, 0) << output;
    EXPECT_EQ(output, "({'count': <uint32 2>, 'n': <int64 5>, 'title': <'Song'>},)\n");
}

TEST_F(VariantsTest, AMethodEchoesANestedVariantToGdbus)
{
    start();
    int status = -1;

    std::string const output = run(gdbus_call("Echo", "\"<<(1, 'x')>>\""), status);

    ASSERT_EQ(status, 0) << output;
    EXPECT_EQ(output, "(<<(1, 'x')>>,)\n");
}

TEST_F(VariantsTest, AVariantOfTheWrongTypeInsideFailsAsTheClientsFault)
{
    start();

    CallResult const wrong = call(player_path, player_interface, "Length",
        [](sd_bus_message* m) { sd_bus_message_append(m, "v", "i", 5); });
    CallResult const right = call(player_path, player_interface, "Length",
        [](sd_bus_message* m) { sd_bus_message_append(m, "v", "s", "four"); });

    EXPECT_EQ(wrong.error_name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(wrong.error_message, "Variant holds i, not s");
    ASSERT_TRUE(right.ok()) << right.error_name << ": " << right.error_message;
    std::uint32_t length = 0;
    ASSERT_GT(sd_bus_message_read(right.reply.get(), "u", &length), 0);
    EXPECT_EQ(length, 4U);
}

TEST_F(VariantsTest, ASignalCarriesAVariant)
{
    watch(player_interface, "Changed");
    start();

    player->changed.emit("position", Variant(std::vector<long>{1, 2}));

    ASSERT_TRUE(pump_until([&] { return !signals.empty(); }));
    sd_bus_message* signal = signals.front().get();
    ASSERT_GE(sd_bus_message_rewind(signal, 1), 0);
    EXPECT_STREQ(sd_bus_message_get_signature(signal, 1), "sv");
    char const* name = nullptr;
    ASSERT_GT(sd_bus_message_read(signal, "s", &name), 0);
    EXPECT_STREQ(name, "position");
    serialization::SDBusDeserializer source(signal);
    EXPECT_EQ(Variant::read(source), Variant(std::vector<long>{1, 2}));
}

TEST_F(VariantsTest, AHandlerWritesToADescriptorThatTheClientPassed)
{
    start();
    Pipe pipe;

    CallResult const result = call(player_path, player_interface, "WriteTo",
        [&](sd_bus_message* m) { sd_bus_message_append(m, "hs", pipe.write_end.fd(), "hello"); });

    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    EXPECT_EQ(read_some(pipe.read_end.fd(), 5), "hello");
}

TEST_F(VariantsTest, AReceivedDescriptorIsTheHandlersOwnBeyondTheCall)
{
    start();
    Pipe pipe;

    CallResult const result = call(player_path, player_interface, "Keep",
        [&](sd_bus_message* m) { sd_bus_message_append(m, "h", pipe.write_end.fd()); });
    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    pipe.write_end.close();
    common::FileDescriptor kept = player->kept.get_future().get();

    ASSERT_EQ(::write(kept.fd(), "later", 5), 5);
    kept.close();

    // Every write end is closed now (ours, the message's, the handler's), so the text ends.
    EXPECT_EQ(read_some(pipe.read_end.fd(), 100), "later");
}

TEST_F(VariantsTest, AMethodReturnsADescriptorThatTheClientReadsFrom)
{
    start();

    CallResult const result = call(player_path, player_interface, "Open",
        [](sd_bus_message* m) { sd_bus_message_append(m, "s", "from the server"); });

    ASSERT_TRUE(result.ok()) << result.error_name << ": " << result.error_message;
    int fd = -1;
    ASSERT_GT(sd_bus_message_read(result.reply.get(), "h", &fd), 0);
    EXPECT_EQ(read_some(fd, 100), "from the server");
}

// A raw client's variant body: `depth` variants around an int32.
RawBody nested_variants(unsigned depth)
{
    RawBody body;
    for (unsigned i = 0; i < depth; ++i)
        body.signature("v");
    body.signature("i");
    body.align(4);
    body.u32(7);
    return body;
}

TEST_F(VariantsTest, AVariantOfATypeOutsideTheMappingIsRefusedAndTheServerStaysUp)
{
    start();
    RawClient raw(daemon.address());
    RawBody body;
    body.signature("g");
    body.signature("sv");

    RawClient::Reply const reply
        = raw.wait_reply(raw.send_call(server_name, player_path, player_interface, "Echo", "v", body));

    EXPECT_EQ(reply.type, 3);
    EXPECT_EQ(reply.error_name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_TRUE(call(player_path, player_interface, "Echo", [](sd_bus_message* m) {
        sd_bus_message_append(m, "v", "i", 1);
    }).ok());
}

TEST_F(VariantsTest, TheDeepestVariantThatTheBusDeliversIsEchoed)
{
    start();
    RawClient raw(daemon.address());

    // 63 variants around the number: one more, and the dbus-daemon refuses the message
    // itself, so the server's own limit (Variant::max_depth) is not the one a bus client
    // meets first.
    RawClient::Reply const reply = raw.wait_reply(
        raw.send_call(server_name, player_path, player_interface, "Echo", "v", nested_variants(63)));

    EXPECT_EQ(reply.type, 2) << reply.error_name;
}

TEST_F(VariantsTest, AVariantNestedBeyondWhatTheBusAllowsLeavesTheServerUp)
{
    start();
    {
        RawClient raw(daemon.address());
        try {
            RawClient::Reply const reply = raw.wait_reply(raw.send_call(server_name, player_path,
                player_interface, "Echo", "v", nested_variants(Variant::max_depth + 1)));
            EXPECT_EQ(reply.type, 3);
        } catch (std::runtime_error const&) {
            // The daemon cut the client off, as it does for a message nested too deeply.
        }
    }

    CallResult const after = call(player_path, player_interface, "Echo",
        [](sd_bus_message* m) { sd_bus_message_append(m, "v", "i", 1); });

    EXPECT_TRUE(after.ok()) << after.error_name << ": " << after.error_message;
    EXPECT_TRUE(server_errors().empty());
}

TEST_F(VariantsTest, ADescriptorWithABadIndexIsRefusedAndTheServerStaysUp)
{
    start();
    RawClient raw(daemon.address());
    RawBody body;
    body.u32(7); // the message carries no descriptors at all
    body.string("text");

    RawClient::Reply const reply
        = raw.wait_reply(raw.send_call(server_name, player_path, player_interface, "WriteTo", "hs", body));

    EXPECT_EQ(reply.type, 3);
    EXPECT_EQ(reply.error_name, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_TRUE(call(player_path, player_interface, "Echo", [](sd_bus_message* m) {
        sd_bus_message_append(m, "v", "i", 1);
    }).ok());
}

} // namespace
} // namespace tarvek::test
