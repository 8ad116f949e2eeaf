"""updateshadow end to end: the merge of the old shadow database with the
scan list, the work lists, the header carried over, the modes and the
failures. Work-list offsets are computed from the expected new database.

Run: python3 test_updateshadow.py /path/to/quenby
"""

import unittest

import e2e_util
from e2e_util import IGNORE, NOW, NOW_SAMPLE, run_case

T0 = "2010-01-01 10:00:00.000000"
T1 = "2010-01-02 11:30:00.000000"
T2 = "2010-01-03 08:15:00.000000"
ANY_GEN = 0xffffffffffffffff


def show(mtime=T0, ctime=T1, size=42, fileset="root", hsm="resdnt"):
    text = "%s %s %d %s" % (mtime, ctime, size, fileset)
    return text if hsm is None else text + " " + hsm


S = show()


def pdr(ino, gen=1, flag=0, path=None, show=S, pool="system", escaped=False):
    """One record line; fields 1, 2, 5, 6 and 7 carry arbitrary values that
    must come through unchanged."""
    path = "dir/f%x" % ino if path is None else path
    flag = flag if isinstance(flag, str) else "%x" % flag
    plen = -len(path) if escaped else len(path)
    return "3:%x:%016x:%x:7f:1a4:3e8:%s:%d!%s:%d!%s;%d!%s\n" % (
        ino * 3, ino, gen, flag, plen, path, len(pool), pool, len(show), show)


def reflag(line, flag):
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
        self.records, self.hdr = list(records), hdr

    def text(self):
        return self.hdr + "".join(self.records)

    def at(self, i):
        """Byte position of record i."""
        return len(self.hdr.replace(NOW, NOW_SAMPLE)) + sum(map(len, self.records[:i]))


def worklist(keyword, offset, line):
    """The record with its SHOW replaced by keyword, offset and old SHOW."""
    cut = line.rindex(";") + 1
    old_show = line[cut:][line[cut:].index("!") + 1:-1]
    tail = "%s%016x %s" % (keyword, offset, old_show)
    return "%s%d!%s\n" % (line[:cut], len(tail), tail)


def wl(keyword, db, i, src=None):
    """Work-list line at record i of db, built from src (default: record i)."""
    return worklist(keyword, db.at(i), src if src is not None else db.records[i])


UPD, MCH, EXP = "updated ", "ctimech ", "expired "
ARGS7 = ["old", "new", "list", "chg", "exp", "uns", "hsm"]
KEYWORD_FLAG = {UPD: 0xb, MCH: 0xa}


def ok(changed, expired, unsupported=0):
    return "::UPDATESHADOW::0::%d::%d::%d::\n" % (changed, expired, unsupported)


def failed(result, changed=0, expired=0, unsupported=0):
    return "quenby::UPDATESHADOWERR::%d::%d::%d::%d::\n" % (result, changed, expired, unsupported)


def case(name, out, old, scan, new, chg=(), exp=(), hsm=None, uns=None,
         args=ARGS7, env=None, files=None, stderr="", status=0):
    """old and scan are record lists or whole texts; new is a Db, a text or
    None; work lists are line lists, texts, None (must not exist) or IGNORE.
    Lists given another name in args are not checked."""
    inputs = {"old": old if isinstance(old, str) else OLD_HDR + "".join(old),
              "list": scan if isinstance(scan, str) else "".join(scan)}
    inputs.update(files or {})
    expect = {"new": new.text() if isinstance(new, Db) else new}
    for a, k, v in zip(list(args[3:7]) + [None] * 4, ("chg", "exp", "uns", "hsm"), (chg, exp, uns, hsm)):
        if a in (k, None) and v is not IGNORE:
            expect[k] = v if v is None or isinstance(v, str) else "".join(v)
    return {"name": name, "args": ["updateshadow"] + list(args), "env": env or {}, "files": inputs,
            "expect": expect, "stdout": out, "stderr": stderr, "status": status}


