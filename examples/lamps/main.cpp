// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek-lamps: a sample service of lamps on D-Bus.
//
//   tarvek-lamps [--bus-address ADDRESS] [--name NAME] [--lamps N] [--state-dir DIR]
//
// The server runs on the main thread; the lamps share one worker of the service, so that
// a slow lamp never holds up the bus. SIGINT and SIGTERM stop the service (saving state if
// asked), SIGUSR1 saves state. A lost bus connection ends it with status 1, after saving
// state if asked.
#include "manager.hpp"
#include "options.hpp"

#include <tarvek/tarvek.hpp>

#include <atomic>
#include <csignal>
#include <iostream>

int main(int argc, char** argv)
{
    lamps::Options const options = lamps::parse(argc, argv);
    try {
        // Declared first: the lamps that the service owns use the manager's timer.
        lamps::LampManager manager(options.state_dir);
        tarvek::server::Service service(options.name, options.bus_address.empty()
                ? tarvek::server::Bus() : tarvek::server::Bus::address(options.bus_address));
        tarvek::server::Worker& lamps_worker = service.add_worker();
        manager.publish(service, lamps_worker, options.lamps);
        service.add_object_manager(lamps::LampManager::root);

        // At most one save waits on the lamps' executor: a save queued and not yet begun
        // already takes what every later signal asks for, and signals faster than saves
        // would otherwise pile up saves ahead of every call to a lamp.
        std::atomic<bool> save_queued{false};
        service.on_signal(SIGUSR1, [&] {
            if (!save_queued.exchange(true))
                lamps_worker.executor().post([&] {
                    save_queued = false;
                    manager.save();
                });
        });
        service.on_ready([] { std::cout << "ready" << std::endl; });
        // Also when the bus is lost: the lamps' worker has ended, the lamps still stand.
        service.on_stop([&] { manager.save(); });
        return service.run();
    } catch (std::exception const& e) {
        // A lost bus too: status 1, so that whoever supervises the service starts it again.
        std::cerr << "tarvek-lamps: " << e.what() << "\n";
        return 1;
    }
}
