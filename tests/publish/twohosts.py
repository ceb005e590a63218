"""Helpers for tests on the two simulated computers of shared/tools/two-hosts: the tool, a skip with the
reason where it cannot run, processes read line by line, and host B's view of DNS-SD."""
import os
import queue
import re
import signal
import subprocess
import sys
import threading
import time


TH = "/work/shared/tools/two-hosts"
if not os.path.exists(TH):
    TH = os.path.join(os.path.dirname(__file__), "../../../shared/tools/two-hosts")


def skip_unless_available():
    """Exits with ctest's skip code (77), saying why, where the namespaces cannot be made."""
    probe = subprocess.run([TH, "available"], capture_output=True, text=True) if os.path.exists(TH) else None
    if probe is None or probe.returncode != 0:
        why = probe.stderr.strip() if probe else f"{TH} not found"
        print(f"SKIP: two simulated computers cannot run here: {why}")
        sys.exit(77)


class Lines:
    """A process's standard output, read line by line in the background."""

    def __init__(self, args):
        self.proc = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.PIPE,
                                     text=True)
        self.lines = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.proc.stdout:
            self.lines.put(line.rstrip("\n"))

    def wait_for(self, predicate, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            try:
                line = self.lines.get(timeout=max(0.01, end - time.monotonic()))
            except queue.Empty:
                break
            if predicate(line):
                return line
        return None

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            self.proc.wait(10)


def browse_once(service_type):
    """Host B's resolved services of a type, as parsable avahi-browse lines."""
    p = subprocess.run([TH, "exec", "B", "--", "avahi-browse", "-rpt", service_type], capture_output=True, text=True,
                       timeout=30)
    return [l for l in p.stdout.splitlines() if l.startswith("=") and ";IPv4;" in l]


def unescape(name):
    return re.sub(r"\\(\d{3})", lambda m: chr(int(m.group(1))), name)


def wait_browse(service_type, name, seconds=10):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        for line in browse_once(service_type):
            if unescape(line.split(";")[3]) == name:
                return line
        time.sleep(0.2)
    return None


