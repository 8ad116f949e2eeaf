"""updateshadow end to end: the merge of the old shadow database with the
scan list, the work lists, the header carried over, the modes and the
failures.

Every case also has each work-list offset checked against the new shadow
database as written (see check_offsets).

Run: python3 test_updateshadow.py /path/to/quenby
"""

import re
import unittest

import e2e_util
from e2e_util import IGNORE, NONZERO, NOW, NOW_SAMPLE, run_case

# --- records ---------------------------------------------------------------

T0 = "2010-01-01 10:00:00.000000"
T1 = "2010-01-02 11:30:00.000000"
T2 = "2010-01-03 08:15:00.000000"


def show(mtime=T0, ctime=T1, size=42, fileset="root", hsm="resdnt"):
    text = "%s %s %d %s" % (mtime, ctime, size, fileset)
    return text if hsm is None else text + " " + hsm


S = show()


def pdr(ino, gen=1, flag=0, path=None, show=S, pool="system", escaped=False):
    """One record line; fields 1, 2, 5, 6 and 7 carry arbitrary values that
    must come through unchanged."""
    if path is None:
        path = "dir/f%x" % ino
    flag = flag if isinstance(flag, str) else "%x" % flag
    plen = -len(path) if escaped else len(path)
    return "3:%x:%016x:%x:7f:1a4:3e8:%s:%d!%s:%d!%s;%d!%s\n" % (
        ino * 3, ino, gen, flag, plen, path, len(pool), pool, len(show), show)


def reflag(line, flag):
    """The same record with another flag."""
    f = line.split(":")
    f[7] = flag if isinstance(flag, str) else "%x" % flag
    return ":".join(f)


COMMENTS = ("%%shadow%%:03_COMMENT::1:\n"
            "%%shadow%%:03_COMMENT::2:   This is a machine generated file.\n"
            "%%shadow%%:03_COMMENT::3:   Do not delete or edit!\n"
            "%%shadow%%:03_COMMENT::4:\n")


def header(name="TESTDB", version=1400, bdir="/backup", tool="kestrel", count=3,
           date="Mon Jan  1 00:00:00 2024\n"):
    return "%%%%mshadow0%%%%:%s:%s:%s:%s:%s:%s" % (name, version, bdir, tool, count, date) + COMMENTS


OLD_HDR = header(version=1300)
NEW_HDR = header(date=NOW)
DEFAULT_HDR = header(name="00_BACKUP_FILES_41", bdir="db", count=1, date=NOW)


class Db:
    """An expected new shadow database: header and records."""

    def __init__(self, records, hdr=NEW_HDR):
        self.records = list(records)
        self.hdr = hdr

    def text(self):
        return self.hdr + "".join(self.records)

    def at(self, i):
        """Byte position of record i."""
        return len(self.hdr.replace(NOW, NOW_SAMPLE)) + sum(map(len, self.records[:i]))


def worklist(keyword, offset, line):
    """A work-list line: the record with its SHOW replaced by keyword,
    offset and old SHOW."""
    prefix, rest = line[:line.rindex(";") + 1], line[line.rindex(";") + 1:]
    old_show = rest[rest.index("!") + 1:-1]
    tail = "%s%016x %s" % (keyword, offset, old_show)
    return "%s%d!%s\n" % (prefix, len(tail), tail)


def wl(keyword, db, i, src=None):
    """Work-list line for record i of db, built from src (default: the
    record itself as written)."""
    return worklist(keyword, db.at(i), src if src is not None else db.records[i])


UPD, MCH, EXP = "updated ", "ctimech ", "expired "

ARGS7 = ["old", "new", "list", "chg", "exp", "uns", "hsm"]


def ok(changed, expired, unsupported=0):
    return "::UPDATESHADOW::0::%d::%d::%d::\n" % (changed, expired, unsupported)


def failed(result, changed=0, expired=0, unsupported=0):
    return "quenby::UPDATESHADOWERR::%d::%d::%d::%d::\n" % (result, changed, expired, unsupported)


