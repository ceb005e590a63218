"""The real background application publishes over CalDAV: a calendar ticked over the bus is served to
python3-caldav and curl, an unticked one does not exist on the wire, a write through CalDAV lands in the
calendar folder, and a new write password closes anonymous writing at once."""
import glob
import os
import subprocess
import sys
import time
import warnings

import caldav
import cbor2
import dbus

from testhost import Results, event

warnings.filterwarnings("ignore")
NIMBREL = sys.argv[1]
R = Results()
data = os.path.join(os.environ["XDG_DATA_HOME"], "Nimbrel")
feed = os.path.join(os.environ["TMPDIR"], "appcast.xml")
with open(feed, "w") as f:
    f.write('<?xml version="1.0"?><rss version="2.0"><channel></channel></rss>')
proc = subprocess.Popen([NIMBREL], env=dict(os.environ, NIMBREL_UPDATE_FEED=feed))


def wait(condition, seconds=20):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        try:
            if condition():
                return True
        except dbus.exceptions.DBusException:
            pass
        time.sleep(0.1)
    return False


bus = dbus.SessionBus()
app = None
try:
    def connect():
        global app
        app = dbus.Interface(bus.get_object("com.quorvia.Nimbrel.Proxy", "/com/quorvia/Nimbrel/Proxy",
                                            introspect=False), "com.quorvia.Nimbrel.AppProtocol")
        return app.version() == 5
    R.check(wait(connect), "Nimbrel did not answer on the bus")
    R.check(wait(lambda: os.path.exists(os.path.join(data, "caldav-last-port"))), "no port was chosen")
    port = int(open(os.path.join(data, "caldav-last-port")).read())
    url = f"https://127.0.0.1:{port}/"
    # Calendar lists cross the bus as one CBOR byte array.
    listed = cbor2.loads(bytes(app.calendarsPublishableViaBonjour(byte_arrays=True)))
    calendars = {c["title"]: c["uid"] for c in listed}
    home, work = calendars["Home"], calendars["Work"]

    def sv(d):
        return dbus.Dictionary(d, signature="sv")
    app.publishCalendarViaBonjour(sv({"uid": home, "publishedToBonjour": True}))
    client = caldav.DAVClient(url=url + ".well-known/caldav", username="x", password="", ssl_verify_cert=False)
    names = lambda: sorted(c.name for c in client.principal().calendars())
    R.check(wait(lambda: names() == ["Home"]), f"published calendars on the wire: {names()}")
    cal = client.principal().calendars()[0]
    cal.save_event(event("from-caldav", summary="Written over CalDAV"))
    files = glob.glob(os.path.join(data, "Calendars", home, "*.ics"))
    R.check(any("Written over CalDAV" in open(p).read() for p in files), "a CalDAV write is not in the folder")
    curl = lambda *a: subprocess.run(["curl", "-sk", "-o", "/dev/null", "-w", "%{http_code}", *a],
                                     capture_output=True, text=True).stdout
    R.check(curl(url + work + "/") == "404", "an unpublished calendar exists on the wire")

    app.publishOptions(sv({"uid": home, "publishedToBonjour": True, "readPassword": "", "writePassword": "pw",
                           "readOnly": False}))
    item = url + home + "/anon.ics"
    put = ["-X", "PUT", "-H", "Content-Type: text/calendar", "--data-binary", event("anon"), item]
    R.check(curl(*put) == "401", "an anonymous write after a write password was set")
    R.check(curl("-u", "x:pw", *put) == "201", "a write with the write password")
    app.publishCalendarViaBonjour(sv({"uid": home, "publishedToBonjour": False}))
    R.check(curl(item) == "404", "a calendar no longer published is still served")

    # No avahi-daemon here: the name is stored, serving goes on, the answer names the stored name.
    app.setBonjourPublisherInfo(sv({"bonjourName": "Test Computer", "portNumber": 0}))
    R.check(str(app.bonjourPublisherInfo()["bonjourName"]) == "Test Computer", "bonjourPublisherInfo")
    app.publishCalendarViaBonjour(sv({"uid": home, "publishedToBonjour": True}))
    R.check(curl(url + home + "/") in ("207", "405"), "serving stopped after a name change")
finally:
    if app is not None:
        try:
            app.shutdown()
        except dbus.exceptions.DBusException:
            pass
    try:
        proc.wait(20)
    except subprocess.TimeoutExpired:
        proc.kill()
R.done()
