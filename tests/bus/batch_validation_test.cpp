// SPDX-License-Identifier: LGPL-2.1-or-later
// Batches validated against what they commit, on the bus: several sd-bus clients send
// SetMany batches without waiting for the answers, while the application sets the same
// properties from a thread of its own, against an object whose rule relates two of them.
// Whatever the interleaving, every commit leaves a state that the rule accepts, and every
// refused batch is answered InvalidArgs.
#include "bus/bus_fixture.hpp"

#include <tarvek/common/exceptions.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace tarvek::test {
namespace {

constexpr char const* dimmer_path = "/org/sample/dimmer";
constexpr char const* dimmer_name = "org.sample.Dimmer";
constexpr char const* extended = "com.omno.ExtendedProperties";

// The pair of the example service's lamp: a level that may not pass its maximum.
class Dimmer : public provider::Interface {
public:
    Dimmer()
        : Interface(dimmer_name)
    {
    }
    Property<std::uint32_t> level{*this, "Level", 0, provider::Access::read_write, {{0U, 100U}}};
    Property<std::uint32_t> max_level{*this, "MaxLevel", 100, provider::Access::read_write, {{0U, 100U}}};

    // Commits after which the live values broke the rule.
    std::atomic<int> broken{0};
    std::atomic<int> commits{0};

protected:
    bool validate(Values const& v) const override
    {
        // A slow judge, so that batches queue up behind it, read against states that
        // earlier batches are about to change.
        std::this_thread::sleep_for(std::chrono::microseconds(100));
        return v[level] <= v[max_level];
    }
    void on_changed(Values const&, Changed const&) override
    {
        // Still under the exclusive lock: the live values are what this commit left.
        if (level.get() > max_level.get())
            ++broken;
        ++commits;
    }
};

// The answers that one client collected.
struct Tally {
    int pending = 0;
    int accepted = 0;
    std::map<std::string, int> refusals; // error name and message, with their count
};

int on_reply(sd_bus_message* reply, void* userdata, sd_bus_error*)
{
    auto& tally = *static_cast<Tally*>(userdata);
    --tally.pending;
    if (sd_bus_message_is_method_error(reply, nullptr)) {
        sd_bus_error const* error = sd_bus_message_get_error(reply);
        ++tally.refusals[std::string(error->name) + ": " + (error->message ? error->message : "")];
    } else {
        ++tally.accepted;
    }
    return 0;
}

// A SetMany of the named values, in the order given.
void append_batch(sd_bus_message* m, std::vector<std::pair<char const*, std::uint32_t>> const& values)
{
    sd_bus_message_append(m, "s", dimmer_name);
    sd_bus_message_open_container(m, 'a', "(sv)");
    for (auto const& [name, value] : values) {
        sd_bus_message_open_container(m, 'r', "sv");
        sd_bus_message_append(m, "s", name);
        sd_bus_message_append(m, "v", "u", value);
        sd_bus_message_close_container(m);
    }
    sd_bus_message_close_container(m);
}

class BatchValidationTest : public BusTest {
protected:
    BatchValidationTest()
    {
        publish(dimmer_path,
            [this](tarvek::Object& object) { dimmer = &provider::add_interface<Dimmer>(object); });
        start();
    }