def case(name, out, old, scan, new, chg=(), exp=(), hsm=None, uns=None,
         args=ARGS7, env=None, files=None, stderr="", status=0, **extra):
    """A case with the usual file names. out is the result line; old and
    scan are record lists (or whole file texts); new is a Db or the whole
    text. Work lists are line lists; hsm and uns default to "removed"
    (None)."""
    inputs = {"old": old if isinstance(old, str) else OLD_HDR + "".join(old),
              "list": scan if isinstance(scan, str) else "".join(scan)}
    inputs.update(files or {})

    def joined(v):
        return v if v is None or v is IGNORE or isinstance(v, str) else "".join(v)

    expect = {"new": new.text() if isinstance(new, Db) else new,
              "chg": joined(chg), "exp": joined(exp), "hsm": joined(hsm), "uns": joined(uns)}
    for a, k in zip(args[3:7], ("chg", "exp", "uns", "hsm")):
        if a != k:
            del expect[k]
    c = {"name": name, "args": ["updateshadow"] + list(args), "env": env or {},
         "files": inputs, "expect": expect, "stdout": out, "stderr": stderr, "status": status}
    c.update(extra)
    return c


# --- the check that every offset points at its record ----------------------

WL_RE = re.compile(r"(?s)((?:[^:]*:){2}([0-9a-f]+):(?:[^:]*:){4}.*;)(\d+)!"
                   r"(updated |ctimech |expired )([0-9a-f]{16}) (.*)\n")
WANT_FLAG = {"updated ": 0xb, "ctimech ": 0xa, "expired ": 0xe}


def fields(line):
    return line.split(":", 8)


def without_flag(line):
    f = line.split(":")
    f[7] = "-"
    return ":".join(f)


def check_offsets(test, case, out):
    """Every work-list line's offset is where its record starts in the new
    shadow database: the record itself, or for a pair the CHANGE record with
    the listed record right after it. Expiries in migration-expiry mode all
    point at the end of the header, which is the end of the file."""
    args = case["args"][1:]
    db_name = args[1]
    if len(args) < 6 or db_name.startswith("/dev/"):
        return
    try:
        db = out.read(db_name)
    except FileNotFoundError:
        return
    for pos in (3, 4, 6):
        if pos >= len(args) or args[pos].startswith("/dev/"):
            continue
        try:
            text = out.read(args[pos])
        except FileNotFoundError:
            continue
        before = case["files"].get(args[pos], "")
        if pos != 3 and text.startswith(before):  # appended lists
            text = text[len(before):]
        for line in text.splitlines(keepends=True):
            with test.subTest(case=case["name"], check="offset", line=line):
                m = WL_RE.fullmatch(line)
                test.assertIsNotNone(m, "not a work-list line")
                prefix, ino, length, keyword, offset, old_show = m.groups()
                test.assertEqual(int(length), len(keyword) + 17 + len(old_show))
                off = int(offset, 16)
                if case.get("offsets_at_end"):
                    test.assertEqual(len(db), off)
                    continue
                test.assertTrue(0 < off < len(db) and db[off - 1] == "\n",
                                "offset %d is not the start of a record" % off)
                lines = db[off:].splitlines(keepends=True)
                rec = lines[0]
                test.assertEqual(ino, fields(rec)[2])
                if keyword != EXP and int(fields(rec)[7], 16) == 0xc:
                    test.assertGreater(len(lines), 1, "CHANGE record without its partner")
                    rec = lines[1]
                    test.assertEqual(ino, fields(rec)[2])
                test.assertEqual(WANT_FLAG[keyword], int(fields(rec)[7], 16))
                built = "%s%d!%s\n" % (prefix, len(old_show), old_show)
                if keyword == EXP:
                    test.assertEqual(built, rec)
                else:  # the line may carry the scan list's flag
                    test.assertEqual(without_flag(built), without_flag(rec))


# --- the merge's decisions --------------------------------------------------

