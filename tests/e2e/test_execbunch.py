"""execbunch end to end: the client list files, the expire, backup and
update runs of a fake client, the monitoring of its reports, the in-place
record updates, the driver's failures and the byte-range lock between
processes that run side by side.

Every case also has check_db run on it: the shadow database keeps its
length, only record flags change, and no file appears that the case does
not expect.

Run: python3 test_execbunch.py /path/to/quenby
"""

import os
import re
import shlex
import subprocess
import tempfile
import time
import unittest

import e2e_util
from e2e_util import clean_env, read_text, run_case, write_text
from test_updateshadow import Db, header, pdr, show, without_flag

FAKE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fake_client.sh")
NORMAL, METACH, BACKUP, CHANGE, DELETE, EXPIRE = 0x0, 0xa, 0xb, 0xc, 0xd, 0xe


def setflag(line, state):
    """The record with another state, in the width its flag field has."""
    f = line.split(":")
    f[7] = "%0*x" % (len(f[7]), state)
    return ":".join(f)


# A BACKUP record with a wide flag field, an EXPIRE and a METACH record, a
# CHANGE pair, and a NORMAL record that no bunch names.
BASE = Db([pdr(0x10, flag="0000000b", path="/fs/a"), pdr(0x20, flag=EXPIRE, path="/fs/b"),
           pdr(0x30, flag=METACH, path="/fs/c"), pdr(0x40, flag=CHANGE, path="/fs/d"),
           pdr(0x40, flag=BACKUP, path="/fs/d", show=show(size=7)), pdr(0x50, path="/fs/e")], hdr=header())
A, B, C, D, D2 = range(5)
# Bunch lines by letter: disposition, record, path.
ITEMS = {"a": ("updated", A, "/fs/a"), "b": ("expired", B, "/fs/b"), "c": ("ctimech", C, "/fs/c"),
         "d": ("updated", D, "/fs/d")}
LIST_OF = {"updated": "chg", "expired": "exp", "ctimech": "upd"}
ARGS = ["execbunch", "bunch", "chg", "exp", "upd", "db", "10"]


def bline(disp, offset, path):
    return "1 2 3 %s %016x 2010-01-01 10:00:00.000000 -- %s\n" % (disp, offset, path)


def bunch(letters):
    return "".join(bline(ITEMS[k][0], BASE.at(ITEMS[k][1]), ITEMS[k][2]) for k in letters)


def lists(letters, fmt='"%s"\n'):
    """The list files the bunch gives; a list without lines is not created."""
    out = {"chg": None, "exp": None, "upd": None}
    for k in letters:
        name = LIST_OF[ITEMS[k][0]]
        out[name] = (out[name] or "") + fmt % ITEMS[k][2]
    return out


def db_after(changes):
    """BASE with the records' states changed: {record: state}."""
    return BASE.hdr + "".join(setflag(r, changes[i]) if i in changes else r
                              for i, r in enumerate(BASE.records))


def client(lst, fake=None):
    """The shell command of a fake client run on a list; fake: FAKE_*
    settings, or a whole command line."""
    if isinstance(fake, str):
        return fake
    env = ["FAKE_%s=%s" % (k.upper(), shlex.quote(str(v))) for k, v in (fake or {}).items()]
    return " ".join(env + ["sh", FAKE, lst])


def cmds(expire=None, backup=None, update=None):
    """Client command variables; None leaves the variable unset."""
    wanted = (("KESTREL_EXPIRE_CMD", expire, "exp"), ("KESTREL_BACKUP_CMD", backup, "chg"),
              ("KESTREL_UPDATE_CMD", update, "upd"))
    return {var: client(lst, fake) for var, fake, lst in wanted if fake is not None}


def R(updated, failed, status=0):
    return "::EXECANDMONITOR::%d::%d::%d::\n" % (updated, failed, status)


def case(name, out, letters="ad", db=None, env=None, files=None, expect=None, args=ARGS, log=False,
         stderr="", status=0):
    """A run over BASE with the bunch of the given letters; db: the state
    changes expected; log: the expected FAKE_LOG text (None: no client runs;
    False: not kept)."""
    env = dict(env or {})
    inputs = {"bunch": bunch(letters), "db": BASE.text()}
    inputs.update(files or {})
    want = lists(letters)
    want["db"] = db_after(db or {})
    if log is not False:
        env["FAKE_LOG"] = "log"
        want["log"] = log
    want.update(expect or {})
    return {"name": name, "args": args, "env": env, "files": inputs, "expect": want, "stdout": out,
            "stderr": stderr, "status": status}


