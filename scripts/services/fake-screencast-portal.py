#!/usr/bin/python3
"""A stand-in for the desktop portal's ScreenCast interface, for tests.

It owns org.freedesktop.portal.Desktop on the session bus and hands out, as
the monitor the "user" picked, a PipeWire video test source made for each
session (as a compositor makes a stream node per session) and removed when
the session closes. Each Start without a known restore token counts as one
question to the user; the count is written to the file named by --dialogs.
A restore token restores one session only; its Start hands out a new one.
The number of Start requests answered goes to the file "portal-starts" beside
the --dialogs file.

The cursor mode of the last SelectSources goes to the file named by --cursor,
its persist mode to the file "portal-persist" beside the --dialogs file.

More files beside the --dialogs file change what the portal does, for the
sessions created after they were written:
- "portal-position" holds "X,Y", where the monitor the user picks lies on the
  desktop (0,0 without the file).
- "portal-version" holds the interface's version (4 without the file); below
  4 it takes no persist mode and hands out no restore token.
- "portal-stale-tokens" saying "fail" makes a Start with a restore token that
  the portal does not know fail (response 2), as some portals do, instead of
  asking the user again.

While the file "portal-hold" beside the --dialogs file says "hold", the user
leaves the dialog open: Start answers only once the file says something else
(or is gone), and meanwhile the file says "held", so that a test knows.

When the file named by --source-program holds the command line of a source
program (taking --name NODE --size WxH and printing "ready" once its node is there),
sessions started after that get a node of that program instead of the video
test source; an empty or missing file means the video test source.

Usage: fake-screencast-portal.py --size WxH --dialogs FILE --cursor FILE [--source-program FILE]
"""
import argparse
import json
import os
import shlex
import signal
import socket
import subprocess
import sys
import time

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

PORTAL_PATH = "/org/freedesktop/portal/desktop"
SCREENCAST = "org.freedesktop.portal.ScreenCast"
REQUEST = "org.freedesktop.portal.Request"
SESSION = "org.freedesktop.portal.Session"


def find_node(name, timeout=10.0):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        try:
            objects = json.loads(subprocess.run(["pw-dump"], capture_output=True, check=True, text=True).stdout)
        except (subprocess.CalledProcessError, ValueError):
            objects = []
        for obj in objects:
            props = obj.get("info", {}).get("props", {}) if isinstance(obj.get("info"), dict) else {}
            if obj.get("type") == "PipeWire:Interface:Node" and props.get("node.name") == name:
                return obj["id"]
        time.sleep(0.1)
    return None


class Request(dbus.service.Object):
    @dbus.service.signal(REQUEST, signature="ua{sv}")
    def Response(self, response, results):
        pass

    @dbus.service.method(REQUEST, in_signature="", out_signature="")
    def Close(self):
        self.remove_from_connection()


def create_node(name, width, height):
    """A lingering video test source (colour bars) named @name; its id, or None."""
    props = ("{ factory.name=videotestsrc node.name=%s media.class=Video/Source object.linger=true "
             "Spa:Pod:Object:Param:Props:patternType=0 }" % name)
    try:
        subprocess.run(["pw-cli", "create-node", "spa-node-factory", props], capture_output=True, check=True,
                       timeout=10)
    except (subprocess.CalledProcessError, subprocess.TimeoutExpired):
        return None
    return find_node(name)


def destroy_node(node):
    subprocess.run(["pw-cli", "destroy", str(node)], capture_output=True, timeout=10)


def source_program(path):
    """The source program's command line in the file @path, as a list, or None."""
    try:
        with open(path) as f:
            command = shlex.split(f.read())
    except OSError:
        return None
    return command or None


def start_program_node(command, name, width, height):
    """Runs @command as the source named @name; (process, node id), or (None, None)."""
    process = subprocess.Popen(command + ["--name", name, "--size", "%dx%d" % (width, height)],
                               stdout=subprocess.PIPE, text=True)
    if process.stdout.readline().strip() != "ready":
        process.kill()
        process.wait()
        return None, None
    node = find_node(name)
    if node is None:
        process.kill()
        process.wait()
    return process, node


