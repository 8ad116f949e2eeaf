"""verifyshadow end to end: report, summary and result line against a prep list or a server query."""

import os
import re

import e2e_util
from test_rebuildshadow import index, query
from test_updateshadow import header, pdr, show

HDR = header()
FLAGS = ["NORMAL(0x0)", "METACH(0xa)", "BACKUP(0xb)", "CHANGE(0xc)", "DELETE(0xd)", "EXPIRE(0xe)"]
OPTIONAL = ["invalid entries in shadow", "files (unlinked fileset) in shadow", "entries with wrong record flag in "
            "shadow", "valid entries in list", "unhandled files in list", "entries with unsupported characters in list"]


def out(flags=(), opt=(), report="rep", nflags=6):
    """The summary: counts by record flag in FLAGS order (only the first in query mode), then the OPTIONAL
    ones but zeros; then the result line, with the invalid and unhandled counts when there are any."""
    opt = list(opt) + [0] * 6
    lines = [("entries with record flag " + f, n) for f, n in zip(FLAGS[:nflags], list(flags) + [0] * 6)]
    lines += [(t, n) for t, n in zip(OPTIONAL, opt) if n]
    return ("quenby verifyshadow summary infomation:\n" + "".join("total number of %-45s:%d\n" % ln for ln in lines)
            + "verifyShadow done, see %s to track files that cannot pass verification\n" % report
            + ("::VERIFYSHADOW::1::%d::%d::\n" % (opt[0], opt[4]) if opt[0] or opt[4] else "::VERIFYSHADOW::0::\n"))


def case(name, shadow, report, flags=(), opt=(), query=None, prep=None, files=(), expect=(), **extra):
    """shadow, prep (default: shadow's): records; flags, opt: the summary's counts unless stdout is given."""
    files = dict({"shadow": shadow if isinstance(shadow, str) else HDR + "".join(shadow)}, **dict(files))
    files.update({"prep": "".join(shadow if prep is None else prep)} if query is None else {"q": "".join(query)})
    c = dict({"name": name, "files": files, "expect": dict({"rep": "".join(report)}, **dict(expect)),
              "stdout": out(flags, opt, nflags=6 if query is None else 1),
              "args": ["verifyshadow", "shadow", "prep", "rep"] + ["q"] * (query is not None)}, **extra)
    code = int(c["stdout"].splitlines()[-1].split("::")[2]) if isinstance(c["stdout"], str) else 0
    return dict(c, status=code & 0xff)  # the result's low eight bits


