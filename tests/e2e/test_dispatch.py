"""Command dispatch: keywords, usage texts and traces. What each accepted
form hands over is checked by the unit tests; the sub-command tables show
that the real commands are reached.

Run: python3 test_dispatch.py /path/to/quenby
"""

import unittest

import e2e_util
from e2e_util import run_case

U1 = ("Usage: updateShadow <old shadow file> <new shadow file> <list file> <changed file> "
      "<expired file> <unsupp file> [hsm mig file] [subDir] [filesets]\n")
U2 = ("Usage: updateShadow <old shadow file> <new shadow file> <list file> <chaged file> "
      "<expired file> <unsupp file> [hsm mig file] [subDir] [filesets] ...\n")
U7 = "Usage: verifyshadow <shadowFile> <prepListFile> [<outputFile> <qbsQueryFile> <sortDirectory>]\n"
USAGES = [  # keyword, rejected argument counts, usage text
    ("updateshadow", (0, 1, 10), U1),
    ("updateshadow", (3, 5, 8), U2),
    ("clustermigdiff", (3, 5),
     "Usage: clusterMigDiff <old list file> <new list file>  <changed file> <expired file>\n"),
    ("rebuildshadow", (2,), "Usage: rebuildShadow <qbs file> <fs list file> <out shadow>\n"),
    ("execbunch", (5,), "Usage: execBunch <inFile> <outChangeFile> <outExpireFile> <outStateCh> <shadowDB> "
     "<bunchSize> [<pathToRemove>]\n"),
    ("validateqbsclient", (2, 4), "Usage: validateqbsclient <QBSClientOptionFileForMaster> "
     "<QBSClientOptionFileForNode> <QBSServerName>\n"),
    ("verifyshadow", (1, 6), U7),
]
VERSION = "quenby version:3\n"
NOFILE = "quenby: input file nofile could not be opened\n"
EXEC_ARGS = ["nofile", "c", "e", "s", "db", "10"]


def words(n):
    return ["a%d" % i for i in range(1, n + 1)]


def row(name, args, stderr="", stdout="", status=22, level=None):
    return {"name": name, "args": args, "stdout": stdout, "stderr": stderr, "status": status,
            "env": {} if level is None else {"DEBUGquenby": level}}


def dump(*shown):
    return "       (" + " . ".join(list(shown) + ["null"] * (9 - len(shown))) + ")\n"


CASES = [
    row("no keyword", [], "quenby: Missing keyword.\n"),
    row("no keyword at level 9: no trace", [], "quenby: Missing keyword.\n", level="9"),
    row("version ignores its arguments; level 3 prints no trace", ["version", "x"], stdout=VERSION, status=0,
        level="3"),
    row("level 4 traces the keyword and argc", ["version", "x"], "quenby: version(argc=3)\n", VERSION, 0, "4"),
    row("level 5 dumps null for every missing position", ["version"],
        "quenby: version(argc=2)\n" + dump("version"), VERSION, 0, "5"),
    row("level 5 dumps only positions 2 to 9, before the usage", ["updateshadow"] + words(10),
        "quenby: updateshadow(argc=12)\n" + dump("updateshadow", *words(8)) + U1, level="5"),
    row("level 4 traces an invalid keyword before rejecting it", ["Version"],
        "quenby: Version(argc=2)\nquenby: Invalid Keyword: Version\n", level="4"),
    # An empty seventh word is no path to remove; as one of eight it is passed on.
    row("execbunch with an empty path to remove", ["execbunch"] + words(6) + [""], USAGES[4][2]),
    row("execbunch with eight words reaches the sub-command", ["execbunch"] + EXEC_ARGS + ["", "a8"], NOFILE,
        "quenby:execBunch() error -1 parsing records, skipping exec\n", 255),
] + [row("invalid keyword %r" % k, [k], "quenby: Invalid Keyword: %s\n" % k) for k in ("vers", "versions", "")] + [
    row("%s with %d arguments" % (k, n), [k] + words(n), text) for k, counts, text in USAGES for n in counts]


class DispatchTest(unittest.TestCase):
    def test_dispatch(self):
        for case in CASES:
            run_case(self, case)


if __name__ == "__main__":
    e2e_util.main()
