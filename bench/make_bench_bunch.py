#!/usr/bin/env python3
"""Prepare an execbunch benchmark: a bunch of "updated" lines for every
K-th record of a shadow database, and a copy of the database in which those
records are BACKUP, so that every report rewrites a record.

Usage:
  python3 bench/make_bench_bunch.py --shadow SHADOW --lines N --out DIR [--mount /cluster/fs1]

Writes DIR/shadow.base and DIR/bunch.
"""

import argparse
import os


def main():
    ap = argparse.ArgumentParser(description="Make one execbunch benchmark bunch over a shadow database: "
                                 "DIR/bunch and DIR/shadow.base, whose picked records are BACKUP.")
    ap.add_argument("--shadow", required=True, help="the shadow database to pick records from")
    ap.add_argument("--lines", type=int, required=True,
                    help="most bunch lines, one for every K-th record (escaped paths and paths that begin with . skipped)")
    ap.add_argument("--out", required=True, help="directory for bunch and shadow.base (created)")
    ap.add_argument("--mount", default="/cluster/fs1",
                    help="mount point put before every path (default /cluster/fs1)")
    args = ap.parse_args()
    os.makedirs(args.out, exist_ok=True)
    with open(args.shadow, "rb") as f:
        lines = f.readlines()
    records = len(lines) - 5
    step = max(1, records // args.lines)
    offset = sum(map(len, lines[:5]))
    picked = 0
    with open(os.path.join(args.out, "bunch"), "wb") as bunch:
        for i in range(5, len(lines)):
            line = lines[i]
            if (i - 5) % step == 0 and picked < args.lines:
                head, _, rest = line.partition(b"!")
                fields = head.split(b":")
                plen = int(fields[8])
                path = rest[:abs(plen)]
                if plen > 0 and not path.startswith(b".") and b"\\" not in path:
                    fields[7] = b"0" * (len(fields[7]) - 1) + b"b"
                    line = b":".join(fields) + b"!" + rest
                    lines[i] = line
                    bunch.write(b"%d %d 0 updated %016x x -- %s/%s\n" % (
                        int(fields[2], 16), int(fields[3], 16), offset, args.mount.encode(), path))
                    picked += 1
            offset += len(line)
    with open(os.path.join(args.out, "shadow.base"), "wb") as f:
        f.writelines(lines)
    print("bunch of %d lines, every %d-th record" % (picked, step))


if __name__ == "__main__":
    main()
