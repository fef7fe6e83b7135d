// SPDX-License-Identifier: LGPL-2.1-or-later
#include "bus/bus_fixture.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/executors/injector.hpp>

#include <poll.h>

#include <stdexcept>

namespace tarvek::test {

void Lamp::do_fail(std::string kind)
{
    if (kind == "unknown_method")
        throw tarvek::unknown_method("no such method");
    if (kind == "unknown_property")
        throw tarvek::unknown_property("no such property");
    if (kind == "unknown_interface")
        throw tarvek::unknown_interface("no such interface");
    if (kind == "property_readonly")
        throw tarvek::property_readonly("read only");
    if (kind == "authorization_failure")
        throw tarvek::authorization_failure("cannot ask");
    if (kind == "access_denied")
        throw tarvek::access_denied("not you");
    if (kind == "validation_failed")
        throw tarvek::validation_failed("bad value");
    if (kind == "invalid_argument")
        throw tarvek::invalid_argument("bad argument");
    if (kind == "out_of_range")
        throw tarvek::out_of_range("too far");
    if (kind == "internal_error")
        throw tarvek::internal_error("broken 100% inside");
    throw std::runtime_error("plain failure");
}

BusTest::BusTest()
{
    server_name = unique_name(server_connection.get());
    server = std::make_unique<server::DBusServer>(server_connection.get());
    registry.add_server(*server);
    server_loop.add(server->epoll_fd(), POLLIN, [this](pollfd&) {
        try {
            server->process();
        } catch (std::exception const& error) {
            std::lock_guard lock(errors_mutex);
            errors.emplace_back(error.what());
        }
    });
}

tarvek::Object& BusTest::publish(std::string const& path, std::function<void(tarvek::Object&)> add)
{
    tarvek::Object& object = objects.emplace_back(object_loop.executor());
    if (add)
        add(object);
    registry.add_object(object, ObjectPath(path));
    return object;
}

Lamp& BusTest::publish_lamp(std::string const& path)
{
    Lamp* lamp = nullptr;
    publish(path, [&](tarvek::Object& object) { lamp = &provider::add_interface<Lamp>(object); });
    return *lamp;
}

void BusTest::remove_object(tarvek::Object& object)
{
    objects.remove_if([&](tarvek::Object const& candidate) { return &candidate == &object; });
}

void BusTest::start(bool incoming)
{
    if (incoming)
        server->enable_incoming(true);
    server_thread = std::thread([this] { server_loop.loop(); });
    object_thread = std::thread([this] { object_loop.loop(); });
    // Both loops run from here on, so that stop() can't come before them.
    server_loop.settle();
    object_loop.settle();
}

void BusTest::on_server_thread(std::function<void()> task)
{
    std::promise<void> done;
    detail::executors::Injector(server_loop.executor()).submit([&] {
        task();
        done.set_value();
    });
    done.get_future().wait();
}

void BusTest::stop()
{
    for (sd_bus_slot* slot : matches)
        sd_bus_slot_unref(slot);
    matches.clear();
    if (server_thread.joinable()) {
        server_loop.stop();
        server_loop.wakeup();
        server_thread.join();
    }
    if (object_thread.joinable()) {
        object_loop.stop();
        object_loop.wakeup();
        object_thread.join();
    }
}

MessagePtr BusTest::new_call(char const* path, char const* interface, char const* member)
{
    sd_bus_message* message = nullptr;
    int const r = sd_bus_message_new_method_call(
        client.get(), &message, server_name.c_str(), path, interface, member);
    if (r < 0)
        throw std::runtime_error("sd_bus_message_new_method_call failed");
    return MessagePtr(message);
}

CallResult BusTest::call(sd_bus_message* message, std::chrono::milliseconds timeout)
{
    CallResult result;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    result.r = sd_bus_call(client.get(), message, std::chrono::microseconds(timeout).count(), &error, &reply);
    result.reply.reset(reply);
    if (error.name)
        result.error_name = error.name;
    if (error.message)
        result.error_message = error.message;
    sd_bus_error_free(&error);
    return result;
}

CallResult BusTest::call(
    char const* path, char const* interface, char const* member, std::function<void(sd_bus_message*)> fill)
{
    MessagePtr message = new_call(path, interface, member);
    if (fill)
        fill(message.get());
    return call(message.get());
}

CallResult BusTest::get(char const* path, char const* interface, char const* property, char const* signature)
{
    CallResult result = call(path, "org.freedesktop.DBus.Properties", "Get",
        [&](sd_bus_message* m) { sd_bus_message_append(m, "ss", interface, property); });
    if (result.ok() && sd_bus_message_enter_container(result.reply.get(), 'v', signature) < 0)
        throw std::runtime_error("Get: the value has another type");
    return result;
}

bool BusTest::pump_until(std::function<bool()> done, std::chrono::milliseconds timeout)
{
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        int const r = sd_bus_process(client.get(), nullptr);
        if (r < 0)
            throw std::runtime_error("sd_bus_process failed");
        if (r == 0)
            sd_bus_wait(client.get(), 20000);
    }
    return true;
}

void BusTest::watch(char const* interface, char const* member)
{
    sd_bus_slot* slot = nullptr;
    int const r = sd_bus_match_signal(
        client.get(), &slot, nullptr, nullptr, interface, member, &BusTest::on_signal, this);
    if (r < 0)
        throw std::runtime_error("sd_bus_match_signal failed");
    matches.push_back(slot);
}

int BusTest::on_signal(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    static_cast<BusTest*>(userdata)->signals.emplace_back(sd_bus_message_ref(message));
    return 0;
}

std::vector<std::string> BusTest::server_errors()
{
    std::lock_guard lock(errors_mutex);
    return errors;
}

std::vector<std::string> changed_names(sd_bus_message* signal)
{
    std::vector<std::string> names;
    sd_bus_message_rewind(signal, 1);
    char const* interface = nullptr;
    sd_bus_message_read(signal, "s", &interface);
    sd_bus_message_enter_container(signal, 'a', "{sv}");
    while (sd_bus_message_enter_container(signal, 'e', "sv") > 0) {
        char const* name = nullptr;
        sd_bus_message_read(signal, "s", &name);
        names.emplace_back(name);
        sd_bus_message_skip(signal, "v");
        sd_bus_message_exit_container(signal);
    }
    sd_bus_message_exit_container(signal);
    return names;
}

} // namespace tarvek::test