def merge_cases():
    X, Y = pdr(0x20), pdr(0x40)
    cases = []

    # Pending expiries are listed again whether the file is gone or its inode in use.
    old = [pdr(0x04, flag=0xd), pdr(0x06), pdr(0x08, flag=0xe), pdr(0x10, flag=0xb), pdr(0x18, flag=0xa),
           pdr(0x1c, flag=0xe), X]
    scan = [pdr(0x1c, gen=2), X]
    db = Db([reflag(old[1], 0xe), old[2], reflag(old[3], 0xe), reflag(old[4], 0xe), old[5], reflag(scan[0], 0xb), X])
    # The changed list is truncated, the expired one appended, the unused
    # unsupported and HSM lists removed.
    cases.append(case("done expiry dropped, gone files expired, pending expiries listed again, new file backed up",
                      ok(1, 5), old, scan, db, chg=[wl(UPD, db, 5)], exp=["old\n"] + [wl(EXP, db, i) for i in range(5)],
                      files={"chg": "stale\n", "exp": "old\n", "uns": "stale\n", "hsm": "stale\n"}))

    # Listed again with the old flag in the scan list's width; a reused inode
    # expires the old record first.
    old = [pdr(0x10, flag="0000000a"), pdr(0x20, flag=0xb), pdr(0x30, flag=0xb), pdr(0x40, flag=0xa)]
    scan = [pdr(0x10, show=show(size=99)), pdr(0x20), pdr(0x30, gen=2), pdr(0x40, gen=3)]
    db = Db([reflag(scan[0], 0xa), reflag(scan[1], 0xb), reflag(old[2], 0xe), reflag(scan[2], 0xb),
             reflag(old[3], 0xe), reflag(scan[3], 0xa)])
    cases.append(case("pending work of the same file or of a reused inode", ok(4, 2), old, scan, db,
                      chg=[wl(MCH, db, 0), wl(UPD, db, 1), wl(UPD, db, 3), wl(MCH, db, 5)],
                      exp=[wl(EXP, db, 2), wl(EXP, db, 4)]))

    # CHANGE pairs: of a gone file the old half expired and only the partner
    # of the same inode dropped; rewritten (listed before the new flag is
    # set); reused (expired, the new record BACKUP unlisted). The last
    # partner must not reach the expiry of the records left over.
    old = [pdr(0x04, flag=0xc), pdr(0x04, flag=0xb, show=show(size=7)), pdr(0x06, flag=0xc), pdr(0x08, flag=0xb),
           pdr(0x10, flag=0xc), pdr(0x10, flag=0xb, show=show(size=7)), X,
           pdr(0x30, flag=0xc), pdr(0x30, flag=0xa, show=show(ctime=T2)), Y,
           pdr(0x50, flag=0xc), pdr(0x50, flag=0xb, show=show(size=7)), pdr(0x60)]
    scan = [pdr(0x10, show=show(size=7)), X, pdr(0x30, show=show(ctime=T2)), Y, pdr(0x50, gen=2)]
    db = Db([reflag(old[i], 0xe) for i in (0, 2, 3)] + [old[4], reflag(scan[0], 0xb), X, old[7],
             reflag(scan[2], 0xb), Y, reflag(old[10], 0xe), reflag(scan[4], 0xb), reflag(old[12], 0xe)])
    cases.append(case("CHANGE pairs gone, unresolved or reused", ok(2, 5), old, scan, db,
                      chg=[wl(UPD, db, 3, src=scan[0]), wl(UPD, db, 6, src=scan[2])],
                      exp=[wl(EXP, db, i) for i in (0, 1, 2, 9, 11)]))

    # Differences that do not matter (fractions, migrat/premig, fileset)
    # give NORMAL, as do identical lines whatever unnamed flag they share.
    old = [pdr(0x10, path="dir/a"), pdr(0x20, gen=1), pdr(0x30, gen=ANY_GEN), pdr(0x40, gen=ANY_GEN),
           pdr(0x50, flag=5), pdr(0x60), pdr(0x70, show=show(hsm="migrat")), pdr(0x80), pdr(0x90, flag=3)]
    scan = [pdr(0x10, path="dir/b"), pdr(0x20, gen=2), pdr(0x30, gen=7), pdr(0x40, gen=9, show=show(size=43)),
            old[4], pdr(0x60, show=show(mtime="2010-01-01 10:00:00.500000", ctime="2010-01-02 11:30:00.250000")),
            pdr(0x70, show=show(hsm="premig")), pdr(0x80, show=show(fileset="other")), pdr(0x90)]
    db = Db([reflag(old[0], 0xe), reflag(scan[0], 0xb), reflag(scan[1], 0xb), scan[2], reflag(old[3], 0xc),
             reflag(scan[3], 0xb), reflag(old[4], 0)] + scan[5:])
    cases.append(case("moved, another generation, all-ones generation matching any, nothing that matters",
                      ok(3, 1), old, scan, db, chg=[wl(UPD, db, 1), wl(UPD, db, 2), wl(UPD, db, 4, src=scan[3])],
                      exp=[wl(EXP, db, 0)]))

    # Set aside while reading: internal paths and header lines skipped,
    # unsupported ones listed; an escaped "\n" counts, unescaped it does not.
    old = [pdr(0x08, path=".kestrelShadow"), X, pdr(0x25, path="old\x19name")]
    scan = [pdr(0x05, path="."), pdr(0x06, path=".kestrelShadow.db"), pdr(0x10, path="bad\x18name"), X, COMMENTS,
            pdr(0x30, path="a\\nb", escaped=True), pdr(0x38, path=".execScript/run"),
            pdr(0x40, path="a\\tb", escaped=True), pdr(0x48, path="a/.kestrel"), pdr(0x50, path="a\\nb"),
            pdr(0x58, path="./a")]
    db = Db([X] + [reflag(scan[i], 0xb) for i in (7, 8, 9, 10)])
    cases.append(case("internal paths skipped, unsupported ones appended to their list and counted", ok(4, 0, 3),
                      old, scan, db, chg=[wl(UPD, db, i) for i in range(1, 5)],
                      uns=["prior\n", scan[2], old[2], scan[5]], files={"uns": "prior\n"}))

    # A last scan line without a line feed is not read.
    long_rec = pdr(0x10, path="deep/" + "p" * 9000)
    db = Db([long_rec, reflag(pdr(0x18), 0xb), reflag(X, 0xe)])
    cases.append(case("records longer than the line buffer; a cut last line", ok(1, 1), [long_rec, X],
                      long_rec + pdr(0x18) + X[:-1], db, chg=[wl(UPD, db, 1)], exp=[wl(EXP, db, 2)]))

    # Literal, so that a slip in the helpers above cannot hide: the offset is
    # 0xe9, just after the 233-byte new header.
    line = ("0:0:000000000000abcd:1:0:0:0:0:5!a/b/c:6!system;68!"
            "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42 root resdnt\n")
    cases.append(case("a work-list line byte for byte", ok(1, 0), [], line, NEW_HDR + line.replace(":0:5!", ":b:5!"),
                      chg="0:0:000000000000abcd:1:0:0:0:b:5!a/b/c:6!system;93!updated 00000000000000e9 "
                          "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42 root resdnt\n"))
    return cases


