"""python3-caldav and vdirsyncer against the CalDAV test host: discovery, reads, writes, queries with
recurrences, sync tokens, and a two-way vdirsyncer sync pinned by the certificate's fingerprint."""
import datetime
import glob
import os
import subprocess
import sys
import tempfile
import warnings

import caldav

from testhost import Results, TestHost, event

warnings.filterwarnings("ignore")  # the self-signed certificate; vdirsyncer pins it below
HOST = sys.argv[1]
R = Results()
UTC = datetime.timezone.utc

weekly = event("weekly", "20250106T090000Z", "20250106T100000Z", "Weekly",
               "RRULE:FREQ=WEEKLY;COUNT=10\r\nEXDATE:20250120T090000Z\r\n")
host = TestHost(HOST, {"work": {"weekly.ics": weekly, "jan.ics": event("jan", summary="January")},
                       "home": {}})
try:
    host.access("work", None, "secret")
    client = caldav.DAVClient(url=host.url + ".well-known/caldav", username="me", password="secret",
                              ssl_verify_cert=False)
    principal = client.principal()
    calendars = {c.name: c for c in principal.calendars()}
    R.check(sorted(calendars) == ["Home", "Work"], f"calendars found: {sorted(calendars)}")
    work = calendars["Work"]

    # Time ranges match recurrence instances; the excluded one does not, an instance after COUNT does not.
    def found(start, end):
        return sorted(str(e.icalendar_instance.walk("VEVENT")[0]["UID"])
                      for e in work.date_search(start=start, end=end, expand=False))
    for (start, end), want in [
        (("20250113T000000", "20250114T000000"), ["weekly"]),   # second instance
        (("20250120T000000", "20250121T000000"), []),           # excluded by EXDATE
        (("20250317T000000", "20250318T000000"), []),           # after the tenth
        (("20250101T103000", "20250101T110000"), ["jan"]),      # overlaps the end of January's
        (("20250101T110000", "20250101T120000"), []),           # starts when January's ends
    ]:
        s, e = (datetime.datetime.strptime(x, "%Y%m%dT%H%M%S").replace(tzinfo=UTC) for x in (start, end))
        R.check(found(s, e) == want, f"date_search {start}..{end}: {found(s, e)}, wanted {want}")

    # Writes through the client reach the folder; sync tokens report them.
    sync = work.objects_by_sync_token(load_objects=False)
    token = sync.sync_token
    work.save_event(event("new", "20250201T100000Z", "20250201T110000Z", "Added"))
    R.check(any(p.endswith(".ics") and "new" in open(p).read() for p in glob.glob(host.root + "/work/*.ics")),
            "a saved event is not in the folder")
    changed = work.objects_by_sync_token(sync_token=token, load_objects=True)
    R.check([str(o.icalendar_instance.walk("VEVENT")[0]["UID"]) for o in changed] == ["new"],
            "sync-collection since the token reports the new event alone")
    R.check(len(list(work.objects_by_sync_token(sync_token=changed.sync_token))) == 0, "a current token reports changes")
    obj = work.event_by_uid("jan")
    obj.vobject_instance.vevent.summary.value = "Renamed"
    obj.save()
    R.check("Renamed" in open(host.item_path("work", "jan.ics")).read(), "an edited event is not on disk")
    work.event_by_uid("new").delete()
    R.check(len(glob.glob(host.root + "/work/*.ics")) == 2, "a deleted event is still on disk")

    # The write password alone opens writing; a reader without it is refused.
    reader = caldav.DAVClient(url=host.url, ssl_verify_cert=False)
    ro = reader.calendar(url=host.url + "work/")
    R.check(len(ro.events()) == 2, "reading without a password")
    try:
        ro.save_event(event("nope"))
        R.check(False, "writing without the write password")
    except caldav.lib.error.AuthorizationError:
        R.check(True, "")
    except Exception as e:  # the client's error class for 401 differs between versions
        R.check("401" in str(e) or "Unauthorized" in str(e), f"writing without the write password: {e!r}")

    # vdirsyncer: two-way sync into a local vdir, pinned by the fingerprint.
    work_dir = tempfile.mkdtemp(prefix="vdirsyncer-")
    config = os.path.join(work_dir, "config")
    with open(config, "w") as f:
        f.write(f"""[general]
status_path = "{work_dir}/status/"
[pair nimbrel]
a = "local"
b = "remote"
collections = ["from b"]
conflict_resolution = "b wins"
[storage local]
type = "filesystem"
path = "{work_dir}/local/"
fileext = ".ics"
[storage remote]
type = "caldav"
url = "{host.url}"
username = "me"
password = "secret"
verify_fingerprint = "{host.fingerprint}"
""")

    def vdirsyncer(*args, stdin=""):
        p = subprocess.run(["vdirsyncer", "-c", config, *args], input=stdin, capture_output=True, text=True,
                           timeout=60)
        R.check(p.returncode == 0, f"vdirsyncer {' '.join(args)}: {p.stdout[-500:]} {p.stderr[-1500:]}")

    vdirsyncer("discover", "nimbrel", stdin="y\n" * 4)
    vdirsyncer("sync")
    local = glob.glob(f"{work_dir}/local/work/*.ics")
    R.check(len(local) == 2, f"vdirsyncer fetched {len(local)} items")
    with open(f"{work_dir}/local/work/local-made.ics", "w", newline="") as f:
        f.write(event("local-made", summary="From the laptop"))
    jan_local = next(p for p in local if "jan" in open(p).read())
    with open(jan_local) as f:
        text = f.read()
    with open(jan_local, "w", newline="") as f:
        f.write(text.replace("Renamed", "Edited locally"))
    vdirsyncer("sync")
    served = [open(p).read() for p in glob.glob(host.root + "/work/*.ics")]
    R.check(any("From the laptop" in t for t in served), "a local item did not reach the server")
    R.check(any("Edited locally" in t for t in served), "a local edit did not reach the server")
    work.save_event(event("server-made", summary="From the server"))
    vdirsyncer("sync")
    R.check(any("From the server" in open(p).read() for p in glob.glob(f"{work_dir}/local/work/*.ics")),
            "a server item did not reach the local folder")

    # A wrong fingerprint stops the sync.
    with open(config) as f:
        text = f.read()
    with open(config, "w") as f:
        f.write(text.replace(host.fingerprint, "00:" * 31 + "00"))
    p = subprocess.run(["vdirsyncer", "-c", config, "sync"], capture_output=True, text=True, timeout=60)
    R.check(p.returncode != 0, "vdirsyncer accepted a wrong fingerprint")
finally:
    host.stop()
R.done()
