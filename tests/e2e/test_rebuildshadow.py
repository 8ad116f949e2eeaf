"""rebuildshadow end to end: the records rebuilt from a server query and a
scan list, the sorted index left beside the scan list, and the failures.

Run: python3 test_rebuildshadow.py /path/to/quenby
"""

import re
import unittest

import e2e_util
from e2e_util import NONZERO, run_case
from test_updateshadow import pdr, reflag, show

M, C = "2010-01-01 10:00:00", "2010-01-02 11:30:00"  # the server's words
C2 = "2012-02-02 02:02:02"


def query(path, m=M, c=C, size=42, attr=0):
    """One server query line."""
    return "%d %s %s %d %d!%s\n" % (attr, m, c, size, len(path), path)


def resow(line, new_show):
    """The record with its SHOW replaced."""
    return "%s;%d!%s\n" % (line[:line.rindex(";")], len(new_show), new_show)


def server_only(first, path, m=M, c=C, size=42):
    """The record made for a path only the server holds, headed by fields
    1, 2, 6 and 7 of the scan list's first record."""
    f = first.split(":")
    s = "%s.000000 %s.000000 %d root resdnt" % (m, c, size)
    return "%s:%s:000000000000000d:-0x1:0:%s:%s:0:%d!%s:6!system;%d!%s\n" % (
        f[0], f[1], f[5], f[6], len(path), path, len(s), s)


def index(records, head=""):
    """The sorted index of a list of head and records; the first record is
    indexed at 0, where the reading began."""
    offsets = [i and len(head) + sum(map(len, records[:i])) for i in range(len(records))]
    paths = [r.split("!", 1)[1].rsplit(":6!system;", 1)[0] for r in records]
    return "".join("%016x %s\n" % (o, p) for p, o in sorted(zip(paths, offsets)))


# The server's times never have a fraction.
FRAC_M = show(mtime=M + ".500000")
FRAC_C = show(ctime=C + ".123456")
B = pdr(5, path="b", show=FRAC_C)
D = pdr(6, path="d")


def case(name, queries, scan, out, expect=(), files=(), scan_name="scan", **extra):
    """out is the rebuilt shadow's lines, or None when it must not exist."""
    c = {"name": name, "args": ["rebuildshadow", "q", scan_name, "out"],
         "files": dict({"q": "".join(queries), scan_name: "".join(scan)}, **dict(files)),
         "expect": dict({"out": out if out is None else "".join(out)}, **dict(expect)),
         "stdout": ""}
    c.update(extra)
    return c


def merged(line, m=M, c=C, size=42, tail="root resdnt", flag=None):
    line = line if flag is None else reflag(line, flag)
    return resow(line, "%s.000000 %s.000000 %d %s" % (m, c, size, tail))


RECORDS = [
    case("kept: mtimes equal, attrFlag 0, ctimes differ; any flag kept",
         [query("b", c=C2)], [reflag(B, 0x10)], [reflag(B, 0x10)]),
    case("kept: attrFlag 1, both times equal",
         [query("b", attr=1)], [pdr(5, path="b")], [pdr(5, path="b")]),
    case("merged: attrFlag 1, ctimes differ -> server mtime and ctime",
         [query("b", c=C2, attr=1)], [B], [merged(B, c=C2)]),
    case("merged: attrFlag 0, mtimes differ -> scan ctime, fraction cleared",
         [query("b", c=C2)], [pdr(5, path="b", show=show(mtime=M + ".500000", ctime=C + ".123456"))],
         [merged(pdr(5, path="b"))]),
    case("merged: negative server size takes the scan's size",
         [query("b", size=-1)], [pdr(5, path="b", show=show(mtime=M + ".500000", size=4096))],
         [merged(pdr(5, path="b"), size=4096)]),
    case("merged: flag 0x10 reset to 0, flag b kept",
         [query("b"), query("c")],
         [pdr(5, path="b", flag=0x10, show=FRAC_M), pdr(7, path="c", flag=0xb, show=FRAC_M)],
         [merged(pdr(5, path="b"), flag="00"), merged(pdr(7, path="c", flag=0xb))]),
    case("merged: fileset and migration state carried, six-field SHOW gives resdnt",
         [query("b"), query("c")],
         [pdr(5, path="b", show=show(mtime=M + ".500000", fileset="fs1", hsm="migrat")),
          pdr(7, path="c", show=show(mtime=M + ".500000", fileset="fs2", hsm=None))],
         [merged(pdr(5, path="b"), tail="fs1 migrat"), merged(pdr(7, path="c"), tail="fs2 resdnt")]),
    case("server-only: head from the first scan record, negative size as is",
         [query("a", size=-1)],
         ["c:2f:0000000000000009:1:7f:abc:def:0:1!z:6!system;68!%s.000000 %s.000000 42 root resdnt\n" % (M, C)],
         ["c:2f:000000000000000d:-0x1:0:abc:def:0:1!a:6!system;68!"
          "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 -1 root resdnt\n"]),
    case("query a, b, c against unsorted scan d, b; index left beside the list",
         [query("a"), query("b", c=C2, attr=1), query("c", m=C, c=C2, size=7)], [D, B],
         [server_only(D, "a"), merged(B, c=C2), server_only(D, "c", m=C, c=C2, size=7)],
         expect={"scan.Sorted": index([D, B])}),
    case("scan runs out first: the rest are server-only",
         [query("b"), query("c"), query("e", size=0)], [B],
         [B, server_only(B, "c"), server_only(B, "e", size=0)]),
    case("paths with blanks sort by the whole name",
         [query("x a b"), query("x b", attr=1), query("x b c")],
         [pdr(2, path="x b"), pdr(1, path="x a b")],
         [pdr(1, path="x a b"), pdr(2, path="x b"), server_only(pdr(2), "x b c")]),
    case("an empty query file gives an empty shadow", [], [B, D], []),
]

FAILURES = [
    case("scan list without records: no headless records", [query("a")], [], [],
         stderr=re.compile(r"quenby.*\n(.*\n)*"), status=NONZERO),
    dict(case("missing query file", [], [B], None),
         args=["rebuildshadow", "nq", "scan", "out"], status=254,
         stderr="quenby: fopen qbs query: No such file or directory\n"
                "quenby: rebuildShadow: could not open nq\n"
                "quenby:rebuildShadow: Failed with rc=-2\n"),
    case("the sort fails", [query("b")], [B], None, files={"failsort": "exit 1\n"},
         env={"KESTREL_SORT_OPTIONS": "sh failsort"}, status=255,
         stderr=re.compile(r"quenby: sortFile: system\(sh failsort .*\) returned 256\n"
                           r"quenby rebuildShadow : sort scan list file fail, rc = 256\n")),
    case("malformed query line", ["1 2010-01-01\n"], [B], [], status=255,
         stderr="quenby: readQueryRecord: failed to parse query record line [1 2010-01-01\n]\n"
                "quenby: rebuildShadow: failed reading QBS record, rc=-1\n"
                "quenby:rebuildShadow: Failed with rc=-1\n"),
    case("scan list named with a blank and a quote", [query("b", c=C2)], [B], [B],
         scan_name="my scan'list", expect={"my scan'list.Sorted": index([B])}),
]


class RebuildShadow(unittest.TestCase):
    def test_records(self):
        for c in RECORDS:
            run_case(self, c)

    def test_failures(self):
        for c in FAILURES:
            run_case(self, c)


if __name__ == "__main__":
    e2e_util.main()
