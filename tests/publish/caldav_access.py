"""curl against the CalDAV test host: the access table, preconditions, limits and bad input."""
import os
import subprocess
import sys

from testhost import Results, TestHost, event

HOST = sys.argv[1]
R = Results()


def curl(host, method, path, password=None, body=None, headers=(), peer="127.0.0.1"):
    """Returns (status, headers text, body) of one request; `peer` picks the loopback source address."""
    args = ["curl", "-sk", "-o", "-", "-D", "/dev/stderr", "-X", method, "--interface", peer,
            "-w", "\n%{http_code}", f"https://127.0.0.1:{host.port}{path}", "--path-as-is"]
    if password is not None:
        args += ["-u", f"anyone:{password}"]
    for h in headers:
        args += ["-H", h]
    if body is not None:
        args += ["--data-binary", "@-"]
        if not any(h.lower().startswith("content-type:") for h in headers):
            args += ["-H", "Content-Type: text/calendar"]
    p = subprocess.run(args, input=body.encode() if isinstance(body, str) else body, capture_output=True, timeout=30)
    out, _, code = p.stdout.decode(errors="replace").rpartition("\n")
    return int(code), p.stderr.decode(errors="replace"), out


host = TestHost(HOST, {"cal": {"e1.ics": event("e1")}, "hidden": {"h.ics": event("h")}})
try:
    host.command("publish hidden 0")

    # The access table: (read-only, read password, write password) as the panel summarises them, and
    # what each password may do. "-" no password, "r" the read password, "w" the write password,
    # "x" a wrong one. Each cell is the status of a GET and of a PUT.
    table = [
        # readOnly, read, write,  password: (GET, PUT)
        (False, None, None, {None: (200, 204), "x": (200, 204)}),          # everyone can read & write
        (False, None, "W", {None: (200, 401), "w": (200, 204), "x": (200, 403)}),  # everyone can read; write password
        (False, "R", None, {None: (401, 401), "r": (200, 403), "x": (403, 403)}),  # read password
        (False, "R", "W", {None: (401, 401), "r": (200, 403), "w": (200, 204), "x": (403, 403)}),
        (True, None, None, {None: (200, 401), "x": (200, 403)}),           # everyone can read
        (True, None, "W", {None: (200, 401), "w": (200, 403)}),            # everyone can read
        (True, "R", None, {None: (401, 401), "r": (200, 403)}),            # read password
        (True, "R", "W", {None: (401, 401), "r": (200, 403), "w": (200, 403)}),
    ]
    for read_only, read, write, cells in table:
        host.access("cal", read, write, read_only)  # takes effect on the next request
        for who, (want_get, want_put) in cells.items():
            password = {"r": "R", "w": "W", "x": "wrong"}.get(who)
            case = f"readOnly={read_only} read={read} write={write} password={who}"
            got, hdrs, _ = curl(host, "GET", "/cal/e1.ics", password, peer="127.0.0.2")
            R.check(got == want_get, f"{case}: GET {got}, wanted {want_get}")
            if got == 401:
                R.check("WWW-Authenticate: Basic" in hdrs, f"{case}: 401 without a Basic challenge")
            got, _, _ = curl(host, "PUT", "/cal/e1.ics", password, event("e1", summary="changed"),
                             ["Content-Type: text/calendar"], peer="127.0.0.2")
            R.check(got == want_put, f"{case}: PUT {got}, wanted {want_put}")
            # The privilege set tells the client the same.
            if want_get == 200:
                _, _, body = curl(host, "PROPFIND", "/cal/", password, headers=["Depth: 0"], peer="127.0.0.2")
                R.check(("<D:write/>" in body) == (want_put == 204), f"{case}: privilege set says {body[-400:]}")
        # Anonymous view in the home listing (what a subscriber sees before giving a password).
        _, _, home = curl(host, "PROPFIND", "/", headers=["Depth: 1"], peer="127.0.0.2")
        listed = home.partition("<D:href>/cal/</D:href>")[2]
        R.check(listed and ("<D:read/>" in listed) == (read is None), f"home listing for read={read}")
    host.access("cal")

    # Unpublished calendars do not exist on the wire.
    R.check(curl(host, "GET", "/hidden/h.ics")[0] == 404, "an unpublished calendar's item is served")
    R.check("/hidden/" not in curl(host, "PROPFIND", "/", headers=["Depth: 1"])[2], "an unpublished calendar is listed")

    # Preconditions: If-Match / If-None-Match, CalDAV's checks, nothing changed by a refused PUT.
    path = host.item_path("cal", "e1.ics")
    _, hdrs, _ = curl(host, "GET", "/cal/e1.ics")
    etag = next(l.split(":", 1)[1].strip() for l in hdrs.splitlines() if l.lower().startswith("etag:"))
    before = open(path, "rb").read()
    cases = [
        ("stale If-Match", ['If-Match: "stale"'], event("e1", summary="x"), 412),
        ("If-None-Match * on an existing item", ["If-None-Match: *"], event("e1", summary="x"), 412),
        ("not iCalendar", [], "hello", 403),
        ("broken iCalendar", [], "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:e1\r\nDTSTART:nonsense\r\n", 403),
        ("two UIDs", [], event("e1").replace("END:VCALENDAR", event("e2")[event("e2").index("BEGIN:VEVENT"):]
                                              .replace("END:VCALENDAR\r\n", "")) + "", 403),
        ("METHOD in a stored object", [], event("e1").replace("VERSION:2.0", "VERSION:2.0\r\nMETHOD:REQUEST"), 403),
        ("a component type not served", [], event("e1").replace("VEVENT", "VFREEBUSY"), 403),
        ("wrong content type", ["Content-Type: application/json"], event("e1"), 403),
    ]
    for what, headers, body, want in cases:
        got, _, text = curl(host, "PUT", "/cal/e1.ics", body=body, headers=headers)
        R.check(got == want, f"{what}: {got}, wanted {want} ({text[:200]})")
        R.check(open(path, "rb").read() == before, f"{what}: the item changed")
    got, _, text = curl(host, "PUT", "/cal/other.ics", body=event("e1"), headers=["If-None-Match: *"])
    R.check(got == 409 and "no-uid-conflict" in text and "/cal/e1.ics" in text, f"UID taken by another item: {got}")
    R.check(not os.path.exists(host.item_path("cal", "other.ics")), "a conflicting item was written")
    got, hdrs, _ = curl(host, "PUT", "/cal/e1.ics", body=event("e1", summary="new"), headers=[f"If-Match: {etag}"])
    R.check(got == 204 and "ETag:" in hdrs, f"PUT with the current ETag: {got}")
    R.check(curl(host, "DELETE", "/cal/e1.ics", headers=[f"If-Match: {etag}"])[0] == 412, "DELETE with a stale ETag")
    R.check(curl(host, "GET", "/cal/e1.ics", headers=["If-None-Match: " + etag])[0] == 200, "GET with an old ETag")

    # Limits and hostile input.
    big = b"X" * (8 * 1024 * 1024 + 1)
    R.check(curl(host, "PUT", "/cal/big.ics", body=big)[0] == 413, "an oversized body is accepted")
    R.check(curl(host, "PROPFIND", "/cal/", headers=["Depth: infinity"])[0] == 403, "Depth: infinity is served")
    for bad in ["/cal/..%2F..%2Fetc%2Fpasswd", "/cal/../hidden/h.ics", "/cal/.hidden.ics", "/%2e%2e/x.ics",
                "/cal/a%00b.ics", "/cal/%ff.ics", "/cal/x/y.ics"]:
        got = curl(host, "GET", bad)[0]
        R.check(got in (400, 404), f"{bad}: {got}")
    for body in ["<D:propfind xmlns:D='DAV:'><D:prop>", "<!DOCTYPE x [<!ENTITY a 'b'>]><D:propfind xmlns:D='DAV:'/>",
                 "not xml at all"]:
        R.check(curl(host, "PROPFIND", "/cal/", body=body, headers=["Depth: 0"])[0] == 400, f"malformed XML {body!r}")
    R.check(curl(host, "REPORT", "/cal/", body="<x xmlns='urn:y'/>")[0] == 403, "an unknown report is served")
    got, _, text = curl(host, "REPORT", "/cal/", body="<D:sync-collection xmlns:D='DAV:'><D:sync-token>urn:x-nimbrel:"
                        "sync:bogus</D:sync-token><D:prop><D:getetag/></D:prop></D:sync-collection>")
    R.check(got == 403 and "valid-sync-token" in text, f"an unknown sync token: {got}")
    got, hdrs, _ = curl(host, "PROPFIND", "/.well-known/caldav")
    R.check(got == 301 and "Location: /" in hdrs, f"/.well-known/caldav: {got}")
    got, hdrs, _ = curl(host, "OPTIONS", "/")
    R.check(got == 200 and "calendar-access" in hdrs, "OPTIONS without DAV: calendar-access")

    # Failed passwords: after five an address waits (429 with Retry-After), others do not.
    host.access("cal", "R", "W")
    codes = [curl(host, "GET", "/cal/e1.ics", "guess", peer="127.0.0.3")[0] for _ in range(6)]
    R.check(codes[:5] == [403] * 5 and codes[5] == 429, f"back-off: {codes}")
    got, hdrs, _ = curl(host, "GET", "/cal/e1.ics", "R", peer="127.0.0.3")
    R.check(got == 429 and "Retry-After:" in hdrs, "the right password during the back-off")
    R.check(curl(host, "GET", "/cal/e1.ics", "R", peer="127.0.0.4")[0] == 200, "another address is blocked too")
finally:
    host.stop()
R.done()