def show_change_cases():
    """One file per kind of SHOW change, with and without incremental update."""
    rows = [  # ino, old show, new show, old flag, list when not incr, keyword without/with incr
        (0x10, S, show(size=43), "00000000", "chg", UPD, UPD),
        (0x20, S, show(ctime=T2), 0, "chg", UPD, MCH),
        (0x30, show(mtime="2010-01-01 10:00:00.000001"), show(mtime="2010-01-01 10:00:00.000002"), 0, "chg",
         UPD, UPD),
        (0x40, S, show(hsm="migrat"), 0, "chg", UPD, MCH),
        (0x50, S, show(ctime=T2, hsm="migrat"), 0, "hsm", UPD, MCH),
        (0x60, show(hsm="migrat"), show(size=1, hsm="migrat"), 0, "hsm", UPD, UPD),
        (0x70, S, show(size=0), "f", "chg", UPD, UPD),
        (0x80, show(hsm="migrat"), show(hsm=None), 0, "chg", UPD, MCH),
    ]
    cases = []
    for label, env, incr in (("unset", {}, False), ("2", {"KESTREL_QBSC_INCR_SUPPORTED": "2"}, False),
                             ("1", {"KESTREL_QBSC_INCR_SUPPORTED": "1"}, True)):
        old, scan, recs, pending = [], [], [], []
        for ino, old_show, new_show, flag, where, plain, inc in rows:
            keyword = inc if incr else plain
            o, n = pdr(ino, flag=flag, show=old_show), pdr(ino, show=new_show)
            old.append(o)
            scan.append(n)
            recs += [reflag(o, "0000000c" if flag == "00000000" else "c"), reflag(n, KEYWORD_FLAG[keyword])]
            pending.append((where, keyword, len(recs) - 2, n))
        db = Db(recs)
        lists = {"chg": [], "hsm": []}
        for where, keyword, i, n in pending:
            lists[where].append(wl(keyword, db, i, src=n))
        cases.append(case("SHOW changes, incremental update %s" % label, ok(8, 0), old, scan, db,
                          env=env, chg=lists["chg"], hsm=lists["hsm"]))
    return cases


