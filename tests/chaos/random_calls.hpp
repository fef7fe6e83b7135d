// SPDX-License-Identifier: LGPL-2.1-or-later
// Random method calls for the chaos test of tarvek-lamps: real and unknown paths,
// interfaces and members, values of the right and of wrong types, variants in variants,
// deep nesting, empty and huge arrays. Everything here is single-threaded: each client
// thread has its own generator and its own connection.
#pragma once

#include "support/private_bus.hpp"

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace tarvek::test::chaos {

using Rng = std::mt19937_64;

// What the generator may use; the chaos program turns classes off to isolate a failure.
struct Features {
    bool big = true;    // strings and arrays of megabytes
    bool deep = true;   // variants and containers nested tens of levels
    bool empty = true;  // empty name arrays for the ExtendedProperties calls
    bool badsig = true; // arguments of random signatures for real members
};

struct CallOptions {
    Features features;
    // Lamp paths that calls may touch, besides unknown ones.
    std::vector<std::string> lamps;
};

// One call, not sent yet. `message` is empty when sd-bus refused to build it (a nesting
// deeper than it allows, say).
struct Call {
    MessagePtr message;
    std::string description;
    // The call asks the access policy (it targets an org.sample interface): under a policy
    // that refuses everything it must never succeed.
    bool guarded = false;
};

inline int pick(Rng& rng, int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng); }
inline bool chance(Rng& rng, double p) { return std::bernoulli_distribution(p)(rng); }

// Short printable text with characters that JSON and D-Bus both have to escape or carry.
std::string random_text(Rng& rng, std::size_t max_length);

// Anything: the mix the chaos clients send.
Call random_call(sd_bus* bus, Rng& rng, CallOptions const& options);
// AddLamp and RemoveLamp on a small pool of names, and calls to the lamps of that pool,
// so that additions, removals and calls race.
Call manager_call(sd_bus* bus, Rng& rng, std::vector<std::string> const& pool);
// Calls that a client may leave behind when it goes: slow ones first.
Call slow_call(sd_bus* bus, Rng& rng, CallOptions const& options);
// A well-formed call that the access policy decides, with "nobody" markers in every
// value it would write, for a client that must be refused.
Call refused_call(sd_bus* bus, Rng& rng, unsigned number);

// A new call to the service; empty when sd-bus refuses.
MessagePtr make_call(sd_bus* bus, std::string const& path, std::string const& interface, std::string const& member);

} // namespace tarvek::test::chaos
