"""updateshadow end to end: the merge, the work lists, the header, the modes and the failures."""

import e2e_util
from e2e_util import NOW, NOW_SAMPLE

T0, T1, T2 = "2010-01-01 10:00:00.000000", "2010-01-02 11:30:00.000000", "2010-01-03 08:15:00.000000"
ANY_GEN = 0xffffffffffffffff


def show(mtime=T0, ctime=T1, size=42, fileset="root", hsm="resdnt"):
    return "%s %s %d %s" % (mtime, ctime, size, fileset) + ("" if hsm is None else " " + hsm)


S = show()


def pdr(ino, gen=1, flag=0, path=None, show=S, pool="system", escaped=False):
    """One record line; fields 1, 2, 5, 6 and 7 must come through unchanged."""
    path = "dir/f%x" % ino if path is None else path
    return "3:%x:%016x:%x:7f:1a4:3e8:%s:%d!%s:%d!%s;%d!%s\n" % (ino * 3, ino, gen, flag if isinstance(flag, str) else
                                                              "%x" % flag, -len(path) if escaped else len(path), path,
                                                              len(pool), pool, len(show), show)


def reflag(line, flag):
    """The record with another flag; a number keeps the field's width."""
    f = line.split(":")
    return ":".join(f[:7] + [flag if isinstance(flag, str) else "%0*x" % (len(f[7]), flag)] + f[8:])


def header(name="TESTDB", version=1400, bdir="/backup", tool="kestrel", count=3, date="Mon Jan  1 00:00:00 2024\n"):
    return ("%%%%mshadow0%%%%:%s:%s:%s:%s:%s:%s" % (name, version, bdir, tool, count, date)
            + "".join("%%%%shadow%%%%:03_COMMENT::%d:%s\n" % c for c in enumerate(
                ("", "   This is a machine generated file.", "   Do not delete or edit!", ""), 1)))


OLD_HDR, NEW_HDR = header(version=1300), header(date=NOW)


class Db:
    """An expected new shadow database: header, records, text; at(i) is the byte position of record i."""

    def __init__(self, records, hdr=NEW_HDR):
        self.records, self.hdr, self.text = list(records), hdr, hdr + "".join(records)

    def at(self, i):
        return len(self.hdr.replace(NOW, NOW_SAMPLE)) + sum(map(len, self.records[:i]))


def worklist(keyword, offset, line):
    """The record with its SHOW replaced by keyword, offset and old SHOW."""
    cut = line.rindex(";") + 1
    tail = "%s%016x %s" % (keyword, offset, line[cut:].split("!", 1)[1][:-1])
    return "%s%d!%s\n" % (line[:cut], len(tail), tail)


def wl(keyword, db, i, src=None):
    return worklist(keyword, db.at(i), db.records[i] if src is None else src)


UPD, MCH, EXP = "updated ", "ctimech ", "expired "
ARGS7 = ["old", "new", "list", "chg", "exp", "uns", "hsm"]


def ok(changed, expired, unsupported=0):
    return "::UPDATESHADOW::0::%d::%d::%d::\n" % (changed, expired, unsupported)


def failed(result, changed=0, expired=0):
    return "quenby::UPDATESHADOWERR::%d::%d::%d::0::\n" % (result, changed, expired)


def case(name, out, old, scan, new, args=ARGS7, files=None, **extra):
    """old, scan: record lists or texts; new: a Db, a text or None. The work lists named in args are checked:
    line lists, texts or None when they must not exist (default: chg and exp empty, uns and hsm removed)."""
    lists = {k: extra.pop(k, "" if k in ("chg", "exp") else None) for k in ("chg", "exp", "uns", "hsm")}
    expect = {k: v if v is None or isinstance(v, str) else "".join(v) for k, v in lists.items() if k in args}
    return dict({"name": name, "args": ["updateshadow"] + list(args), "stdout": out,
                 "files": dict({"old": old if isinstance(old, str) else OLD_HDR + "".join(old),
                                "list": scan if isinstance(scan, str) else "".join(scan)}, **(files or {})),
                 "expect": dict(expect, new=new.text if isinstance(new, Db) else new)}, **extra)


