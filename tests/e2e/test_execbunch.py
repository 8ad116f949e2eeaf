"""execbunch end to end: list files, client runs, record updates, result lines, failures, the lock range."""

import os
import shlex

import e2e_util
from test_updateshadow import Db, header, pdr, reflag, show

FAKE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fake_client.sh")
NORMAL, DELETE = 0x0, 0xd
# A BACKUP record with a wide flag field, EXPIRE, METACH, a CHANGE pair, and a NORMAL record no bunch names.
BASE = Db([pdr(0x10, flag="0000000b", path="/fs/a"), pdr(0x20, flag=0xe, path="/fs/b"),
           pdr(0x30, flag=0xa, path="/fs/c"), pdr(0x40, flag=0xc, path="/fs/d"),
           pdr(0x40, flag=0xb, path="/fs/d", show=show(size=7)), pdr(0x50, path="/fs/e")], hdr=header())
A, B, C, D, D2 = range(5)
# Bunch lines by letter: disposition, record, path, and the list it goes to.
ITEMS = {"a": ("updated", A, "/fs/a", "chg"), "b": ("expired", B, "/fs/b", "exp"),
         "c": ("ctimech", C, "/fs/c", "upd"), "d": ("updated", D, "/fs/d", "chg")}
ARGS = ["execbunch", "bunch", "chg", "exp", "upd", "db", "10"]
NO_LISTS = {"chg": None, "exp": None, "upd": None}
# Run as the backup command while the lock is held: which bytes another process can lock.
PROBE = ("import fcntl, sys\nf = open('db', 'r+')\nfor at in map(int, sys.argv[1:]):\n"
         "    try:\n        fcntl.lockf(f, fcntl.LOCK_EX | fcntl.LOCK_NB, 1, at)\n        print(at, 'free')\n"
         "    except OSError:\n        print(at, 'held')\n")


def bline(disp, offset, path):
    return "1 2 3 %s %016x 2010-01-01 10:00:00.000000 -- %s\n" % (disp, offset, path)


def client(lst, then=""):
    return "sh %s %s%s" % (shlex.quote(FAKE), lst, then)


ALL = {"KESTREL_EXPIRE_CMD": client("exp"), "KESTREL_BACKUP_CMD": client("chg"), "KESTREL_UPDATE_CMD": client("upd")}


def R(updated, failed, status=0):
    return "::EXECANDMONITOR::%d::%d::%d::\n" % (updated, failed, status)


def case(name, out, letters="ad", db=None, env=ALL, files=None, expect=None, args=ARGS, log=None, **extra):
    """A run over BASE with a bunch of the given letters; db: state changes; log: the clients' lists, in order."""
    files = dict({"db": BASE.text, "bunch": "".join(bline(ITEMS[k][0], BASE.at(ITEMS[k][1]), ITEMS[k][2])
                                                      for k in letters)}, **(files or {}))
    want = dict(NO_LISTS, db=BASE.hdr + "".join(reflag(r, (db or {}).get(i, r.split(":")[7])) for i, r in
                                                enumerate(BASE.records)))
    for k in letters:  # the list files the bunch gives; a list without lines is not created
        want[ITEMS[k][3]] = (want[ITEMS[k][3]] or "") + '"%s"\n' % ITEMS[k][2]
    return dict({"name": name, "args": args, "env": dict(env, FAKE_LOG="log"), "files": files,
                 "expect": dict(want, log=log, **(expect or {})),
                 "stdout": out}, **extra)


def closed(label, status):
    return "quenby: execAndMonitor() %s command close returned %d\n" % (label, status)


REVERTED = "quenby:QBS transaction failure. Reverting record [%s]\n"
FAILURES = "Normal File-->  1,024 /fs/a  ** Unsuccessful **\nANS1228E Sending of object '/fs/d' failed.\n"
PROBED = "python3 probe.py %d %d %d %d > probe; " + client("chg")
CASES = [
    case("expire, backup, update run in order; records DELETE, NORMAL; the pair DELETE + NORMAL",
         R(1, 0) + R(2, 0) + R(1, 0), "dcba", {A: NORMAL, B: DELETE, C: NORMAL, D: DELETE, D2: NORMAL},
         log="exp\nchg\nupd\n"),
    case("only the command whose list was written runs; failures after the success revert the record and the pair",
         R(4, 1), "ad", {}, dict(ALL, KESTREL_BACKUP_CMD="FAKE_AFTER=f " + client("chg")),
         files={"f": FAILURES}, log="chg\n", stderr=REVERTED % "/fs/a" + REVERTED % "/fs/d"),
    case("no backup command: its message, the others run; the last command's status is the exit status",
         closed("expire", 768) + R(1, 0, 768) + "quenby: execBunch() backup command not provided in exec\n"
         + closed("update", 9) + R(1, 0, 9), "abcd", {B: DELETE, C: NORMAL}, log="exp\nupd\n", status=9,
         env={"KESTREL_EXPIRE_CMD": client("exp", "; exit 3"), "KESTREL_UPDATE_CMD": client("upd", "; kill -KILL $$")}),
    case("the path to remove is cut out; a path without it is skipped", R(1, 0), "ad", {A: NORMAL}, log="chg\n",
         files={"bunch": bline("updated", BASE.at(A), "/fs/.snap/a") + bline("updated", 9, "/fs/d")},
         args=ARGS + [".snap"], expect={"chg": '"/fs/a"\n'},
         stderr="quenby:parseBackupRecords() [.snap] not found in [/fs/d], skipping\n"),
    case("old-format expiry: only the expire list and command, no database, no lock", R(0, 0),
         env=dict(ALL, KESTREL_LOCK_SHADOW="1"), files={"bunch": "1 2 3 -- /fs/x\n4 5 6 -- /fs/y\n"},
         args=["execbunch", "bunch", "/dev/null", "exp", "/dev/null", "/dev/null", "10"], log="exp\n",
         expect={"exp": '"/fs/x"\n"/fs/y"\n', "chg": None, "upd": None}),
    case("every line skipped: nothing runs", "quenby:execBunch() error 0 parsing records, skipping exec\n",
         files={"bunch": bline("deleted", BASE.at(A), "/fs/a")},
         stderr="quenby: cannot determine disposition for deleted\n", expect=NO_LISTS),
    # The lock range of a single record must not overflow past the top offset.
    case("a single record at the highest offset is no crash", R(1, 0), env=dict(ALL, KESTREL_LOCK_SHADOW="1"),
         files={"bunch": bline("updated", 2**63 - 1, "/fs/a")}, log="chg\n",
         expect={"chg": '"/fs/a"\n', "exp": None, "upd": None}, stderr="updateShadowPDR() read2 failed code -1\n"),
] + [
    case("the lock covers the bunch's range, a single record 64 bytes: " + letters, R(n, 0), letters, done,
         {"KESTREL_BACKUP_CMD": PROBED % (lo - 1, lo, hi - 1, hi), "KESTREL_LOCK_SHADOW": "1"}, log="chg\n",
         files={"probe.py": PROBE},
         expect={"probe": "%d free\n%d held\n%d held\n%d free\n" % (lo - 1, lo, hi - 1, hi)})
    for letters, n, done, lo, hi in (("a", 1, {A: NORMAL}, BASE.at(A), BASE.at(A) + 0x40),
                                     ("ad", 2, {A: NORMAL, D: DELETE, D2: NORMAL}, BASE.at(A), BASE.at(D)))
]


if __name__ == "__main__":
    e2e_util.main(CASES)
