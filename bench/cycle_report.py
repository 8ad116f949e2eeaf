#!/usr/bin/env python3
"""The tables of the sample backup cycle (bench/sample_cycle.sh), each made
from the files in the current directory, so that every count on screen can be
traced to the one before it.

  cycle_report.py count LABEL SHADOW        appends the record states of SHADOW to states.tsv
  cycle_report.py worklists RESULT_LINE     the work lists behind updateshadow's result line
  cycle_report.py bunches BUNCHES_FILE      one row per bunch with its client runs
  cycle_report.py states                    the states of every step from states.tsv, reconciled
"""

import argparse
import os
import sys

STATES = (("0", "NORMAL"), ("b", "BACKUP"), ("a", "METACH"), ("c", "CHANGE"), ("e", "EXPIRE"), ("d", "DELETE"))
NAMES = [name for _, name in STATES]
RUNS = (("exp", "expire"), ("chg", "backup"), ("upd", "update"))  # the order execbunch runs them in


def records(path):
    """(inode, flag digit, path) of every record; header lines are skipped."""
    with open(path, encoding="utf-8", errors="surrogateescape") as f:
        for line in f:
            if line.startswith("%%"):
                continue
            fields = line.split(":", 8)
            length, rest = fields[8].split("!", 1)
            yield fields[2], fields[7][-1], rest[:abs(int(length))]


def lines_of(path):
    if not os.path.exists(path):
        return None
    with open(path, encoding="utf-8", errors="surrogateescape") as f:
        return f.read().splitlines()


def count(args):
    counts = dict.fromkeys(NAMES, 0)
    for _, flag, _ in records(args.shadow):
        counts[dict(STATES)[flag]] += 1
    with open("states.tsv", "a") as f:
        f.write("\t".join([args.label] + [str(counts[n]) for n in NAMES]) + "\n")


def worklists(args):
    fields = args.result.strip(":").split("::")
    changed, expired = int(fields[2]), int(fields[3])
    lists = {name: lines_of(name) for name in ("changed", "hsm", "expired", "unsupp")}
    size = {name: len(lines or []) for name, lines in lists.items()}
    print("   <changed> %d = %d lines in changed + %d lines in hsm (files the HSM has migrated)%s"
          % (changed, size["changed"], size["hsm"], check(changed == size["changed"] + size["hsm"])))
    print("   <expired> %d = %d lines in expired%s" % (expired, size["expired"], check(expired == size["expired"])))
    for name, lines in lists.items():
        if lines is None:
            print("   %-8s none (a list that gets no line is removed)" % name)
        else:
            print("   %-8s %d lines, the first one whole:\n     %s" % (name, len(lines), lines[0]))
    # A scan record that has no record in the new database: the backup machinery's own.
    kept = {ino for ino, _, _ in records("shadow.new")}
    for ino, _, path in records("scan.new"):
        if ino not in kept:
            print("   dropped: %s (inode %s), a path of the backup machinery's own: in scan.new, not in shadow.new"
                  % (path, ino.lstrip("0")))


def bunches(args):
    names = lines_of(args.bunches)
    print("   %-8s %5s %8s %8s %8s   %s" % ("bunch", "lines", "updated", "ctimech", "expired",
                                           "result line of each client run"))
    total = dict.fromkeys(("lines", "updated", "ctimech", "expired"), 0)
    reported = dict.fromkeys((label for _, label in RUNS), 0)
    for name in names:
        n = name.rsplit(".", 1)[1]
        lines = lines_of(name)
        kinds = {k: sum(" %s " % k in line.split(" -- ")[0] for line in lines) for k in ("updated", "ctimech", "expired")}
        out = lines_of("out." + n)
        results = [line for line in out if line.startswith("::EXECANDMONITOR::")]
        # Each client runs only when its list was written, in the order expire, backup, update.
        labels = [label for short, label in RUNS if os.path.exists("list.%s.%s" % (short, n))]
        runs = ["%s %s" % pair for pair in zip(labels, results)]
        for label, line in zip(labels, results):
            reported[label] += int(line.split("::")[2])
        waited = any("lock denied" in line for line in out)
        print("   %-8s %5d %8d %8d %8d   %s%s" % (name, len(lines), kinds["updated"], kinds["ctimech"],
                                                kinds["expired"], "  ".join(runs), "  (waited for a lock)" * waited))
        total["lines"] += len(lines)
        for k in kinds:
            total[k] += kinds[k]
    print("   %-8s %5d %8d %8d %8d   reported: expire %d, backup %d, update %d"
          % ("total", total["lines"], total["updated"], total["ctimech"], total["expired"],
             reported["expire"], reported["backup"], reported["update"]))
    print("   (::EXECANDMONITOR::<files reported>::<failed>::<client wait status>::)")


