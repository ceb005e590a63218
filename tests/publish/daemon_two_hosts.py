"""The real background application on host A of two simulated computers, its Bonjour name taken on the
network by host B: it publishes under Avahi's alternative, posts "Nimbrel Bonjour Name Published" only
once Avahi has confirmed it (bonjourPublisherInfo answers the alternative by then), host B resolves it with
its TXT record, and a clean stop sends the goodbye."""
import os
import subprocess
import sys
import tempfile
import time

import dbus

from testhost import Results
from twohosts import TH, Lines, skip_unless_available, unescape, wait_browse

skip_unless_available()

NIMBREL = sys.argv[1]
R = Results()
root = tempfile.mkdtemp(prefix="daemon-a-")
env = dict(os.environ)
for key, sub in [("HOME", ""), ("XDG_CONFIG_HOME", ".config"), ("XDG_DATA_HOME", ".local/share"),
                 ("XDG_STATE_HOME", ".local/state"), ("XDG_CACHE_HOME", ".cache"), ("XDG_RUNTIME_DIR", "run"),
                 ("TMPDIR", "run")]:
    env[key] = os.path.join(root, sub)
    os.makedirs(env[key], exist_ok=True)
os.chmod(env["XDG_RUNTIME_DIR"], 0o700)
feed = os.path.join(root, "appcast.xml")
with open(feed, "w") as f:
    f.write('<?xml version="1.0"?><rss version="2.0"><channel></channel></rss>')
env["NIMBREL_UPDATE_FEED"] = feed
address = f"unix:path={root}/bus"
env["DBUS_SESSION_BUS_ADDRESS"] = address

subprocess.run([TH, "down"], check=False)
subprocess.run([TH, "up"], check=True)
running = []
try:
    clash = Lines([TH, "exec", "B", "--", "avahi-publish", "-s", "Office", "_caldavs._tcp", "9"])
    running.append(clash)
    R.check(clash.wait_for(lambda l: "Established" in l, 10) is not None, "avahi-publish on B")
    session = Lines([TH, "exec", "A", "--", "dbus-daemon", "--session", "--nofork", "--print-address",
                     f"--address={address}"])
    running.append(session)
    R.check(session.wait_for(lambda l: l.startswith("unix:"), 10) is not None, "no session bus on A")
    nimbrel = Lines([TH, "exec", "A", "--", "env", *[f"{k}={v}" for k, v in env.items() if k.isupper()], NIMBREL])
    running.append(nimbrel)
    monitor = Lines(["dbus-monitor", "--address", address, "type='signal',member='Posted'"])
    running.append(monitor)
    bus = dbus.bus.BusConnection(address)
    app = None
    end = time.monotonic() + 20
    while app is None and time.monotonic() < end:
        try:
            proxy = bus.get_object("com.quorvia.Nimbrel.Proxy", "/com/quorvia/Nimbrel/Proxy", introspect=False)
            app = dbus.Interface(proxy, "com.quorvia.Nimbrel.AppProtocol")
            app.version()
        except dbus.exceptions.DBusException:
            app = None
            time.sleep(0.2)
    if app is None:
        print("Nimbrel said:", [nimbrel.lines.get() for _ in range(nimbrel.lines.qsize())])
        R.check(False, "Nimbrel on A did not answer")
        R.done()
    app.setBonjourPublisherInfo(dbus.Dictionary({"bonjourName": "Office", "portNumber": 0}, signature="sv"))
    posted = monitor.wait_for(lambda l: "Nimbrel Bonjour Name Published" in l, 20)
    R.check(posted is not None, "no Name Published after the name was set")
    # Posted only once Avahi confirmed: by then the answer is the name really published.
    R.check(str(app.bonjourPublisherInfo()["bonjourName"]) == "Office #2",
            f"bonjourPublisherInfo after the notice: {app.bonjourPublisherInfo()}")
    line = wait_browse("_nimbrel._sub._caldavs._tcp", "Office #2")
    R.check(line is not None and '"fp=' in line and '"proto=1"' in line, f"B's view of A: {line}")
    watcher = Lines([TH, "exec", "B", "--", "avahi-browse", "-rp", "_caldavs._tcp"])
    running.append(watcher)
    watcher.wait_for(lambda l: l.startswith("=") and unescape(l.split(";")[3]) == "Office #2", 10)
    try:
        app.shutdown()
    except dbus.exceptions.DBusException:
        pass  # the reply may lose the race with the exit
    gone = watcher.wait_for(lambda l: l.startswith("-") and unescape(l.split(";")[3]) == "Office #2", 10)
    R.check(gone is not None, "no goodbye on B after Nimbrel stopped")
finally:
    for p in reversed(running):
        p.stop()
    subprocess.run([TH, "down"], check=False)
R.done()