def merge_cases():
    cases = []
    X = pdr(0x20)

    old = [pdr(0x10, flag=0xd), X]
    cases.append(case("an expiry that is done is dropped", ok(0, 0), old, [X], Db([X])))

    A = pdr(0x10)
    db = Db([reflag(A, 0xb), X])
    cases.append(case("a file new to the scan is backed up", ok(1, 0), [X], [A, X], db,
                      chg=[wl(UPD, db, 0)]))

    old = [pdr(0x10, flag=0xb), pdr(0x18, flag=0xa), X]
    db = Db([reflag(old[0], 0xe), reflag(old[1], 0xe), X])
    cases.append(case("a pending backup or update of a gone file is expired", ok(0, 2), old, [X], db,
                      exp=[wl(EXP, db, 0), wl(EXP, db, 1)]))

    # The new record takes the old flag, in the scan list's flag width.
    old = [pdr(0x10, flag="0000000a"), pdr(0x20, flag=0xb)]
    scan = [pdr(0x10, show=show(size=99)), pdr(0x20)]
    db = Db([reflag(scan[0], 0xa), reflag(scan[1], 0xb)])
    cases.append(case("a pending backup or update of the same file is listed again", ok(2, 0), old, scan, db,
                      chg=[wl(MCH, db, 0), wl(UPD, db, 1)]))

    old = [pdr(0x10, gen=1, flag=0xb), pdr(0x20, gen=1, flag=0xa)]
    scan = [pdr(0x10, gen=2), pdr(0x20, gen=3)]
    db = Db([reflag(old[0], 0xe), reflag(scan[0], 0xb), reflag(old[1], 0xe), reflag(scan[1], 0xa)])
    cases.append(case("a pending backup whose inode was reused: expire, then list again", ok(2, 2),
                      old, scan, db,
                      chg=[wl(UPD, db, 1), wl(MCH, db, 3)], exp=[wl(EXP, db, 0), wl(EXP, db, 2)]))

    # Only the partner of the same inode is dropped after a CHANGE record.
    old = [pdr(0x10, flag=0xc), pdr(0x10, flag=0xb, show=show(size=7)), pdr(0x14, flag=0xc),
           pdr(0x18, flag=0xb), X]
    db = Db([reflag(old[0], 0xe), reflag(old[2], 0xe), reflag(old[3], 0xe), X])
    cases.append(case("a CHANGE pair of a gone file: the old half expired, its partner dropped", ok(0, 3),
                      old, [X], db, exp=[wl(EXP, db, i) for i in range(3)]))

    # Rewritten as a pair; the line is built before the new flag is set.
    Y = pdr(0x40)
    old = [pdr(0x10, flag=0xc), pdr(0x10, flag=0xb, show=show(size=7)), X,
           pdr(0x30, flag=0xc), pdr(0x30, flag=0xa, show=show(ctime=T2)), Y]
    scan = [pdr(0x10, show=show(size=7)), X, pdr(0x30, show=show(ctime=T2)), Y]
    db = Db([old[0], reflag(scan[0], 0xb), X, old[3], reflag(scan[2], 0xb), Y])
    cases.append(case("a CHANGE pair still unresolved is written and listed again", ok(2, 0), old, scan, db,
                      chg=[wl(UPD, db, 0, src=scan[0]), wl(UPD, db, 3, src=scan[2])]))

    old = [pdr(0x10, gen=1, flag=0xc), pdr(0x10, gen=1, flag=0xb, show=show(size=7)), X]
    scan = [pdr(0x10, gen=2), X]
    db = Db([reflag(old[0], 0xe), reflag(scan[0], 0xb), X])
    cases.append(case("a CHANGE pair whose inode was reused: expired, new record BACKUP unlisted", ok(0, 1),
                      old, scan, db, chg="", exp=[wl(EXP, db, 0)]))

    old = [pdr(0x08, flag=0xe), pdr(0x10, flag=0xe), X]
    scan = [pdr(0x10, gen=2), X]
    db = Db([old[0], old[1], reflag(scan[0], 0xb), X])
    cases.append(case("a pending expiry is listed again, gone or with its inode in use", ok(1, 2),
                      old, scan, db,
                      chg=[wl(UPD, db, 2)], exp=[wl(EXP, db, 0), wl(EXP, db, 1)]))

    old = [pdr(0x10), pdr(0x20, flag=5)]
    cases.append(case("identical lines stay NORMAL, whatever unnamed flag they share", ok(0, 0), old, old,
                      Db([old[0], reflag(old[1], 0)])))

    old = [pdr(0x10), X]
    db = Db([reflag(old[0], 0xe), X])
    cases.append(case("a file gone from the scan is expired", ok(0, 1), old, [X], db, exp=[wl(EXP, db, 0)]))

    old = [pdr(0x10, path="dir/a"), X]
    scan = [pdr(0x10, path="dir/b"), X]
    db = Db([reflag(old[0], 0xe), reflag(scan[0], 0xb), X])
    cases.append(case("a moved file: old path expired, new path backed up after it", ok(1, 1), old, scan, db,
                      chg=[wl(UPD, db, 1)], exp=[wl(EXP, db, 0)]))

    old = [pdr(0x10, gen=1), X]
    scan = [pdr(0x10, gen=2), X]
    db = Db([reflag(scan[0], 0xb), X])
    cases.append(case("the same path with another generation is backed up", ok(1, 0), old, scan, db,
                      chg=[wl(UPD, db, 0)]))

    any_gen = 0xffffffffffffffff
    old = [pdr(0x10, gen=any_gen), pdr(0x20, gen=any_gen)]
    scan = [pdr(0x10, gen=7), pdr(0x20, gen=9, show=show(size=43))]
    db = Db([scan[0], reflag(old[1], 0xc), reflag(scan[1], 0xb)])
    cases.append(case("an all-ones generation matches any generation", ok(1, 0), old, scan, db,
                      chg=[wl(UPD, db, 1, src=scan[1])]))

    old = [pdr(0x10), pdr(0x20, show=show(hsm="migrat")), pdr(0x30), pdr(0x40, flag=3)]
    scan = [pdr(0x10, show=show(mtime="2010-01-01 10:00:00.500000", ctime="2010-01-02 11:30:00.250000")),
            pdr(0x20, show=show(hsm="premig")),
            pdr(0x30, show=show(fileset="other")),
            pdr(0x40)]
    cases.append(case("SHOW differences that do not matter give NORMAL new records", ok(0, 0), old, scan,
                      Db(scan)))

    old = [pdr(0x10, flag=0xb), pdr(0x20, flag=0xd), pdr(0x28, flag=5), pdr(0x30, flag=0xe)]
    scan = [pdr(0x10), pdr(0x20, gen=4)]
    db = Db([reflag(scan[0], 0xb), reflag(scan[1], 0xb), old[3]])
    cases.append(case("a done expiry keeps the scan record pending; an unnamed flag at the end is reported",
                      ok(2, 1), old, scan, db, chg=[wl(UPD, db, 0), wl(UPD, db, 1)], exp=[wl(EXP, db, 2)],
                      stderr="quenby::UPDATESHADOWERR::1::unexpected state 5 in PDR1\n" + old[2]))
    # The pair is written again at the end of the scan; its old partner must
    # not reach the expiry of the records left over.
    old = [pdr(0x10, flag=0xc), pdr(0x10, flag=0xb, show=show(size=7)), pdr(0x30)]
    scan = [pdr(0x10, show=show(size=7))]
    db = Db([old[0], reflag(scan[0], 0xb), reflag(old[2], 0xe)])
    cases.append(case("a CHANGE pair rewritten as the scan ends: its partner is dropped", ok(1, 1),
                      old, scan, db, chg=[wl(UPD, db, 0, src=scan[0])], exp=[wl(EXP, db, 2)]))
    return cases


