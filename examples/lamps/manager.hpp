// SPDX-License-Identifier: LGPL-2.1-or-later
// The lamps and org.sample.LampManager. The service owns the objects; the manager keeps
// the lamps' paths and their interfaces' timer. All of them, and the manager, run on the
// lamps' worker, so the manager's methods and every lamp call are serialised on that one
// thread. The manager must outlive the service: the lamps refer to its timer.
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
    explicit LampManager(std::filesystem::path state_dir);

    // Publishes the manager, /org/sample/lamps/empty and lamp1 .. lampN on `worker`,
    // restoring each lamp whose state file exists.
    void publish(tarvek::server::Service& service, tarvek::server::Worker& worker, unsigned count);
    // Creates, registers and restores a lamp; invalid_argument for a bad or taken name.
    tarvek::ObjectPath add(std::string const& name);
    // Takes a lamp off the bus now; the service destroys it once what is queued for it
    // has run.
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

    std::filesystem::path const state_dir_;
    tarvek::server::Service* service_ = nullptr;
    tarvek::Executor executor_;
    std::optional<BlinkTimer> timer_;
    unsigned next_number_ = 1;
    std::map<tarvek::ObjectPath, tarvek::Object*> lamps_;
};

} // namespace lamps
