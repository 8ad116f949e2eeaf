"""verifyshadow end to end: report lines, summary and result line of the
walks against a prep list and a server query, the header check, the report
name and the sort failure.

Run: python3 test_verifyshadow.py /path/to/quenby
"""

import os
import re
import time
import unittest

import e2e_util
from e2e_util import run_case
from test_rebuildshadow import index, query
from test_updateshadow import header, pdr, show

HDR = header()
FLAGS = ["NORMAL(0x0)", "METACH(0xa)", "BACKUP(0xb)", "CHANGE(0xc)", "DELETE(0xd)", "EXPIRE(0xe)"]
OPTIONAL = ["invalid entries in shadow", "files (unlinked fileset) in shadow",
            "entries with wrong record flag in shadow", "valid entries in list",
            "unhandled files in list", "entries with unsupported characters in list"]


def summary(flags=(), opt=(), report="rep", query_mode=False):
    """Counts by record flag in FLAGS order, then OPTIONAL ones, zero ones left out."""
    flags = (list(flags) + [0] * 6)[:1 if query_mode else 6]
    lines = [("total number of entries with record flag " + f, n) for f, n in zip(FLAGS, flags)]
    lines += [("total number of " + l, n) for l, n in zip(OPTIONAL, opt) if n]
    return ("quenby verifyshadow summary infomation:\n" + "".join("%-61s:%d\n" % ln for ln in lines)
            + "verifyShadow done, see %s to track files that cannot pass verification\n" % report)


def qsummary(flags, opt):
    return summary(flags, opt, query_mode=True)


def result(code=0, invalid=0, unhandled=0):
    return "::VERIFYSHADOW::0::\n" if code == 0 else "::VERIFYSHADOW::%d::%d::%d::\n" % (code, invalid, unhandled)


def case(name, shadow, report, out, query=None, prep=None, args=None, files=(), **extra):
    """shadow: records after a good header (or the whole text); prep: the prep list's (default: shadow's)."""
    files = dict({"shadow": shadow if isinstance(shadow, str) else HDR + "".join(shadow)}, **dict(files))
    if query is None:
        files["prep"] = "".join(shadow if prep is None else prep)
    else:
        files["q"] = "".join(query)
    c = {"name": name, "files": files, "expect": dict({"rep": "".join(report)}, **extra.pop("expect", {})),
         "stdout": out, "args": args or ["verifyshadow", "shadow", "prep", "rep"] + ["q"] * (query is not None)}
    code = int(out.splitlines()[-1].split("::")[2]) if isinstance(out, str) else 0
    c["status"] = code & 0xff  # the result's low eight bits
    c.update(extra)
    return c


N1, N2, C10, N10 = pdr(1), pdr(2), pdr(0x10, flag=0xc), pdr(0x10)
SHOW_TEXT = "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 %d"
CHANGE, EXPIRE = "File with CHANGE flag: %016x %s\n", "File with EXPIRE flag: %016x %s\n"
ONLY = "Files only in shadow(could be unlinked fset): %016x %s %s\n"
LASTINO = "Check lastIno failed: lastIno %016x lastPath %s currIno %016x\n"
UNHANDLED = "Unhandled file in prep list: %016x %s\n"

LIST = [
    case("each flag counted, EXPIRE reported, DELETE not", [N1, pdr(2, flag=0xa), pdr(3, flag=0xb), pdr(4, flag=0xe),
                                                            pdr(5, flag=0xd), pdr(6)],
         [EXPIRE % (4, "dir/f4")], summary([2, 1, 1, 0, 1, 1], [0, 0, 0, 4]) + result(),
         prep=[N1, pdr(2, flag=0xa), pdr(3, flag=0xb), pdr(6)]),
    case("internal path in shadow", [pdr(1, path=".kestrelShadow"), N2],
         ["INTERNAL file or UNSUPPORTED characters in shadow: 0000000000000001 .kestrelShadow\n"],
         summary([1], [1, 0, 0, 1]) + result(1, 1), prep=[N2]),
    case("wrong HSM state, and none at all", [pdr(1, show=show(hsm="offlin")), pdr(2, show=show(hsm=None))],
         ["Wrong migration state flag: 0000000000000001 dir/f1 offlin\n",
          "Wrong migration state flag: 0000000000000002 dir/f2 \n"], summary([2], [2, 0, 0, 2]) + result(1, 2)),
    case("CHANGE pair", [C10, N10, pdr(0x11)], [CHANGE % (0x10, "dir/f10")],
         summary([2, 0, 0, 1], [0, 0, 0, 2]) + result(), prep=[N10, pdr(0x11)]),
    case("two CHANGE in a row", [C10, C10, N10],
         [CHANGE % (0x10, "dir/f10"), LASTINO % (0x10, "dir/f10", 0x10), CHANGE % (0x10, "dir/f10")],
         summary([1, 0, 0, 2], [1, 0, 0, 1]) + result(1, 1), prep=[N10]),
    case("EXPIRE of the list's inode waits for a live record of it", [pdr(5, flag=0xe), pdr(6)],
         [EXPIRE % (5, "dir/f5"), LASTINO % (5, "dir/f5", 6), UNHANDLED % (5, "dir/f5"), ONLY % (6, "dir/f6", "root")],
         summary([1, 0, 0, 0, 0, 1], [1, 1, 0, 1, 1]) + result(1, 1, 1), prep=[pdr(5)]),
    case("unknown flag: not compared", [pdr(1, flag=5)],
         ["Record flag is UNKNOWN: 0000000000000001 dir/f1\n", UNHANDLED % (1, "dir/f1")],
         summary([], [0, 0, 1, 1, 1]) + result(1, 0, 1), prep=[N1]),
    case("CHANGE pair only in shadow, with a fileset", [pdr(1, flag=0xc), pdr(1, show=show(fileset="fs1")), N2],
         [CHANGE % (1, "dir/f1"), ONLY % (1, "dir/f1", "fs1")],
         summary([2, 0, 0, 1], [0, 1, 0, 1]) + result(), prep=[N2]),
    case("only in shadow without a fileset", [pdr(1, show=show(fileset="")), N2],
         ["Unvalid file in shadow: 0000000000000001 dir/f1\n"], summary([2], [1, 0, 0, 1]) + result(1, 1), prep=[N2]),
    case("same inode, other path", [pdr(1, path="a"), N2],
         ["Inode/Path not matched: shadow 0000000000000001 a list 0000000000000001 b\n", UNHANDLED % (1, "b")],
         summary([2], [1, 0, 0, 2, 1]) + result(1, 1, 1), prep=[pdr(1, path="b"), N2]),
    case("attributes differ; unsupported list path skipped", [N1],
         ["Attr not matched: shadow 0000000000000001 dir/f1 %s list 0000000000000001 dir/f1 %s\n"
          % (SHOW_TEXT % 42, SHOW_TEXT % 43)], summary([1], [1, 0, 0, 1, 0, 1]) + result(1, 1),
         prep=[pdr(1, show=show(size=43)), pdr(9, path="bad\x18")]),
    case("header version 1300", header(version=1300) + N1, [], result(-1),
         stderr="quenby::VERIFYSHADOW::1::shadow file version 1300 shadow hdr version 1400\n"),
    case("lower-case none is a file name", [N1], [], summary([1], [0, 0, 0, 1], "none") + result(),
         args=["verifyshadow", "shadow", "prep", "none"], expect={"rep": None, "none": ""}),
]

