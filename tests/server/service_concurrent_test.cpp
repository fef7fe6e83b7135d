// SPDX-License-Identifier: LGPL-2.1-or-later
// server::Service in the test's own process, on a private dbus-daemon: run() on a thread
// of the test, a client connection of the test's own, and objects that say on which thread
// they run and die.
#include "server/dbus/policy_file.hpp"
#include "support/private_bus.hpp"

#include <tarvek/tarvek.hpp>

#include <gtest/gtest.h>

#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#if defined(__SANITIZE_THREAD__)
// The two known edges of the provider's lock order that ThreadSanitizer cannot judge (it
// doesn't tell shared from exclusive holding, nor a state that is being destroyed from
// one in use); tests/provider/provider_concurrent_test.cpp explains both.
extern "C" char const* __tsan_default_suppressions()
{
    return "deadlock:tarvek::provider::InterfaceState::flag_as_removed\n"
           "deadlock:tarvek::provider::InterfaceState::~InterfaceState\n";
}
#endif

namespace tarvek::test {
namespace {

using namespace std::chrono_literals;

constexpr char const* service_name = "com.omno.test.Service";
constexpr char const* probe_interface = "com.omno.test.Probe";

std::string this_thread()
{
    std::ostringstream text;
    text << std::this_thread::get_id();
    return text.str();
}

// Where an object's calls run and where it died, for the test to read.
struct Trace {
    std::mutex mutex;
    std::optional<std::string> died_on;
    std::atomic<int> held = 0;

    std::optional<std::string> death()
    {
        std::lock_guard lock(mutex);
        return died_on;
    }
};

class Probe : public provider::Interface {
public:
    explicit Probe(Trace& trace)
        : Interface(probe_interface)
        , trace_(trace)
    {
    }
    ~Probe() override
    {
        std::lock_guard lock(trace_.mutex);
        trace_.died_on = this_thread();
    }

    Property<std::uint32_t> value{*this, "Value", 0};
    // The thread the call runs on.
    Method where{*this, "Where", [] { return this_thread(); }};
    // Never answers by itself: the call stays in flight until the object dies.
    Method hold{*this, "Hold", [this](Responder<std::uint32_t> reply) {
                    held_.push_back(std::move(reply));
                    ++trace_.held;
                }};

private:
    Trace& trace_;
    std::vector<Responder<std::uint32_t>> held_;
};

// One call's outcome as the client sees it.
struct Answer {
    std::string error_name;
    std::string text;
};

class ServiceTest : public ::testing::Test {
protected:
    ServiceTest()
    {
        service.emplace(service_name, server::Bus::address(daemon->address()));
        service->on_ready([this] {
            run_thread = this_thread();
            // Readiness is told only once the name is ours: ask the bus, as a client would.
            name_owned_at_ready = sd_bus_get_name_creds(observer.get(), service_name, 0, nullptr) >= 0;
            ready.set_value();
        });
    }

    ~ServiceTest() override
    {
        if (runner.joinable()) {
            service->stop();
            runner.join();
        }
    }

    // run() on a thread of its own; false if it never became ready.
    bool start()
    {
        runner = std::thread([this] {
            try {
                status = service->run();
            } catch (...) {
                failure = std::current_exception();
            }
            ended.set_value();
        });
        auto ready_future = ready.get_future();
        auto ended_future = ended.get_future();
        ended_ = std::move(ended_future);
        for (auto deadline = std::chrono::steady_clock::now() + 20s;
             std::chrono::steady_clock::now() < deadline;) {
            if (ready_future.wait_for(10ms) == std::future_status::ready)
                return true;
            if (ended_.wait_for(0s) == std::future_status::ready)
                return false;
        }
        return false;
    }

    // Waits for run() to end; false after 20 s.
    bool wait_for_end()
    {
        if (ended_.wait_for(20s) != std::future_status::ready)
            return false;
        runner.join();
        return true;
    }

    Answer call(char const* path, char const* member)
    {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        int const r = sd_bus_call_method(
            client.get(), service_name, path, probe_interface, member, &error, &reply, "");
        Answer answer;
        if (r < 0) {
            answer.error_name = error.name ? error.name : "errno";
        } else {
            char const* text = nullptr;
            if (sd_bus_message_read(reply, "s", &text) > 0)
                answer.text = text;
        }
        sd_bus_error_free(&error);
        sd_bus_message_unref(reply);
        return answer;
    }