def stage_cases():
    # Internal and unsupported paths are taken by their flag once the scan
    # list has run out.
    old = [pdr(0x10), pdr(0x11, flag=0xa), pdr(0x12, flag=0xb), pdr(0x13, flag=0xc), pdr(0x14, flag=0xe),
           pdr(0x15, flag=0xd), pdr(0x16, flag=5), pdr(0x17, path=".kestrelShadow.db"), pdr(0x18, path="odd\x18name")]
    kept = [old[i] for i in (0, 1, 2, 3, 4, 7, 8)]
    db_expired = Db([reflag(r, 0xe) for r in kept])
    scan = [pdr(0x10), pdr(0x20, show=show(hsm="migrat")), pdr(0x30, show=show(hsm="migrated"))]
    db = Db([reflag(r, 0xb) for r in scan])
    return [
        case("no more new: everything left expires, DELETE dropped, flag 5 reported", ok(0, 7), old, "",
             db_expired, chg="", exp=[wl(EXP, db_expired, i) for i in range(len(kept))],
             stderr="quenby::UPDATESHADOWERR::1::unexpected state 5 in PDR1\n" + old[6]),
        # The subDir and filesets arguments change nothing.
        case("no more old: all backed up, the migrated file to the appended HSM list", ok(3, 0), [], scan, db,
             chg=[wl(UPD, db, 0), wl(UPD, db, 2)], hsm=["prior\n", wl(UPD, db, 1)], files={"hsm": "prior\n"},
             args=ARGS7 + ["sub/dir", "fs1,fs2"]),
        case("without an HSM list the migrated file goes to the changed list", ok(3, 0), [], scan, db,
             chg=[wl(UPD, db, i) for i in range(3)], args=ARGS7[:6]),
    ]