def show_change_cases():
    """One file per kind of SHOW change, with and without incremental
    update support."""
    micro = "2010-01-01 10:00:00.000001"
    rows = [  # ino, old show, new show, old flag, list when not incr, incr
        (0x10, S, show(size=43), "00000000", "chg", UPD, UPD),
        (0x20, S, show(ctime=T2), 0, "chg", UPD, MCH),
        (0x30, show(mtime=micro), show(mtime="2010-01-01 10:00:00.000002"), 0, "chg", UPD, UPD),
        (0x40, S, show(hsm="migrat"), 0, "chg", UPD, MCH),
        (0x50, S, show(ctime=T2, hsm="migrat"), 0, "hsm", UPD, MCH),
        (0x60, show(hsm="migrat"), show(size=1, hsm="migrat"), 0, "hsm", UPD, UPD),
        (0x70, S, show(size=0), "f", "chg", UPD, UPD),
        (0x80, show(hsm="migrat"), show(hsm=None), 0, "chg", UPD, MCH),
    ]
    cases = []
    for label, env, incr in (("unset", {}, False),
                             ("2", {"KESTREL_QBSC_INCR_SUPPORTED": "2"}, False),
                             ("1", {"KESTREL_QBSC_INCR_SUPPORTED": "1"}, True)):
        old, scan, recs, pending = [], [], [], []
        for ino, old_show, new_show, flag, where, plain, inc in rows:
            keyword = inc if incr else plain
            o, n = pdr(ino, flag=flag, show=old_show), pdr(ino, show=new_show)
            old.append(o)
            scan.append(n)
            recs += [reflag(o, "0000000c" if flag == "00000000" else "c"),
                     reflag(n, WANT_FLAG[keyword])]
            pending.append((where, keyword, len(recs) - 2, n))
        db = Db(recs)
        lists = {"chg": [], "hsm": []}
        for where, keyword, i, n in pending:
            lists[where].append(wl(keyword, db, i, src=n))
        cases.append(case("SHOW changes, incremental update %s" % label, ok(8, 0), old, scan, db,
                          env=env, chg=lists["chg"], hsm=lists["hsm"]))

    old, scan = [pdr(0x10)], [pdr(0x10, show=show(hsm="migrat"))]
    db = Db([reflag(old[0], 0xc), reflag(scan[0], 0xb)])
    cases.append(case("a migrated file whose HSM state alone changed leaves the HSM list unused", ok(1, 0),
                      old, scan, db, chg=[wl(UPD, db, 0, src=scan[0])], files={"hsm": "stale\n"}))
    return cases