    // Sends batches on a connection of its own in `bursts`, each of `count` batches all
    // sent before the first answer is read (the daemon limits the replies that one
    // connection may have pending), and collects every answer.
    Tally client_run(unsigned seed, int bursts, int count)
    {
        Tally tally;
        BusPtr bus(daemon.connect());
        std::minstd_rand random(seed);
        std::uniform_int_distribution<std::uint32_t> value(0, 100);
        std::uniform_int_distribution<int> shape(0, 2);
        for (int burst = 0; burst < bursts; ++burst) {
            for (int i = 0; i < count; ++i) {
                sd_bus_message* raw = nullptr;
                if (sd_bus_message_new_method_call(
                        bus.get(), &raw, server_name.c_str(), dimmer_path, extended, "SetMany")
                    < 0)
                    throw std::runtime_error("sd_bus_message_new_method_call failed");
                MessagePtr message(raw);
                switch (shape(random)) {
                case 0:
                    append_batch(message.get(), {{"Level", value(random)}});
                    break;
                case 1:
                    append_batch(message.get(), {{"MaxLevel", value(random)}});
                    break;
                default:
                    append_batch(message.get(), {{"MaxLevel", value(random)}, {"Level", value(random)}});
                    break;
                }
                if (sd_bus_call_async(bus.get(), nullptr, message.get(), &on_reply, &tally, 30'000'000) < 0)
                    throw std::runtime_error("sd_bus_call_async failed");
                ++tally.pending;
            }
            if (sd_bus_flush(bus.get()) < 0)
                throw std::runtime_error("sd_bus_flush failed");
            auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
            while (tally.pending > 0 && std::chrono::steady_clock::now() < deadline) {
                int const r = sd_bus_process(bus.get(), nullptr);
                if (r < 0)
                    throw std::runtime_error("sd_bus_process failed");
                if (r == 0)
                    sd_bus_wait(bus.get(), 100'000);
            }
            if (tally.pending > 0)
                break;
        }
        return tally;
    }

    Dimmer* dimmer = nullptr;
};

TEST_F(BatchValidationTest, PipelinedBatchesFromSeveralClientsAndSettersNeverLeaveARefusedState)
{
    constexpr int clients = 4;
    constexpr int bursts = 5;
    constexpr int batches = 40;
    std::vector<Tally> tallies(clients);
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c)
        threads.emplace_back([&, c] { tallies[c] = client_run(101 + c, bursts, batches); });
    std::atomic<int> setter_refusals = 0;
    std::thread application([&] {
        std::minstd_rand random(7);
        std::uniform_int_distribution<std::uint32_t> value(0, 100);
        for (int i = 0; i < 400; ++i) {
            try {
                if (i % 2 == 0)
                    dimmer->level.set(value(random));
                else
                    dimmer->max_level.set(value(random));
            } catch (validation_failed const&) {
                ++setter_refusals;
            }
            std::this_thread::yield();
        }
    });
    for (auto& thread : threads)
        thread.join();
    application.join();

    int accepted = 0;
    int refused = 0;
    for (auto const& tally : tallies) {
        EXPECT_EQ(tally.pending, 0) << "every batch was answered";
        accepted += tally.accepted;
        for (auto const& [error, count] : tally.refusals) {
            EXPECT_EQ(error,
                "org.freedesktop.DBus.Error.InvalidArgs: org.sample.Dimmer: Property validation failure");
            refused += count;
        }
    }
    EXPECT_EQ(accepted + refused, clients * bursts * batches);
    EXPECT_GT(accepted, 0);
    EXPECT_GT(refused, 0);
    EXPECT_EQ(dimmer->broken.load(), 0);
    EXPECT_GT(dimmer->commits.load(), 0);

    CallResult level = get(dimmer_path, dimmer_name, "Level", "u");
    ASSERT_TRUE(level.ok()) << level.error_message;
    std::uint32_t level_value = 0;
    ASSERT_GT(sd_bus_message_read(level.reply.get(), "u", &level_value), 0);
    CallResult max = get(dimmer_path, dimmer_name, "MaxLevel", "u");
    ASSERT_TRUE(max.ok()) << max.error_message;
    std::uint32_t max_value = 0;
    ASSERT_GT(sd_bus_message_read(max.reply.get(), "u", &max_value), 0);
    EXPECT_LE(level_value, max_value);
    EXPECT_TRUE(server_errors().empty());
}

TEST_F(BatchValidationTest, TwoBatchesSentBackToBackAreJudgedAgainstWhatEachCommits)
{
    // The finding that started this: from Level 0 / MaxLevel 100, lowering MaxLevel and
    // raising Level, each valid alone, sent without waiting in between.
    Tally tally;
    for (auto const& values : std::vector<std::vector<std::pair<char const*, std::uint32_t>>>{
             {{"MaxLevel", 50U}}, {{"Level", 80U}}}) {
        MessagePtr message = new_call(dimmer_path, extended, "SetMany");
        append_batch(message.get(), values);
        ASSERT_GE(sd_bus_call_async(client.get(), nullptr, message.get(), &on_reply, &tally, 10'000'000), 0);
        ++tally.pending;
    }
    ASSERT_GE(sd_bus_flush(client.get()), 0);

    ASSERT_TRUE(pump_until([&] { return tally.pending == 0; }));

    EXPECT_EQ(tally.accepted, 1);
    EXPECT_EQ(tally.refusals,
        (std::map<std::string, int>{
            {"org.freedesktop.DBus.Error.InvalidArgs: org.sample.Dimmer: Property validation failure", 1}}));
    EXPECT_EQ(dimmer->max_level.get(), 50U);
    EXPECT_EQ(dimmer->level.get(), 0U);
}

} // namespace
} // namespace tarvek::test