    PolicyFile policy{"allow * *\n"};
    // What the objects refer to outlives the service.
    Trace trace;
    Trace main_trace;
    std::optional<PrivateBus> daemon{std::in_place};
    BusPtr client{daemon->connect()};
    BusPtr observer{daemon->connect()};
    std::optional<server::Service> service;
    std::promise<void> ready;
    std::promise<void> ended;
    std::future<void> ended_;
    std::thread runner;
    std::string run_thread;
    bool name_owned_at_ready = false;
    int status = -1;
    std::exception_ptr failure;
};

TEST_F(ServiceTest, SaysReadyOnlyOnceTheNameIsOwned)
{
    ASSERT_TRUE(start());
    EXPECT_TRUE(name_owned_at_ready);
}

TEST_F(ServiceTest, ObjectsAddedFromAnotherThreadRunOnTheirChosenExecutor)
{
    server::Worker& worker = service->add_worker();
    ASSERT_TRUE(start());
    // Added from the test's thread while the service runs on another.
    service->add<Probe>(worker.executor(), ObjectPath("/probe/worker"), trace);
    service->add<Probe>(ObjectPath("/probe/main"), main_trace);
    std::promise<std::string> worker_thread;
    worker.executor().post([&] { worker_thread.set_value(this_thread()); });
    std::string const worker_id = worker_thread.get_future().get();

    EXPECT_EQ(call("/probe/worker", "Where").text, worker_id);
    EXPECT_EQ(call("/probe/main", "Where").text, run_thread);
    EXPECT_NE(worker_id, run_thread);
}

TEST_F(ServiceTest, ARemovedObjectDiesOnItsExecutorsThreadWhoeverRemovesIt)
{
    server::Worker& worker = service->add_worker();
    service->add<Probe>(worker.executor(), ObjectPath("/probe"), trace);
    ASSERT_TRUE(start());
    std::string const worker_id = call("/probe", "Where").text;

    service->remove_object(ObjectPath("/probe"));
    for (auto deadline = std::chrono::steady_clock::now() + 10s;
         !trace.death() && std::chrono::steady_clock::now() < deadline;)
        std::this_thread::sleep_for(5ms);
    EXPECT_EQ(trace.death(), worker_id);
    EXPECT_NE(call("/probe", "Where").error_name, "");
}

TEST_F(ServiceTest, RemovingAnUnknownPathRaisesInvalidArgument)
{
    EXPECT_THROW(service->remove_object(ObjectPath("/nothing")), tarvek::invalid_argument);
}

TEST_F(ServiceTest, AReplyInFlightAtStopIsAnsweredWithRequestLost)
{
    server::Worker& worker = service->add_worker();
    service->add<Probe>(worker.executor(), ObjectPath("/probe"), trace);
    bool stopped_callback = false;
    service->on_stop([&] { stopped_callback = trace.death() == std::nullopt; });
    ASSERT_TRUE(start());

    std::optional<std::string> lost_name;
    auto const on_reply = [](sd_bus_message* message, void* userdata, sd_bus_error*) {
        sd_bus_error const* error = sd_bus_message_get_error(message);
        *static_cast<std::optional<std::string>*>(userdata) = error && error->name ? error->name : "no error";
        return 0;
    };
    sd_bus_slot* slot = nullptr;
    ASSERT_GE(sd_bus_call_method_async(client.get(), &slot, service_name, "/probe", probe_interface, "Hold",
                  on_reply, &lost_name, ""),
        0);
    for (auto deadline = std::chrono::steady_clock::now() + 10s;
         trace.held == 0 && std::chrono::steady_clock::now() < deadline;) {
        sd_bus_process(client.get(), nullptr);
        sd_bus_wait(client.get(), 10000);
    }
    ASSERT_EQ(trace.held, 1);

    service->stop();
    ASSERT_TRUE(wait_for_end());
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(failure);
    EXPECT_TRUE(stopped_callback) << "on_stop ran after the objects had gone";
    EXPECT_TRUE(trace.death().has_value());
    for (auto deadline = std::chrono::steady_clock::now() + 10s;
         !lost_name && std::chrono::steady_clock::now() < deadline;) {
        sd_bus_process(client.get(), nullptr);
        sd_bus_wait(client.get(), 10000);
    }
    sd_bus_slot_unref(slot);
    EXPECT_EQ(lost_name, std::optional<std::string>("com.omno.Error.RequestLost"));
}

TEST_F(ServiceTest, AStopBeforeRunIsNotLost)
{
    service->stop();
    ASSERT_TRUE(start());
    ASSERT_TRUE(wait_for_end());
    EXPECT_EQ(status, 0);
}

TEST_F(ServiceTest, ATakenNameEndsRunWithNameTakenBeforeReadiness)
{
    ASSERT_GE(sd_bus_request_name(client.get(), service_name, 0), 0);
    EXPECT_FALSE(start());
    ASSERT_TRUE(wait_for_end());
    ASSERT_TRUE(failure);
    try {
        std::rethrow_exception(failure);
    } catch (server::name_taken const& e) {
        EXPECT_EQ(e.code().value(), EEXIST);
        EXPECT_NE(std::string(e.what()).find(service_name), std::string::npos) << e.what();
    } catch (std::exception const& e) {
        ADD_FAILURE() << "not name_taken: " << e.what();
    }
}

TEST_F(ServiceTest, ALostBusEndsRunWithConnectionLostAfterTheStopCallbacks)
{
    bool stop_callback = false;
    service->on_stop([&] { stop_callback = true; });
    ASSERT_TRUE(start());
    client.reset();
    observer.reset();
    daemon.reset();
    ASSERT_TRUE(wait_for_end());
    EXPECT_TRUE(stop_callback);
    ASSERT_TRUE(failure);
    EXPECT_THROW(std::rethrow_exception(failure), server::connection_lost);
}

TEST_F(ServiceTest, WorkPostedToAWorkerRunsInOrderOnItsThread)
{
    server::Worker& worker = service->add_worker();
    ASSERT_TRUE(start());
    std::vector<int> order;
    std::promise<void> done;
    for (int i = 0; i < 5; ++i)
        worker.executor().post([&order, i] { order.push_back(i); });
    worker.executor().post([&] { done.set_value(); });
    ASSERT_EQ(done.get_future().wait_for(10s), std::future_status::ready);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
}

} // namespace
} // namespace tarvek::test
