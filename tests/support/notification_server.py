#!/usr/bin/python3
"""A stand-in desktop notification service for tests.

Owns org.freedesktop.Notifications on the session bus named by
DBUS_SESSION_BUS_ADDRESS and writes one JSON line per call it receives to the
log file given as its first argument ("ready" once it owns the name).
The test drives it through the test.Control interface: Invoke(id, key)
emits ActionInvoked, Dismiss(id) emits NotificationClosed with reason 2.

Modes (second argument): "normal"; "noactions" (no "actions" capability);
"silent" (never answers GetCapabilities or Notify); "garbage" (answers with
the wrong types).
"""
import json
import os
import sys

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

NAME = "org.freedesktop.Notifications"
PATH = "/org/freedesktop/Notifications"


class Server(dbus.service.Object):
    def __init__(self, bus, log, mode):
        super().__init__(bus, PATH)
        self.log = log
        self.mode = mode
        self.next_id = 0
        self.held = []  # answers never given, kept so they are never sent

    def record(self, **entry):
        with open(self.log, "a") as out:
            out.write(json.dumps(entry) + "\n")

    @dbus.service.method(NAME, in_signature="", out_signature="as",
                         async_callbacks=("reply", "error"))
    def GetCapabilities(self, reply, error):
        self.record(call="GetCapabilities")
        if self.mode == "silent":
            self.held.append(reply)
        else:
            caps = ["body", "body-markup"]
            if self.mode != "noactions":
                caps.append("actions")
            reply(caps)

    @dbus.service.method(NAME, in_signature="susssasa{sv}i", out_signature="u",
                         async_callbacks=("reply", "error"))
    def Notify(self, app_name, replaces_id, icon, summary, body, actions, hints, timeout, reply, error):
        if replaces_id:
            nid = int(replaces_id)
        else:
            self.next_id += 1
            nid = self.next_id
        self.record(call="Notify", id=nid, app_name=str(app_name), replaces_id=int(replaces_id), icon=str(icon),
                    summary=str(summary), body=str(body), actions=[str(a) for a in actions],
                    urgency=int(hints.get("urgency", 1)))
        if self.mode == "silent":
            self.held.append(reply)
        else:
            reply(dbus.UInt32(nid))

    @dbus.service.method(NAME, in_signature="u", out_signature="")
    def CloseNotification(self, nid):
        self.record(call="CloseNotification", id=int(nid))
        self.NotificationClosed(dbus.UInt32(nid), dbus.UInt32(3))

    @dbus.service.method(NAME, in_signature="", out_signature="ssss")
    def GetServerInformation(self):
        return ("stand-in", "tests", "1", "1.2")

    @dbus.service.signal(NAME, signature="us")
    def ActionInvoked(self, nid, key):
        pass

    @dbus.service.signal(NAME, signature="uu")
    def NotificationClosed(self, nid, reason):
        pass

    @dbus.service.method("test.Control", in_signature="us", out_signature="")
    def Invoke(self, nid, key):
        self.record(call="Invoke", id=int(nid), key=str(key))
        self.ActionInvoked(dbus.UInt32(nid), key)

    @dbus.service.method("test.Control", in_signature="us", out_signature="")
    def Spoof(self, nid, key):
        # The same signal from another connection, which does not own the name.
        self.record(call="Spoof", id=int(nid), key=str(key))
        other = dbus.bus.BusConnection(os.environ["DBUS_SESSION_BUS_ADDRESS"])
        signal = dbus.lowlevel.SignalMessage(PATH, NAME, "ActionInvoked")
        signal.append(dbus.UInt32(nid), str(key), signature="us")
        other.send_message(signal)
        other.flush()
        other.close()

    @dbus.service.method("test.Control", in_signature="u", out_signature="")
    def Dismiss(self, nid):
        self.record(call="Dismiss", id=int(nid))
        self.NotificationClosed(dbus.UInt32(nid), dbus.UInt32(2))


def main():
    log = sys.argv[1]
    mode = sys.argv[2] if len(sys.argv) > 2 else "normal"
    DBusGMainLoop(set_as_default=True)
    bus = dbus.SessionBus()
    if mode == "garbage":
        # Answers every call on the interface with a number, whatever it asked.
        def garbage(connection, message):
            if message.get_type() == 1 and message.get_interface() == NAME:
                answer = dbus.lowlevel.MethodReturnMessage(message)
                answer.append(dbus.Int32(-7), signature="i")
                connection.send_message(answer)
                with open(log, "a") as out:
                    out.write(json.dumps({"call": str(message.get_member())}) + "\n")
                return dbus.lowlevel.HANDLER_RESULT_HANDLED
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        bus.add_message_filter(garbage)
    name = dbus.service.BusName(NAME, bus, do_not_queue=True)
    server = Server(bus, log, mode)
    server.record(call="ready")
    GLib.MainLoop().run()


if __name__ == "__main__":
    main()
