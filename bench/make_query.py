#!/usr/bin/env python3
"""Write a server query file matching a PDR list, as the backup driver
would from a query of the backup server: one line per record,
"attrFlag mdate mtime cdate ctime size len!path", sorted by path bytes.

Usage:
  python3 bench/make_query.py --list LIST --out QUERY [--attr 1]

Internal paths (".", ".kestrel...", ".execScript...") are left out: the
server never holds them.
"""

import argparse


def main():
    ap = argparse.ArgumentParser(description="Write the server query file for a PDR list (a shadow database "
                                 "or a scan list), sorted by path bytes, internal paths left out.")
    ap.add_argument("--list", required=True, help="the PDR list; header lines are skipped")
    ap.add_argument("--out", required=True, help="the query file to write")
    ap.add_argument("--attr", type=int, default=1,
                    help="attrFlag of every line (default 1: mtime and ctime count; 0: only the mtime)")
    args = ap.parse_args()
    lines = []
    with open(args.list, "rb") as f:
        for line in f:
            if line.startswith(b"%%"):
                continue
            head, _, rest = line.partition(b"!")
            plen = int(head.split(b":")[8])
            path = rest[:abs(plen)]
            if path == b"." or path.startswith(b".kestrel") or path.startswith(b".execScript"):
                continue
            show = rest[rest.rindex(b";") + 1:]
            show = show[show.index(b"!") + 1:].split(b" ")
            mdate, mtime, cdate, ctime, size = show[0], show[1][:8], show[2], show[3][:8], show[4]
            lines.append((path, b"%d %s %s %s %s %s %d!%s\n" % (args.attr, mdate, mtime, cdate, ctime, size,
                                                                len(path), path)))
    lines.sort(key=lambda item: item[0])
    with open(args.out, "wb") as f:
        f.writelines(line for _, line in lines)


if __name__ == "__main__":
    main()
