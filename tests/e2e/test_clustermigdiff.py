"""clustermigdiff end to end: two scan lists compared into a changed and an
expired list, every line with offset 0; the decisions, both drains and the
failures.

Run: python3 test_clustermigdiff.py /path/to/quenby
"""

import unittest

import e2e_util
from e2e_util import run_case
from test_updateshadow import T2, pdr, reflag, show, worklist

UPD, MCH, EXP = "updated ", "ctimech ", "expired "
ALL_ONES = 0xffffffffffffffff
X = pdr(0x20)


def chg(line, keyword=UPD, flag=0xb):
    """A changed line; flag None keeps the scan list's own flag."""
    return worklist(keyword, 0, line if flag is None else reflag(line, flag))


def exp(line):
    return worklist(EXP, 0, reflag(line, 0xe))


def ok(changed, expired):
    return "::CLUSTERMIGDIFF::0::%d::%d::0::\n" % (changed, expired)


def failed(changed=0, expired=0):
    return "quenby::CLUSTERMIGDIFFERR::-1::%d::%d::0::\n" % (changed, expired)


def case(name, old, new, changed=(), expired=(), out=None, args=("old", "new", "chg", "exp"),
         files=None, **extra):
    inputs = {"old": "".join(old), "new": "".join(new)}
    inputs.update(files or {})
    c = {"name": name, "args": ["clustermigdiff"] + list(args), "files": inputs,
         "expect": {"chg": "".join(changed), "exp": "".join(expired)},
         "stdout": out or ok(len(changed), len(expired))}
    c.update(extra)
    return c


def decision_cases():
    A = pdr(0x10)
    moved_old, moved_new = pdr(0x10, path="dir/a"), pdr(0x10, path="dir/b")
    any_old = [pdr(0x10, gen=ALL_ONES), pdr(0x30, gen=ALL_ONES)]
    any_new = [pdr(0x10, gen=7), pdr(0x30, gen=9, show=show(size=43))]
    quiet = [pdr(0x10, show=show(mtime="2010-01-01 10:00:00.500000", ctime="2010-01-02 11:30:00.250000")),
             pdr(0x30, show=show(fileset="other"))]
    return [
        case("a new file is backed up", [X], [A, X], [chg(A)]),
        case("identical lists list nothing", [A, X], [A, X]),
        case("a gone file is expired", [A, X], [X], expired=[exp(A)]),
        case("a moved file: the old path expired, the new one backed up", [moved_old, X], [moved_new, X],
             [chg(moved_new)], [exp(moved_old)]),
        case("a reused inode is backed up, the old file not expired", [A, X], [pdr(0x10, gen=2), X],
             [chg(pdr(0x10, gen=2))]),
        case("an all-ones old generation matches any generation", any_old, any_new,
             [chg(any_new[1], flag=None)]),
        case("fraction-only and fileset-only differences change nothing", [A, pdr(0x30)], quiet),
    ]


def show_change_cases():
    rows = [  # ino, old SHOW, new SHOW, new record's flag, keyword (None: not listed)
        (0x10, show(), show(size=43), 3, UPD),
        (0x20, show(), show(mtime=T2), 0, UPD),
        (0x30, show(), show(ctime=T2), 5, MCH),
        (0x40, show(), show(hsm="migrat"), 0, MCH),
        (0x50, show(hsm="migrat"), show(hsm="premig"), 0, UPD),
        (0x60, show(hsm="migrat"), show(hsm=None), 0, UPD),
        (0x70, show(hsm=None), show(hsm="migrat"), 0, None),
        (0x80, show(mtime="2010-01-01 10:00:00.000001"), show(mtime="2010-01-01 10:00:00.000002"), 0, UPD),
    ]
    old = [pdr(r[0], show=r[1]) for r in rows]
    new = [pdr(r[0], show=r[2], flag=r[3]) for r in rows]
    listed = [chg(n, r[4], flag=None) for r, n in zip(rows, new) if r[4]]
    return [case("a changed SHOW is listed with the scan list's own flag", old, new, listed)]


def stage_cases():
    recs = [pdr(0x10), pdr(0x18, flag=0xa), pdr(0x30, path="a b")]
    flagged_old = [pdr(0x10, flag=0xe), pdr(0x30, flag=0xd), pdr(0x40, flag=0xd)]
    flagged_new = [pdr(0x10), pdr(0x30, show=show(size=43))]
    internal_old = [pdr(0x05, path=".kestrelShadow"), X]
    internal_new = [pdr(0x08, path="."), X, pdr(0x30, path=".execScript/run"), pdr(0x40, path="a/.kestrel")]
    odd_old = [pdr(0x10, path="odd\x18name"), pdr(0x30, path="gone\x19")]
    odd_new = [pdr(0x10, path="odd\x18name", show=show(size=43)), pdr(0x40, path="new\x18")]
    return [
        case("an empty old list: everything backed up", [], recs, [chg(r) for r in recs]),
        case("an empty new list: everything expired", recs, [], expired=[exp(r) for r in recs]),
        case("old flags EXPIRE and DELETE play no part", flagged_old, flagged_new,
             [chg(flagged_new[1], flag=None)], [exp(flagged_old[2])]),
        case("internal paths are skipped on both sides", internal_old, internal_new, [chg(internal_new[3])]),
        case("paths with 0x18 and 0x19 are compared like any other", odd_old, odd_new,
             [chg(odd_new[0], flag=None), chg(odd_new[1])], [exp(odd_old[1])]),
        case("both lists truncated at the start", [pdr(0x10), X], [X, pdr(0x30)], [chg(pdr(0x30))],
             [exp(pdr(0x10))], files={"chg": "stale changed\n" * 9, "exp": "stale expired\n" * 9}),
    ]


def failure_cases():
    opened = "quenby::CLUSTERMIGDIFFERR::1::could not open %s (error=2)\n"
    A = pdr(0x10)
    missing_old = case("a missing old list", [], [A], out=failed(), stderr=opened % "old for read", status=255)
    del missing_old["files"]["old"]
    missing_old["expect"] = {"chg": None, "exp": None}
    return [
        missing_old,
        dict(case("a changed list in a missing directory", [A], [A], args=("old", "new", "nodir/chg", "exp"),
                  out=failed(), stderr=opened % "nodir/chg for writing", status=255),
             expect={"nodir": None, "exp": None}),
        case("a malformed record ends the run after what was written", [], [A, "garbage\n"], [chg(A)],
             out=failed(1), stderr="quenby: failed to parse shadow line [1]garbage\n\n", status=255),
    ]


class ClusterMigDiffTest(unittest.TestCase):
    def run_table(self, cases):
        for c in cases:
            run_case(self, c)

    def test_decisions(self):
        self.run_table(decision_cases())

    def test_show_changes(self):
        self.run_table(show_change_cases())

    def test_drains_flags_and_paths(self):
        self.run_table(stage_cases())

    def test_failures(self):
        self.run_table(failure_cases())


if __name__ == "__main__":
    e2e_util.main()