def merge_cases():
    X, Y = pdr(0x20), pdr(0x40)
    # Pending expiries are listed again whether the file is gone or its inode in use; pending work of the same file
    # is listed again with the old flag in the scan list's width, of a reused inode after the old record's expiry.
    # The changed list is truncated, the expired one appended, the unused lists removed. 1400 is the current format.
    old = [pdr(0x04, flag=0xd), pdr(0x06), pdr(0x08, flag=0xe), pdr(0x10, flag=0xb), pdr(0x18, flag=0xa),
           pdr(0x1c, flag=0xe), X, pdr(0x30, flag="0000000a"), pdr(0x34, flag=0xb), pdr(0x38, flag=0xb),
           pdr(0x3c, flag=0xa)]
    scan = [pdr(0x1c, gen=2), X, pdr(0x30, show=show(size=99)), pdr(0x34), pdr(0x38, gen=2), pdr(0x3c, gen=3)]
    db = Db([reflag(old[1], 0xe), old[2], reflag(old[3], 0xe), reflag(old[4], 0xe), old[5], reflag(scan[0], 0xb), X,
             reflag(scan[2], 0xa), reflag(scan[3], 0xb), reflag(old[9], 0xe), reflag(scan[4], 0xb),
             reflag(old[10], 0xe), reflag(scan[5], 0xa)])
    cases = [case("expiries done, due, pending; pending work of the same file or of a reused inode; a new file",
                  ok(5, 7), old, scan, db, env={"KESTREL_SHADOW_FORMAT": "1400"},
                  chg=[wl(UPD, db, 5), wl(MCH, db, 7), wl(UPD, db, 8), wl(UPD, db, 10), wl(MCH, db, 12)],
                  exp=["old\n"] + [wl(EXP, db, i) for i in (0, 1, 2, 3, 4, 9, 11)],
                  files={"chg": "stale\n", "exp": "old\n", "uns": "stale\n", "hsm": "stale\n"})]

    # CHANGE pairs: gone (the old half expired, only the partner of its inode dropped), rewritten (listed before the
    # new flag is set), reused (expired, the new record unlisted); the last partner is no leftover to expire.
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

    # A difference that does not matter gives NORMAL, as do identical lines whatever unnamed flag they share.
    old = [pdr(0x10, path="dir/a"), pdr(0x20, gen=1), pdr(0x30, gen=ANY_GEN), pdr(0x40, gen=ANY_GEN),
           pdr(0x50, flag=5), pdr(0x60), pdr(0x90, flag=3)]
    scan = [pdr(0x10, path="dir/b"), pdr(0x20, gen=2), pdr(0x30, gen=7), pdr(0x40, gen=9, show=show(size=43)),
            old[4], pdr(0x60, show=show(mtime="2010-01-01 10:00:00.500000", fileset="other")), pdr(0x90)]
    db = Db([reflag(old[0], 0xe), reflag(scan[0], 0xb), reflag(scan[1], 0xb), scan[2], reflag(old[3], 0xc),
             reflag(scan[3], 0xb), reflag(old[4], 0)] + scan[5:])
    cases.append(case("moved, another generation, all-ones generation matching any, nothing that matters",
                      ok(3, 1), old, scan, db, chg=[wl(UPD, db, 1), wl(UPD, db, 2), wl(UPD, db, 4, src=scan[3])],
                      exp=[wl(EXP, db, 0)]))

    # Internal paths and header lines skipped, unsupported ones listed (an escaped "\n" counts, unescaped not); a
    # record longer than the line buffer; a last line without a line feed is not read.
    long_rec = pdr(0x04, path="deep/" + "p" * 9000)
    old = [long_rec, pdr(0x08, path=".kestrelShadow"), X, pdr(0x25, path="old\x19name")]
    scan = [long_rec, pdr(0x05, path="."), pdr(0x06, path=".kestrelShadow.db"), pdr(0x10, path="bad\x18name"), X,
            header(), pdr(0x30, path="a\\nb", escaped=True), pdr(0x38, path=".execScript/run"),
            pdr(0x40, path="a\\tb", escaped=True), pdr(0x48, path="a/.kestrel"), pdr(0x50, path="a\\nb"),
            pdr(0x58, path="./a"), pdr(0x60)[:-1]]
    db = Db([long_rec, X] + [reflag(scan[i], 0xb) for i in (8, 9, 10, 11)])
    cases.append(case("internal paths skipped, unsupported ones appended to their list and counted", ok(4, 0, 3),
                      old, "".join(scan), db, chg=[wl(UPD, db, i) for i in range(2, 6)],
                      uns=["prior\n", scan[3], old[3], scan[6]], files={"uns": "prior\n"}))

    return cases


