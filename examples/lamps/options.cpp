// SPDX-License-Identifier: LGPL-2.1-or-later
#include "options.hpp"

#include <charconv>
#include <cstdlib>
#include <iostream>

namespace lamps {

namespace {

[[noreturn]] void usage_error(std::string const& message)
{
    std::cerr
        << "tarvek-lamps: " << message
        << " (usage: tarvek-lamps [--bus-address ADDRESS] [--name NAME] [--lamps N] [--state-dir DIR])\n";
    std::exit(2);
}

} // namespace

Options parse(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string const option = argv[i];
        if (i + 1 >= argc)
            usage_error(
                option.starts_with("--") ? "missing value for " + option : "unknown argument " + option);
        std::string const value = argv[++i];
        if (option == "--bus-address" && !value.empty())
            options.bus_address = value;
        else if (option == "--name" && !value.empty())
            options.name = value;
        else if (option == "--state-dir" && !value.empty())
            options.state_dir = value;
        else if (option == "--lamps") {
            auto const [end, error]
                = std::from_chars(value.data(), value.data() + value.size(), options.lamps);
            if (error != std::errc() || end != value.data() + value.size() || options.lamps > 1000)
                usage_error("bad number of lamps: " + value);
        } else if (option == "--bus-address" || option == "--name" || option == "--state-dir")
            usage_error("empty value for " + option);
        else
            usage_error("unknown option " + option);
    }
    return options;
}

} // namespace lamps
