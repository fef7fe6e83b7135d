// SPDX-License-Identifier: LGPL-2.1-or-later
// Shared by the tests of the bus plumbing: a call message built on a connection without a
// daemon, filled and sealed for reading, and a check of an exception's class and text.
#pragma once

#include "support/private_bus.hpp"

#include <gtest/gtest.h>

#include <string>

namespace tarvek::test {

class OfflineMessageTest : public ::testing::Test {
protected:
    OfflineConnection connection;
    MessagePtr call = new_call(connection.get());

    // Appends `args` of `types` to the call and seals it, ready to be read from the start.
    template <class... Args>
    void message(char const* types, Args... args)
    {
        ASSERT_GE(sd_bus_message_append(call.get(), types, args...), 0);
        seal_for_reading(call.get());
    }

    int read_int()
    {
        int value = 0;
        EXPECT_GT(sd_bus_message_read_basic(call.get(), 'i', &value), 0);
        return value;
    }
};

// `action` raises E whose what() starts with `text`.
template <class E, class F>
void expect_failure(F&& action, std::string const& text)
{
    try {
        action();
        ADD_FAILURE() << "no exception";
    } catch (E const& e) {
        EXPECT_EQ(std::string(e.what()).substr(0, text.size()), text);
    }
}

} // namespace tarvek::test