def show_change_cases():
    # One file per kind of SHOW change; run without incremental update, then with it and without an HSM list.
    rows = [  # ino, old show, new show, old flag, list when not incr, keyword with incr
        (0x10, S, show(size=43), "00000000", "chg", UPD),
        (0x20, S, show(ctime=T2), 0, "chg", MCH),
        (0x40, S, show(hsm="migrat"), 0, "chg", MCH),
        (0x50, S, show(ctime=T2, hsm="migrat"), 0, "hsm", MCH),
        (0x60, show(hsm="migrat"), show(size=1, hsm="migrat"), 0, "hsm", UPD),
        (0x70, show(hsm=None), show(hsm="migrat"), 0, "chg", MCH),  # no state in the current format: resident
        (0x80, show(hsm="migrat"), show(hsm=None), 0, "chg", MCH),
    ]
    old = [pdr(r[0], flag=r[3], show=r[1]) for r in rows]
    scan = [pdr(r[0], show=r[2]) for r in rows]
    cases = []
    for env, incr, args in (({}, False, ARGS7), ({"KESTREL_QBSC_INCR_SUPPORTED": "1"}, True, ARGS7[:6])):
        keywords = [r[5] if incr else UPD for r in rows]
        db = Db(sum(([reflag(o, 0xc), reflag(n, {UPD: 0xb, MCH: 0xa}[k])] for o, n, k in zip(old, scan, keywords)), []))
        lists = {w: [wl(k, db, 2 * i, src=scan[i]) for i, (r, k) in enumerate(zip(rows, keywords))
                     if (r[4] if r[4] in args else "chg") == w] for w in ("chg", "hsm")}
        cases.append(case("SHOW changes, incremental update %s" % incr, ok(len(rows), 0), old, scan, db, args,
                          env=env, **lists))
    return cases


def stage_cases():
    # Internal and unsupported paths are taken by their flag once the scan list has run out.
    old = [pdr(0x10), pdr(0x11, flag=0xa), pdr(0x12, flag=0xb), pdr(0x13, flag=0xc), pdr(0x14, flag=0xe),
           pdr(0x15, flag=0xd), pdr(0x16, flag=5), pdr(0x17, path=".kestrelShadow.db"), pdr(0x18, path="odd\x18name")]
    gone = Db([reflag(old[i], 0xe) for i in (0, 1, 2, 3, 4, 7, 8)])
    # A literal first record guards the helpers: its line goes at 0xe9, just after the 233-byte new header.
    lit = "0:0:000000000000000a:1:0:0:0:%s:5!a/b/c:6!system;%s2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 " \
        "42 root resdnt\n"
    scan = [lit % (0, "68!"), pdr(0x10), pdr(0x20, show=show(hsm="migrat")), pdr(0x30, show=show(hsm="migrated"))]
    db = Db([lit % ("b", "68!")] + [reflag(r, 0xb) for r in scan[1:]])
    return [
        case("no more new: everything left expires, DELETE dropped, flag 5 reported", ok(0, 7), old, "", gone,
             exp=[wl(EXP, gone, i) for i in range(7)],
             stderr="quenby::UPDATESHADOWERR::1::unexpected state 5 in PDR1\n" + old[6]),
        # The subDir and filesets arguments change nothing.
        case("no more old: all backed up, the migrated file to the appended HSM list", ok(4, 0), [], scan, db,
             ARGS7 + ["sub/dir", "fs1,fs2"], {"hsm": "prior\n"}, hsm=["prior\n", wl(UPD, db, 2)],
             chg=[lit % ("b", "93!updated 00000000000000e9 "), wl(UPD, db, 1), wl(UPD, db, 3)])]


