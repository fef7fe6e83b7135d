// SPDX-License-Identifier: LGPL-2.1-or-later
// SlotDeleter: ends an sd-bus registration (a vtable, an object callback or an object
// manager) when its owning pointer ends. Used on the thread that serves the bus.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

namespace tarvek::server::dbus {

struct SlotDeleter {
    void operator()(sd_bus_slot* slot) const noexcept
    {
        if (slot)
            sd_bus_slot_unref(slot);
    }
};

using SlotPtr = std::unique_ptr<sd_bus_slot, SlotDeleter>;

} // namespace tarvek::server::dbus
