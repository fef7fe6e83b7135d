// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek-player: a media player on D-Bus that plays nothing, driven through the MPRIS 2
// interfaces by any media client (playerctl, a desktop's media keys).
//
//   tarvek-player [--bus-address ADDRESS] [--name NAME] [--track 'TITLE|ARTIST|ALBUM|SECONDS']...
//
// It takes the bus name org.mpris.MediaPlayer2.NAME (NAME is "tarvek" unless given) and
// plays the tracks given, or a built-in playlist. The server runs on the main thread in an
// FDPoller loop; the player runs on a second thread with its own FDPoller, which also
// carries the player's timer. SIGINT, SIGTERM and the Quit method stop it; a lost bus
// connection ends it with status 1.
#include "mpris.hpp"

#include <tarvek/tarvek.hpp>

#include <boost/throw_exception.hpp>

#include <systemd/sd-bus.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <sys/signalfd.h>
#include <thread>
#include <unistd.h>

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

// A second thread running an FDPoller. An exception out of a pass (a task that failed) is
// reported and the loop goes on; the destructor stops the loop from inside it, where a
// stop cannot be lost, and joins the thread, also while an exception unwinds main.
class LoopThread {
public:
    explicit LoopThread(tarvek::common::FDPoller& loop)
        : loop_(loop)
        , thread_([this] {
            while (!stopping_) {
                try {
                    loop_.loop();
                } catch (std::exception const& e) {
                    std::cerr << "tarvek-player: " << e.what() << "\n";
                }
            }
        })
    {
    }
    ~LoopThread()
    {
        tarvek::detail::executors::Injector(loop_.executor()).submit([this] {
            stopping_ = true;
            loop_.stop();
        });
        thread_.join();
    }
    LoopThread(LoopThread const&) = delete;
    LoopThread& operator=(LoopThread const&) = delete;

private:
    tarvek::common::FDPoller& loop_;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
};

sd_bus* connect(std::string const& address)
{
    if (address.empty())
        return nullptr; // the server opens the default bus itself: a player is the user's
    sd_bus* bus = nullptr;
    int r = sd_bus_new(&bus);
    if (r >= 0)
        r = sd_bus_set_address(bus, address.c_str());
    if (r >= 0)
        r = sd_bus_set_bus_client(bus, 1);
    if (r >= 0)
        r = sd_bus_start(bus);
    if (r < 0) {
        sd_bus_unref(bus);
        boost::throw_exception(tarvek::system_error(-r, "Could not connect to " + address));
    }
    return bus;
}

} // namespace

int main(int argc, char** argv)
{
    Options options = parse(argc, argv);

    // Signals arrive through a descriptor on the main loop; block them before any thread
    // starts, so that every thread inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    for (int s : {SIGINT, SIGTERM})
        sigaddset(&signals, s);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    try {
        tarvek::common::FDPoller main_loop;
        tarvek::common::FDPoller player_loop;
        tarvek::API_Registry registry;

        sd_bus* bus = connect(options.bus_address);
        tarvek::server::DBusServer server(bus);
        sd_bus_unref(bus); // the server holds its own reference
        registry.add_server(server);

        // Quit comes on the player's thread; the main loop is stopped from its own.
        tarvek::Object object(player_loop.executor());
        tarvek::provider::add_interface<player::MediaPlayer>(object, [&main_loop] {
            tarvek::detail::executors::Injector(main_loop.executor()).submit([&main_loop] {
                main_loop.stop();
            });
        });
        tarvek::provider::add_interface<player::Player>(
            object, player_loop, player::Playback(std::move(options.tracks)));
        registry.add_object(object, player::object_path);
        server.request_name(player::bus_name_prefix + options.name);
        server.enable_incoming(true);

        bool lost = false;
        main_loop.add(server.epoll_fd(), POLLIN, [&](pollfd&) {
            try {
                server.process();
            } catch (tarvek::server::connection_lost const& e) {
                std::cerr << "tarvek-player: " << e.what() << "\n";
                lost = true;
                main_loop.stop();
            } catch (std::exception const& e) {
                std::cerr << "tarvek-player: " << e.what() << "\n";
            }
        });

        int const signal_fd = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
        if (signal_fd < 0)
            boost::throw_exception(tarvek::system_error(errno, "signalfd failed"));
        main_loop.add(signal_fd, POLLIN, [&](pollfd&) {
            signalfd_siginfo info{};
            while (read(signal_fd, &info, sizeof info) == sizeof info)
                main_loop.stop();
        });

        std::optional<LoopThread> player_thread(std::in_place, player_loop);
        // The name request and the object are queued on the server; one pass sends them.
        server.process();
        std::cout << "ready" << std::endl;
        main_loop.loop();

        player_thread.reset();
        // A Quit has been answered on the player's thread, but its reply may still wait
        // on the server's queue: one more pass sends it.
        if (!lost)
            server.process();
        close(signal_fd);
        registry.remove_all();
        if (lost)
            return 1;
    } catch (std::exception const& e) {
        std::cerr << "tarvek-player: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
