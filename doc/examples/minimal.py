#!/usr/bin/python3
# The smallest module in Python: logs what keepwatch tells it and ends when asked to. Its file name
# says which module it is: as zarn5_gui it is the service com.qel.zarn5.gui.
# Not through env: the process would be named python3 and not be found under its own name.
import datetime, os, sys
import dbus.mainloop.glib, dbus.service
from gi.repository import GLib

name = os.path.basename(sys.argv[0]).split(".")[0].replace("zarn5_", "")
service = "com.qel.zarn5." + name
adaptor = service + ".adaptor"

class Module(dbus.service.Object):
    @dbus.service.signal("com.qel.zarn5.log", signature="us")
    def log(self, level, line):
        pass

    def info(self, text):
        stamp = datetime.datetime.now().isoformat(" ", "milliseconds")
        self.log(5, f"({stamp}) {name:15.15}: {text}")

    @dbus.service.method(adaptor, in_signature="i")
    def run(self, value):
        self.info(f"run {value}")

    @dbus.service.method(adaptor, in_signature="as")
    def updateKeepwatchInfo(self, report):
        self.info("report " + ", ".join(report))

    @dbus.service.method(adaptor)
    def quit(self):
        os._exit(0)  # not after the answer: SIGKILL may follow it

dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
bus = dbus.SessionBus()
# The object first, the name last: keepwatch calls as soon as it sees the name.
module = Module(bus, "/")
held = dbus.service.BusName(service, bus, do_not_queue=True)
GLib.MainLoop().run()
