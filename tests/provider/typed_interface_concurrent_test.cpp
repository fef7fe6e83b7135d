// SPDX-License-Identifier: LGPL-2.1-or-later
// Typed interfaces under concurrency: application setters, bus writes committed on another
// thread, and server reads all at once. Reads must always see whole batches.
#include <tarvek/executors/executor_base.hpp>
#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/registry.hpp>

#include "support/recording_server.hpp"
#include "support/test_iterators.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <poll.h>
#include <thread>

namespace {

// Two values that every batch changes together; a read that sees them differ has seen half
// a batch.
class Pair : public tarvek::provider::Interface {
public:
    Pair() : Interface("org.sample.Pair") {}
    Property<std::int32_t> first{*this, "First", 0};
    Property<std::int32_t> second{*this, "Second", 0};
    Property<std::int32_t> other{*this, "Other", 0};

protected:
    bool validate(Values const& v) const override { return v[first] == v[second]; }
};

TEST(TypedInterfaceConcurrency, ReadsNeverSeeHalfABatch)
{
    tarvek::test::RecordingServer server;
    tarvek::API_Registry registry;
    tarvek::detail::executors::ExecutorBase executor;
    tarvek::Object object(executor);
    auto& pair = tarvek::provider::add_interface<Pair>(object);
    registry.add_server(server);
    tarvek::ObjectPath const path("/pair");
    registry.add_object(object, path);
    server.drive();
    auto& glue = server.interface(path, "org.sample.Pair");

    std::atomic<bool> stop = false;
    std::atomic<int> torn = 0;
    std::atomic<int> reads = 0;

    // The object's executor, driven on a thread of its own.
    std::thread driver([&] {
        pollfd ready{executor.event_fd(), POLLIN, 0};
        while (!stop) {
            ::poll(&ready, 1, 10);
            executor.run_dry();
        }
        executor.run_dry();
    });
    // Bus writes from a "server" thread, committed on the driver.
    std::thread writer([&] {
        for (int i = 1; i <= 300; ++i) {
            tarvek::test::WriteIterator writes;
            writes.add(glue.properties()[0], i);
            writes.add(glue.properties()[1], i);
            tarvek::test::ResetIterator resets;
            glue.set_many(writes, resets).wait();
        }
    });
    // Application setters on yet another thread.
    std::thread application([&] {
        for (int i = 1; i <= 300; ++i) {
            pair.update([&](tarvek::provider::Values& v) {
                v.set(pair.first, -i);
                v.set(pair.second, -i);
            });
            pair.other.set(i);
        }
    });
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r)
        readers.emplace_back([&] {
            while (!stop) {
                tarvek::test::ReadIterator read;
                read.add(glue.properties()[0]);
                read.add(glue.properties()[1]);
                read.prepare();
                glue.get_many(read);
                if (read.sinks[0].values.at(0) != read.sinks[1].values.at(0))
                    ++torn;
                ++reads;
                (void)pair.first.get();
            }
        });

    writer.join();
    application.join();
    stop = true;
    for (auto& reader : readers)
        reader.join();
    driver.join();

    EXPECT_EQ(torn.load(), 0);
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(pair.first.get(), pair.second.get());
    EXPECT_EQ(pair.other.get(), 300);
    server.drive();
    EXPECT_FALSE(server.changes().empty());
}

} // namespace
