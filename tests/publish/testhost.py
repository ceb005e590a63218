"""Starts nimbrel-caldav-testhost on a temporary folder of vdir calendars, for the client tests."""
import os
import subprocess
import sys
import tempfile


def event(uid, start="20250101T100000Z", end="20250101T110000Z", summary="Event", extra=""):
    return ("BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//test//EN\r\nBEGIN:VEVENT\r\n"
            f"UID:{uid}\r\nDTSTAMP:20250101T000000Z\r\nDTSTART:{start}\r\nDTEND:{end}\r\n"
            f"SUMMARY:{summary}\r\n{extra}END:VEVENT\r\nEND:VCALENDAR\r\n")


class TestHost:
    """One server over `calendars` ({uid: {file name: text}}); `command()` changes publishing settings."""

    def __init__(self, executable, calendars, extra_args=()):
        self.dir = tempfile.mkdtemp(prefix="caldav-host-")
        self.root = os.path.join(self.dir, "root")
        for uid, items in calendars.items():
            os.makedirs(os.path.join(self.root, uid))
            with open(os.path.join(self.root, uid, "displayname"), "w") as f:
                f.write(uid.title())
            for name, text in items.items():
                with open(os.path.join(self.root, uid, name), "w", newline="") as f:
                    f.write(text)
        self.proc = subprocess.Popen([executable, "--root", self.root, "--data", os.path.join(self.dir, "data"),
                                      "--port", "0", *extra_args],
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        words = self.proc.stdout.readline().split()
        if not words or words[0] != "listening":
            raise RuntimeError("the test host did not start")
        self.port = int(words[1])
        self.fingerprint = words[2] if len(words) > 2 else ""
        self.url = f"https://127.0.0.1:{self.port}/"

    def command(self, line):
        self.proc.stdin.write(line + "\n")
        self.proc.stdin.flush()
        answer = self.proc.stdout.readline().strip()
        assert answer == "ok", f"{line!r} -> {answer!r}"

    def access(self, uid, read=None, write=None, read_only=False):
        self.command(f"access {uid} {read or '-'} {write or '-'} {int(read_only)}")

    def item_path(self, uid, name):
        return os.path.join(self.root, uid, name)

    def stop(self):
        self.proc.terminate()
        self.proc.wait(10)


class Results:
    """Collects failures instead of stopping at the first one; `done()` exits with ctest's convention."""

    def __init__(self):
        self.failed = 0
        self.passed = 0

    def check(self, condition, what):
        if condition:
            self.passed += 1
        else:
            self.failed += 1
            print(f"FAIL: {what}", flush=True)

    def done(self):
        print(f"{self.passed} passed, {self.failed} failed")
        sys.exit(1 if self.failed else 0)