def mode_cases():
    only = {"KESTREL_DO_BACKUP_ONLY": "1"}
    old = [pdr(0x10), pdr(0x14, flag=0xe), pdr(0x18, path="p"), pdr(0x20, flag=0xa), pdr(0x22, flag=0xb),
           pdr(0x24, flag=0xc), pdr(0x26, flag=0xe)]
    scan = [pdr(0x18, path="q"), pdr(0x1c)]
    db = Db(old[:3] + [reflag(scan[0], 0xb), reflag(scan[1], 0xb)] + old[3:])
    cases = [case("backup-only: nothing expired or dropped, moves and new files listed", ok(2, 0), old, scan, db,
                  chg=[wl(UPD, db, 3), wl(UPD, db, 4)], env=only)]

    snap = ".snapshots/.kestrelSnapshot/"
    old = [pdr(0x10, path=snap + "a"), pdr(0x20, path="data/x"), pdr(0x30, path=snap + "b", flag=0xb),
           pdr(0x40, path=snap + "c", flag=0xd)]
    mig_args = ["old", "new", "/dev/null", "/dev/null", "exp", "uns", "hsm"]
    cases.append(case("migration expiry: snapshots expired at one offset, no record kept", ok(0, 2), old,
                      "ignored\n", NEW_HDR, mig_args, {"uns": "stale\n", "hsm": "stale\n"},
                      exp=[wl(EXP, Db([]), 0, src=reflag(old[i], 0xe)) for i in (0, 2)]))
    cases.append(case("migration expiry refused in backup-only mode", failed(-1), old, "", None, mig_args, exp=None,
                      env=only, status=255,
                      stderr="quenby::UPDATESHADOWERR::1::Cannot do 3.2 migration expiry in BACKUP_ONLY mode\n"))

    # Old format: old flags count as NORMAL, a missing HSM state stays missing (resident against migrated is no
    # change), and the records after the scan are converted.
    nohsm = show(hsm=None)
    old = [pdr(0x10, flag=0xb, show=nohsm), pdr(0x18, show=nohsm), pdr(0x20, flag=0xe, show=nohsm),
           pdr(0x30, flag=0xd, show=nohsm)]
    scan = [pdr(0x10), pdr(0x18, show=show(hsm="migrat")), pdr(0x20, show=show(size=43))]
    db = Db([scan[0], scan[1], reflag(old[2], 0xc), reflag(scan[2], 0xb), reflag(old[3], 0)[:-1] + " resdnt\n"])
    cases += [case("format %s is old" % fmt, ok(1, 0), old, scan, db, chg=[wl(UPD, db, 2, src=scan[2])],
                   env={"KESTREL_SHADOW_FORMAT": fmt}) for fmt in ("1399", "1002")]

    # Conversion: every record NORMAL in its flag's width, " resdnt" after its SHOW (length unchanged); date kept.
    conv = dict(name="CONVDB", bdir="/mnt/cluster/old", count=2, date="Tue Feb  2 03:04:05 2021\n")
    old = [pdr(0x10, flag=0xb, show=nohsm), pdr(0x20, flag=0xd, show=nohsm),
           pdr(0x30, path=".kestrelShadow", show=nohsm), pdr(0x40, flag="0000000a")]
    converted = [reflag(r, 0)[:-1] + " resdnt\n" for r in old]
    return cases + [
        case("conversion of an old shadow database", ok(0, 0), header(version=1300, **conv) + "".join(old), "",
             header(**conv) + "".join(converted), ["old", "new"])]


def header_cases():
    X, Z = pdr(0x20), pdr(0x30)
    # Fields at their longest or shortest, a line longer than the buffer; KESTREL_BACKUPDIR replaces the directory.
    good = dict(name="N" * 19, tool="t" * 32, count=7)
    db = Db([X, reflag(Z, 0xb)], hdr=header(bdir="/x", date=NOW, **good))
    default = Db([X, reflag(Z, 0xb)], hdr=header(name="00_BACKUP_FILES_41", bdir="db", count=1, date=NOW))
    return [
        case("a good header carried over with the current date and KESTREL_BACKUPDIR", ok(1, 0),
             header(version=1300, bdir="/" + "d" * 4095, date="d" * 9000 + "\n", **good) + X, [X, Z], db,
             chg=[wl(UPD, db, 1)], env={"KESTREL_BACKUPDIR": "/x"}),
        case("default header after a record as first line, which is consumed", ok(1, 0), "", [X, Z], default,
             ["db/old"] + ARGS7[1:], {"db/old": pdr(0x10) + X}, chg=[wl(UPD, default, 1)],
             stderr="quenby::UPDATESHADOWERR::0::proceeding with default header info after bad header found in "
                    "previous shadow db/old\n")]


def failure_cases():
    """A failed run leaves no new database or changed list and no line in a list; the lists it opened stay."""
    A = pdr(0x10)
    bad = pdr(0x10, show="%s %s 42" % (T0, T1))
    gone = dict(chg=None, uns="", hsm="", status=255)
    return [
        case("a malformed scan record: nothing of what was written reaches the outputs", failed(-1, 1), [],
             A + "garbage\n", None, stderr="quenby: failed to parse shadow line [1]garbage\n\n", **gone),
        case("a malformed old record", failed(-1), [bad], [A], None,
             stderr="quenby: invalid show attribute in %s\n" % bad, **gone),
        case("a scan list that cannot be read is no empty scan: nothing is expired", failed(-1), [A], [], None,
             ["old", "new", "dir"] + ARGS7[3:], {"dir/f": ""}, stderr="quenby: failed to read records (error=21)\n",
             **gone)]


CASES = merge_cases() + show_change_cases() + stage_cases() + mode_cases() + header_cases() + failure_cases()

if __name__ == "__main__":
    e2e_util.main(CASES)