# --- end stages, lists and modes -------------------------------------------

def stage_cases():
    cases = []
    # Internal and unsupported paths are taken by their flag once the scan
    # list has run out.
    old = [pdr(0x10), pdr(0x11, flag=0xa), pdr(0x12, flag=0xb), pdr(0x13, flag=0xc),
           pdr(0x14, flag=0xe), pdr(0x15, flag=0xd), pdr(0x16, flag=5),
           pdr(0x17, path=".kestrelShadow.db"), pdr(0x18, path="odd\x18name")]
    kept = [old[i] for i in (0, 1, 2, 3, 4, 7, 8)]
    db = Db([reflag(r, 0xe) for r in kept])
    cases.append(case("no more new: everything left expires, DELETE dropped, flag 5 reported", ok(0, 7),
                      old, "", db, chg="", exp=[wl(EXP, db, i) for i in range(len(kept))],
                      stderr="quenby::UPDATESHADOWERR::1::unexpected state 5 in PDR1\n" + old[6]))

    scan = [pdr(0x10), pdr(0x20, show=show(hsm="migrat")), pdr(0x30, show=show(hsm="migrated"))]
    db = Db([reflag(r, 0xb) for r in scan])
    prior = "earlier migrated line\n"
    cases.append(case("no more old: all backed up, the migrated file to the appended HSM list", ok(3, 0),
                      [], scan, db, chg=[wl(UPD, db, 0), wl(UPD, db, 2)],
                      hsm=[prior, wl(UPD, db, 1)], files={"hsm": prior}))
    cases.append(case("without an HSM list the migrated file goes to the changed list", ok(3, 0),
                      [], scan, db, chg=[wl(UPD, db, i) for i in range(3)],
                      args=ARGS7[:6]))
    cases.append(case("the subDir and filesets arguments change nothing", ok(3, 0),
                      [], scan, db, chg=[wl(UPD, db, 0), wl(UPD, db, 2)], hsm=[wl(UPD, db, 1)],
                      args=ARGS7 + ["sub/dir", "fs1,fs2"]))

    X = pdr(0x20)
    db = Db([reflag(pdr(0x10), 0xe), X])
    cases.append(case("lists: changed truncated, expired appended, unused unsupported and HSM removed",
                      ok(0, 1), [pdr(0x10), X], [X], db, exp=["old expiry\n", wl(EXP, db, 0)],
                      files={"chg": "stale changed line\n", "exp": "old expiry\n",
                             "uns": "stale unsupported\n", "hsm": "stale hsm\n"}))

    # Unsupported records leave the merge for the unsupported list, from
    # either side; an escaped "\n" counts, the same text unescaped does not.
    old = [X, pdr(0x25, path="old\x19name")]
    scan = [pdr(0x10, path="bad\x18name"), X, pdr(0x30, path="a\\nb", escaped=True),
            pdr(0x40, path="a\\tb", escaped=True), pdr(0x50, path="a\\nb")]
    db = Db([X, reflag(scan[3], 0xb), reflag(scan[4], 0xb)])
    cases.append(case("unsupported paths go to the appended unsupported list and are counted", ok(2, 0, 3),
                      old, scan, db, chg=[wl(UPD, db, 1), wl(UPD, db, 2)],
                      uns=["prior\n", scan[0], old[1], scan[2]], files={"uns": "prior\n"}))

    old = [pdr(0x10, path=".kestrelShadow"), X]
    scan = [pdr(0x05, path="."), pdr(0x08, path=".kestrelShadow.db"), X, COMMENTS,
            pdr(0x30, path=".execScript/run"), pdr(0x40, path="a/.kestrel"), pdr(0x50, path="./a")]
    db = Db([X, reflag(scan[5], 0xb), reflag(scan[6], 0xb)])
    cases.append(case("internal paths and header lines are skipped", ok(2, 0), old, scan, db,
                      chg=[wl(UPD, db, 1), wl(UPD, db, 2)]))

    old = [pdr(0x10), X]
    db = Db([old[0], reflag(X, 0xe)])
    cases.append(case("a last scan line without a line feed is not read", ok(0, 1), old, old[0] + X[:-1], db,
                      exp=[wl(EXP, db, 1)]))

    long_rec = pdr(0x10, path="deep/" + "p" * 9000)
    db = Db([long_rec, reflag(pdr(0x20), 0xb)])
    cases.append(case("records longer than the line buffer", ok(1, 0), [long_rec], [long_rec, pdr(0x20)], db,
                      chg=[wl(UPD, db, 1)]))

    # Byte for byte: the scan line, the record written and its work-list
    # line, at offset 0xe9 just after the 233-byte new header.
    line = ("0:0:000000000000abcd:1:0:0:0:0:5!a/b/c:6!system;68!"
            "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42 root resdnt\n")
    cases.append(case("a work-list line byte for byte", ok(1, 0), [], line,
                      NEW_HDR + line.replace(":0:5!", ":b:5!"),
                      chg="0:0:000000000000abcd:1:0:0:0:b:5!a/b/c:6!system;93!updated 00000000000000e9 "
                          "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42 root resdnt\n"))
    return cases


