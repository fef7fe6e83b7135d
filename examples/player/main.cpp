// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek-player: a media player on D-Bus that plays nothing, driven through the MPRIS 2
// interfaces by any media client (playerctl, a desktop's media keys).
//
//   tarvek-player [--bus-address ADDRESS] [--name NAME] [--track 'TITLE|ARTIST|ALBUM|SECONDS']...
//
// It takes the bus name org.mpris.MediaPlayer2.NAME (NAME is "tarvek" unless given) on the
// session bus, or on the bus at ADDRESS, and plays the tracks given, or a built-in
// playlist. The server runs on the main thread; the player runs on a worker of the service,
// whose loop also carries the player's timer. SIGINT, SIGTERM and the Quit method stop it;
// a lost bus connection ends it with status 1.
#include "mpris.hpp"

#include <tarvek/tarvek.hpp>

#include <cstdlib>
#include <iostream>

namespace {

struct Options {
    std::string bus_address;
    std::string name = "tarvek";
    std::vector<player::Track> tracks;
};

[[noreturn]] void usage_error(std::string const& message)
{
    std::cerr << "tarvek-player: " << message
              << " (usage: tarvek-player [--bus-address ADDRESS] [--name NAME] [--track "
                 "'TITLE|ARTIST|ALBUM|SECONDS']...)\n";
    std::exit(2);
}

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
        else if (option == "--track") {
            auto track = player::parse_track(value);
            if (!track)
                usage_error("bad track (want TITLE|ARTIST|ALBUM|SECONDS): " + value);
            options.tracks.push_back(std::move(*track));
        } else if (option == "--bus-address" || option == "--name")
            usage_error("empty value for " + option);
        else
            usage_error("unknown option " + option);
    }
    if (options.tracks.empty())
        options.tracks = player::built_in_playlist();
    return options;
}

} // namespace

int main(int argc, char** argv)
{
    Options options = parse(argc, argv);
    try {
        // A media player belongs to its user: on the session bus unless told otherwise.
        tarvek::server::Service service(player::bus_name_prefix + options.name,
            options.bus_address.empty() ? tarvek::server::Bus::session()
                                        : tarvek::server::Bus::address(options.bus_address));
        tarvek::server::Worker& worker = service.add_worker();
        service.add_object(player::object_path, worker.executor(), [&](tarvek::Object& object) {
            // Quit comes on the worker; stop() may be called from any thread.
            tarvek::provider::add_interface<player::MediaPlayer>(object, [&service] { service.stop(); });
            tarvek::provider::add_interface<player::Player>(
                object, worker.loop(), player::Playback(std::move(options.tracks)));
        });
        service.on_ready([] { std::cout << "ready" << std::endl; });
        return service.run();
    } catch (std::exception const& e) {
        // A lost bus too: status 1, so that whoever supervises the player starts it again.
        std::cerr << "tarvek-player: " << e.what() << "\n";
        return 1;
    }
}