def check(ok):
    return "" if ok else "   <- DOES NOT ADD UP"


def states(args):
    rows = [line.split("\t") for line in lines_of("states.tsv")]
    width = max(len(row[0]) for row in rows)
    print("   %-*s %s %8s" % (width, "", " ".join("%7s" % n for n in NAMES), "records"))
    table = []
    for row in rows:
        counts = dict(zip(NAMES, map(int, row[1:])))
        table.append(counts)
        print("   %-*s %s %8d" % (width, row[0], " ".join("%7d" % counts[n] for n in NAMES), sum(counts.values())))
    print("   (a CHANGE record is the old half of a pair: its new half, right after it, counts as BACKUP or METACH)")
    if len(table) < 4:
        return
    old, new, done, nxt = table[:4]
    # What gen_data.py made of scan.new, the truth the merge is checked against.
    gen = dict(w.split("=") for w in open("gen.txt").read().split())
    g = {k: int(v) for k, v in gen.items()}
    print("   scan.new against shadow.old (gen_data.py): %d unchanged (%d of them internal), %d content, %d ctime only,"
          "\n     %d HSM state, %d deleted, %d new, %d moved, %d inode reused"
          % (g["unchanged"], g["internal"], g["content"], g["ctime"], g["hsm"], g["deleted"], g["new"], g["moved"],
             g["reused"]))
    for what, got, want, how in (
            ("NORMAL", new["NORMAL"], g["unchanged"] - g["internal"],
             "{unchanged} unchanged - {internal} internal path dropped"),
            ("BACKUP", new["BACKUP"], g["content"] + g["new"] + g["moved"] + g["reused"],
             "{content} content + {new} new + {moved} moved + {reused} inode reused"),
            ("METACH", new["METACH"], g["ctime"] + g["hsm"], "{ctime} ctime only + {hsm} HSM state"),
            ("CHANGE", new["CHANGE"], g["content"] + g["ctime"] + g["hsm"],
             "{content} content + {ctime} ctime only + {hsm} HSM state"),
            ("EXPIRE", new["EXPIRE"], g["deleted"] + g["moved"], "{deleted} deleted + {moved} old paths of the moved")):
        print("   step 1 %-7s %4d = %s%s" % (what, got, how.format(**g), check(got == want)))
    kept = new["NORMAL"] + new["CHANGE"] + new["EXPIRE"]
    print("   step 1 old %d = %d NORMAL + %d CHANGE + %d EXPIRE + %d inode reused (replaced) + %d internal (dropped)%s"
          % (sum(old.values()), new["NORMAL"], new["CHANGE"], new["EXPIRE"], g["reused"], g["internal"],
             check(sum(old.values()) == kept + g["reused"] + g["internal"])))
    print("   step 3 DELETE  %4d = %d CHANGE + %d EXPIRE; NORMAL %d = %d + %d BACKUP + %d METACH%s"
          % (done["DELETE"], new["CHANGE"], new["EXPIRE"], done["NORMAL"], new["NORMAL"], new["BACKUP"],
             new["METACH"], check(done["DELETE"] == new["CHANGE"] + new["EXPIRE"]
                                  and done["NORMAL"] == new["NORMAL"] + new["BACKUP"] + new["METACH"])))
    print("   step 4 records %4d = %d - %d DELETE dropped%s"
          % (sum(nxt.values()), sum(done.values()), done["DELETE"],
             check(sum(nxt.values()) == sum(done.values()) - done["DELETE"])))


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    sub = ap.add_subparsers(dest="command", required=True)
    p = sub.add_parser("count", help="append the record states of a shadow database to states.tsv")
    p.add_argument("label", help="the step's name in the table")
    p.add_argument("shadow", help="the shadow database")
    p = sub.add_parser("worklists", help="the work lists behind updateshadow's result line, reconciled")
    p.add_argument("result", help="the ::UPDATESHADOW:: result line")
    p = sub.add_parser("bunches", help="one row per bunch: its lines and its client runs' result lines")
    p.add_argument("bunches", help="the file that names the bunch files, one a line")
    sub.add_parser("states", help="the record states of every step in states.tsv, reconciled")
    args = ap.parse_args()
    {"count": count, "worklists": worklists, "bunches": bunches, "states": states}[args.command](args)
    return 0


if __name__ == "__main__":
    sys.exit(main())