class Session(dbus.service.Object):
    def __init__(self, bus, path, portal):
        super().__init__(bus, path)
        self.portal = portal
        self.path = path
        self.restored = False
        self.stale = False
        self.persist = 0
        self.node = None
        self.process = None

    def close(self):
        if self.process is not None:
            self.process.terminate()
            self.process.wait()
            self.process = None
            self.node = None
        if self.node is not None:
            destroy_node(self.node)
            self.node = None
        self.portal.sessions.pop(self.path, None)
        self.remove_from_connection()

    @dbus.service.method(SESSION, in_signature="", out_signature="")
    def Close(self):
        self.close()


class ScreenCast(dbus.service.Object):
    def __init__(self, bus, args):
        super().__init__(bus, PORTAL_PATH)
        self.bus = bus
        self.args = args
        self.width, self.height = (int(v) for v in args.size.split("x"))
        self.sessions = {}
        self.tokens = set()
        self.issued = 0
        self.dialogs = 0
        self.starts = 0
        self.counter = 0
        self.write_dialogs()

    def write_dialogs(self):
        with open(self.args.dialogs, "w") as f:
            f.write(str(self.dialogs))

    def count_start(self):
        self.starts += 1
        with open(os.path.join(os.path.dirname(os.path.abspath(self.args.dialogs)), "portal-starts"), "w") as f:
            f.write(str(self.starts))

    def request_path(self, sender, options):
        token = str(options.get("handle_token", "t%d" % self.counter))
        self.counter += 1
        return "%s/request/%s/%s" % (PORTAL_PATH, sender[1:].replace(".", "_"), token)

    def side_file(self, name, default=""):
        try:
            with open(os.path.join(os.path.dirname(os.path.abspath(self.args.dialogs)), name)) as f:
                return f.read().strip()
        except OSError:
            return default

    def version(self):
        try:
            return int(self.side_file("portal-version", "4"))
        except ValueError:
            return 4

    def hold_path(self):
        return os.path.join(os.path.dirname(os.path.abspath(self.args.dialogs)), "portal-hold")

    def hold_state(self):
        try:
            with open(self.hold_path()) as f:
                return f.read().strip()
        except OSError:
            return ""

    def respond(self, path, response, results, hold=False):
        request = Request(self.bus, path)

        def emit():
            if hold and self.hold_state() in ("hold", "held"):
                if self.hold_state() == "hold":
                    with open(self.hold_path(), "w") as f:
                        f.write("held")
                return True  # the dialog is still open: ask again later
            request.Response(dbus.UInt32(response), dbus.Dictionary(results, signature="sv"))
            request.remove_from_connection()
            if hold:
                self.count_start()
            return False

        if hold:
            GLib.timeout_add(10, emit)
        else:
            GLib.idle_add(emit)
        return dbus.ObjectPath(path)

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature="ss", out_signature="v")
    def Get(self, interface, name):
        return self.GetAll(interface)[name]

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface):
        if interface != SCREENCAST:
            raise dbus.exceptions.DBusException("no such interface", name="org.freedesktop.DBus.Error.UnknownInterface")
        return dbus.Dictionary({
            "version": dbus.UInt32(self.version()),
            "AvailableSourceTypes": dbus.UInt32(1 | 2),
            "AvailableCursorModes": dbus.UInt32(1 | 2 | 4),
        }, signature="sv")

    @dbus.service.method(SCREENCAST, in_signature="a{sv}", out_signature="o", sender_keyword="sender")
    def CreateSession(self, options, sender=None):
        path = self.request_path(sender, options)
        session_path = "%s/session/%s/%s" % (PORTAL_PATH, sender[1:].replace(".", "_"),
                                            str(options.get("session_handle_token", "s%d" % self.counter)))
        self.sessions[session_path] = Session(self.bus, session_path, self)
        return self.respond(path, 0, {"session_handle": dbus.String(session_path)})

    @dbus.service.method(SCREENCAST, in_signature="oa{sv}", out_signature="o", sender_keyword="sender")
    def SelectSources(self, session_handle, options, sender=None):
        path = self.request_path(sender, options)
        session = self.sessions.get(str(session_handle))
        if session is None or int(options.get("types", 1)) & 1 == 0:
            return self.respond(path, 2, {})
        # As with the real portal, a restore token serves once; Start hands out the next.
        if self.version() < 4 and ("restore_token" in options or "persist_mode" in options):
            return self.respond(path, 2, {})
        token = str(options.get("restore_token", ""))
        session.restored = token in self.tokens
        session.stale = bool(token) and not session.restored
        session.persist = int(options.get("persist_mode", 0))
        self.tokens.discard(token)
        with open(self.args.cursor, "w") as f:
            f.write(str(int(options.get("cursor_mode", 0))))
        with open(os.path.join(os.path.dirname(os.path.abspath(self.args.dialogs)), "portal-persist"), "w") as f:
            f.write(str(session.persist))
        return self.respond(path, 0, {})

    @dbus.service.method(SCREENCAST, in_signature="osa{sv}", out_signature="o", sender_keyword="sender")
    def Start(self, session_handle, parent_window, options, sender=None):
        path = self.request_path(sender, options)
        session = self.sessions.get(str(session_handle))
        if session is None or (session.stale and self.side_file("portal-stale-tokens") == "fail"):
            return self.respond(path, 2, {})
        self.counter += 1
        name = "screencast-%d-%d" % (os.getpid(), self.counter)
        program = source_program(self.args.source_program) if self.args.source_program else None
        if program:
            session.process, node = start_program_node(program, name, self.width, self.height)
        else:
            node = create_node(name, self.width, self.height)
        if node is None:
            return self.respond(path, 2, {})
        session.node = node
        if not session.restored:
            self.dialogs += 1
            self.write_dialogs()
        try:
            x, y = (int(v) for v in self.side_file("portal-position", "0,0").split(","))
        except ValueError:
            x, y = 0, 0
        stream = dbus.Struct((dbus.UInt32(node), dbus.Dictionary({
            "size": dbus.Struct((dbus.Int32(self.width), dbus.Int32(self.height)), signature="ii"),
            "position": dbus.Struct((dbus.Int32(x), dbus.Int32(y)), signature="ii"),
            "source_type": dbus.UInt32(1),
        }, signature="sv")), signature="ua{sv}")
        results = {"streams": dbus.Array([stream], signature="(ua{sv})")}
        if session.persist:
            self.issued += 1
            token = "restore-%d-%d" % (os.getpid(), self.issued)
            self.tokens.add(token)
            results["restore_token"] = dbus.String(token)
        return self.respond(path, 0, results, hold=True)

    @dbus.service.method(SCREENCAST, in_signature="oa{sv}", out_signature="h")
    def OpenPipeWireRemote(self, session_handle, options):
        if str(session_handle) not in self.sessions:
            raise dbus.exceptions.DBusException("unknown session", name="org.freedesktop.DBus.Error.AccessDenied")
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        sock.connect(os.path.join(os.environ["XDG_RUNTIME_DIR"], "pipewire-0"))
        fd = dbus.types.UnixFd(sock)  # takes its own copy of the descriptor
        sock.close()
        return fd


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--size", default="640x360")
    parser.add_argument("--dialogs", required=True)
    parser.add_argument("--cursor", required=True, help="file that receives the last cursor mode asked for")
    parser.add_argument("--source-program", help="file that may name a source program to use instead")
    args = parser.parse_args()

    DBusGMainLoop(set_as_default=True)
    bus = dbus.SessionBus()
    portal = ScreenCast(bus, args)
    name = dbus.service.BusName("org.freedesktop.portal.Desktop", bus, do_not_queue=True)
    loop = GLib.MainLoop()
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, loop.quit)
    try:
        loop.run()
    except KeyboardInterrupt:
        pass
    for session in list(portal.sessions.values()):
        session.close()
    del name, portal
    return 0


if __name__ == "__main__":
    sys.exit(main())
