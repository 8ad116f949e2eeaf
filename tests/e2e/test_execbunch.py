"""execbunch end to end: the list files, the client runs, the record
updates, result lines and exit status, the driver's failures and the lock
range. Client reports one by one are left to the unit tests, processes side
by side to reliability/test_concurrency.py.

Run: python3 test_execbunch.py /path/to/quenby
"""

import os
import re
import shlex
import unittest

import e2e_util
from e2e_util import run_case
from test_updateshadow import Db, header, pdr, show

FAKE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fake_client.sh")
NORMAL, METACH, BACKUP, CHANGE, DELETE, EXPIRE = 0x0, 0xa, 0xb, 0xc, 0xd, 0xe

# A BACKUP record with a wide flag field, an EXPIRE and a METACH record, a
# CHANGE pair, and a NORMAL record that no bunch names.
BASE = Db([pdr(0x10, flag="0000000b", path="/fs/a"), pdr(0x20, flag=EXPIRE, path="/fs/b"),
           pdr(0x30, flag=METACH, path="/fs/c"), pdr(0x40, flag=CHANGE, path="/fs/d"),
           pdr(0x40, flag=BACKUP, path="/fs/d", show=show(size=7)), pdr(0x50, path="/fs/e")], hdr=header())
A, B, C, D, D2 = range(5)
# Bunch lines by letter: disposition, record, path, and the list it goes to.
ITEMS = {"a": ("updated", A, "/fs/a", "chg"), "b": ("expired", B, "/fs/b", "exp"),
         "c": ("ctimech", C, "/fs/c", "upd"), "d": ("updated", D, "/fs/d", "chg")}
ARGS = ["execbunch", "bunch", "chg", "exp", "upd", "db", "10"]
NO_LISTS = {"chg": None, "exp": None, "upd": None}


def bline(disp, offset, path):
    return "1 2 3 %s %016x 2010-01-01 10:00:00.000000 -- %s\n" % (disp, offset, path)


def lists(letters):
    """The list files the bunch gives; a list without lines is not created."""
    out = dict(NO_LISTS)
    for k in letters:
        out[ITEMS[k][3]] = (out[ITEMS[k][3]] or "") + '"%s"\n' % ITEMS[k][2]
    return out


def db_after(changes):
    """BASE with the records' states changed, in the width of each flag field."""
    def setflag(i, line):
        f = line.split(":")
        f[7] = "%0*x" % (len(f[7]), changes[i]) if i in changes else f[7]
        return ":".join(f)
    return BASE.hdr + "".join(setflag(i, r) for i, r in enumerate(BASE.records))


def cmds(expire=None, backup=None, update=None):
    """Client command variables: shell lines where {} is the fake client run on the list; None leaves one unset."""
    return {"KESTREL_%s_CMD" % var: c.format("sh %s %s" % (shlex.quote(FAKE), lst)) for var, c, lst in (
        ("EXPIRE", expire, "exp"), ("BACKUP", backup, "chg"), ("UPDATE", update, "upd")) if c is not None}


ALL = cmds("{}", "{}", "{}")
KILLED = "{}; kill -TERM $$"  # a wait status whose low bits reach the exit status


def R(updated, failed, status=0):
    return "::EXECANDMONITOR::%d::%d::%d::\n" % (updated, failed, status)


def case(name, out, letters="ad", db=None, env=None, files=None, expect=None, args=ARGS, log=False,
         stderr="", status=0):
    """A run over BASE with the bunch of the given letters; db: the state changes expected;
    log: the expected FAKE_LOG text (None: no client runs; False: not kept)."""
    env = dict(env or {})
    inputs = dict({"db": BASE.text(), "bunch": "".join(bline(ITEMS[k][0], BASE.at(ITEMS[k][1]), ITEMS[k][2])
                                                        for k in letters)}, **(files or {}))
    want = dict(lists(letters), db=db_after(db or {}))
    if log is not False:
        env["FAKE_LOG"] = "log"
        want["log"] = log
    want.update(expect or {})
    return {"name": name, "args": args, "env": env, "files": inputs, "expect": want, "stdout": out,
            "stderr": stderr, "status": status}


def no_other_files(test, case, out):
    with test.subTest(case=case["name"], check="no other files"):
        want = set(case["files"]) | {p for p, t in case["expect"].items() if t is not None}
        test.assertEqual(sorted(want), sorted(os.listdir(out.scratch)))


REVERTED = "quenby:QBS transaction failure. Reverting record [%s]\n"
LOCKED = dict(cmds(backup="{}"), KESTREL_LOCK_SHADOW="1")

