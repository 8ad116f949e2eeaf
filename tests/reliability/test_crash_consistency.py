"""execbunch killed with SIGKILL at random moments, rewriting through its
mapping and with pwrite: every record must be in its old or its new state,
CHANGE pairs in a state their two ordered writes allow, and updateshadow
must list again exactly what was left undone.
updateshadow killed at random moments: its new database is absent or whole,
the appended lists gain nothing or everything, and a rerun is right.

Run: python3 test_crash_consistency.py /path/to/quenby [seconds]
"""

import os
import random
import signal
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "e2e"))
from e2e_util import clean_env  # noqa: E402

FAKE = os.path.join(HERE, "..", "e2e", "fake_client.sh")
GEN = os.path.join(HERE, "..", "..", "bench", "gen_data.py")
NORMAL, BACKUP, CHANGE, DELETE, EXPIRE = 0x0, 0xb, 0xc, 0xd, 0xe
# Per kind of bunch item: the states it may be found in after a kill.
ALLOWED = {"b": {(BACKUP,), (NORMAL,)}, "e": {(EXPIRE,), (DELETE,)},
           "c": {(CHANGE, BACKUP), (DELETE, BACKUP), (DELETE, NORMAL)}}


def flag(line):
    return int(line.split(b":", 8)[7], 16)


def setflag(line, state):
    f = line.split(b":", 8)
    f[7] = b"%0*x" % (len(f[7]), state)
    return b":".join(f)


def path(line):
    head, _, rest = line.partition(b"!")
    return rest[:abs(int(head.split(b":")[8]))]


def bigger(line):
    """The record of the same file with its size grown by one."""
    prefix, show = line.rsplit(b";", 1)
    f = show[show.index(b"!") + 1:-1].split(b" ")
    f[4] = b"%d" % (int(f[4]) + 1)
    return b"%s;%d!%s\n" % (prefix, len(b" ".join(f)), b" ".join(f))


def build(d, records=20000):
    """Shadow database, matching scan list, bunch; items: (kind, first record, path, offset)."""
    subprocess.run([sys.executable, GEN, "--records", str(records), "--churn", "0", "--seed", "5", "--out", d],
                   check=True, stdout=subprocess.DEVNULL, timeout=60)
    with open(os.path.join(d, "shadow.old"), "rb") as f:
        lines = f.readlines()
    hdr, db, scan, items, at = lines[:5], [], [], [], sum(map(len, lines[:5]))
    rng = random.Random(11)
    for r in lines[5:]:
        u = rng.random() if int(r.split(b":", 8)[8].split(b"!")[0]) > 0 and not path(r).startswith(b".") else 1
        kind = "b" if u < 0.15 else "c" if u < 0.2 else "e" if u < 0.27 else "n"
        if kind != "n":
            items.append([kind, len(db), path(r), at])
        new = [setflag(r, CHANGE), setflag(bigger(r), BACKUP)] if kind == "c" else \
            [setflag(r, {"n": NORMAL, "b": BACKUP, "e": EXPIRE}[kind])]
        db += new
        at += sum(map(len, new))
        scan += [bigger(r)] if kind == "c" else [r] if kind != "e" else []
    with open(os.path.join(d, "bunch"), "wb") as f:
        f.writelines(map(bunch_line, items))
    with open(os.path.join(d, "scan"), "wb") as f:
        f.writelines(scan)
    return b"".join(hdr + db), hdr, db, items


def bunch_line(item):
    kind, _, p, offset = item
    return b"1 2 0 %s %016x x -- /fs1/%s\n" % (b"expired" if kind == "e" else b"updated", offset, p)


def check_killed(text, hdr, db, items):
    """The states of the items as found; fails on anything no write sequence can give."""
    lines = text.splitlines(True)
    assert len(text) == len(b"".join(hdr + db)) and lines[:5] == hdr and len(lines) == len(hdr) + len(db), \
        "the header, the length or the line count changed"
    got = lines[5:]
    for old, new in zip(db, got):
        assert setflag(new, NORMAL) == setflag(old, NORMAL) and setflag(new, flag(new)) == new, \
            "more than the flag changed:\n%r\n%r" % (old, new)
    found = [0] * len(db)
    for kind, i, p, _ in items:
        found[i] = tuple(flag(got[j]) for j in range(i, i + (2 if kind == "c" else 1)))
        assert found[i] in ALLOWED[kind], "%s record %r in states %s" % (kind, p, found[i])
    for j, r in enumerate(got):
        if not found[j] and (j == 0 or not found[j - 1] or len(found[j - 1]) < 2):
            assert flag(r) == flag(db[j]), "record %r outside the bunch changed" % path(r)
    return found, got


