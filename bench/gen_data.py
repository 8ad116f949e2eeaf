#!/usr/bin/env python3
"""Generate a shadow database and policy scan lists for benchmarks and sample runs.

Writes into DIR:
  shadow.old  header block + N records sorted by inode, all flagged NORMAL
  scan.old    the same records as a scan list (no header)
  scan.new    the next day's scan list: scan.old with a fraction of churn applied

Usage:
  python3 bench/gen_data.py --records N --out DIR [--churn 0.10] [--seed S] [--old-format]

Unchanged records are byte-identical in all three files, so the update merge
sees them as equal lines.  With --old-format the shadow records carry no HSM
state (six SHOW fields); the scan lists always carry it, as a current policy
scan writes them.  Output is plain ASCII, so a text length is its byte length.
"""

import argparse
import calendar
import datetime
import os
import random
import sys
import time

DBNAME = "00_BACKUP_FILES_41"
BACKUPDIR = "/cluster/fs1"
TOOL = "kestrel"

# Time of the scan behind shadow.old; file times lie before it, the changes in
# scan.new fall on the day after it.
SHADOW_TIME = calendar.timegm((2024, 3, 6, 2, 10, 5))
BASE_TIME = calendar.timegm((2012, 1, 1, 0, 0, 0))

U64 = 1 << 64

# Churn kinds: (name, share of the churn). "new" adds records, the others
# pick distinct existing ones.
KINDS = (
    ("content", 0.30),
    ("ctime", 0.15),
    ("hsm", 0.10),
    ("deleted", 0.15),
    ("new", 0.15),
    ("moved", 0.10),
    ("reused", 0.05),
)
K_CONTENT, K_CTIME, K_HSM, K_DELETED, K_NEW, K_MOVED, K_REUSED = range(1, 8)

# Special records, kept out of the churn.
S_INTERNAL, S_ESCAPED = 1, 2

COMPONENTS = (
    "src", "include", "lib", "docs", "results", "data", "build", "tmp",
    "archive", "old", "test", "tests", "scripts", "config", "logs", "output",
    "input", "figures", "raw", "processed", "v2", "backup", "notes", "shared",
    "release-1.4", "module_%d", "run_%03d", "2019", "2020", "2021", "2022",
    "2023", "Q%d", "batch_%02d", "sample-%04d", "case%d", "chapter%d",
    "photos", "mail", "work",
)
BLANK_COMPONENTS = ("My Documents", "Meeting Notes", "draft copy")
STEMS = (
    "file", "report", "data", "image", "notes", "main", "util", "analysis",
    "output", "log", "summary", "IMG", "scan", "table", "part", "checkpoint",
    "config", "index",
)
BLANK_STEMS = ("report 2019", "Copy of budget", "final version")
ODD_STEMS = ("notes: draft;v2!", "a:b", "x;y", "hello!", "time 12:30; take 2!")
EXTS = (
    "c", "h", "cpp", "py", "txt", "pdf", "dat", "csv", "log", "tar.gz",
    "jpg", "png", "h5", "nc", "docx", "xlsx", "json", "md", "o", "bin",
)
PROJECTS = ("alpha", "beta", "gamma", "delta", "orion", "lyra", "vega", "atlas")
# nlink:mode pairs for fields 6 and 7.
MODES = ("1:81a4",) * 12 + ("1:81ed", "1:8180", "2:81a4", "1:a1ff")
POOLS = ("data",) * 14 + ("system",) * 4 + ("archive",) * 2
ESCAPED_NAMES = ("tab\\there_%d.txt", "caf\\303\\251_%d.txt",
                 "bell\\a_%d.log", "back\\\\slash_%d.dat")
INTERNAL_NAMES = (".kestrelShadow.%s.%%d" % DBNAME, ".kestrelwork/bunch.%05d",
                  ".kestrelTemp.%d")


