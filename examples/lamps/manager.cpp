// SPDX-License-Identifier: LGPL-2.1-or-later
#include "manager.hpp"

#include "lamp.hpp"

#include <cerrno>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace lamps {

namespace {

[[noreturn]] void fail(std::string const& what, std::filesystem::path const& file)
{
    throw tarvek::system_error(errno, what + " " + file.string());
}

void write_all(int fd, std::string_view text, std::filesystem::path const& file)
{
    while (!text.empty()) {
        ssize_t const n = ::write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            fail("could not write", file);
        text.remove_prefix(static_cast<std::size_t>(n));
    }
}

// Replaces `file` by one holding `text`, so that whoever opens `file` finds either the old
// content or the new, complete: the text goes to a temporary file in the same directory
// (rename is atomic only within one file system) and is renamed over the old one. The
// fsync before the rename makes the data reach the disk before the new name does; without
// it, a crash soon after could leave the new name on an empty file. A kill during the save
// leaves at most the temporary behind, which the next save overwrites and start ignores.
// The temporary's name is fixed, so saves of one file must not run at once: here they all
// run on the lamps' executor, or after it has stopped.
void replace_file(std::filesystem::path const& file, std::string_view text)
{
    std::filesystem::path temporary = file;
    temporary += ".tmp";
    int const fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        fail("could not create", temporary);
    try {
        write_all(fd, text, temporary);
        if (::fsync(fd) != 0)
            fail("could not sync", temporary);
    } catch (...) {
        ::close(fd);
        ::unlink(temporary.c_str());
        throw;
    }
    if (::close(fd) != 0) {
        int const error = errno;
        ::unlink(temporary.c_str());
        errno = error;
        fail("could not write", temporary);
    }
    if (::rename(temporary.c_str(), file.c_str()) != 0) {
        int const error = errno;
        ::unlink(temporary.c_str());
        errno = error;
        fail("could not rename over", file);
    }
}

// Makes the renames in `directory` durable; a failure only costs durability, not content.
void sync_directory(std::filesystem::path const& directory)
{
    int const fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return;
    ::fsync(fd);
    ::close(fd);
}

} // namespace

ManagerInterface::ManagerInterface(LampManager& manager)
    : Interface("org.sample.LampManager")
    , add_lamp(*this, "AddLamp", [&manager](std::string name) { return manager.add(name); })
    , remove_lamp(*this, "RemoveLamp", [&manager](tarvek::ObjectPath path) { manager.remove(path); })
    , list(*this, "List", [&manager] { return manager.paths(); })
{}

LampManager::LampManager(std::filesystem::path state_dir) : state_dir_(std::move(state_dir)) {}

void LampManager::publish(tarvek::server::Service& service, tarvek::server::Worker& worker, unsigned count)
{
    service_ = &service;
    executor_ = worker.executor();
    timer_.emplace(worker.loop());
    service.add<ManagerInterface>(executor_, root, *this);
    service.add_object(root / "empty", executor_, {});
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

    auto& lamp = service_->add_object(path, executor_, [this](tarvek::Object& object) {
        tarvek::provider::add_interface<Lamp>(object, *timer_, next_number_++);
        tarvek::provider::add_interface<Info>(object);
    });
    lamps_.emplace(path, &lamp);
    restore(lamp);
    return path;
}

void LampManager::remove(tarvek::ObjectPath const& path)
{
    auto found = lamps_.find(path);
    if (found == lamps_.end())
        throw tarvek::invalid_argument("No such lamp: " + path.str());
    lamps_.erase(found);
    // Calls already queued on the shared executor run first; then the lamp goes.
    service_->remove_object(path);
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

// A state file that cannot be restored (not JSON, not a stored lamp, a value that doesn't
// fit or that validation refuses) must not keep the service from starting, nor a lamp
// from being added: the lamp keeps its defaults, the file is moved aside to "<file>.bad"
// for whoever wants to look at it, so that the next save does not destroy it, and one line
// on stderr says so. Saves replace files whole (replace_file), so only damage from outside
// gets here.
void LampManager::restore(tarvek::Object& lamp) const
{
    if (state_dir_.empty())
        return;
    auto const file = state_file(lamp.path());
    std::ifstream in(file);
    if (!in)
        return;
    try {
        tarvek::provider::storage::Object saved;
        saved.read_json_checked(in);
        saved.apply(lamp);
    } catch (std::exception const& e) {
        in.close();
        std::filesystem::path aside = file;
        aside += ".bad";
        std::error_code error;
        std::filesystem::rename(file, aside, error);
        std::cerr << "tarvek-lamps: cannot restore " << lamp.path().str() << " from " << file.string() << " ("
                  << e.what() << "); it starts from its defaults"
                  << (error ? std::string() : ", and the file is kept as " + aside.string()) << "\n";
    }
}

void LampManager::save() const
{
    if (state_dir_.empty())
        return;
    std::filesystem::create_directories(state_dir_);
    for (auto const& [path, lamp] : lamps_) {
        std::ostringstream text;
        tarvek::provider::storage::Object(*lamp).write_json(text, true);
        replace_file(state_file(path), text.str());
    }
    sync_directory(state_dir_);
}

} // namespace lamps