DEFAULT_RE = r"/tmp/quenby\.verifyShadow\.\d{8}\.\d{6}"
DEFAULT_OUT = re.compile(re.escape(summary([1], [0, 0, 0, 1], "@") + result()).replace("@", DEFAULT_RE))
DEFAULT_NAMED = [case(name, [N1], [], DEFAULT_OUT, args=["verifyshadow", "shadow", "prep"] + more,
                      expect={"rep": None})
                 for name, more in (("report NONE: default name", ["NONE"]), ("no report name", []))]


def check_default_report(test, case, out):
    """The summary names an empty report stamped with the start time."""
    for name in re.findall(DEFAULT_RE, out.stdout):
        with test.subTest(case=case["name"], check="default report"):
            test.assertEqual("", e2e_util.read_text(name))
            os.remove(name)
            test.assertLess(abs(time.time() - time.mktime(time.strptime(name[-15:], "%Y%m%d.%H%M%S"))), 120)


A, B, C = pdr(2, path="a"), pdr(3, path="b"), pdr(1, path="c")
MISSING, UNVALID = "File doesn't exist in Shadow: %s\n", "Unvalid file in shadow: %016x %s\n"

QUERY = [
    case("server times counted only with attrFlag 1; the sorted index kept", [B, A],
         ["Attribute is error: 0000000000000002 a %s\n" % (SHOW_TEXT % 42)],
         qsummary([2], [1]) + result(1, 1),
         query=[query("a", c="2010-01-02 11:31:00", attr=1), query("b", c="2010-01-02 11:31:00")],
         expect={"shadow.Sorted": index([B, A], HDR)}),
    case("query a, b, d; shadow a, c: missing, unvalid, missing at the end", [C, A],
         [MISSING % "b", UNVALID % (1, "c"), MISSING % "d"], qsummary([2], [3]) + result(1, 3),
         query=[query(p) for p in "abd"]),
    case("query b; shadow a, b, c: unvalid, and at the end", [C, A, B], [UNVALID % (2, "a"), UNVALID % (1, "c")],
         qsummary([2], [2]) + result(1, 2), query=[query("b")]),
    case("BACKUP record", [pdr(2, path="a", flag=0xb)], ["Record flag is error: 0000000000000002 a 0xb\n"],
         qsummary([], [1]) + result(1, 1), query=[query("a")]),
    case("internal and unsupported query paths, also after the shadow's end", [A, B], [],
         qsummary([2], [0, 0, 0, 0, 0, 3]) + result(),
         query=[query(".kestrelx"), query("a"), query("a\x19"), query("b"), query("c\x19")]),
    case("the sort fails", [A], [], result(256), query=[query("a")], files={"failsort": "exit 1\n"},
         env={"KESTREL_SORT_OPTIONS": "sh failsort"},
         stderr=re.compile(r"quenby: sortFile: system\(sh failsort .*\) returned 256\n"
                           r"quenby:VERIFYSHADOW::1::sort scan shadow file fail, rc = 256\n")),
]


class VerifyShadow(unittest.TestCase):
    def test_verifyshadow(self):
        for c in LIST + DEFAULT_NAMED + QUERY:
            run_case(self, c, check_default_report)


if __name__ == "__main__":
    e2e_util.main()
