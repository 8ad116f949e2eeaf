"""Command dispatch end to end: the keywords, the usage texts of the rejected argument counts, the trace."""

import re

import e2e_util

U1 = ("Usage: updateShadow <old shadow file> <new shadow file> <list file> <changed file> "
      "<expired file> <unsupp file> [hsm mig file] [subDir] [filesets]\n")
USAGES = [  # keyword, rejected argument counts, usage text
    ("updateshadow", (0, 1, 10), U1),
    ("updateshadow", (3, 5, 8), U1.replace("<changed", "<chaged")[:-1] + " ...\n"),
    ("clustermigdiff", (3, 5), "Usage: clusterMigDiff <old list file> <new list file>  <changed file> "
     "<expired file>\n"),
    ("rebuildshadow", (2,), "Usage: rebuildShadow <qbs file> <fs list file> <out shadow>\n"),
    ("execbunch", (5,), "Usage: execBunch <inFile> <outChangeFile> <outExpireFile> <outStateCh> <shadowDB> "
     "<bunchSize> [<pathToRemove>]\n"),
    ("validateqbsclient", (2, 4), "Usage: validateqbsclient <QBSClientOptionFileForMaster> "
     "<QBSClientOptionFileForNode> <QBSServerName>\n"),
    ("verifyshadow", (1, 6), "Usage: verifyshadow <shadowFile> <prepListFile> [<outputFile> <qbsQueryFile> "
     "<sortDirectory>]\n"),
]
W = ["a%d" % i for i in range(1, 11)]
# One line per keyword, in the table's order, then where the manual is.
HELP = re.compile("Usage: quenby <keyword> <arguments>\n\n" + "".join(
    r"  quenby %s( <[^\n]*)?\n" % k for k in ["version"] + [u[0] for u in USAGES[1:]])
    + r"  quenby --help \| -h \| --version\n.*man quenby.*/usr/share/doc/quenby/formats\.md.*", re.S)


def row(name, args, stderr, stdout="", status=22, level="0"):
    return dict(name=name, args=args, stdout=stdout, stderr=stderr, status=status, env={"DEBUGquenby": level})


CASES = [
    row("no keyword, checked before any trace", [], "quenby: Missing keyword.\n", level="9"),
    row("version ignores its arguments; no trace at level 3", ["version", "x"], "", "quenby version:3\n", 0, "3"),
    row("level 5 traces argc and words 2 to 9 before the usage", ["updateshadow"] + W,
        "quenby: updateshadow(argc=12)\n       (updateshadow . %s)\n" % " . ".join(W[:8]) + U1, level="5"),
    # An empty seventh word is no path to remove; as one of eight it is passed on.
    row("execbunch with an empty path to remove", ["execbunch"] + W[:6] + [""], USAGES[4][2]),
    row("execbunch with eight words reaches the sub-command", ["execbunch", "nofile"] + W[:4] + ["10", "", "a8"],
        "quenby: input file nofile could not be opened\n",
        "quenby:execBunch() error -1 parsing records, skipping exec\n", 255),
    row("--version", ["--version", "x"], "", "quenby 3\n", 0),
] + [row("%s lists every keyword" % k, [k], "", HELP, 0) for k in ("--help", "-h")] + [
    row("invalid keyword %r" % k, [k], "quenby: Invalid Keyword: %s\n" % k) for k in ("Version", "vers", "", "--helpx", "-H")] + [
    row("%s with %d arguments" % (k, n), [k] + W[:n], text) for k, counts, text in USAGES for n in counts]


if __name__ == "__main__":
    e2e_util.main(CASES)
