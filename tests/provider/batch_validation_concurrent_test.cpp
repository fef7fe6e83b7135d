// SPDX-License-Identifier: LGPL-2.1-or-later
// Batches from several server threads, sent in bursts without waiting, and application
// setters on other threads, all against one interface with a rule between two properties.
// Every state that a commit leaves must satisfy the rule, whatever the interleaving.
#include <tarvek/common/exceptions.hpp>
#include <tarvek/executors/executor_base.hpp>
#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/registry.hpp>

#include "support/recording_server.hpp"
#include "support/test_iterators.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include <poll.h>

namespace {

class Dimmer : public tarvek::provider::Interface {
public:
    Dimmer()
        : Interface("org.sample.Dimmer")
    {
    }
    Property<std::int32_t> level{*this, "Level", 0};
    Property<std::int32_t> max_level{*this, "MaxLevel", 100};

    // Commits whose outcome broke the rule, counted from the live values after each one.
    std::atomic<int> broken{0};
    std::atomic<int> commits{0};

protected:
    bool validate(Values const& v) const override { return v[level] <= v[max_level]; }
    void on_changed(Values const&, Changed const&) override
    {
        // Still under the exclusive lock: the live values are what this commit left.
        if (level.get() > max_level.get())
            ++broken;
        ++commits;
    }
};

TEST(BatchValidationConcurrency, NoInterleavingOfBatchesAndSettersLeavesARefusedState)
{
    tarvek::test::RecordingServer server;
    tarvek::API_Registry registry;
    tarvek::detail::executors::ExecutorBase executor;
    tarvek::Object object(executor);
    auto& dimmer = tarvek::provider::add_interface<Dimmer>(object);
    registry.add_server(server);
    tarvek::ObjectPath const path("/dimmer");
    registry.add_object(object, path);
    server.drive();
    auto& glue = server.interface(path, "org.sample.Dimmer");
    auto& level = glue.properties()[0];
    auto& max_level = glue.properties()[1];

    std::atomic<bool> stop = false;
    std::atomic<int> accepted = 0;
    std::atomic<int> refused = 0;
    std::atomic<int> other_failures = 0;
    std::atomic<int> bad_reads = 0;

    std::thread driver([&] {
        pollfd ready{executor.event_fd(), POLLIN, 0};
        while (!stop) {
            ::poll(&ready, 1, 10);
            executor.run_dry();
        }
        executor.run_dry();
    });

    // Each writer sends a burst of batches, all read before any of them commits, then
    // collects the answers.
    std::vector<std::thread> writers;
    for (int w = 0; w < 3; ++w)
        writers.emplace_back([&, w] {
            std::minstd_rand random(17 + w);
            std::uniform_int_distribution<int> value(0, 100);
            std::uniform_int_distribution<int> shape(0, 2);
            for (int burst = 0; burst < 60; ++burst) {
                std::vector<boost::future<void>> answers;
                for (int b = 0; b < 5; ++b) {
                    tarvek::test::WriteIterator writes;
                    int const kind = shape(random);
                    if (kind != 1)
                        writes.add(level, value(random));
                    if (kind != 0)
                        writes.add(max_level, value(random));
                    tarvek::test::ResetIterator resets;
                    if (b == 4)
                        resets.add(kind == 0 ? max_level : level);
                    answers.push_back(glue.set_many(writes, resets));
                }
                for (auto& answer : answers) {
                    try {
                        answer.get();
                        ++accepted;
                    } catch (tarvek::validation_failed const&) {
                        ++refused;
                    } catch (...) {
                        ++other_failures;
                    }
                }
            }
        });
    std::vector<std::thread> setters;
    for (int a = 0; a < 2; ++a)
        setters.emplace_back([&, a] {
            std::minstd_rand random(91 + a);
            std::uniform_int_distribution<int> value(0, 100);
            for (int i = 0; i < 200; ++i) {
                try {
                    switch (i % 3) {
                    case 0:
                        dimmer.level.set(value(random));
                        break;
                    case 1:
                        dimmer.max_level.set(value(random));
                        break;
                    default:
                        dimmer.update([&](tarvek::provider::Values& v) {
                            v.set(dimmer.max_level, v[dimmer.max_level] - 1);
                            v.set(dimmer.level, value(random));
                        });
                        break;
                    }
                } catch (tarvek::validation_failed const&) {
                    // The rule refused it; nothing changed.
                }
            }
        });
    std::thread reader([&] {
        while (!stop) {
            tarvek::test::ReadIterator read;
            read.add(level);
            read.add(max_level);
            read.prepare();
            glue.get_many(read);
            if (std::get<int>(read.sinks[0].values.at(0)) > std::get<int>(read.sinks[1].values.at(0)))
                ++bad_reads;
        }
    });

    for (auto& writer : writers)
        writer.join();
    for (auto& setter : setters)
        setter.join();
    stop = true;
    reader.join();
    driver.join();
    server.drive();

    EXPECT_EQ(dimmer.broken.load(), 0);
    EXPECT_EQ(bad_reads.load(), 0);
    EXPECT_EQ(other_failures.load(), 0);
    EXPECT_LE(dimmer.level.get(), dimmer.max_level.get());
    EXPECT_EQ(accepted + refused, 3 * 60 * 5) << "every batch was answered";
    EXPECT_GT(accepted.load(), 0);
    EXPECT_GT(refused.load(), 0);
    EXPECT_GT(dimmer.commits.load(), 0);
}

} // namespace