def parse_args(argv):
    p = argparse.ArgumentParser(description="Generate quenby benchmark data: shadow.old, scan.old and scan.new "
                                "in the output directory; prints what was changed, by kind.")
    p.add_argument("--records", type=int, required=True, help="records in shadow.old")
    p.add_argument("--out", required=True, help="output directory")
    p.add_argument("--churn", type=float, default=0.10,
                   help="changes in scan.new as a fraction of --records (0..1, default 0.10)")
    p.add_argument("--seed", type=int, default=1, help="random seed; the same seed gives the same files (default 1)")
    p.add_argument("--old-format", action="store_true",
                   help="shadow records without the HSM state field")
    a = p.parse_args(argv)
    if a.records < 0:
        p.error("--records must not be negative")
    if not 0.0 <= a.churn <= 1.0:
        p.error("--churn must lie between 0 and 1")
    return a


def split_churn(total):
    """Largest-remainder split of total over KINDS, so the counts add up exactly."""
    raw = [total * w for _, w in KINDS]
    counts = [int(x) for x in raw]
    order = sorted(range(len(raw)), key=lambda j: (counts[j] - raw[j], j))
    for j in order[: total - sum(counts)]:
        counts[j] += 1
    return counts


def make_dirs(rng, n):
    """Directory pool: (path, fileset). Paths hold at most 7 components so files stay within depth 8."""
    dirs = []
    for _ in range(n):
        r = rng.random()
        if r < 0.30:
            prefix = ["home", "user%d" % rng.randrange(1, 200)]
            fileset = "home"
        elif r < 0.65:
            pj = rng.randrange(len(PROJECTS))
            prefix = ["projects", PROJECTS[pj]]
            fileset = "proj%02d" % (pj + 1)
        elif r < 0.78:
            prefix = ["scratch", "job_%05d" % rng.randrange(100000)]
            fileset = "scratch"
        elif r < 0.97:
            prefix = [("data", "software", "shared")[rng.randrange(3)]]
            fileset = "root"
        else:
            prefix = []
            fileset = "root"
        room = 7 - len(prefix)
        depth = min(room, int(rng.random() ** 1.6 * (room + 1)))
        comps = prefix
        for _ in range(depth):
            if rng.random() < 0.015:
                c = BLANK_COMPONENTS[rng.randrange(len(BLANK_COMPONENTS))]
            else:
                c = COMPONENTS[rng.randrange(len(COMPONENTS))]
            if "%" in c:
                c = c % rng.randrange(1, 100)
            comps.append(c)
        dirs.append(("/".join(comps), fileset))
    return dirs


def day_table():
    """'YYYY-MM-DD' for every day from BASE_TIME to a few days past SHADOW_TIME."""
    first = datetime.date(2012, 1, 1).toordinal()
    ndays = (SHADOW_TIME - BASE_TIME) // 86400 + 4
    return [datetime.date.fromordinal(first + d).isoformat() for d in range(ndays)]


def header_lines():
    date = time.asctime(time.gmtime(SHADOW_TIME))  # 24 characters, like asctime(3)
    return ("%%%%mshadow0%%%%:%s:1400:%s:%s:1:%s\n" % (DBNAME, BACKUPDIR, TOOL, date)
            + "%%shadow%%:03_COMMENT::1:\n"
            + "%%shadow%%:03_COMMENT::2:   This is a machine generated file.\n"
            + "%%shadow%%:03_COMMENT::3:   Do not delete or edit!\n"
            + "%%shadow%%:03_COMMENT::4:\n")


