"""The announcer between two simulated computers: a server on host A is seen by avahi-browse on host B
with its TXT record and subtype; a name taken on the network makes it take Avahi's alternative; an
avahi-daemon restart brings the announcement back; a clean stop sends the goodbye."""
import os
import signal
import subprocess
import sys
import tempfile
import time

from testhost import Results
from twohosts import TH, Lines, browse_once, skip_unless_available, unescape, wait_browse

skip_unless_available()
HOST = sys.argv[1]
R = Results()


def start_server(name, instance):
    root = tempfile.mkdtemp(prefix=f"dnssd-{instance}-")
    os.makedirs(os.path.join(root, "cals", "c1"))
    return Lines([TH, "exec", "A", "--", HOST, "--root", os.path.join(root, "cals"), "--data", root,
                  "--announce", name, "--id", instance])


subprocess.run([TH, "down"], check=False)
subprocess.run([TH, "up"], check=True)
servers = []
try:
    # Published on A, resolved on B with its TXT record and its subtype.
    a = start_server("Nimbrel Test", "inst-1")
    servers.append(a)
    listening = a.wait_for(lambda l: l.startswith("listening"), 15)
    R.check(listening is not None, "the server on A did not start")
    port, fingerprint = listening.split()[1:3]
    R.check(a.wait_for(lambda l: l.startswith("announce"), 10) == "announced Nimbrel Test", "A's announcement")
    line = wait_browse("_caldavs._tcp", "Nimbrel Test")
    R.check(line is not None, "B does not see A's service")
    if line:
        fields = line.split(";")
        R.check(fields[7] == "192.0.2.1" and fields[8] == port, f"address and port: {fields[7:9]}")
        for txt in ['"path=/"', '"txtvers=1"', '"id=inst-1"', f'"fp={fingerprint}"', '"proto=1"']:
            R.check(txt in fields[9], f"TXT {txt} missing from {fields[9]}")
    R.check(wait_browse("_nimbrel._sub._caldavs._tcp", "Nimbrel Test") is not None, "the subtype is not announced")

    # avahi-daemon on A restarts: the announcement comes back by itself.
    state = os.environ.get("TWO_HOSTS_DIR", "/run/two-hosts")
    with open(f"{state}/A/avahi.pid") as f:
        os.kill(int(f.read().strip()), signal.SIGTERM)
    time.sleep(0.5)
    subprocess.Popen([TH, "exec", "A", "--", "avahi-daemon", "-f", f"{state}/A/avahi-daemon.conf", "--no-chroot",
                      "--no-rlimits"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    R.check(a.wait_for(lambda l: l == "announced Nimbrel Test", 20) is not None,
            "not announced again after avahi-daemon came back")
    R.check(wait_browse("_caldavs._tcp", "Nimbrel Test") is not None, "B does not see A after the restart")

    # A clean stop withdraws the service: B's running browser sees it go (the goodbye), long before
    # the records' time to live.
    watcher = Lines([TH, "exec", "B", "--", "avahi-browse", "-rp", "_caldavs._tcp"])
    servers.append(watcher)
    watcher.wait_for(lambda l: l.startswith("=") and "Nimbrel\\032Test" in l, 10)
    a.stop()
    started = time.monotonic()
    gone = watcher.wait_for(lambda l: l.startswith("-") and ";Nimbrel\\032Test;" in l, 10)
    R.check(gone is not None, "no goodbye seen on B after a clean stop")
    print(f"goodbye seen after {time.monotonic() - started:.2f} s")
    watcher.stop()

    # The name is taken on the network (B publishes it first): A takes Avahi's alternative, with the subtype.
    clash = Lines([TH, "exec", "B", "--", "avahi-publish", "-s", "Clash", "_caldavs._tcp", "9"])
    servers.append(clash)
    R.check(clash.wait_for(lambda l: "Established" in l, 10) is not None, "avahi-publish on B did not establish")
    b = start_server("Clash", "inst-2")
    servers.append(b)
    announced = b.wait_for(lambda l: l.startswith("announce"), 20)
    R.check(announced == "announced Clash #2", f"after a collision: {announced}")
    R.check(wait_browse("_nimbrel._sub._caldavs._tcp", "Clash #2") is not None, "the renamed service lost its subtype")
    R.check(all(unescape(l.split(";")[3]) != "Clash" for l in browse_once("_nimbrel._sub._caldavs._tcp")),
            "the subtype browse lists a service without the subtype")
finally:
    for s in servers:
        s.stop()
    subprocess.run([TH, "down"], check=False)
R.done()
