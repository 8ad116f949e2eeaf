"""verifyshadow end to end: the report lines, summary and result line of
the walk against a prep list and of the walk against a server query, the
header check, the report file name and the sort failure.

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


def summary(report="rep", flags=(), opt=(), query_mode=False):
    """flags: the counts by record flag in FLAGS order; opt: the optional
    counts in OPTIONAL order, zero ones left out."""
    flags = (list(flags) + [0] * 6)[:1 if query_mode else 6]
    lines = [("total number of entries with record flag " + f, n) for f, n in zip(FLAGS, flags)]
    lines += [("total number of " + l, n) for l, n in zip(OPTIONAL, opt) if n]
    return ("quenby verifyshadow summary infomation:\n"
            + "".join("%-61s:%d\n" % ln for ln in lines)
            + "verifyShadow done, see %s to track files that cannot pass verification\n" % report)


def result(code=0, invalid=0, unhandled=0):
    return "::VERIFYSHADOW::0::\n" if code == 0 else "::VERIFYSHADOW::%d::%d::%d::\n" % (code, invalid, unhandled)


def case(name, shadow, report, out, query=None, prep=None, args=None, files=(), **extra):
    """shadow: records after a good header (or the whole text); prep: the
    prep list records (default: shadow's); query: query lines or None."""
    files = dict({"shadow": shadow if isinstance(shadow, str) else HDR + "".join(shadow)}, **dict(files))
    if query is None:
        files["prep"] = "".join(shadow if prep is None else prep)
    else:
        files["q"] = "".join(query)
    c = {"name": name, "files": files, "expect": {"rep": "".join(report)}, "stdout": out,
         "args": args or ["verifyshadow", "shadow", "prep", "rep"] + (["q"] if query is not None else [])}
    code = int(out.splitlines()[-1].split("::")[2]) if isinstance(out, str) else 0
    c["status"] = code & 0xff  # the result's low eight bits
    c.update(extra)
    return c


N1, N2, N4 = pdr(1), pdr(2), pdr(4)
C10, N10, N11 = pdr(0x10, flag=0xc), pdr(0x10), pdr(0x11)
SHOW_TEXT = "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 %d"

LIST = [
    case("clean, each live flag counted", [N1, pdr(2, flag=0xa), pdr(3, flag=0xb)], [],
         summary(flags=[1, 1, 1], opt=[0, 0, 0, 3]) + result()),
    case("internal path in shadow", [pdr(1, path=".kestrelShadow"), N2], [],
         summary(flags=[1], opt=[1, 0, 0, 1]) + result(1, 1), prep=[N2],
         expect={"rep": "INTERNAL file or UNSUPPORTED characters in shadow: 0000000000000001 .kestrelShadow\n"}),
    case("wrong HSM state, and none at all", [pdr(1, show=show(hsm="offlin")), pdr(2, show=show(hsm=None))],
         ["Wrong migration state flag: 0000000000000001 dir/f1 offlin\n",
          "Wrong migration state flag: 0000000000000002 dir/f2 \n"],
         summary(flags=[2], opt=[2, 0, 0, 2]) + result(1, 2)),
    case("CHANGE pair", [C10, N10, N11], ["File with CHANGE flag: 0000000000000010 dir/f10\n"],
         summary(flags=[2, 0, 0, 1], opt=[0, 0, 0, 2]) + result(), prep=[N10, N11]),
    case("two CHANGE in a row", [C10, C10, N10],
         ["File with CHANGE flag: 0000000000000010 dir/f10\n",
          "Check lastIno failed: lastIno 0000000000000010 lastPath dir/f10 currIno 0000000000000010\n",
          "File with CHANGE flag: 0000000000000010 dir/f10\n"],
         summary(flags=[1, 0, 0, 2], opt=[1, 0, 0, 1]) + result(1, 1), prep=[N10]),
    case("CHANGE then another inode", [C10, N11],
         ["File with CHANGE flag: 0000000000000010 dir/f10\n",
          "Check lastIno failed: lastIno 0000000000000010 lastPath dir/f10 currIno 0000000000000011\n"],
         summary(flags=[1, 0, 0, 1], opt=[1, 0, 0, 1]) + result(1, 1), prep=[N11]),
    case("EXPIRE reported, DELETE counted only", [N1, pdr(2, flag=0xe), pdr(3, flag=0xd), N4],
         ["File with EXPIRE flag: 0000000000000002 dir/f2\n"],
         summary(flags=[2, 0, 0, 0, 1, 1], opt=[0, 0, 0, 2]) + result(), prep=[N1, N4]),
    case("EXPIRE of the list's inode waits for a live record", [pdr(5, flag=0xe), pdr(6)],
         ["File with EXPIRE flag: 0000000000000005 dir/f5\n",
          "Check lastIno failed: lastIno 0000000000000005 lastPath dir/f5 currIno 0000000000000006\n",
          "Unhandled file in prep list: 0000000000000005 dir/f5\n",
          "Files only in shadow(could be unlinked fset): 0000000000000006 dir/f6 root\n"],
         summary(flags=[1, 0, 0, 0, 0, 1], opt=[1, 1, 0, 1, 1]) + result(1, 1, 1), prep=[pdr(5)]),
    case("unknown flag: not compared", [pdr(1, flag=5)],
         ["Record flag is UNKNOWN: 0000000000000001 dir/f1\n",
          "Unhandled file in prep list: 0000000000000001 dir/f1\n"],
         summary(opt=[0, 0, 1, 1, 1]) + result(1, 0, 1), prep=[N1]),
    case("CHANGE pair only in shadow, with a fileset", [pdr(1, flag=0xc), pdr(1, show=show(fileset="fs1")), N2],
         ["File with CHANGE flag: 0000000000000001 dir/f1\n",
          "Files only in shadow(could be unlinked fset): 0000000000000001 dir/f1 fs1\n"],
         summary(flags=[2, 0, 0, 1], opt=[0, 1, 0, 1]) + result(), prep=[N2]),
    case("only in shadow without a fileset", [pdr(1, show=show(fileset="")), N2],
         ["Unvalid file in shadow: 0000000000000001 dir/f1\n"],
         summary(flags=[2], opt=[1, 0, 0, 1]) + result(1, 1), prep=[N2]),
    case("only in the prep list", [N2], ["Unhandled file in prep list: 0000000000000001 dir/f1\n"],
         summary(flags=[1], opt=[0, 0, 0, 2, 1]) + result(1, 0, 1), prep=[N1, N2]),
    case("same inode, other path", [pdr(1, path="a"), N2],
         ["Inode/Path not matched: shadow 0000000000000001 a list 0000000000000001 b\n",
          "Unhandled file in prep list: 0000000000000001 b\n"],
         summary(flags=[2], opt=[1, 0, 0, 2, 1]) + result(1, 1, 1), prep=[pdr(1, path="b"), N2]),
    case("attributes differ; unsupported list path skipped", [N1],
         ["Attr not matched: shadow 0000000000000001 dir/f1 %s list 0000000000000001 dir/f1 %s\n"
          % (SHOW_TEXT % 42, SHOW_TEXT % 43)],
         summary(flags=[1], opt=[1, 0, 0, 1, 0, 1]) + result(1, 1),
         prep=[pdr(1, show=show(size=43)), pdr(9, path="bad\x18")]),
    case("header version 1300", header(version=1300) + N1, [], result(-1),
         stderr="quenby::VERIFYSHADOW::1::shadow file version 1300 shadow hdr version 1400\n"),
    case("lower-case none is a file name", [N1], [], summary("none", [1], [0, 0, 0, 1]) + result(),
         args=["verifyshadow", "shadow", "prep", "none"], expect={"none": ""}),
]

DEFAULT_RE = r"/tmp/quenby\.verifyShadow\.\d{8}\.\d{6}"
DEFAULT_OUT = re.compile(re.escape(summary("@", [1], [0, 0, 0, 1]) + result()).replace("@", DEFAULT_RE))
DEFAULT_NAMED = [case(name, [N1], [], DEFAULT_OUT, args=["verifyshadow", "shadow", "prep"] + more, expect={})
                 for name, more in (("report NONE: default name", ["NONE"]), ("no report name", []))]


def check_default_report(test, case, out):
    """The summary names an empty report stamped with the start time; it is
    removed afterwards."""
    m = re.search(DEFAULT_RE, out.stdout)
    if m is None:
        return  # the stdout check has failed already
    with test.subTest(case=case["name"], check="default report"):
        try:
            test.assertEqual("", e2e_util.read_text(m.group()))
            stamp = time.mktime(time.strptime(m.group()[-15:], "%Y%m%d.%H%M%S"))
            test.assertLess(abs(time.time() - stamp), 120)
        finally:
            if os.path.exists(m.group()):
                os.remove(m.group())


A, B, C = pdr(2, path="a"), pdr(3, path="b"), pdr(1, path="c")
MISSING, UNVALID = "File doesn't exist in Shadow: %s\n", "Unvalid file in shadow: %016x %s\n"

QUERY = [
    case("same paths, all NORMAL", [C, A, B], [], summary(flags=[3], query_mode=True) + result(),
         query=[query("a"), query("b"), query("c")],
         expect={"rep": "", "shadow.Sorted": index([C, A, B], HDR)}),
    case("query a, b, c; shadow a, c", [C, A], [MISSING % "b"],
         summary(flags=[2], opt=[1], query_mode=True) + result(1, 1), query=[query(p) for p in "abc"]),
    case("query a, c; shadow a, b, c", [C, A, B], [UNVALID % (3, "b")],
         summary(flags=[3], opt=[1], query_mode=True) + result(1, 1), query=[query(p) for p in "ac"]),
    case("query a; shadow a, b, c", [C, A, B], [UNVALID % (3, "b"), UNVALID % (1, "c")],
         summary(flags=[1], opt=[2], query_mode=True) + result(1, 2), query=[query("a")]),
    case("query a, b, c; shadow a", [A], [MISSING % "b", MISSING % "c"],
         summary(flags=[1], opt=[2], query_mode=True) + result(1, 2), query=[query(p) for p in "abc"]),
    case("server times counted only with attrFlag 1", [A, B],
         ["Attribute is error: 0000000000000002 a %s\n" % (SHOW_TEXT % 42)],
         summary(flags=[2], opt=[1], query_mode=True) + result(1, 1),
         query=[query("a", c="2010-01-02 11:31:00", attr=1), query("b", c="2010-01-02 11:31:00")]),
    case("BACKUP record", [pdr(2, path="a", flag=0xb)], ["Record flag is error: 0000000000000002 a 0xb\n"],
         summary(opt=[1], query_mode=True) + result(1, 1), query=[query("a")]),
    case("internal and unsupported query paths", [A, B], [],
         summary(flags=[2], opt=[0, 0, 0, 0, 0, 2], query_mode=True) + result(),
         query=[query(".kestrelx"), query("a"), query("a\x19"), query("b")]),
    case("the sort fails", [A], [], result(256), query=[query("a")], files={"failsort": "exit 1\n"},
         env={"KESTREL_SORT_OPTIONS": "sh failsort"},
         stderr=re.compile(r"quenby: sortFile: system\(sh failsort .*\) returned 256\n"
                           r"quenby:VERIFYSHADOW::1::sort scan shadow file fail, rc = 256\n")),
]


class VerifyShadow(unittest.TestCase):
    def test_list(self):
        for c in LIST:
            run_case(self, c)

    def test_default_report_name(self):
        for c in DEFAULT_NAMED:
            run_case(self, c, check_default_report)

    def test_query(self):
        for c in QUERY:
            run_case(self, c)


if __name__ == "__main__":
    e2e_util.main()