def generate(args):
    n = args.records
    rng = random.Random(args.seed)
    rnd = rng.random
    bits = rng.getrandbits

    churn_total = int(round(args.churn * n))
    counts = split_churn(churn_total)
    k_new = counts[K_NEW - 1]
    k_existing = churn_total - k_new

    # Special records: internal and escaped paths.
    n_int = int(round(n * 1e-4))
    n_esc = n_int
    if n >= 1000:
        n_int = max(1, n_int)
        n_esc = max(1, n_esc)
    special = bytearray(n)
    picks = rng.sample(range(n), n_int + n_esc)
    for j, idx in enumerate(picks):
        special[idx] = S_INTERNAL if j < n_int else S_ESCAPED
    if k_existing > n - n_int - n_esc:
        sys.exit("gen_data: churn %d larger than the %d records that may change"
                 % (k_existing, n - n_int - n_esc))

    # Churn on existing records: distinct, none of them special.
    kind = bytearray(n)
    cand = [i for i in rng.sample(range(n), min(n, k_existing + n_int + n_esc))
            if not special[i]][:k_existing]
    pos = 0
    for k, c in zip(range(1, 8), counts):
        if k == K_NEW:
            continue
        for i in cand[pos:pos + c]:
            kind[i] = k
        pos += c

    # New records go into slots: slot i is the inode gap just before record i,
    # slot n the range after the last record.
    new_at = {}
    for _ in range(k_new):
        s = rng.randrange(n + 1)
        new_at[s] = new_at.get(s, 0) + 1

    # A few records at the top get inode numbers above 2**63.
    n_large = 0
    if n >= 10:
        n_large = min(n // 10, max(3, n // 20000))
    large_from = n - n_large

    days = day_table()
    tod = ["%02d:%02d:%02d" % (s // 3600, s // 60 % 60, s % 60) for s in range(86400)]
    span = SHADOW_TIME - BASE_TIME - 3600
    scan_day = SHADOW_TIME - BASE_TIME + 3600  # changes: 03:10 on the scan day or later
    ndirs = max(20, n // 30)
    dirs = make_dirs(rng, ndirs)
    f2 = "%016x" % (bits(64) | (1 << 63))
    old_format = args.old_format

    line_fmt = "%x:%s:%016x:%x:0:%s:%s:%d!%s:%d!%s;%d!%s\n"
    show_fmt = "%s %s.%06d %s %s.%06d %d %s"

    def new_record(serial, ino):
        """A file created on the scan day: its scan.new line."""
        d, fs = dirs[int(rnd() * ndirs)]
        name = "%s_%d.%s" % (STEMS[int(rnd() * len(STEMS))], serial, EXTS[int(rnd() * len(EXTS))])
        path = d + "/" + name if d else name
        tm = scan_day + int(rnd() * 80000)
        us = bits(20) % 1000000
        show = show_fmt % (days[tm // 86400], tod[tm % 86400], us,
                           days[tm // 86400], tod[tm % 86400], us,
                           bits(int(rnd() * 34)), fs) + " resdnt"
        pool = POOLS[int(rnd() * len(POOLS))]
        return line_fmt % (bits(32), f2, ino, bits(32) | 1, MODES[int(rnd() * len(MODES))],
                           "0", len(path), path, len(pool), pool, len(show), show)

    os.makedirs(args.out, exist_ok=True)
    open_out = lambda name: open(os.path.join(args.out, name), "w",
                                 encoding="ascii", newline="", buffering=1 << 20)
    f_shadow = open_out("shadow.old")
    f_old = open_out("scan.old")
    f_new = open_out("scan.new")
    f_shadow.write(header_lines())

    b_shadow, b_old, b_new = [], [], []
    n_new = 0
    new_serial = n
    prev = 0
    ino = 0x100 - 1
    for i in range(n):
        # Inode: spread out, with room for any new records slotted before this one.
        step = 1 + int(rnd() * 50)
        c = new_at.get(i)
        if c:
            step += c + 1
        if i == large_from:
            ino = (1 << 63) + bits(60)
        else:
            ino += step
        if c:
            # step was widened to leave room for c values below this inode.
            for v in sorted(rng.sample(range(ino - step + 1, ino), c)):
                b_new.append(new_record(new_serial, v))
                new_serial += 1
            n_new += c
        prev = ino

        sp = special[i]
        d, fs = dirs[int(rnd() * ndirs)]
        if sp == S_INTERNAL:
            path = INTERNAL_NAMES[int(rnd() * len(INTERNAL_NAMES))] % i
            fs = "root"
            plen = len(path)
        else:
            r = rnd()
            if r < 0.003:
                stem = ODD_STEMS[int(rnd() * len(ODD_STEMS))]
            elif r < 0.02:
                stem = BLANK_STEMS[int(rnd() * len(BLANK_STEMS))]
            else:
                stem = STEMS[int(r * len(STEMS))]
            if sp == S_ESCAPED:
                name = ESCAPED_NAMES[int(rnd() * len(ESCAPED_NAMES))] % i
            else:
                name = "%s_%d.%s" % (stem, i, EXTS[int(rnd() * len(EXTS))])
            path = d + "/" + name if d else name
            plen = -len(path) if sp == S_ESCAPED else len(path)

        tm = int(span * rnd() ** 0.5)
        tc = tm if rnd() < 0.4 else tm + 1 + int((span - tm) * rnd())
        if rnd() < 0.02:
            um = uc = 0  # as a rebuilt shadow record would carry
        else:
            um = bits(20) % 1000000
            uc = um if tc == tm else bits(20) % 1000000
        size = bits(int(rnd() * 36))
        k = kind[i]
        r = rnd()
        hsm = "resdnt" if (r >= 0.06 or k == K_HSM) else ("migrat" if r < 0.05 else "premig")
        pool = POOLS[int(rnd() * len(POOLS))]
        f1 = bits(32)
        gen = bits(32) | 1
        mode = MODES[int(rnd() * len(MODES))]
        flag = "00000000" if rnd() < 0.01 else "0"

        show6 = show_fmt % (days[tm // 86400], tod[tm % 86400], um,
                            days[tc // 86400], tod[tc % 86400], uc, size, fs)
        show = show6 + " " + hsm
        line = line_fmt % (f1, f2, ino, gen, mode, flag, plen, path,
                           len(pool), pool, len(show), show)
        b_old.append(line)
        if old_format:
            b_shadow.append(line_fmt % (f1, f2, ino, gen, mode, flag, plen, path,
                                        len(pool), pool, len(show6), show6))
        else:
            b_shadow.append(line)

        if k == 0:
            b_new.append(line)
        elif k != K_DELETED:
            if k == K_CONTENT:
                tm = tc = scan_day + int(rnd() * 80000)
                um = uc = bits(20) % 1000000
                if size and rnd() < 0.3:
                    size //= 2
                else:
                    size += 1 + bits(16)
            elif k == K_CTIME:
                tc = scan_day + int(rnd() * 80000)
                uc = bits(20) % 1000000
            elif k == K_HSM:
                hsm = "migrat"
            elif k == K_MOVED:
                d2, fs = dirs[int(rnd() * ndirs)]
                base = path.rsplit("/", 1)[-1]
                path2 = d2 + "/" + base if d2 else base
                path = path2 if path2 != path else (d2 + "/moved_" + base if d2 else "moved_" + base)
                plen = len(path)
                tc = scan_day + int(rnd() * 80000)
                uc = bits(20) % 1000000
            elif k == K_REUSED:
                g2 = bits(32) | 1
                gen = g2 if g2 != gen else gen ^ 2
                tm = tc = scan_day + int(rnd() * 80000)
                um = uc = bits(20) % 1000000
                size = bits(int(rnd() * 30))
            show = show_fmt % (days[tm // 86400], tod[tm % 86400], um,
                               days[tc // 86400], tod[tc % 86400], uc, size, fs) + " " + hsm
            b_new.append(line_fmt % (f1, f2, ino, gen, mode, "0", plen, path,
                                     len(pool), pool, len(show), show))

        if len(b_old) >= 20000:
            f_shadow.write("".join(b_shadow))
            f_old.write("".join(b_old))
            f_new.write("".join(b_new))
            b_shadow.clear()
            b_old.clear()
            b_new.clear()

    c = new_at.get(n)
    if c:
        for v in sorted(rng.sample(range(prev + 1, prev + 2 + 50 * c), c)):
            b_new.append(new_record(new_serial, v))
            new_serial += 1
        n_new += c
    f_shadow.write("".join(b_shadow))
    f_old.write("".join(b_old))
    f_new.write("".join(b_new))
    for f in (f_shadow, f_old, f_new):
        f.close()

    per_kind = [kind.count(k) if k != K_NEW else n_new for k in range(1, 8)]
    changed = sum(per_kind) - n_new
    summary = ["records=%d" % n, "churn=%d" % churn_total]
    summary += ["%s=%d" % (name, c) for (name, _), c in zip(KINDS, per_kind)]
    summary += ["unchanged=%d" % (n - changed), "internal=%d" % n_int,
                "escaped=%d" % n_esc, "large_ino=%d" % n_large,
                "scan_new=%d" % (n - per_kind[K_DELETED - 1] + n_new),
                "old_format=%d" % int(old_format)]
    print(" ".join(summary))


def main(argv=None):
    generate(parse_args(sys.argv[1:] if argv is None else argv))


if __name__ == "__main__":
    main()
