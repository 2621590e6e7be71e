#!/usr/bin/python3
# The smallest module in Python: logs the control calls of keepwatch, and exits when asked to. It takes its bus name from
# its file name: zarn5_gui owns com.qel.zarn5.gui.
# The first line does not use env. Otherwise the process would be named python3, and pgrep zarn5_gui would not find it.
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
        os._exit(0)  # inside the call, because SIGKILL can follow the answer

dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
bus = dbus.SessionBus()
# Export the object first and take the name last, because keepwatch calls as soon as it sees the name.
module = Module(bus, "/")
held = dbus.service.BusName(service, bus, do_not_queue=True)
GLib.MainLoop().run()
