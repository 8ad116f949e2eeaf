#!/usr/bin/env python3
"""Cut work lists into bunch files, as the backup driver does.

Each work-list line becomes one bunch line: three numbers (inode,
generation, flag), the keyword and the record offset, the old SHOW text,
then " -- " and the file's absolute path (the mount point joined to the
record's path, with backslashes and line feeds escaped).

Usage:
  python3 bench/make_bunches.py --mount /cluster/fs1 --size N --out PREFIX WORKLIST...

Writes PREFIX.1, PREFIX.2, ... of at most N lines each and prints their names.
"""

import argparse
import sys


def bunch_line(line, mount):
    head, _, rest = line.partition("!")
    fields = head.split(":")
    ino, gen, flag, plen = fields[2], fields[3], fields[7], int(fields[8])
    path, rest = rest[:abs(plen)], rest[abs(plen):]
    show = rest[rest.rindex(";") + 1:]
    show = show[show.index("!") + 1:].rstrip("\n")
    keyword, offset, old_show = show[:7], show[8:24], show[25:]
    escaped = path.replace("\\", "\\\\").replace("\n", "\\n")
    return "%d %d %d %s %s %s -- %s/%s\n" % (int(ino, 16), int(gen, 16), int(flag, 16), keyword, offset,
                                             old_show, mount.rstrip("/"), escaped)


def main():
    ap = argparse.ArgumentParser(description="Cut work lists into bunch files as the backup driver does; "
                                 "prints the names of the files written.")
    ap.add_argument("--mount", required=True, help="mount point joined to every record's path")
    ap.add_argument("--size", type=int, required=True, help="most lines in one bunch file")
    ap.add_argument("--out", required=True, help="prefix of the bunch files: PREFIX.1, PREFIX.2, ...")
    ap.add_argument("worklists", nargs="+", help="work lists, read in this order; a missing one is skipped")
    args = ap.parse_args()
    lines = []
    for name in args.worklists:
        try:
            with open(name, encoding="utf-8", errors="surrogateescape") as f:
                lines += [bunch_line(line, args.mount) for line in f]
        except FileNotFoundError:
            pass
    count = 0
    for start in range(0, len(lines), args.size):
        count += 1
        name = "%s.%d" % (args.out, count)
        with open(name, "w", encoding="utf-8", errors="surrogateescape") as f:
            f.writelines(lines[start:start + args.size])
        print(name)
    return 0


if __name__ == "__main__":
    sys.exit(main())