def mode_cases():
    cases = []
    only = {"KESTREL_DO_BACKUP_ONLY": "1"}
    old = [pdr(0x10), pdr(0x11, flag=0xa), pdr(0x12, flag=0xb), pdr(0x13, flag=0xc), pdr(0x14, flag=0xe)]
    cases.append(case("backup-only with an empty scan: the records carried unchanged", ok(0, 0), old, "",
                      Db(old), chg="", exp="", env=only))

    old = [pdr(0x10), pdr(0x14, flag=0xe), pdr(0x18, path="p")]
    scan = [pdr(0x18, path="q"), pdr(0x30)]
    db = Db(old + [reflag(scan[0], 0xb), reflag(scan[1], 0xb)])
    cases.append(case("backup-only merge: nothing expired, moves and new files listed", ok(2, 0),
                      old, scan, db,
                      chg=[wl(UPD, db, 3), wl(UPD, db, 4)], exp="",
                      env=dict(only, DEBUGquenby="2"), stderr="quenby: BACKUP_ONLY mode on.\n"))

    snap = ".snapshots/.kestrelSnapshot/"
    old = [pdr(0x10, path=snap + "a"), pdr(0x20, path="data/x"), pdr(0x30, path=snap + "b", flag=0xb),
           pdr(0x40, path=snap + "c", flag=0xd)]
    hdr_only = Db([])
    cases.append(case("migration expiry: snapshots expired at one offset, no record kept", ok(0, 2), old,
                      "ignored\n", hdr_only.text(),
                      exp=[wl(EXP, hdr_only, 0, src=reflag(old[0], 0xe)),
                           wl(EXP, hdr_only, 0, src=reflag(old[2], 0xe))],
                      args=["old", "new", "/dev/null", "/dev/null", "exp", "uns", "hsm"],
                      files={"uns": "stale\n", "hsm": "stale\n"}, offsets_at_end=True))
    cases.append(case("migration expiry refused in backup-only mode", failed(-1), old, "", None,
                      exp=None, env=only,
                      args=["old", "new", "/dev/null", "/dev/null", "exp", "uns", "hsm"],
                      stderr="quenby::UPDATESHADOWERR::1::Cannot do 3.2 migration expiry in "
                             "BACKUP_ONLY mode\n",
                      status=255))

    # Old format: old flags count as NORMAL during the merge, a missing HSM
    # state stays missing (so resident against migrated is no change), and
    # the records after the scan are converted. In the current format the
    # missing state is "resdnt".
    nohsm = show(hsm=None)
    old = [pdr(0x10, flag=0xb, show=nohsm), pdr(0x18, show=nohsm), pdr(0x20, flag=0xe, show=nohsm),
           pdr(0x30, flag=0xd, show=nohsm)]
    scan = [pdr(0x10), pdr(0x18, show=show(hsm="migrat")), pdr(0x20, show=show(size=43))]
    db = Db([scan[0], scan[1], reflag(old[2], 0xc), reflag(scan[2], 0xb),
             reflag(old[3], 0)[:-1] + " resdnt\n"])
    for fmt in ("1399", "1002"):
        cases.append(case("format %s is old" % fmt, ok(1, 0), old, scan, db,
                          chg=[wl(UPD, db, 2, src=scan[2])], env={"KESTREL_SHADOW_FORMAT": fmt}))
    for fmt in ("1400", "1001"):
        db = Db([reflag(scan[0], 0xb), reflag(old[1], 0xc), reflag(scan[1], 0xb), old[2],
                 reflag(scan[2], 0xb)])
        cases.append(case("format %s is current" % fmt, ok(3, 1), old, scan, db,
                          chg=[wl(UPD, db, 0), wl(UPD, db, 1, src=scan[1]), wl(UPD, db, 4)],
                          exp=[wl(EXP, db, 3)], env={"KESTREL_SHADOW_FORMAT": fmt}))

    # Conversion: every record NORMAL with " resdnt" after its SHOW text,
    # the SHOW length left as it was; the old creation date carried.
    date = "Tue Feb  2 03:04:05 2021\n"
    old = [pdr(0x10, flag=0xb, show=nohsm), pdr(0x20, flag=0xd, show=nohsm),
           pdr(0x30, path=".kestrelShadow", show=nohsm), pdr(0x40, flag="0000000a")]
    converted = [reflag(r, "0" * len(fields(r)[7]))[:-1] + " resdnt\n" for r in old]
    cases.append({"name": "conversion of an old shadow database", "args": ["updateshadow", "old", "new"],
                  "files": {"old": header(name="CONVDB", version=1300, bdir="/gpfs/old", count=2,
                                          date=date) + "".join(old)},
                  "expect": {"new": header(name="CONVDB", bdir="/gpfs/old", count=2, date=date)
                             + "".join(converted)},
                  "stdout": ok(0, 0)})
    conversion_line = (
        "0:0:0000000000000010:1:0:0:0:b:3!a/b:6!system;56!"
        "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 1 \n")
    cases.append({"name": "conversion byte for byte: SHOW length kept",
                  "args": ["updateshadow", "old", "new"],
                  "files": {"old": OLD_HDR + conversion_line},
                  "expect": {"new": header(date="Mon Jan  1 00:00:00 2024\n")
                             + "0:0:0000000000000010:1:0:0:0:0:3!a/b:6!system;56!"
                               "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 1  resdnt\n"},
                  "stdout": ok(0, 0)})
    for label, text, code in (("an empty file", "", -2),
                              ("a record as first line", pdr(0x10), -5),
                              ("a 20-character name", header(name="N" * 20), -7),
                              ("a 1-character tool name", header(tool="k"), -12)):
        cases.append({"name": "conversion refuses %s" % label, "args": ["updateshadow", "old", "new"],
                      "files": {"old": text}, "expect": {"new": ""},
                      "stderr": "quenby::UPDATESHADOWERR::1::could not interpret header to migrate "
                                "shadow DB old err %d\n" % code,
                      "stdout": failed(-1), "status": 255})
    return cases


