"""rebuildshadow end to end: records rebuilt from a server query and a scan list, the index kept."""

import e2e_util
from test_updateshadow import pdr, reflag, show

M, C, C2 = "2010-01-01 10:00:00", "2010-01-02 11:30:00", "2012-02-02 02:02:02"  # the server's words


def query(path, m=M, c=C, size=42, attr=0):
    return "%d %s %s %d %d!%s\n" % (attr, m, c, size, len(path), path)


def index(records, head=""):
    """The sorted index of head and records; the first record is indexed at 0, where the reading began."""
    offsets = [i and len(head) + sum(map(len, records[:i])) for i in range(len(records))]
    paths = [r.split("!", 1)[1].rsplit(":6!system;", 1)[0] for r in records]
    return "".join("%016x %s\n" % (o, p) for p, o in sorted(zip(paths, offsets)))


def merged(line, m=M, c=C, size=42, tail="root resdnt", flag=None):
    """The record with the merged SHOW; the server's times never have a fraction."""
    line, s = line if flag is None else reflag(line, flag), "%s.000000 %s.000000 %d %s" % (m, c, size, tail)
    return "%s;%d!%s\n" % (line[:line.rindex(";")], len(s), s)


# First in the scan list, held by no server: no record, but it heads every server-only one (fields 1, 2, 6, 7).
FIRST = pdr(6, path="d", flag=0xb)


def server_only(path, m=M, c=C, size=42):
    f, s = FIRST.split(":"), "%s.000000 %s.000000 %d root resdnt" % (m, c, size)
    return "%s:%s:000000000000000d:-0x1:0:%s:%s:0:%d!%s:6!system;%d!%s\n" % (
        f[0], f[1], f[5], f[6], len(path), path, len(s), s)


def sc(ino, path, flag=0, **show_args):
    return pdr(ino, path=path, flag=flag, show=show(**show_args))


FM, FC, KEPT = M + ".500000", C + ".123456", None
B = sc(5, "b", 0x10, ctime=FC)
ROWS = [  # what it shows, the query line (in path order), the scan record, and the record rebuilt: the scan
    # record as it is (KEPT), merged with these changes (a dict), or a server-only record
    ("server-only, before the scan; negative size as is", query("a", size=-1), None, server_only("a", size=-1)),
    ("kept: mtimes equal, attrFlag 0, ctimes differ; any flag kept", query("b", c=C2), B, KEPT),
    ("kept: attrFlag 1, both times equal", query("c", attr=1), pdr(4, path="c"), KEPT),
    ("merged: attrFlag 1, ctimes differ -> server times", query("e", c=C2, attr=1), sc(7, "e", ctime=FC), {"c": C2}),
    ("merged: attrFlag 0, mtimes differ: scan ctime, 0 fraction", query("f", c=C2), sc(8, "f", mtime=FM, ctime=FC), {}),
    ("merged: negative server size: scan size", query("g", size=-1), sc(9, "g", mtime=FM, size=4096), {"size": 4096}),
    ("merged: flag 0x10 reset to 0; migration state kept", query("h"), sc(10, "h", 0x10, mtime=FM, hsm="migrat"),
     {"flag": "00", "tail": "root migrat"}),
    ("merged: 6-field SHOW: resdnt", query("k"), sc(13, "k", mtime=FM, fileset="f2", hsm=None), {"tail": "f2 resdnt"}),
    ("paths with blanks sort by the whole name", query("x a b"), pdr(1, path="x a b"), KEPT),
    ("kept, sorted after it", query("x b", attr=1), pdr(2, path="x b"), KEPT),
    ("server-only between scan paths", query("x b c", m=C, c=C2, size=7), None, server_only("x b c", C, C2, 7)),
    ("the scan has run out: the rest are server-only", query("y", size=0), None, server_only("y", size=0)),
]
SCAN = [FIRST] + [r[2] for r in reversed(ROWS) if r[2]]  # out of order, to be sorted
REBUILT = "".join(w if s is None else s if w is KEPT else merged(s, **w) for _, _, s, w in ROWS)


CASES = [{"name": "each row of ROWS in one walk; the index left beside the list", "stdout": "",
          "args": ["rebuildshadow", "q", "scan", "out"], "expect": {"out": REBUILT, "scan.Sorted": index(SCAN)},
          "files": {"q": "".join(r[1] for r in ROWS), "scan": "".join(SCAN)}}]


if __name__ == "__main__":
    e2e_util.main(CASES)
