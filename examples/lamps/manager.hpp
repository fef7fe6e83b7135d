// SPDX-License-Identifier: LGPL-2.1-or-later
// The lamps and org.sample.LampManager. Owns every lamp object; all of them, and the
// manager, run on the lamps' executor, so the manager's methods and every lamp call are
// serialised on that one thread.
#pragma once

#include "blink_timer.hpp"

#include <tarvek/tarvek.hpp>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace lamps {

class LampManager;

class ManagerInterface : public tarvek::provider::Interface {
public:
    explicit ManagerInterface(LampManager& manager);

    Method add_lamp;
    Method remove_lamp;
    Method list;
};

class LampManager {
public:
    static inline tarvek::ObjectPath const root{"/org/sample/lamps"};

    // `state_dir` empty: nothing is read or written.
    LampManager(tarvek::API_Registry& registry, tarvek::common::FDPoller& loop, std::filesystem::path state_dir);

    // Registers the manager, /org/sample/lamps/empty and lamp1 .. lampN, restoring each lamp
    // whose state file exists.
    void publish(unsigned count);
    // Creates, registers and restores a lamp; invalid_argument for a bad or taken name.
    tarvek::ObjectPath add(std::string const& name);
    // Unregisters a lamp now and destroys it once what is queued for it has run.
    void remove(tarvek::ObjectPath const& path);
    std::vector<tarvek::ObjectPath> paths() const;
    // Writes every lamp's state file, defaults kept. Each file is replaced whole, by a
    // rename: a reader sees the old file or the new one, never a part, and a save killed
    // half-way leaves the old one. Raises tarvek::system_error if a file cannot be written.
    void save() const;

private:
    // From the lamp's state file, if there is one; a file that cannot be restored is moved
    // aside with a warning and the lamp keeps its defaults.
    void restore(tarvek::Object& lamp) const;
    std::filesystem::path state_file(tarvek::ObjectPath const& path) const;

    tarvek::API_Registry& registry_;
    tarvek::common::FDPoller& loop_;
    std::filesystem::path const state_dir_;
    BlinkTimer timer_;
    unsigned next_number_ = 1;
    std::optional<tarvek::Object> manager_object_;
    std::optional<tarvek::Object> empty_object_;
    std::map<tarvek::ObjectPath, tarvek::Object> lamps_;
};

} // namespace lamps
