#!/usr/bin/python3
# SPDX-License-Identifier: LGPL-2.1-or-later
# A GDBus object-manager client (Gio.DBusObjectManagerClient) that watches one object
# path below a manager and reports, one line each on stdout: "ready" once it watches,
# "added <interfaces>" when the object appears, and "removed" when its view has dropped
# the object as a whole. If that doesn't happen in time it reports "timeout" with the
# interfaces that its view still holds, and exits with status 1.
#
# Usage: gdbus_manager_client.py ADDRESS BUS_NAME MANAGER_PATH OBJECT_PATH
import sys

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

address, bus_name, manager_path, object_path = sys.argv[1:5]
status = 1


def report(line):
    print(line, flush=True)


def names_of(proxy):
    return " ".join(sorted(i.get_interface_name() for i in proxy.get_interfaces()))


connection = Gio.DBusConnection.new_for_address_sync(
    address,
    Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
    None,
    None,
)
manager = Gio.DBusObjectManagerClient.new_sync(
    connection, Gio.DBusObjectManagerClientFlags.DO_NOT_AUTO_START, bus_name, manager_path, None, None, None
)
loop = GLib.MainLoop()


def on_added(_, proxy):
    if proxy.get_object_path() == object_path:
        report("added " + names_of(proxy))


def on_removed(_, proxy):
    global status
    if proxy.get_object_path() == object_path and manager.get_object(object_path) is None:
        report("removed")
        status = 0
        loop.quit()


def on_timeout():
    left = manager.get_object(object_path)
    report("timeout" + ("" if left is None else ", still holding: " + names_of(left)))
    loop.quit()
    return False


manager.connect("object-added", on_added)
manager.connect("object-removed", on_removed)
GLib.timeout_add_seconds(20, on_timeout)
report("ready")
loop.run()
sys.exit(status)