def mode_cases():
    cases = []
    only = {"KESTREL_DO_BACKUP_ONLY": "1"}
    old = [pdr(0x10), pdr(0x14, flag=0xe), pdr(0x18, path="p"), pdr(0x20, flag=0xa), pdr(0x22, flag=0xb),
           pdr(0x24, flag=0xc), pdr(0x26, flag=0xe)]
    scan = [pdr(0x18, path="q"), pdr(0x1c)]
    db = Db(old[:3] + [reflag(scan[0], 0xb), reflag(scan[1], 0xb)] + old[3:])
    cases.append(case("backup-only: nothing expired or dropped, moves and new files listed", ok(2, 0), old, scan,
                      db, chg=[wl(UPD, db, 3), wl(UPD, db, 4)], exp="", env=dict(only, DEBUGquenby="2"),
                      stderr="quenby: BACKUP_ONLY mode on.\n"))

    snap = ".snapshots/.kestrelSnapshot/"
    old = [pdr(0x10, path=snap + "a"), pdr(0x20, path="data/x"), pdr(0x30, path=snap + "b", flag=0xb),
           pdr(0x40, path=snap + "c", flag=0xd)]
    mig_args = ["old", "new", "/dev/null", "/dev/null", "exp", "uns", "hsm"]
    hdr_only = Db([])
    cases.append(case("migration expiry: snapshots expired at one offset, no record kept", ok(0, 2), old,
                      "ignored\n", hdr_only.text(), args=mig_args, files={"uns": "stale\n", "hsm": "stale\n"},
                      exp=[wl(EXP, hdr_only, 0, src=reflag(old[i], 0xe)) for i in (0, 2)]))
    cases.append(case("migration expiry refused in backup-only mode", failed(-1), old, "", None, exp=None,
                      env=only, args=mig_args, status=255,
                      stderr="quenby::UPDATESHADOWERR::1::Cannot do 3.2 migration expiry in BACKUP_ONLY mode\n"))

    # Old format: old flags count as NORMAL, a missing HSM state stays
    # missing (resident against migrated is no change), and the records
    # after the scan are converted. In the current format it is "resdnt".
    nohsm = show(hsm=None)
    old = [pdr(0x10, flag=0xb, show=nohsm), pdr(0x18, show=nohsm), pdr(0x20, flag=0xe, show=nohsm),
           pdr(0x30, flag=0xd, show=nohsm)]
    scan = [pdr(0x10), pdr(0x18, show=show(hsm="migrat")), pdr(0x20, show=show(size=43))]
    db = Db([scan[0], scan[1], reflag(old[2], 0xc), reflag(scan[2], 0xb), reflag(old[3], 0)[:-1] + " resdnt\n"])
    for fmt in ("1399", "1002"):
        cases.append(case("format %s is old" % fmt, ok(1, 0), old, scan, db,
                          chg=[wl(UPD, db, 2, src=scan[2])], env={"KESTREL_SHADOW_FORMAT": fmt}))
    db = Db([reflag(scan[0], 0xb), reflag(old[1], 0xc), reflag(scan[1], 0xb), old[2], reflag(scan[2], 0xb)])
    for fmt in ("1400", "1001"):
        cases.append(case("format %s is current" % fmt, ok(3, 1), old, scan, db,
                          chg=[wl(UPD, db, 0), wl(UPD, db, 1, src=scan[1]), wl(UPD, db, 4)],
                          exp=[wl(EXP, db, 3)], env={"KESTREL_SHADOW_FORMAT": fmt}))

    # Conversion: every record NORMAL in its own flag width with " resdnt"
    # after its SHOW text, the SHOW length left as it was; the date carried.
    date = "Tue Feb  2 03:04:05 2021\n"
    old = [pdr(0x10, flag=0xb, show=nohsm), pdr(0x20, flag=0xd, show=nohsm),
           pdr(0x30, path=".kestrelShadow", show=nohsm), pdr(0x40, flag="0000000a")]
    converted = [reflag(r, "0" * len(r.split(":")[7]))[:-1] + " resdnt\n" for r in old]
    cases.append({"name": "conversion of an old shadow database", "args": ["updateshadow", "old", "new"],
                  "files": {"old": header(name="CONVDB", version=1300, bdir="/mnt/cluster/old", count=2, date=date)
                            + "".join(old)},
                  "expect": {"new": header(name="CONVDB", bdir="/mnt/cluster/old", count=2, date=date) + "".join(converted)},
                  "stdout": ok(0, 0)})
    # Every header check, each by its code; updating falls back to a default
    # header on the same checks.
    for label, text, code in (("an empty file", "", -2), ("a record as first line", pdr(0x10), -5),
                              ("a 20-character name", header(name="N" * 20), -7),
                              ("a 4097-character backup directory", header(bdir="/" + "d" * 4096), -11),
                              ("a 1-character tool name", header(tool="k"), -12),
                              ("a 33-character tool name", header(tool="t" * 33), -12),
                              ("a count that is not a number", header(count="x"), -13)):
        cases.append({"name": "conversion refuses %s" % label, "args": ["updateshadow", "old", "new"],
                      "files": {"old": text}, "expect": {"new": ""}, "stdout": failed(-1), "status": 255,
                      "stderr": "quenby::UPDATESHADOWERR::1::could not interpret header to migrate "
                                "shadow DB old err %d\n" % code})
    return cases