def flags_only(test, name, before, after):
    """after is before with nothing but record flags changed, to states
    that exist."""
    with test.subTest(case=name, check="only flags changed"):
        test.assertEqual(len(before), len(after))
        b, a = before.splitlines(), after.splitlines()
        test.assertEqual(len(b), len(a))
        for old, new in zip(b, a):
            if old.startswith("%"):
                test.assertEqual(old, new)
            else:
                test.assertEqual(without_flag(old), without_flag(new))
                test.assertIn(int(new.split(":")[7], 16), (0x0, 0xa, 0xb, 0xc, 0xd, 0xe))


def check_db(test, case, out):
    if "db" in case["files"] and os.path.exists(out.path("db")):
        flags_only(test, case["name"], case["files"]["db"], out.read("db"))
    with test.subTest(case=case["name"], check="no other files"):
        want = set(case["files"]) | {p for p, t in case["expect"].items() if t is not None}
        test.assertEqual(sorted(want), sorted(os.listdir(out.scratch)))


# --- the three commands -----------------------------------------------------

def command_cases():
    everything = {A: NORMAL, B: DELETE, C: NORMAL, D: DELETE, D2: NORMAL}
    return [
        case("expire, backup, update run in order; records DELETE, NORMAL; the pair DELETE + NORMAL",
             R(1, 0) + R(2, 0) + R(1, 0), "dcba", everything, cmds({}, {}, {}), log="exp\nchg\nupd\n"),
        case("only the commands whose list was written run", R(1, 0) + R(1, 0), "cb", {B: DELETE, C: NORMAL},
             cmds({}, {}, {}), log="exp\nupd\n"),
    ]


# --- the client's reports ---------------------------------------------------

REPORT_A = "Normal File-->           1,024 /fs/a [Sent]\n"
SUMMARY = (["Total number of objects inspected:        2\n",
            "Total number of objects backed up:        1\n",
            "Total number of objects updated:          0\n"]
           + ["Summary line %d\n" % i for i in range(4, 15)] + [REPORT_A])
ENCRYPTED = SUMMARY[:3] + ["Total number of objects encrypted:        0\n"] + SUMMARY[3:]
TAIL = "Elapsed processing time:           00:00:01\n"
REVERTED = "quenby:QBS transaction failure. Reverting record [%s]\n"


def report_cases():
    done = {A: NORMAL, D: DELETE, D2: NORMAL}

    def bk(**fake):
        return cmds(backup=fake)

    return [
        case("[Unchanged] counts as done", R(2, 0), "ad", done, bk(mode="unchanged")),
        case("Unsuccessful for records not done in this run changes nothing", R(2, 0), "ad", {},
             bk(mode="unsuccessful")),
        case("ANS1228E lines are counted as failed; records not done stay", R(2, 2), "ad", {}, bk(mode="ans1228")),
        case("failures after the success revert the record and the pair", R(4, 1), "ad", {},
             bk(after="late"), files={"late": "Normal File-->  1,024 /fs/a  ** Unsuccessful **\n"
                                               "ANS1228E Sending of object '/fs/d' failed.\n"},
             stderr=REVERTED % "/fs/a" + REVERTED % "/fs/d"),
        case("ANS1345E on expiry: the record is DELETE", R(1, 0), "b", {B: DELETE}, cmds(expire={"mode": "ans1345"})),
        case("another ANS message is copied", "ANS1809W Session lost; re-establishing\n" + R(1, 0), "a",
             {A: NORMAL}, bk(before="msg"), files={"msg": "ANS1809W Session lost; re-establishing\n"}),
        case("a summary block of 15 lines is copied and its last line read", "".join(SUMMARY) + R(1, 0), "a",
             {A: NORMAL}, bk(mode="silent", after="sum"), files={"sum": "".join(SUMMARY) + TAIL}),
        case("an encrypted line makes the block 16 lines", "".join(ENCRYPTED) + R(1, 0), "a",
             {A: NORMAL}, bk(mode="silent", after="sum"), files={"sum": "".join(ENCRYPTED) + TAIL}),
        case("a report without an end pattern is unrecognized",
             "quenby:QBS output unrecognized:Normal File-->           1,024 /fs/a\n" + R(0, 0), "a", {},
             bk(mode="noend")),
        case("a path not in the bunch is unrequested",
             "quenby:execAndMonitor() unrequested backup path:/fs/zz\n" + R(1, 0), "a", {A: NORMAL},
             bk(before="zz"), files={"zz": "Normal File-->  1,024 /fs/zz [Sent]\n"}),
        case("exit code 4: 1024 in the close message and the result line, exit status 0",
             "quenby: execAndMonitor() backup command close returned 1024\n" + R(1, 0, 1024), "a",
             {A: NORMAL}, bk(exit=4)),
        # A client killed by a signal has a wait status whose low bits reach the exit status.
        case("the last command's status is the exit status",
             "quenby: execAndMonitor() backup command close returned 15\n" + R(1, 0, 15), "a", {A: NORMAL},
             cmds(backup=client("chg") + "; kill -TERM $$"), status=15),
        case("a clean command after a failed one: exit status 0",
             "quenby: execAndMonitor() backup command close returned 15\n" + R(1, 0, 15) + R(1, 0), "ac",
             {A: NORMAL, C: NORMAL}, cmds(backup=client("chg") + "; kill -TERM $$", update={})),
    ]


