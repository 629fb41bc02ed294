#!/usr/bin/python3
"""A stand-in for the desktop's notification server on a private session
bus: it records every notification as a JSON line in the file named by its
first argument and, when asked with --choose ACTION, answers each
notification that offers ACTION as if the person had clicked it."""
import json
import sys

import dbus
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

INTERFACE = "org.freedesktop.Notifications"


class Server(dbus.service.Object):
    def __init__(self, bus, log, choose):
        super().__init__(bus, "/org/freedesktop/Notifications")
        self.log, self.choose, self.last = log, choose, 0

    @dbus.service.method(INTERFACE, in_signature="susssasa{sv}i", out_signature="u")
    def Notify(self, app, replaces, icon, summary, body, actions, hints, timeout):
        self.last += 1
        with open(self.log, "a") as out:
            out.write(json.dumps({"app": str(app), "icon": str(icon), "summary": str(summary),
                                  "body": str(body), "actions": [str(a) for a in actions]}) + "\n")
        if self.choose and self.choose in actions[0::2]:
            GLib.timeout_add(100, self.answer, self.last)
        return self.last

    def answer(self, identifier):
        self.ActionInvoked(identifier, self.choose)
        self.NotificationClosed(identifier, 2)
        return False

    @dbus.service.signal(INTERFACE, signature="us")
    def ActionInvoked(self, identifier, action):
        pass

    @dbus.service.signal(INTERFACE, signature="uu")
    def NotificationClosed(self, identifier, reason):
        pass

    @dbus.service.method(INTERFACE, out_signature="as")
    def GetCapabilities(self):
        return ["actions", "body"]

    @dbus.service.method(INTERFACE, in_signature="u")
    def CloseNotification(self, identifier):
        pass

    @dbus.service.method(INTERFACE, out_signature="ssss")
    def GetServerInformation(self):
        return ("stand-in", "tarnbloom tests", "1", "1.2")


def main():
    log = sys.argv[1]
    choose = sys.argv[3] if len(sys.argv) > 3 and sys.argv[2] == "--choose" else None
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    bus = dbus.SessionBus()
    name = dbus.service.BusName(INTERFACE, bus)  # noqa: F841 (held while serving)
    Server(bus, log, choose)
    GLib.MainLoop().run()


if __name__ == "__main__":
    main()
