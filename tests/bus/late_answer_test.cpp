// SPDX-License-Identifier: LGPL-2.1-or-later
// A Responder kept after its handler has returned and answered later, from another thread
// or from a task on the object's executor: the reply must reach the client without any
// further message to the server.
#include "bus/bus_fixture.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

namespace tarvek::test {
namespace {

class Deferred : public provider::Interface {
public:
    Deferred() : Interface("org.sample.Deferred") {}

    Method hold{*this, "Hold", [this](Responder<std::int32_t> reply, std::int32_t value) {
                    std::lock_guard lock(mutex);
                    held.emplace_back(std::move(reply), value);
                }};

    std::mutex mutex;
    std::vector<std::pair<Responder<std::int32_t>, std::int32_t>> held;

    std::size_t count()
    {
        std::lock_guard lock(mutex);
        return held.size();
    }
};

class LateAnswerTest : public BusTest {
protected:
    void SetUp() override
    {
        publish("/org/sample/deferred", [this](tarvek::Object& object) {
            deferred = &provider::add_interface<Deferred>(object);
        });
        start();
    }

    struct Pending {
        std::atomic<bool> done = false;
        std::int32_t value = -1;
        std::string error;
    };

    static int on_reply(sd_bus_message* reply, void* userdata, sd_bus_error*)
    {
        auto& pending = *static_cast<Pending*>(userdata);
        if (sd_bus_message_is_method_error(reply, nullptr))
            pending.error = sd_bus_message_get_error(reply)->name;
        else
            sd_bus_message_read_basic(reply, 'i', &pending.value);
        pending.done = true;
        return 0;
    }

    void send(Pending& pending, std::int32_t value)
    {
        MessagePtr message = new_call("/org/sample/deferred", "org.sample.Deferred", "Hold");
        ASSERT_GE(sd_bus_message_append(message.get(), "i", value), 0);
        ASSERT_GE(sd_bus_call_async(client.get(), nullptr, message.get(), &on_reply, &pending, 10'000'000), 0);
    }

    Deferred* deferred = nullptr;
};

TEST_F(LateAnswerTest, AnAnswerFromAnotherThreadReachesTheClientWithNoFurtherMessage)
{
    Pending first;
    send(first, 1);
    ASSERT_TRUE(pump_until([&] { return deferred->count() == 1; }, std::chrono::seconds(5)));
    {
        std::lock_guard lock(deferred->mutex);
        deferred->held[0].first.reply(deferred->held[0].second + 100);
    }
    ASSERT_TRUE(pump_until([&] { return first.done.load(); }, std::chrono::seconds(5)));
    EXPECT_EQ(first.value, 101);
}

TEST_F(LateAnswerTest, SeveralAnswersGivenInReverseOrderAllArrive)
{
    std::vector<std::unique_ptr<Pending>> pending;
    for (int i = 0; i < 3; ++i) {
        pending.push_back(std::make_unique<Pending>());
        send(*pending.back(), i);
    }
    ASSERT_TRUE(pump_until([&] { return deferred->count() == 3; }, std::chrono::seconds(5)));
    for (int i = 2; i >= 0; --i) {
        {
            std::lock_guard lock(deferred->mutex);
            deferred->held[static_cast<std::size_t>(i)].first.reply(i + 10);
        }
        ASSERT_TRUE(pump_until([&] { return pending[static_cast<std::size_t>(i)]->done.load(); },
            std::chrono::seconds(5)))
            << "answer " << i;
        EXPECT_EQ(pending[static_cast<std::size_t>(i)]->value, i + 10);
    }
}

TEST_F(LateAnswerTest, AnAnswerFromATaskOnTheObjectsExecutorReachesTheClient)
{
    Pending first;
    send(first, 5);
    ASSERT_TRUE(pump_until([&] { return deferred->count() == 1; }, std::chrono::seconds(5)));
    detail::executors::Injector(object_loop.executor()).submit([this] {
        std::lock_guard lock(deferred->mutex);
        deferred->held[0].first.reply(55);
    });
    ASSERT_TRUE(pump_until([&] { return first.done.load(); }, std::chrono::seconds(5)));
    EXPECT_EQ(first.value, 55);
}

} // namespace
} // namespace tarvek::test