N1, C10, N10 = pdr(1), pdr(0x10, flag=0xc), pdr(0x10)
SHOW_TEXT = "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 %d"
CHANGE, EXPIRE = "File with CHANGE flag: %016x %s\n", "File with EXPIRE flag: %016x %s\n"
LASTINO = "Check lastIno failed: lastIno %016x lastPath %s currIno %016x\n"
UNHANDLED, WRONG = "Unhandled file in prep list: %016x %s\n", "Wrong migration state flag: %016x %s %s\n"
ONLY, UNVALID = "Files only in shadow(could be unlinked fset): %016x %s %s\n", "Unvalid file in shadow: %016x %s\n"
DEFAULT_RE = r"/tmp/quenby\.verifyShadow\.\d{8}\.\d{6}"
LIST = [
    # A CHANGE record and the EXPIRE of the list's inode each wait for a live record of their inode.
    case("each flag counted, EXPIRE reported, DELETE not; two CHANGE in a row; an EXPIRE followed by another inode",
         [N1, pdr(2, flag=0xa), pdr(3, flag=0xb), pdr(4, flag=0xe), pdr(5, flag=0xd), pdr(6), C10, C10, N10,
          pdr(0x15, flag=0xe), pdr(0x16)],
         [EXPIRE % (4, "dir/f4"), CHANGE % (0x10, "dir/f10"), LASTINO % (0x10, "dir/f10", 0x10),
          CHANGE % (0x10, "dir/f10"), EXPIRE % (0x15, "dir/f15"), LASTINO % (0x15, "dir/f15", 0x16),
          UNHANDLED % (0x15, "dir/f15"), ONLY % (0x16, "dir/f16", "root")], [4, 1, 1, 2, 1, 2], [2, 1, 0, 6, 1],
         prep=[N1, pdr(2, flag=0xa), pdr(3, flag=0xb), pdr(6), N10, pdr(0x15)]),
    case("only in the shadow: an internal path, a CHANGE pair with a fileset, a record without one",
         [pdr(1, path=".kestrelx"), pdr(2, flag=0xc), pdr(2, show=show(fileset="fs1")),
          pdr(3, show=show(fileset="")), pdr(4)],
         ["INTERNAL file or UNSUPPORTED characters in shadow: 0000000000000001 .kestrelx\n", CHANGE % (2, "dir/f2"),
          ONLY % (2, "dir/f2", "fs1"), UNVALID % (3, "dir/f3")], [3, 0, 0, 1], [2, 1, 0, 1], prep=[pdr(4)]),
    case("compared: an unknown flag, another path, other attributes, wrong HSM states; unsupported list path skipped",
         [pdr(1, flag=5), pdr(2, path="a"), pdr(3), pdr(4, show=show(hsm="offlin")), pdr(5, show=show(hsm=None))],
         ["Record flag is UNKNOWN: 0000000000000001 dir/f1\n", UNHANDLED % (1, "dir/f1"),
          "Inode/Path not matched: shadow 0000000000000002 a list 0000000000000002 b\n", UNHANDLED % (2, "b"),
          "Attr not matched: shadow 0000000000000003 dir/f3 %s list 0000000000000003 dir/f3 %s\n"
          % (SHOW_TEXT % 42, SHOW_TEXT % 43), WRONG % (4, "dir/f4", "offlin"), WRONG % (5, "dir/f5", "")], [4],
         [4, 0, 1, 5, 2, 1], prep=[N1, pdr(2, path="b"), pdr(3, show=show(size=43)), pdr(4, show=show(hsm="offlin")),
                                   pdr(5, show=show(hsm=None)), pdr(9, path="bad\x18")]),
    case("header version 1300", header(version=1300) + N1, [], stdout="::VERIFYSHADOW::-1::0::0::\n",
         stderr="quenby::VERIFYSHADOW::1::shadow file version 1300 shadow hdr version 1400\n"),
    # Laxer than updateshadow: only the version counts, once two fields of 1 to 255 bytes come before it.
    case("a header without the mark or the tool name", "X:n:1400:dir\n" + N1, [], [1], [0, 0, 0, 1], prep=[N1]),
    case("a header's first field over 255 bytes", "X" * 256 + ":n:1400:\n" + N1, [], prep=[N1],
         stdout="::VERIFYSHADOW::-1::0::0::\n",
         stderr="quenby::VERIFYSHADOW::1::shadow file version 0 shadow hdr version 1400\n"),
] + [case(name + ": the default report", [N1], [], args=["verifyshadow", "shadow", "prep"] + more, expect={"rep": None},
          stdout=re.compile(re.escape(out([1], [0, 0, 0, 1], "@")).replace("@", DEFAULT_RE)))
        for name, more in (("report NONE", ["NONE"]), ("no report named", []))]


def default_report(test, case, scratch, stdout):
    for name in re.findall(DEFAULT_RE, stdout):  # the report the summary names exists, empty
        e2e_util.check(test, case, "default report", "", e2e_util.read_text(name))
        os.remove(name)


A, B, C = pdr(2, path="a"), pdr(3, path="b"), pdr(1, path="c")
MISSING = "File doesn't exist in Shadow: %s\n"
CHANGED = "2010-01-02 11:31:00"
QUERY = [
    case("server times counted only with attrFlag 1; the sorted index kept", [B, A],
         ["Attribute is error: 0000000000000002 a %s\n" % (SHOW_TEXT % 42)], [2], [1],
         [query("a", c=CHANGED, attr=1), query("b", c=CHANGED)], expect={"shadow.Sorted": index([B, A], HDR)}),
    case("query a, b, d; shadow a, c: missing, unvalid, missing at the end", [C, A],
         [MISSING % "b", UNVALID % (1, "c"), MISSING % "d"], [2], [3], [query(p) for p in "abd"]),
    case("query b; shadow a, b, c: unvalid, and at the end", [C, A, B], [UNVALID % (2, "a"), UNVALID % (1, "c")], [2],
         [2], [query("b")]),
    case("a BACKUP record; internal and unsupported query paths, also after the shadow's end",
         [A, pdr(3, path="b", flag=0xb)], ["Record flag is error: 0000000000000003 b 0xb\n"], [1], [1, 0, 0, 0, 0, 3],
         [query(".kestrelx"), query("a"), query("a\x19"), query("b"), query("c\x19")]),
]


if __name__ == "__main__":
    e2e_util.main(LIST + QUERY, default_report)
