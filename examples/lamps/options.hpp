// SPDX-License-Identifier: LGPL-2.1-or-later
// The command line of tarvek-lamps:
//
//   tarvek-lamps [--bus-address ADDRESS] [--name NAME] [--lamps N] [--state-dir DIR]
//
// An unknown option or a bad value ends the program with one line on stderr and status 2,
// before it touches any bus.
#pragma once

#include <filesystem>
#include <string>

namespace lamps {

struct Options {
    std::string bus_address; // empty: the default bus
    std::string name = "org.sample.Lamps";
    unsigned lamps = 2;
    std::filesystem::path state_dir; // empty: nothing is read or written
};

Options parse(int argc, char** argv);

} // namespace lamps
