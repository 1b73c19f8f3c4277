#!/usr/bin/python3
"""A desktop portal for tests: answers org.freedesktop.portal.ScreenCast on the session bus the way
it is told to and hands out a connection to the PipeWire daemon below XDG_RUNTIME_DIR.

Usage: screencast_portal.py REPORT-FILE [BEHAVIOUR...]

The report file gets "ready", then one line for each call that came in: its name, the options that
matter, and for Close calls what was closed. BEHAVIOURs:

  node=N           the stream's PipeWire node (default 0)
  token=TEXT       the restore token that Start returns
  refuse=CALL:N    CALL's response code is N
  silent=CALL      CALL gets no Response
  mute=CALL        CALL gets not even a reply
  fail=CALL        CALL fails with a D-Bus error
  early=CALL       CALL's Response comes before its reply
  foreign=CALL     before its Response there is one for another request
  no-token         SelectSources fails for a call with a restore token
  empty=CALL       CALL's results are empty
  no-fd            OpenPipeWireRemote fails
"""

import os
import socket
import sys

import dbus
import dbus.lowlevel
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

DESKTOP = "/org/freedesktop/portal/desktop"
SCREENCAST = "org.freedesktop.portal.ScreenCast"
REQUEST = "org.freedesktop.portal.Request"
SESSION = "org.freedesktop.portal.Session"


class Portal(dbus.service.Object):
    def __init__(self, bus, report, behaviours):
        super().__init__(bus, DESKTOP)
        self.bus = bus
        self.report_file = report
        self.behaviours = behaviours
        bus.add_message_filter(self.note_close)

    def report(self, *words):
        self.report_file.write(" ".join(str(word) for word in words) + "\n")
        self.report_file.flush()

    def told(self, what):
        return what in self.behaviours

    def value(self, name, default):
        return next((b.split("=", 1)[1] for b in self.behaviours if b.startswith(name + "=")), default)

    def note_close(self, _bus, message):
        if message.get_member() != "Close":
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        self.report("Close", message.get_interface().rsplit(".", 1)[1], message.get_path())
        return dbus.lowlevel.HANDLER_RESULT_HANDLED

    def respond(self, path, receiver, code, results):
        signal = dbus.lowlevel.SignalMessage(path, REQUEST, "Response")
        signal.set_destination(receiver)
        signal.append(dbus.UInt32(code), dbus.Dictionary(results, signature="sv"), signature="ua{sv}")
        self.bus.send_message(signal)
        self.bus.flush()

    def serve(self, call, options, sender, reply, fail, results):
        if self.told(f"mute={call}"):
            return
        if self.told(f"fail={call}"):
            fail(dbus.DBusException("not today", name="org.freedesktop.portal.Error.Failed"))
            return
        path = f"{DESKTOP}/request/{sender[1:].replace('.', '_')}/{options['handle_token']}"
        code = next((int(b.rsplit(":", 1)[1]) for b in self.behaviours
                     if b.startswith(f"refuse={call}:")), 0)
        if self.told(f"empty={call}") or code:
            results = {}

        def response():
            if self.told(f"silent={call}"):
                return False
            if self.told(f"foreign={call}"):
                self.respond(path + "x", sender, 2, {})
            self.respond(path, sender, code, results)
            return False

        if self.told(f"early={call}"):
            response()
            GLib.timeout_add(50, lambda: reply(path))
        else:
            reply(path)
            GLib.idle_add(response)

    @dbus.service.method(SCREENCAST, "a{sv}", "o", ("reply", "fail"), sender_keyword="sender")
    def CreateSession(self, options, reply, fail, sender):
        self.report("CreateSession")
        path = f"{DESKTOP}/session/{sender[1:].replace('.', '_')}/{options['session_handle_token']}"
        self.serve("CreateSession", options, sender, reply, fail, {"session_handle": path})

    @dbus.service.method(SCREENCAST, "oa{sv}", "o", ("reply", "fail"), sender_keyword="sender")
    def SelectSources(self, _session, options, reply, fail, sender):
        self.report("SelectSources", *(f"{key}={options[key]!s}" for key in sorted(options)
                                       if key != "handle_token"))
        if "restore_token" in options and self.told("no-token"):
            fail(dbus.DBusException("not a token", name="org.freedesktop.portal.Error.InvalidArgument"))
            return
        self.serve("SelectSources", options, sender, reply, fail, {})

    @dbus.service.method(SCREENCAST, "osa{sv}", "o", ("reply", "fail"), sender_keyword="sender")
    def Start(self, _session, parent, options, reply, fail, sender):
        self.report("Start", f"parent={parent!s}")
        size = dbus.Struct((dbus.Int32(0), dbus.Int32(0)), signature="ii")
        stream = dbus.Struct((dbus.UInt32(int(self.value("node", 0))),
                              dbus.Dictionary({"size": size}, signature="sv")), signature="ua{sv}")
        results = {"streams": dbus.Array([stream], signature="(ua{sv})")}
        if token := self.value("token", ""):
            results["restore_token"] = token
        self.serve("Start", options, sender, reply, fail, results)

    @dbus.service.method(SCREENCAST, "oa{sv}", "h")
    def OpenPipeWireRemote(self, _session, _options):
        self.report("OpenPipeWireRemote")
        if self.told("no-fd"):
            raise dbus.DBusException("none", name="org.freedesktop.portal.Error.Failed")
        remote = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        remote.connect(os.environ["XDG_RUNTIME_DIR"] + "/pipewire-0")
        return dbus.types.UnixFd(remote)


def main():
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    with open(sys.argv[1], "w", encoding="utf-8") as report:
        bus = dbus.SessionBus()
        portal = Portal(bus, report, sys.argv[2:])
        name = dbus.service.BusName("org.freedesktop.portal.Desktop", bus)
        portal.report("ready")
        GLib.MainLoop().run()
        del name


main()
