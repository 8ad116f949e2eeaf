"""clustermigdiff end to end: two scan lists compared into a changed and an
expired list, every line with offset 0; the decisions, both drains and the
failures.

Run: python3 test_clustermigdiff.py /path/to/quenby
"""

import unittest

import e2e_util
from e2e_util import run_case
from test_updateshadow import ANY_GEN, T2, pdr, reflag, show, worklist

UPD, MCH, EXP = "updated ", "ctimech ", "expired "
X = pdr(0x20)


def chg(line, keyword=UPD, flag=0xb):
    """A changed line; flag None keeps the scan list's own flag."""
    return worklist(keyword, 0, line if flag is None else reflag(line, flag))


def exp(line):
    return worklist(EXP, 0, reflag(line, 0xe))


def case(name, old, new, changed=(), expired=(), out=None, args=("old", "new", "chg", "exp"), files=None,
         **extra):
    c = {"name": name, "args": ["clustermigdiff"] + list(args),
         "files": dict({"old": "".join(old), "new": "".join(new)}, **(files or {})),
         "expect": {"chg": "".join(changed), "exp": "".join(expired)},
         "stdout": out or "::CLUSTERMIGDIFF::0::%d::%d::0::\n" % (len(changed), len(expired))}
    c.update(extra)
    return c


def cases():
    # Old flags play no part; internal paths are skipped on both sides; the
    # stale lists are truncated.
    old = [pdr(0x05, path=".kestrelShadow"), pdr(0x08, flag=0xd), X, pdr(0x30, path="dir/a"), pdr(0x40),
           pdr(0x50, gen=ANY_GEN), pdr(0x60, gen=ANY_GEN, flag=0xd), pdr(0x70, flag=0xe), pdr(0x80)]
    new = [pdr(0x02, path="."), pdr(0x04), X, pdr(0x30, path="dir/b"), pdr(0x40, gen=2), pdr(0x50, gen=7),
           pdr(0x60, gen=9, show=show(size=43)),
           pdr(0x70, show=show(mtime="2010-01-01 10:00:00.500000", ctime="2010-01-02 11:30:00.250000")),
           pdr(0x80, show=show(fileset="other")), pdr(0x90, path=".execScript/run"), pdr(0xa0, path="a/.kestrel")]
    decisions = case("new, gone, same, moved, reused inode, any generation, differences that do not matter",
                     old, new, [chg(new[1]), chg(new[3]), chg(new[4]), chg(new[6], flag=None), chg(new[10])],
                     [exp(old[1]), exp(old[3])], files={"chg": "stale\n" * 9, "exp": "stale\n" * 9})

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
    changed = [pdr(r[0], show=r[2], flag=r[3]) for r in rows]
    shows = case("a changed SHOW is listed with the scan list's own flag", [pdr(r[0], show=r[1]) for r in rows],
                 changed, [chg(n, r[4], flag=None) for r, n in zip(rows, changed) if r[4]])

    recs = [pdr(0x10), pdr(0x18, flag=0xa), pdr(0x30, path="a b")]
    odd_old = [pdr(0x10, path="odd\x18name"), pdr(0x30, path="gone\x19")]
    odd_new = [pdr(0x10, path="odd\x18name", show=show(size=43)), pdr(0x40, path="new\x18")]
    failed = "quenby::CLUSTERMIGDIFFERR::-1::%d::0::0::\n"
    opened = "quenby::CLUSTERMIGDIFFERR::1::could not open %s (error=2)\n"
    missing_old = case("a missing old list", [], [pdr(0x10)], out=failed % 0, stderr=opened % "old for read",
                       status=255, expect={"chg": None, "exp": None})
    del missing_old["files"]["old"]
    return [
        decisions, shows,
        case("an empty old list: everything backed up", [], recs, [chg(r) for r in recs]),
        case("an empty new list: everything expired", recs, [], expired=[exp(r) for r in recs]),
        case("paths with 0x18 and 0x19 are compared like any other", odd_old, odd_new,
             [chg(odd_new[0], flag=None), chg(odd_new[1])], [exp(odd_old[1])]),
        missing_old,
        case("a changed list in a missing directory", [X], [X], args=("old", "new", "nodir/chg", "exp"),
             out=failed % 0, stderr=opened % "nodir/chg for writing", status=255, expect={"nodir": None, "exp": None}),
        case("a malformed record ends the run after what was written", [], [X, "garbage\n"], [chg(X)],
             out=failed % 1, stderr="quenby: failed to parse shadow line [1]garbage\n\n", status=255),
    ]


class ClusterMigDiffTest(unittest.TestCase):
    def test_cases(self):
        for c in cases():
            run_case(self, c)


if __name__ == "__main__":
    e2e_util.main()