def header_cases():
    X = pdr(0x20)
    Z = pdr(0x30)
    cases = []
    good = header(name="MY_DB", version=1300, bdir="/gpfs/fs1/.kestrel", tool="kestrel_tool", count=7,
                  date="Sat Jan  1 00:00:00 2000\n")
    cases.append(case("a good header is carried over with the current date", ok(0, 0), good + X, [X],
                      Db([X], hdr=header(name="MY_DB", bdir="/gpfs/fs1/.kestrel", tool="kestrel_tool",
                                         count=7, date=NOW))))
    db = Db([X, reflag(Z, 0xb)], hdr=header(bdir="/x", date=NOW))
    cases.append(case("KESTREL_BACKUPDIR replaces the backup directory", ok(1, 0), OLD_HDR + X, [X, Z], db,
                      chg=[wl(UPD, db, 1)], env={"KESTREL_BACKUPDIR": "/x"}))
    for label, first, hdr in (
            ("a 19-character name", header(name="N" * 19), header(name="N" * 19, date=NOW)),
            ("a 2-character tool name", header(tool="kt"), header(tool="kt", date=NOW)),
            ("a 32-character tool name", header(tool="t" * 32), header(tool="t" * 32, date=NOW)),
            ("a 4096-character backup directory", header(bdir="/" + "d" * 4095),
             header(bdir="/" + "d" * 4095, date=NOW)),
            ("a line longer than the line buffer", header(date="d" * 9000 + "\n"), NEW_HDR)):
        cases.append(case("header with %s is good" % label, ok(0, 0), first + X, [X], Db([X], hdr=hdr)))

    warning = ("quenby::UPDATESHADOWERR::0::proceeding with default header info after bad header "
               "found in previous shadow %s\n")
    for label, text in (("an empty file", ""),
                        ("a record as first line, which is consumed", pdr(0x10) + X),
                        ("a 20-character name", header(name="N" * 20) + X),
                        ("a 1-character tool name", header(tool="k") + X),
                        ("a 33-character tool name", header(tool="t" * 33) + X),
                        ("a backup directory of 4097 characters", header(bdir="/" + "d" * 4096) + X),
                        ("a count that is not a number", header(count="x") + X)):
        # With an empty file X is new too.
        db = Db([X if text else reflag(X, 0xb), reflag(Z, 0xb)], hdr=DEFAULT_HDR)
        listed = [i for i in (0, 1) if db.records[i] != X]
        cases.append(case("default header after %s" % label, ok(len(listed), 0), text, [X, Z], db,
                          chg=[wl(UPD, db, i) for i in listed],
                          args=["db/old"] + ARGS7[1:], files={"db/old": text},
                          stderr=warning % "db/old"))
    cases.append(case("default backup directory of a path without a slash", ok(0, 0), "", [],
                      Db([], hdr=header(name="00_BACKUP_FILES_41", bdir="old", count=1, date=NOW)),
                      chg="", stderr=warning % "old"))
    return cases