# --- the driver -------------------------------------------------------------

USAGE = ("Usage: quenby execBunch <inList> <outChange> <outExpire> <outStateChange> <shadowDB> "
         "<bunchSize> [<removePath>] \n")
NO_LISTS = lists("")


def driver_cases():
    allcmds = cmds({}, {}, {})
    old = "1 2 3 -- /fs/x\n4 5 6 -- /fs/y\n"
    return [
        case("bunch size 0: usage, nothing opened", USAGE, env=allcmds, args=ARGS[:-1] + ["0"], log=None,
             expect=NO_LISTS, status=255),
        case("old-format expiry: only the expire list and command, no database, no lock", R(0, 0),
             env=dict(allcmds, KESTREL_LOCK_SHADOW="1"), files={"bunch": old},
             args=["execbunch", "bunch", "/dev/null", "exp", "/dev/null", "/dev/null", "10"], log="exp\n",
             expect={"exp": '"/fs/x"\n"/fs/y"\n', "chg": None, "upd": None}),
        case("outChange /dev/null with a real database is inconsistent",
             "quenby:execBunch(): inconsistent input\n", env=allcmds, log=None, expect=NO_LISTS,
             args=["execbunch", "bunch", "/dev/null", "exp", "upd", "db", "10"], status=253),
        case("every line skipped: nothing runs", "quenby:execBunch() error 0 parsing records, skipping exec\n",
             env=allcmds, log=None, files={"bunch": bline("deleted", BASE.at(A), "/fs/a")},
             stderr="quenby: cannot determine disposition for deleted\n", expect=NO_LISTS),
        case("a missing shadow database: the lists are written, nothing runs",
             "quenby:execBunch():could not open shadowDB nodb\n", env=allcmds, log=None,
             args=ARGS[:5] + ["nodb", "10"], status=101),
        case("no backup command: its message, the others run",
             R(1, 0) + "quenby: execBunch() backup command not provided in exec\n" + R(1, 0), "abcd",
             {B: DELETE, C: NORMAL}, cmds(expire={}, update={}), log="exp\nupd\n"),
        case("the path to remove is cut out; a path without it is skipped", R(1, 0), "ad", {A: NORMAL},
             cmds(backup={}), files={"bunch": bline("updated", BASE.at(A), "/fs/.snap/a") + bunch("d")},
             args=ARGS + [".snap"], expect={"chg": '"/fs/a"\n'},
             stderr="quenby:parseBackupRecords() [.snap] not found in [/fs/d], skipping\n"),
        case("NONE is no path to remove", R(2, 0), "ad", {A: NORMAL, D: DELETE, D2: NORMAL},
             cmds(backup={}), args=ARGS + ["NONE"]),
        case("KESTREL_NO_QUOTES: bare paths", R(2, 0), "ad", {A: NORMAL, D: DELETE, D2: NORMAL},
             dict(cmds(backup={}), KESTREL_NO_QUOTES=""), expect=lists("ad", "%s\n")),
    ] + [
        case(what + " is a broken condition, not a crash", "", env=allcmds, log=None,
             files={"bunch": bline("updated", offset, path)}, expect={"chg": '"%s"\n' % path},
             stderr=re.compile(r"quenby:execBunch\(\) consistency check failed: \S.*\n"), status=240)
        for what, offset, path in (("an empty path", BASE.at(A), ""), ("an offset of 0", 0, "/fs/a"))
    ] + [
        # The lock range of a single record must not overflow past the top offset.
        case("a single record at the highest offset is no crash", "::EXECANDMONITOR::1::0::0::\n",
             env=dict(cmds(backup={}), KESTREL_LOCK_SHADOW="1"), files={"bunch": bline("updated", 2**63 - 1, "/fs/a")},
             expect={"chg": '"/fs/a"\n', "exp": None, "upd": None},
             stderr="updateShadowPDR() read2 failed code -1\n")
    ] + [
        case("the lock covers the bunch's range, a single record 64 bytes: " + letters, R(n, 0), letters, done,
             dict(cmds(backup={}), KESTREL_LOCK_SHADOW="1", DEBUGquenby="2"),
             stderr=re.compile(r"(?ms).*^quenby: acquired shadowDB lock \[0x%x\] to \[0x%x\] db\n"
                               r".*between %d and %d\).*" % (first, last, first, last)))
        for letters, n, done, first, last in (
            ("a", 1, {A: NORMAL}, BASE.at(A), BASE.at(A) + 0x40),
            ("ad", 2, {A: NORMAL, D: DELETE, D2: NORMAL}, BASE.at(A), BASE.at(D)))
    ]


