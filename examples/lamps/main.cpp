// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek-lamps: a sample service of lamps on D-Bus.
//
//   tarvek-lamps [--bus-address ADDRESS] [--name NAME] [--lamps N] [--state-dir DIR]
//
// The server runs on the main thread in an FDPoller loop; the lamps share one executor,
// driven by a second thread with its own FDPoller, so that a slow lamp never holds up the
// bus. SIGINT and SIGTERM stop the service (saving state if asked), SIGUSR1 saves state.
// A lost bus connection ends it with status 1, after saving state if asked.
#include "manager.hpp"

#include <tarvek/tarvek.hpp>

#include <systemd/sd-bus.h>

#include <atomic>
#include <charconv>
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
    std::string name = "org.sample.Lamps";
    unsigned lamps = 2;
    std::filesystem::path state_dir;
};

[[noreturn]] void usage_error(std::string const& message)
{
    std::cerr << "tarvek-lamps: " << message
              << " (usage: tarvek-lamps [--bus-address ADDRESS] [--name NAME] [--lamps N] [--state-dir DIR])\n";
    std::exit(2);
}

Options parse(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string const option = argv[i];
        if (i + 1 >= argc)
            usage_error(option.starts_with("--") ? "missing value for " + option : "unknown argument " + option);
        std::string const value = argv[++i];
        if (option == "--bus-address" && !value.empty())
            options.bus_address = value;
        else if (option == "--name" && !value.empty())
            options.name = value;
        else if (option == "--state-dir" && !value.empty())
            options.state_dir = value;
        else if (option == "--lamps") {
            auto const [end, error] = std::from_chars(value.data(), value.data() + value.size(), options.lamps);
            if (error != std::errc() || end != value.data() + value.size() || options.lamps > 1000)
                usage_error("bad number of lamps: " + value);
        } else if (option == "--bus-address" || option == "--name" || option == "--state-dir")
            usage_error("empty value for " + option);
        else
            usage_error("unknown option " + option);
    }
    return options;
}

// A second thread running an FDPoller. An exception out of a pass (a task that failed) is
// reported and the loop goes on; the destructor stops the loop from inside it, where a
// stop cannot be lost, and joins the thread, also while an exception unwinds main.
class LoopThread {
public:
    explicit LoopThread(tarvek::common::FDPoller& loop)
        : loop_(loop), thread_([this] {
              while (!stopping_) {
                  try {
                      loop_.loop();
                  } catch (std::exception const& e) {
                      std::cerr << "tarvek-lamps: " << e.what() << "\n";
                  }
              }
          })
    {}
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
        return nullptr; // the server opens the default bus itself
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
        throw tarvek::system_error(-r, "Could not connect to " + address);
    }
    return bus;
}

} // namespace

int main(int argc, char** argv)
{
    Options const options = parse(argc, argv);

    // Signals arrive through a descriptor on the main loop; block them before any thread
    // starts, so that every thread inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    for (int s : {SIGINT, SIGTERM, SIGUSR1})
        sigaddset(&signals, s);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    try {
        tarvek::common::FDPoller main_loop;
        tarvek::common::FDPoller lamp_loop;
        tarvek::API_Registry registry;

        sd_bus* bus = connect(options.bus_address);
        tarvek::server::DBusServer server(bus);
        sd_bus_unref(bus); // the server holds its own reference
        registry.add_server(server);

        lamps::LampManager manager(registry, lamp_loop, options.state_dir);
        manager.publish(options.lamps);
        server.add_object_manager(lamps::LampManager::root);
        server.request_name(options.name);
        server.enable_incoming(true);
        // Set when the bus has gone: the service then ends with status 1, so that whoever
        // supervises it starts it again, and it has its name back.
        bool lost = false;
        main_loop.add(server.epoll_fd(), POLLIN, [&](pollfd&) {
            try {
                server.process();
            } catch (tarvek::server::connection_lost const& e) {
                std::cerr << "tarvek-lamps: " << e.what() << "\n";
                lost = true;
                main_loop.stop();
            } catch (std::exception const& e) {
                // A failed task (say, a change reported for a lamp removed just before)
                // is raised once and has left the server's queue; the server itself is
                // fine and goes on.
                std::cerr << "tarvek-lamps: " << e.what() << "\n";
            }
        });

        int const signal_fd = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
        if (signal_fd < 0)
            throw tarvek::system_error(errno, "signalfd failed");
        // At most one save waits on the lamps' executor: a save queued and not yet begun
        // already takes what every later signal asks for, and signals faster than saves
        // would otherwise pile up saves ahead of every call to a lamp.
        std::atomic<bool> save_queued{false};
        main_loop.add(signal_fd, POLLIN, [&](pollfd&) {
            signalfd_siginfo info{};
            while (read(signal_fd, &info, sizeof info) == sizeof info) {
                if (info.ssi_signo != SIGUSR1) {
                    main_loop.stop();
                } else if (!save_queued.exchange(true)) {
                    tarvek::detail::executors::Injector(lamp_loop.executor()).submit([&manager, &save_queued] {
                        save_queued = false;
                        manager.save();
                    });
                }
            }
        });

        std::optional<LoopThread> lamp_thread(std::in_place, lamp_loop);
        // The name request and the objects are queued on the server; one pass sends them.
        server.process();
        std::cout << "ready" << std::endl;
        main_loop.loop();

        lamp_thread.reset();
        manager.save();
        close(signal_fd);
        registry.remove_all();
        if (lost)
            return 1;
    } catch (std::exception const& e) {
        std::cerr << "tarvek-lamps: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
