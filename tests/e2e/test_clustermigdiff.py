"""clustermigdiff end to end: two scan lists compared into work lists, every line with offset 0."""

import e2e_util
from test_updateshadow import ANY_GEN, T2, pdr, reflag, show, worklist

UPD, MCH = "updated ", "ctimech "


def chg(line, keyword=UPD, flag=0xb):
    """A changed line; flag None keeps the scan list's own flag."""
    return worklist(keyword, 0, line if flag is None else reflag(line, flag))


def exp(line):
    return worklist("expired ", 0, reflag(line, 0xe))


def case(name, old, new, changed=(), expired=(), out=None, args=("old", "new", "chg", "exp"), files=(), **extra):
    return dict({"name": name, "args": ["clustermigdiff"] + list(args), "expect": {"chg": "".join(changed),
                 "exp": "".join(expired)}, "files": dict({"old": "".join(old), "new": "".join(new)}, **dict(files)),
                 "stdout": out or "::CLUSTERMIGDIFF::0::%d::%d::0::\n" % (len(changed), len(expired))}, **extra)


# Old flags play no part; internal paths are skipped on both sides, paths with 0x18 and 0x19 compared like others.
X = pdr(0x20, path="odd\x18name")
OLD = [pdr(0x05, path=".kestrelShadow"), pdr(0x08, flag=0xd), X, pdr(0x30, path="dir/a"), pdr(0x40),
       pdr(0x50, gen=ANY_GEN), pdr(0x60, gen=ANY_GEN, flag=0xd), pdr(0x70, flag=0xe), pdr(0x80)]
NEW = [pdr(0x02, path="."), pdr(0x04), X, pdr(0x30, path="dir/b"), pdr(0x40, gen=2), pdr(0x50, gen=7),
       pdr(0x60, gen=9, show=show(size=43)),
       pdr(0x70, show=show(mtime="2010-01-01 10:00:00.500000", ctime="2010-01-02 11:30:00.250000")),
       pdr(0x80, show=show(fileset="other")), pdr(0x90, path=".execScript/run"), pdr(0xa0, path="a/.kestrel\x19")]
ROWS = [  # ino, old SHOW, new SHOW, new record's flag, keyword (None: not listed)
    (0x10, show(), show(size=43), 3, UPD),
    (0x30, show(), show(ctime=T2), 5, MCH),
    (0x40, show(), show(hsm="migrat"), 0, MCH),
    (0x50, show(hsm="migrat"), show(hsm="premig"), 0, UPD),
    (0x60, show(hsm="migrat"), show(hsm=None), 0, UPD),
    (0x70, show(hsm=None), show(hsm="migrat"), 0, None),
]
CHANGED = [pdr(r[0], show=r[2], flag=r[3]) for r in ROWS]
FAILED = "quenby::CLUSTERMIGDIFFERR::-1::%d::0::0::\n"
CASES = [
    case("new, gone, same, moved, reused inode, any generation, differences that do not matter", OLD, NEW,
         [chg(NEW[i]) for i in (1, 3, 4)] + [chg(NEW[6], flag=None), chg(NEW[10])], [exp(OLD[1]), exp(OLD[3])],
         files={"chg": "stale\n" * 9, "exp": "stale\n" * 9}),
    case("a changed SHOW is listed with the scan list's own flag; the new list runs out first",
         [pdr(r[0], show=r[1]) for r in ROWS] + [pdr(0x90)], CHANGED,
         [chg(n, r[4], flag=None) for r, n in zip(ROWS, CHANGED) if r[4]], [exp(pdr(0x90))]),
    case("a changed list in a missing directory", [X], [X], args=("old", "new", "nodir/chg", "exp"), out=FAILED % 0,
         stderr="quenby::CLUSTERMIGDIFFERR::1::could not open nodir/chg for writing (error=2)\n", status=255,
         expect={"nodir": None, "exp": None}),
    case("a malformed record: neither list appears", [], [X, "garbage\n"], out=FAILED % 1,
         stderr="quenby: failed to parse shadow line [1]garbage\n\n", status=255, expect={"chg": None, "exp": None}),
]


if __name__ == "__main__":
    e2e_util.main(CASES)