def failure_cases():
    cases = []
    # Files are opened in parameter order: those before the failing one
    # exist (empty), those after it do not.
    for label, args, message, new, chg in (
            ("a missing old shadow database", ["missing"] + ARGS7[1:], "missing for read", None, None),
            ("a missing scan list", ARGS7[:2] + ["nolist"] + ARGS7[3:], "nolist for read", "", None),
            ("a new shadow database in a missing directory", ["old", "nodir/new"] + ARGS7[2:],
             "nodir/new for writing", None, None),
            ("a changed list in a missing directory", ARGS7[:3] + ["nodir/chg"] + ARGS7[4:],
             "nodir/chg for writing", "", None),
            ("an expired list in a missing directory", ARGS7[:4] + ["nodir/exp"] + ARGS7[5:],
             "nodir/exp for writing", "", "")):
        c = case("open failure: %s" % label, failed(-1), [pdr(0x10)], [pdr(0x10)], new, args=args,
                 chg=chg, exp=None, status=255,
                 stderr="quenby::UPDATESHADOWERR::1::could not open %s (error=2)\n" % message)
        c["expect"]["nodir"] = None
        cases.append(c)

    A = pdr(0x10)
    db = Db([reflag(A, 0xb)])
    cases.append(case("a malformed scan record ends the run after what was written", failed(-1, 1),
                      [], A + "garbage\n", db, chg=[wl(UPD, db, 0)],
                      stderr="quenby: failed to parse shadow line [1]garbage\n\n", status=255))

    bad = pdr(0x10, show="%s %s 42" % (T0, T1))
    cases.append(case("a malformed old record ends the run after the header", failed(-1), [bad], [A],
                      Db([]), chg="", exp="", status=255,
                      stderr="quenby: invalid show attribute in %s\n" % bad))

    cases.append(case("a scan list that cannot be read is no empty scan: nothing is expired", failed(-1),
                      [pdr(0x10)], [], Db([]), args=["old", "new", "dir"] + ARGS7[3:], files={"dir/f": ""},
                      chg="", exp="", status=255, stderr="quenby: failed to read records (error=21)\n"))

    # The records fit the stream's buffer: the loss shows when it is closed.
    cases.append(case("an unwritable new shadow database", failed(-1, 1, 1),
                      [pdr(0x10), pdr(0x18)], [pdr(0x10), pdr(0x20)], None,
                      args=["old", "/dev/full"] + ARGS7[2:], chg=IGNORE, exp=IGNORE, status=255,
                      stderr="quenby::UPDATESHADOWERR::1::close of /dev/full failed (error=28)\n"))
    return cases


class UpdateShadowTest(unittest.TestCase):
    def run_table(self, cases):
        for c in cases:
            c["expect"] = {k: v for k, v in c["expect"].items() if v is not IGNORE}
            run_case(self, c, check_offsets)

    def test_merge_decisions(self):
        self.run_table(merge_cases())

    def test_show_changes(self):
        self.run_table(show_change_cases())

    def test_end_stages_and_lists(self):
        self.run_table(stage_cases())

    def test_modes(self):
        self.run_table(mode_cases())

    def test_header_carry_over(self):
        self.run_table(header_cases())

    def test_failures(self):
        self.run_table(failure_cases())


if __name__ == "__main__":
    e2e_util.main()
