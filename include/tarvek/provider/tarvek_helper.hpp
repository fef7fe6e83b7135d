// SPDX-License-Identifier: LGPL-2.1-or-later
// TarvekHelper: one process-wide slot for a value that an application wants to reach from
// anywhere, typically its registry and its service's name. The slot refers to the helper
// without keeping it alive: once the last std::shared_ptr of it is gone, a new one may be
// set. Both operations may be called from any thread. The library itself never reads it.
#pragma once

#include <memory>
#include <string>

namespace tarvek {

class API_Registry;

class TarvekHelper {
public:
    // Raises tarvek::invalid_state_error "There is already a global helper instance set"
    // while another helper is alive.
    static void set_global_instance(std::shared_ptr<TarvekHelper> helper);
    // A copy of the live helper. One must have been set and be alive: without one the
    // process ends.
    static TarvekHelper global_helper();

    std::weak_ptr<API_Registry> registry;
    std::string service_name;
};

} // namespace tarvek
