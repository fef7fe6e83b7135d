// SPDX-License-Identifier: LGPL-2.1-or-later
// A registered object with one test interface of five properties, two methods and a
// signal, published to one recording server. Members are declared so that they die in a
// safe order: the object first (it unregisters itself), then the registry, then the server
// with the wrappers it holds, then the interface's members.
#pragma once

#include "support/recording_server.hpp"
#include "support/test_interface.hpp"

#include <tarvek/provider/registry.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <vector>

namespace tarvek::test {

inline constexpr char test_interface_name[] = "com.example.Test";

// Five properties of four types; "c" is read-only.
inline std::vector<PropertySpec> five_properties()
{
    return {{"a", 0}, {"b", std::string("x")}, {"c", false, true}, {"d", 0L}, {"e", 0.0}};
}

inline std::vector<PropertySpec> numbered_properties(int count)
{
    std::vector<PropertySpec> specs;
    for (int i = 0; i < count; ++i)
        specs.push_back({"p" + std::to_string(i), 0});
    return specs;
}

// "Add" (ii -> i) answers at once, "Fail" raises in its body, "Later" keeps its promise for
// the test to fulfil; the signal "Ping" carries a string.
inline void add_standard_members(TestMembers& members, std::vector<Promise>& kept)
{
    members.methods.add("Add", "ii", "i", TestMethod::Body([](Values const& arguments) {
        return Values{std::get<int>(arguments[0]) + std::get<int>(arguments[1])};
    }));
    members.methods.add("Fail", "", "",
        TestMethod::Body([](Values const&) -> Values { throw std::runtime_error("body failed"); }));
    members.methods.add("Later", "", "i", TestMethod::AsyncBody([&kept](Values const&, Promise& promise) {
        kept.push_back(std::move(promise));
    }));
    members.signals.add("Ping", "s");
}

class ProviderFixture : public ::testing::Test {
protected:
    ProviderFixture()
    {
        add_standard_members(members, kept_promises);
        iface = &add_interface(
            object, std::make_unique<TestInterface>(test_interface_name, five_properties(), members));
        registry.add_server(server);
        registry.add_object(object, path);
        server.drive();
    }

    // Runs the object's executor and the server's until both are quiet.
    void settle()
    {
        for (int round = 0; round < 4; ++round) {
            object.execute();
            server.drive();
        }
    }

    TestMethod& method(int index) { return *members.methods.elements.at(index); }
    TestSignal& ping() { return *members.signals.elements.at(0); }

    ObjectPath const path{"/test/object"};
    std::vector<Promise> kept_promises;
    TestMembers members;
    RecordingServer server;
    API_Registry registry;
    Object object;
    TestInterface* iface = nullptr;
};

} // namespace tarvek::test
