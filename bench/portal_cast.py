#!/usr/bin/python3
"""Opens a screen cast through the desktop portal and runs a command on its PipeWire stream, the
way any screen recorder on Wayland would: the benchmark's peer reads the same stream as Vantrel.

  portal_cast.py COMMAND...    "{fd}" and "{node}" in the arguments become the PipeWire
                               descriptor (inherited by the command) and the stream's node.
  VANTREL_RESTORE_TOKEN        a restore token to offer instead of asking
Exits with the command's status; the portal session ends with this process.
"""
import os
import subprocess
import sys

import dbus
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

DBusGMainLoop(set_as_default=True)
bus = dbus.SessionBus()
portal = bus.get_object("org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop")
cast = dbus.Interface(portal, "org.freedesktop.portal.ScreenCast")
sender = bus.get_unique_name()[1:].replace(".", "_")
loop = GLib.MainLoop()
serial = [0]


def ask(method, *arguments, options):
    serial[0] += 1
    token = "bench%d_%d" % (os.getpid(), serial[0])
    path = "/org/freedesktop/portal/desktop/request/%s/%s" % (sender, token)
    answer = {}

    def on_response(code, results):
        answer.update(code=int(code), results=results)
        loop.quit()

    match = bus.add_signal_receiver(on_response, "Response", "org.freedesktop.portal.Request",
                                    None, path)
    options["handle_token"] = token
    method(*arguments, options)
    GLib.timeout_add_seconds(30, loop.quit)
    loop.run()
    match.remove()
    if answer.get("code") != 0:
        sys.exit("portal_cast.py: %s answered %r" % (method._method_name, answer.get("code")))
    return answer["results"]


session = ask(cast.CreateSession, options={"session_handle_token": "benchs%d" % os.getpid()})[
    "session_handle"]
sources = {"types": dbus.UInt32(1), "multiple": False, "cursor_mode": dbus.UInt32(2)}
# A restore token stands for the user's answer where the desktop's question cannot be answered.
if os.environ.get("VANTREL_RESTORE_TOKEN"):
    sources.update(restore_token=os.environ["VANTREL_RESTORE_TOKEN"], persist_mode=dbus.UInt32(2))
ask(cast.SelectSources, session, options=sources)
streams = ask(cast.Start, session, "", options={})["streams"]
node = int(streams[0][0])
fd = cast.OpenPipeWireRemote(session, dbus.Dictionary({}, signature="sv")).take()
command = [a.replace("{fd}", str(fd)).replace("{node}", str(node)) for a in sys.argv[1:]]
sys.exit(subprocess.call(command, pass_fds=[fd]))
