// SPDX-License-Identifier: LGPL-2.1-or-later
#include "manager.hpp"

#include "lamp.hpp"

#include <fstream>
#include <memory>

namespace lamps {

ManagerInterface::ManagerInterface(LampManager& manager)
    : Interface("org.sample.LampManager")
    , add_lamp(*this, "AddLamp", [&manager](std::string name) { return manager.add(name); })
    , remove_lamp(*this, "RemoveLamp", [&manager](tarvek::ObjectPath path) { manager.remove(path); })
    , list(*this, "List", [&manager] { return manager.paths(); })
{}

LampManager::LampManager(tarvek::API_Registry& registry, tarvek::common::FDPoller& loop,
                         std::filesystem::path state_dir)
    : registry_(registry), loop_(loop), state_dir_(std::move(state_dir)), timer_(loop)
{}

void LampManager::publish(unsigned count)
{
    manager_object_.emplace(loop_.executor());
    tarvek::provider::add_interface<ManagerInterface>(*manager_object_, *this);
    registry_.add_object(*manager_object_, root);
    empty_object_.emplace(loop_.executor());
    registry_.add_object(*empty_object_, root / "empty");
    for (unsigned i = 1; i <= count; ++i)
        add("lamp" + std::to_string(i));
}

tarvek::ObjectPath LampManager::add(std::string const& name)
{
    if (name.empty() || name.find('/') != std::string::npos || !tarvek::ObjectPath::is_valid("/" + name))
        throw tarvek::invalid_argument("Not a valid lamp name: " + name);
    auto const path = root / name;
    if (lamps_.contains(path) || path == root / "empty")
        throw tarvek::invalid_argument("Lamp exists already: " + name);

    tarvek::Object lamp(loop_.executor());
    tarvek::provider::add_interface<Lamp>(lamp, timer_, next_number_++);
    tarvek::provider::add_interface<Info>(lamp);
    auto& registered = lamps_.emplace(path, std::move(lamp)).first->second;
    registry_.add_object(registered, path);
    restore(registered);
    return path;
}

void LampManager::remove(tarvek::ObjectPath const& path)
{
    auto found = lamps_.find(path);
    if (found == lamps_.end())
        throw tarvek::invalid_argument("No such lamp: " + path.str());
    registry_.remove_object(path);
    // Calls already queued on the shared executor run first; then the lamp goes.
    auto doomed = std::make_shared<tarvek::Object>(std::move(found->second));
    lamps_.erase(found);
    tarvek::detail::executors::Injector(loop_.executor()).submit([doomed]() mutable { doomed.reset(); });
}

std::vector<tarvek::ObjectPath> LampManager::paths() const
{
    std::vector<tarvek::ObjectPath> paths;
    for (auto const& [path, lamp] : lamps_)
        paths.push_back(path);
    return paths;
}

std::filesystem::path LampManager::state_file(tarvek::ObjectPath const& path) const
{
    return state_dir_ / path.as_filename(".json");
}

void LampManager::restore(tarvek::Object& lamp) const
{
    if (state_dir_.empty())
        return;
    std::ifstream in(state_file(lamp.path()));
    if (!in)
        return;
    tarvek::provider::storage::Object saved;
    saved.read_json(in);
    saved.apply(lamp);
}

void LampManager::save() const
{
    if (state_dir_.empty())
        return;
    std::filesystem::create_directories(state_dir_);
    for (auto const& [path, lamp] : lamps_) {
        std::ofstream out(state_file(path));
        tarvek::provider::storage::Object(lamp).write_json(out, true);
    }
}

} // namespace lamps