CASES = [
    case("expire, backup, update run in order; records DELETE, NORMAL; the pair DELETE + NORMAL",
         R(1, 0) + R(2, 0) + R(1, 0), "dcba", {A: NORMAL, B: DELETE, C: NORMAL, D: DELETE, D2: NORMAL}, ALL,
         log="exp\nchg\nupd\n"),
    case("only the commands whose list was written run", R(1, 0) + R(1, 0), "cb", {B: DELETE, C: NORMAL}, ALL,
         log="exp\nupd\n"),
    case("no backup command: its message, the others run",
         R(1, 0) + "quenby: execBunch() backup command not provided in exec\n" + R(1, 0), "abcd",
         {B: DELETE, C: NORMAL}, cmds(expire="{}", update="{}"), log="exp\nupd\n"),
    case("failures after the success revert the record and the pair", R(4, 1), "ad", {}, cmds(backup="FAKE_AFTER=f {}"),
         files={"f": "Normal File-->  1,024 /fs/a  ** Unsuccessful **\nANS1228E Sending of object '/fs/d' failed.\n"},
         stderr=REVERTED % "/fs/a" + REVERTED % "/fs/d"),
    case("the last command's status is the exit status",
         "quenby: execAndMonitor() backup command close returned 15\n" + R(1, 0, 15), "a", {A: NORMAL},
         cmds(backup=KILLED), status=15),
    case("a clean command after a failed one: exit status 0",
         "quenby: execAndMonitor() backup command close returned 15\n" + R(1, 0, 15) + R(1, 0), "ac",
         {A: NORMAL, C: NORMAL}, cmds(backup=KILLED, update="{}")),
    case("the path to remove is cut out; a path without it is skipped", R(1, 0), "ad", {A: NORMAL},
         cmds(backup="{}"), files={"bunch": bline("updated", BASE.at(A), "/fs/.snap/a") + bline("updated", 9, "/fs/d")},
         args=ARGS + [".snap"], expect={"chg": '"/fs/a"\n'},
         stderr="quenby:parseBackupRecords() [.snap] not found in [/fs/d], skipping\n"),
    case("bunch size 0: usage, nothing opened", "Usage: quenby execBunch <inList> <outChange> <outExpire> "
         "<outStateChange> <shadowDB> <bunchSize> [<removePath>] \n", env=ALL, args=ARGS[:-1] + ["0"], log=None,
         expect=NO_LISTS, status=255),
    case("old-format expiry: only the expire list and command, no database, no lock", R(0, 0),
         env=dict(ALL, KESTREL_LOCK_SHADOW="1"), files={"bunch": "1 2 3 -- /fs/x\n4 5 6 -- /fs/y\n"},
         args=["execbunch", "bunch", "/dev/null", "exp", "/dev/null", "/dev/null", "10"], log="exp\n",
         expect={"exp": '"/fs/x"\n"/fs/y"\n', "chg": None, "upd": None}),
    case("outChange /dev/null with a real database is inconsistent", "quenby:execBunch(): inconsistent input\n",
         env=ALL, log=None, expect=NO_LISTS, args=["execbunch", "bunch", "/dev/null", "exp", "upd", "db", "10"],
         status=253),
    case("every line skipped: nothing runs", "quenby:execBunch() error 0 parsing records, skipping exec\n",
         env=ALL, log=None, files={"bunch": bline("deleted", BASE.at(A), "/fs/a")},
         stderr="quenby: cannot determine disposition for deleted\n", expect=NO_LISTS),
    case("a missing shadow database: the lists are written, nothing runs",
         "quenby:execBunch():could not open shadowDB nodb\n", env=ALL, log=None, args=ARGS[:5] + ["nodb", "10"],
         status=101),
    # The lock range of a single record must not overflow past the top offset.
    case("a single record at the highest offset is no crash", R(1, 0), env=LOCKED,
         files={"bunch": bline("updated", 2**63 - 1, "/fs/a")}, expect={"chg": '"/fs/a"\n', "exp": None, "upd": None},
         stderr="updateShadowPDR() read2 failed code -1\n"),
] + [
    case(what + " is a broken condition, not a crash", "", env=ALL, log=None, files={"bunch": bline("updated", at, p)},
         expect={"chg": '"%s"\n' % p}, stderr=re.compile(r"quenby:execBunch\(\) consistency check failed: \S.*\n"),
         status=240)
    for what, at, p in (("an empty path", BASE.at(A), ""), ("an offset of 0", 0, "/fs/a"))
] + [
    case("the lock covers the bunch's range, a single record 64 bytes: " + letters, R(n, 0), letters, done,
         dict(LOCKED, DEBUGquenby="2"), stderr=re.compile(r"(?ms).*^quenby: acquired shadowDB lock \[0x%x\] to "
                                                           r"\[0x%x\] db\n.*between %d and %d\).*" % (lo, hi, lo, hi)))
    for letters, n, done, lo, hi in (("a", 1, {A: NORMAL}, BASE.at(A), BASE.at(A) + 0x40),
                                     ("ad", 2, {A: NORMAL, D: DELETE, D2: NORMAL}, BASE.at(A), BASE.at(D)))
]


class ExecBunchTest(unittest.TestCase):
    def test_execbunch(self):
        for c in CASES:
            run_case(self, c, no_other_files)


if __name__ == "__main__":
    e2e_util.main()