def header_cases():
    X, Z = pdr(0x20), pdr(0x30)
    # Each field at its longest or shortest good length; the line longer
    # than the line buffer.
    good = dict(name="N" * 19, bdir="/" + "d" * 4095, tool="kt", count=7)
    cases = [case("a good header carried over with the current date", ok(0, 0),
                  header(version=1300, date="d" * 9000 + "\n", **good) + X, [X], Db([X], hdr=header(date=NOW, **good)))]
    db = Db([X, reflag(Z, 0xb)], hdr=header(bdir="/x", tool="t" * 32, date=NOW))
    cases.append(case("KESTREL_BACKUPDIR replaces the backup directory; a 32-character tool name", ok(1, 0),
                      header(tool="t" * 32) + X, [X, Z], db, chg=[wl(UPD, db, 1)], env={"KESTREL_BACKUPDIR": "/x"}))
    warning = ("quenby::UPDATESHADOWERR::0::proceeding with default header info after bad header "
               "found in previous shadow %s\n")
    for label, text, db in (("an empty file", "", Db([reflag(X, 0xb), reflag(Z, 0xb)], hdr=DEFAULT_HDR)),
                            ("a record as first line, which is consumed", pdr(0x10) + X,
                             Db([X, reflag(Z, 0xb)], hdr=DEFAULT_HDR))):
        cases.append(case("default header after %s" % label, ok(len(db.records) - (X in db.records), 0), "",
                          [X, Z], db, chg=[wl(UPD, db, i) for i, r in enumerate(db.records) if r != X],
                          args=["db/old"] + ARGS7[1:], files={"db/old": text}, stderr=warning % "db/old"))
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
            ("an expired list in a missing directory", ARGS7[:4] + ["nodir/exp"] + ARGS7[5:],
             "nodir/exp for writing", "", "")):
        c = case("open failure: %s" % label, failed(-1), [pdr(0x10)], [pdr(0x10)], new, args=args,
                 chg=chg, exp=None, status=255,
                 stderr="quenby::UPDATESHADOWERR::1::could not open %s (error=2)\n" % message)
        c["expect"]["nodir"] = None
        cases.append(c)

    A = pdr(0x10)
    db = Db([reflag(A, 0xb)])
    bad = pdr(0x10, show="%s %s 42" % (T0, T1))
    cases += [
        case("a malformed scan record ends the run after what was written", failed(-1, 1), [], A + "garbage\n",
             db, chg=[wl(UPD, db, 0)], stderr="quenby: failed to parse shadow line [1]garbage\n\n", status=255),
        case("a malformed old record ends the run after the header", failed(-1), [bad], [A], Db([]),
             chg="", exp="", status=255, stderr="quenby: invalid show attribute in %s\n" % bad),
        case("a scan list that cannot be read is no empty scan: nothing is expired", failed(-1), [A], [], Db([]),
             args=["old", "new", "dir"] + ARGS7[3:], files={"dir/f": ""}, chg="", exp="", status=255,
             stderr="quenby: failed to read records (error=21)\n"),
        # The records fit the stream's buffer: the loss shows when it is closed.
        case("an unwritable new shadow database", failed(-1, 1, 1), [A, pdr(0x18)], [A, pdr(0x20)], None,
             args=["old", "/dev/full"] + ARGS7[2:], chg=IGNORE, exp=IGNORE, status=255,
             stderr="quenby::UPDATESHADOWERR::1::close of /dev/full failed (error=28)\n"),
    ]
    return cases


class UpdateShadowTest(unittest.TestCase):
    def test_cases(self):
        for table in (merge_cases, show_change_cases, stage_cases, mode_cases, header_cases, failure_cases):
            for c in table():
                run_case(self, c)


if __name__ == "__main__":
    e2e_util.main()
