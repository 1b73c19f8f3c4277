#!/usr/bin/python3
# A desktop portal for tests: org.freedesktop.portal.ScreenCast on the session bus, which behaves as
# its arguments say and hands out a connection to the PipeWire daemon in XDG_RUNTIME_DIR.
#
# Usage: screencast_portal.py REPORT-FILE [BEHAVIOUR...]
#
# The report file gets "ready", then one line for each call: its name, the relevant options, and for
# Close calls what was closed. SIGUSR1 closes the sessions as a desktop does when its user presses
# "Stop": with the signal Closed, and without a session afterwards. BEHAVIOURs:
#
#   node=N           the stream's PipeWire node (default 0)
#   token=TEXT       the restore token that Start returns
#   CALL=N           CALL's response code is N
#   CALL=silent      CALL gets no Response
#   CALL=late        CALL gets its Response after a while, as if a user had to approve it
#   CALL=mute        CALL gets not even a reply
#   CALL=fail        CALL fails with a D-Bus error
#   CALL=early       CALL's Response comes before its reply
#   CALL=empty       CALL's results are empty
#   once             CALL=... applies to the first such call only
#   no-token         SelectSources fails for a call with a restore token
#   version=N        the version of the interface (default 5); 0: there is no such interface
#   sources=N        the types of sources that there are (default 1, monitors)
#   known-token=TEXT the permission store is there, too, and knows this token alone
#   foreign          before each Response others come: to another request, from another program, and
#                    one without the arguments of a Response

import os
import signal
import socket
import sys

import dbus
import dbus.lowlevel
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

DESKTOP = "/org/freedesktop/portal/desktop"

dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
bus = dbus.SessionBus()
stranger = dbus.SessionBus(private=True)
behaviours = dict((word + "=").split("=", 2)[:2] for word in sys.argv[2:])
sessions = set()
report_file = open(sys.argv[1], "w", encoding="utf-8", buffering=1)


def respond(connection, path, receiver, *arguments):
    response = dbus.lowlevel.SignalMessage(path, "org.freedesktop.portal.Request", "Response")
    response.set_destination(receiver)
    if arguments:
        response.append(dbus.UInt32(arguments[0]), dbus.Dictionary(arguments[1], signature="sv"),
                        signature="ua{sv}")
    connection.send_message(response)
    connection.flush()


def answer(message, path, how, results):
    """Sends the Response."""
    receiver = message.get_sender()
    if "foreign" in behaviours:
        respond(bus, path + "x", receiver, 2, {})
        respond(stranger, path, receiver, 2, {})
        respond(bus, path, receiver)
    results = {} if how == "empty" else {"something_new": 1, **results}
    respond(bus, path, receiver, int(how) if how.isdigit() else 0, results)


def reply(message, value, signature):
    returned = dbus.lowlevel.MethodReturnMessage(message)
    returned.append(value, signature=signature)
    bus.send_message(returned)


def open_remote(message):
    remote = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    remote.connect(os.environ["XDG_RUNTIME_DIR"] + "/pipewire-0")
    reply(message, dbus.types.UnixFd(remote), "h")


def close_sessions():
    while sessions:
        bus.send_message(dbus.lowlevel.SignalMessage(
            sessions.pop(), "org.freedesktop.portal.Session", "Closed"))
    bus.flush()
    return GLib.SOURCE_CONTINUE


def property_of_portal(message, name):
    values = {"version": behaviours.get("version", 5), "AvailableSourceTypes": behaviours.get("sources", 1)}
    if behaviours.get("version") == "0" or name not in values:
        error = "org.freedesktop.DBus.Error.InvalidArgs"
        bus.send_message(dbus.lowlevel.ErrorMessage(message, error, "No such interface"))
    else:
        reply(message, dbus.UInt32(int(values[name]), variant_level=1), "v")


def look_up(message, table, token):
    if table == "screencast" and token == behaviours["known-token"]:
        returned = dbus.lowlevel.MethodReturnMessage(message)
        returned.append({"": ["yes"]}, dbus.Byte(0, variant_level=1), signature="a{sas}v")
        bus.send_message(returned)
    else:
        error = "org.freedesktop.portal.Error.NotFound"
        bus.send_message(dbus.lowlevel.ErrorMessage(message, error, f"No entry for {token}"))


def results_of(call, mine, options):
    if call == "CreateSession":
        sessions.add(f"{DESKTOP}/session/{mine}/{options['session_handle_token']}")
        return {"session_handle": f"{DESKTOP}/session/{mine}/{options['session_handle_token']}"}
    if call == "SelectSources":
        return {}
    stream = (dbus.UInt32(behaviours.get("node", 0)), dbus.Dictionary({}, signature="sv"))
    token = {"restore_token": behaviours["token"]} if "token" in behaviours else {}
    return {"streams": dbus.Array([stream], signature="(ua{sv})"), **token}


def handle(_bus, message):
    call, arguments = message.get_member(), message.get_args_list()
    if call == "Get" and message.get_path() in sessions:
        reply(message, dbus.UInt32(1, variant_level=1), "v")
    elif call == "Get" and message.get_path() == DESKTOP:
        property_of_portal(message, str(arguments[1]))
    elif call == "Lookup" and "known-token" in behaviours:
        look_up(message, *map(str, arguments))
    elif call == "Close":
        sessions.discard(message.get_path())
        report_file.write(f"Close {message.get_interface().rsplit('.', 1)[1]}\n")
    elif message.get_interface() != "org.freedesktop.portal.ScreenCast":
        return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
    else:
        options = arguments[-1]
        words = [f"{key}={options[key]!s}" for key in sorted(options) if "handle" not in key]
        parent = [f"parent={arguments[1]!s}"] if call == "Start" else []
        report_file.write(" ".join([call, *parent, *words]) + "\n")
        how = behaviours.pop(call, "") if "once" in behaviours else behaviours.get(call, "")
        if how == "fail" or "restore_token" in options and "no-token" in behaviours:
            error = "org.freedesktop.portal.Error.Failed"
            bus.send_message(dbus.lowlevel.ErrorMessage(message, error, "not today"))
        elif call == "OpenPipeWireRemote":
            open_remote(message)
        elif how != "mute":
            mine = message.get_sender()[1:].replace(".", "_")
            path = f"{DESKTOP}/request/{mine}/{options['handle_token']}"
            results = results_of(call, mine, options)
            if how == "early":
                answer(message, path, how, results)
                GLib.timeout_add(50, reply, message, path, "o")
            else:
                reply(message, path, "o")
                if how == "late":
                    GLib.timeout_add(1000, answer, message, path, how, results)
                elif how != "silent":
                    answer(message, path, how, results)
    return dbus.lowlevel.HANDLER_RESULT_HANDLED


bus.add_message_filter(handle)
GLib.unix_signal_add(GLib.PRIORITY_HIGH, signal.SIGUSR1, close_sessions)
names = [dbus.service.BusName("org.freedesktop.portal.Desktop", bus)]
if "known-token" in behaviours:
    names.append(dbus.service.BusName("org.freedesktop.impl.portal.PermissionStore", bus))
report_file.write("ready\n")
GLib.MainLoop().run()