# --- processes side by side -------------------------------------------------

LOCK_DB = Db([pdr(0x100 + i, flag=BACKUP, path="/fs/r%d" % i) for i in range(6)], hdr=header())
SLEEP = 2
DENIED = "quenby: execBunch() shadow DB lock denied. sleeping.\n"
# name, A's records, B's records, B waits for A
LOCK_CASES = [
    ("overlapping ranges: B is denied and waits for A", (0, 2, 4), (1, 3, 5), True),
    ("disjoint ranges: A and B run side by side", (0, 1, 2), (3, 4, 5), False),
]


def wait_for(path, timeout=10):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        if os.path.exists(path) and read_text(path):
            return True
        time.sleep(0.02)
    return False


class ExecBunchTest(unittest.TestCase):
    def run_table(self, cases):
        for c in cases:
            run_case(self, c, check_db)

    def test_commands(self):
        self.run_table(command_cases())

    def test_client_reports(self):
        self.run_table(report_cases())

    def test_driver(self):
        self.run_table(driver_cases())

    def test_lock_between_processes(self):
        for name, recs_a, recs_b, waits in LOCK_CASES:
            with tempfile.TemporaryDirectory(prefix="quenby-e2e-") as d:
                self.lock_case(d, name, recs_a, recs_b, waits)

    def lock_case(self, d, name, recs_a, recs_b, waits):
        write_text(os.path.join(d, "db"), LOCK_DB.text())

        def start(tag, recs, command):
            write_text(os.path.join(d, "bunch" + tag),
                       "".join(bline("updated", LOCK_DB.at(i), "/fs/r%d" % i) for i in recs))
            env = clean_env({"KESTREL_LOCK_SHADOW": "1", "KESTREL_BACKUP_CMD": command})
            return subprocess.Popen([e2e_util.BINARY, "execbunch", "bunch" + tag, "chg" + tag, "exp", "upd",
                                     "db", "10"], cwd=d, env=env, stdin=subprocess.DEVNULL,
                                    stdout=subprocess.PIPE, stderr=subprocess.PIPE)

        # "order" gets A's line when its client ends and B's when its client starts.
        began = time.monotonic()
        procs = [start("A", recs_a, client("chgA", {"log": "heldA", "sleep": SLEEP}) + "; echo A >> order")]
        try:
            with self.subTest(case=name, check="A holds its lock"):
                self.assertTrue(wait_for(os.path.join(d, "heldA")))
            procs.append(start("B", recs_b, "echo B >> order; " + client("chgB", {"sleep": SLEEP})))
            outs = [p.communicate(timeout=30) for p in procs]
        finally:
            for p in procs:
                if p.poll() is None:
                    p.kill()
                    p.wait(timeout=10)
        elapsed = time.monotonic() - began

        with self.subTest(case=name, check="results"):
            result = R(3, 0)
            self.assertEqual([(0, result, ""), (0, DENIED + result if waits else result, "")],
                             [(p.returncode, o.decode(), e.decode()) for p, (o, e) in zip(procs, outs)])
        with self.subTest(case=name, check="order and time"):
            self.assertEqual("A\nB\n" if waits else "B\nA\n", read_text(os.path.join(d, "order")))
            if waits:
                self.assertGreaterEqual(elapsed, 2 * SLEEP)
            else:
                self.assertLess(elapsed, 2 * SLEEP - 0.5)
        after = read_text(os.path.join(d, "db"))
        with self.subTest(case=name, check="file db"):
            want = LOCK_DB.hdr + "".join(setflag(r, NORMAL) for r in LOCK_DB.records)
            self.assertEqual(want, after)
        flags_only(self, name, LOCK_DB.text(), after)


if __name__ == "__main__":
    e2e_util.main()