def check_relisted(binary, d, text, found, got, items):
    """updateshadow accepts the killed database and lists again just what is undone."""
    want = {"chg": sorted(p for _, i, p, _ in items if found[i][-1] == BACKUP),
            "exp": sorted(p for _, i, p, _ in items if found[i] == (EXPIRE,))}
    for name in ("new", "chg", "exp", "uns"):  # the expired list is appended to
        if os.path.exists(os.path.join(d, name)):
            os.unlink(os.path.join(d, name))
    proc = subprocess.run([binary, "updateshadow", "db", "new", "scan", "chg", "exp", "uns"], cwd=d,
                          env=clean_env(), capture_output=True, timeout=60)
    out = proc.stdout.decode()
    assert (proc.returncode, out) == (0, "::UPDATESHADOW::0::%d::%d::0::\n" % (len(want["chg"]), len(want["exp"]))), \
        (proc.returncode, out, proc.stderr[-2000:])
    new = open(os.path.join(d, "new"), "rb").read()
    assert DELETE not in (flag(r) for r in new.splitlines(True)[5:]), "a DELETE record was kept"
    dropped = sum(flag(r) == DELETE or path(r).startswith(b".kestrel") for r in got)  # internal ones too
    assert len(new.splitlines()) == len(got) + 5 - dropped, "records lost or duplicated"
    for name in ("chg", "exp"):
        listed = open(os.path.join(d, name), "rb").read().splitlines(True)
        assert sorted(map(path, listed)) == want[name], "%s list differs" % name
        for line in listed:  # each offset names the listed file's record
            off = int(line.rsplit(b";", 1)[1].split(b"!")[1][8:24], 16)
            assert path(new[off:new.index(b"\n", off) + 1]) == path(line), "bad offset in %s" % name
    assert open(os.path.join(d, "db"), "rb").read() == text, "updateshadow changed its input"


def without_date(text):
    first, _, rest = text.partition(b"\n")
    return b":".join(first.split(b":", 6)[:6]) + rest


def kill_updateshadow(binary, kills=20):
    args = [binary, "updateshadow", "shadow.old", "new", "scan.new", "chg", "exp", "uns"]
    with tempfile.TemporaryDirectory(prefix="quenby-crash-us-") as d:
        subprocess.run([sys.executable, GEN, "--records", "300000", "--churn", "0.1", "--seed", "5", "--out", d],
                       check=True, stdout=subprocess.DEVNULL, timeout=60)

        def run(kill_after=None):
            proc = subprocess.Popen(args, cwd=d, env=clean_env(), stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            if kill_after is not None:
                time.sleep(kill_after)
                proc.kill()
            out, err = proc.communicate(timeout=60)
            return proc.returncode, out

        def files():
            return {n: open(os.path.join(d, n), "rb").read() if os.path.exists(os.path.join(d, n)) else None
                    for n in ("new", "chg", "exp")}

        started = time.monotonic()
        status, result = run()
        full = time.monotonic() - started
        assert status == 0, result
        whole = files()
        lines = whole["exp"]
        for _ in range(kills):
            for n in ("new", "chg"):
                if os.path.exists(os.path.join(d, n)):
                    os.unlink(os.path.join(d, n))
            with open(os.path.join(d, "exp"), "wb") as f:
                f.write(b"earlier\n")
            status, out = run(random.uniform(0, full * 1.2))
            got = files()
            assert got["new"] is None or without_date(got["new"]) == without_date(whole["new"]), "partial database"
            assert got["chg"] in (None, whole["chg"]), "partial changed list"
            assert got["exp"] in (b"earlier\n", b"earlier\n" + lines), "partial expired list"
            status, out = run()
            assert (status, out) == (0, result), (status, out)
            after = files()
            assert without_date(after["new"]) == without_date(whole["new"]) and after["chg"] == whole["chg"]
            assert after["exp"] == got["exp"] + lines, "the rerun's expired list"
        print("updateshadow: 300000 records, full run %.2f s, %d kills" % (full, kills))


def kill_execbunch(binary, d, built, env, budget, label):
    base, hdr, db, items = built
    begin, runs, partial, full = time.monotonic(), 0, 0, None
    while runs <= 30 or time.monotonic() - begin < budget:
        with open(os.path.join(d, "db"), "wb") as f:
            f.write(base)
        started = time.monotonic()
        proc = subprocess.Popen([binary, "execbunch", "bunch", "chg", "exp", "upd", "db", str(len(items))],
                                cwd=d, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                stderr=subprocess.PIPE, start_new_session=True)
        if full is not None:  # the first run is whole and sets the kill window
            time.sleep(random.uniform(0, full * 1.1))
            try:
                os.killpg(proc.pid, signal.SIGKILL)  # the client with it
            except ProcessLookupError:
                pass
        err = proc.communicate(timeout=60)[1]
        assert proc.returncode in ((0,) if full is None else (0, -signal.SIGKILL)), (proc.returncode, err)
        full = full or time.monotonic() - started
        text = open(os.path.join(d, "db"), "rb").read()
        found, got = check_killed(text, hdr, db, items)
        done = sum(st[-1] in (NORMAL, DELETE) for st in found if st)
        assert runs > 0 or done == len(items), "a full run left records undone"
        partial += 0 < done < len(items)
        check_relisted(binary, d, text, found, got, items)
        runs += 1
    print("%s: %d records, %d bunch lines, full run %.2f s; %d kills, %d of them mid-update, %.1f s"
          % (label, len(db), len(items), full, runs - 1, partial, time.monotonic() - begin))
    assert partial > 0, "%s: no kill landed while records were being updated" % label


def main():
    binary = os.path.abspath(sys.argv[1])
    kill_updateshadow(binary)
    budget = float(sys.argv[2]) if len(sys.argv) > 2 else 20.0
    env = clean_env({"KESTREL_EXPIRE_CMD": "sh %s exp" % FAKE, "KESTREL_BACKUP_CMD": "sh %s chg" % FAKE})
    with tempfile.TemporaryDirectory(prefix="quenby-crash-") as d:
        built = build(d)
        # Records stored into the shared mapping, and written with pwrite.
        kill_execbunch(binary, d, built, dict(env, QUENBY_WRITE="mmap"), budget / 2, "execbunch mapped")
        kill_execbunch(binary, d, built, dict(env, QUENBY_WRITE="pwrite"), budget / 2, "execbunch pwrite")


if __name__ == "__main__":
    main()
