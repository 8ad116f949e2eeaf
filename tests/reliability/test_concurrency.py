"""Eight execbunch processes with the shadow lock on, side by side on random
bunches of one shadow database: every reported record ends in its final
state, nothing else changes, and processes whose lock ranges overlap never
run their clients at the same time.

Run: python3 test_concurrency.py /path/to/quenby [rounds]
"""

import os
import random
import subprocess
import sys
import tempfile
import time

from test_crash_consistency import DELETE, FAKE, NORMAL, build, bunch_line, clean_env, setflag

PROCS = 8
DENIED = "quenby: execBunch() shadow DB lock denied. sleeping.\n"
FINAL = {"b": (NORMAL,), "c": (DELETE, NORMAL), "e": (DELETE,)}


def client(d, p, lst, rng):
    """A fake client run that logs when it starts and ends."""
    stamp = 'echo "$(date +%%s.%%N)" >> %s/t%d' % (d, p)
    return "%s; FAKE_SLEEP=%.2f sh %s %s%d; %s" % (stamp, rng.uniform(0.1, 0.3), FAKE, lst, p, stamp)


def one_round(binary, d, base, db, items, rng):
    with open(os.path.join(d, "db"), "wb") as f:
        f.write(base)
    bunches = {}
    windows = [(lo, lo + w) for w in (rng.randint(len(items) // 20, len(items) // 4) for _ in range(PROCS))
               for lo in [rng.randrange(len(items) - w)]]
    for k, item in enumerate(items):  # each item to one process whose window holds it, or none
        owners = [p for p, (lo, hi) in enumerate(windows) if lo <= k < hi]
        if owners:
            bunches.setdefault(rng.choice(owners), []).append(item)
    procs, began = {}, time.monotonic()
    try:
        for p, b in bunches.items():
            with open(os.path.join(d, "bunch%d" % p), "wb") as f:
                f.writelines(map(bunch_line, b))
            env = clean_env({"KESTREL_LOCK_SHADOW": "1", "KESTREL_EXPIRE_CMD": client(d, p, "exp", rng),
                             "KESTREL_BACKUP_CMD": client(d, p, "chg", rng)})
            procs[p] = subprocess.Popen([binary, "execbunch", "bunch%d" % p, "chg%d" % p, "exp%d" % p, "upd", "db",
                                         str(len(b))], cwd=d, env=env, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        outs = {p: proc.communicate(timeout=max(1, began + 40 - time.monotonic())) for p, proc in procs.items()}
    finally:
        for proc in procs.values():
            if proc.poll() is None:
                proc.kill()
                proc.wait(timeout=10)
    ranges, spans, denied = {}, {}, 0
    for p, b in bunches.items():
        lo, hi = min(it[3] for it in b), max(it[3] for it in b)
        ranges[p] = (lo, hi if hi > lo else lo + 64)
        with open(os.path.join(d, "t%d" % p)) as f:
            t = [float(x) for x in f.read().split()]
        spans[p] = (min(t), max(t))
        os.unlink(os.path.join(d, "t%d" % p))
    for p, b in bunches.items():
        out, err = outs[p][0].decode(), outs[p][1].decode()
        others = [q for q in bunches if q != p and ranges[q][0] < ranges[p][1] and ranges[p][0] < ranges[q][1]]
        want = "".join("::EXECANDMONITOR::%d::0::0::\n" % c
                       for c in (sum(it[0] == "e" for it in b), sum(it[0] != "e" for it in b)) if c)
        waited = out.startswith(DENIED)
        denied += waited
        assert (procs[p].returncode, out, err) == (0, DENIED + want if waited else want, ""), \
            (p, procs[p].returncode, out, err)
        assert others or not waited, "process %d denied a lock no other range overlaps" % p
        for q in others:
            assert spans[p][1] < spans[q][0] or spans[q][1] < spans[p][0], \
                "clients of %d and %d ran at once on overlapping ranges %s %s" % (p, q, ranges[p], ranges[q])
    want = list(db)
    for b in bunches.values():
        for kind, i, _, _ in b:
            for j, state in enumerate(FINAL[kind]):
                want[i + j] = setflag(want[i + j], state)
    with open(os.path.join(d, "db"), "rb") as f:
        assert f.read() == base[:len(base) - sum(map(len, db))] + b"".join(want), "the database is not as reported"
    return len(bunches), denied


def main():
    binary = os.path.abspath(sys.argv[1])
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 6
    rng, began, runs, denied = random.Random(), time.monotonic(), 0, 0
    with tempfile.TemporaryDirectory(prefix="quenby-conc-") as d:
        base, _, db, items = build(d, 4000)
        for _ in range(rounds):
            r, w = one_round(binary, d, base, db, items, rng)
            runs, denied = runs + r, denied + w
    print("%d rounds, %d execbunch runs, %d lock waits, %.1f s" % (rounds, runs, denied, time.monotonic() - began))
    assert denied > 0, "no process ever waited for a lock"
    assert time.monotonic() - began < 60, "too slow"


if __name__ == "__main__":
    main()
