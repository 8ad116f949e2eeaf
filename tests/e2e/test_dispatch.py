"""Command dispatch: keywords, argument counts, usage texts, traces and the
hand-over to the sub-commands.

Run: python3 test_dispatch.py /path/to/quenby
"""

import unittest

import e2e_util
from e2e_util import run_case

U1 = ("Usage: updateShadow <old shadow file> <new shadow file> <list file> <changed file> "
      "<expired file> <unsupp file> [hsm mig file] [subDir] [filesets]\n")
U2 = ("Usage: updateShadow <old shadow file> <new shadow file> <list file> <chaged file> "
      "<expired file> <unsupp file> [hsm mig file] [subDir] [filesets] ...\n")
U3 = "Usage: clusterMigDiff <old list file> <new list file>  <changed file> <expired file>\n"
U4 = "Usage: rebuildShadow <qbs file> <fs list file> <out shadow>\n"
U5 = ("Usage: execBunch <inFile> <outChangeFile> <outExpireFile> <outStateCh> <shadowDB> "
      "<bunchSize> [<pathToRemove>]\n")
U6 = ("Usage: validateqbsclient <QBSClientOptionFileForMaster> <QBSClientOptionFileForNode> "
      "<QBSServerName>\n")
U7 = ("Usage: verifyshadow <shadowFile> <prepListFile> [<outputFile> <qbsQueryFile> "
      "<sortDirectory>]\n")

VERSION_LINE = "quenby version:3\n"
OPEN_FAILED = "quenby::UPDATESHADOWERR::1::could not open missing for read (error=2)\n"
UPDATE_FAILED = "quenby::UPDATESHADOWERR::-1::0::0::0::\n"


def words(n):
    return ["a%d" % i for i in range(1, n + 1)]


def usage(keyword, n, text, args=None):
    return {"name": "%s with %d arguments" % (keyword, n),
            "args": [keyword] + (args if args is not None else words(n)),
            "stdout": "", "stderr": text, "status": 22}


def reached(keyword, args, stdout="", stderr="", status=255):
    """A built sub-command got the arguments: its own failure shows it."""
    return {"name": "%s with %d arguments reaches the sub-command" % (keyword, len(args)),
            "args": [keyword] + args, "stdout": stdout, "stderr": stderr, "status": status}


NO_SCAN = ("quenby: fopen scan result file: No such file or directory\n"
           "quenby: sortPDRListByPathname: could not open a2\n"
           "quenby rebuildShadow : sort scan list file fail, rc = -1\n")
VERIFY_FAILED = "::VERIFYSHADOW::-1::0::0::\n"
NO_SHADOW = "quenby::VERIFYSHADOW::1::could not open a1 for read (error=2)\n"
NO_QOPT = "quenby validateqbsclient query - QBS Client option command not provided in exec\n"


EXECBUNCH_USAGE = ("Usage: quenby execBunch <inList> <outChange> <outExpire> <outStateChange> <shadowDB> "
                   "<bunchSize> [<removePath>] \n")
EXECBUNCH_NOFILE = "quenby:execBunch() error -1 parsing records, skipping exec\n"
NOFILE = "quenby: input file nofile could not be opened\n"


def invalid(keyword):
    return {"name": "invalid keyword %r" % keyword, "args": [keyword],
            "stdout": "", "stderr": "quenby: Invalid Keyword: %s\n" % keyword, "status": 22}


def dump(*words_):
    shown = list(words_) + ["null"] * (9 - len(words_))
    return "       (" + " . ".join(shown) + ")\n"


KEYWORD_CASES = [
    {"name": "no keyword", "args": [],
     "stdout": "", "stderr": "quenby: Missing keyword.\n", "status": 22},
    {"name": "no keyword at debug level 9 prints no trace", "args": [], "env": {"DEBUGquenby": "9"},
     "stdout": "", "stderr": "quenby: Missing keyword.\n", "status": 22},
    invalid("Version"),
    invalid("VERSION"),
    invalid("versions"),
    invalid("vers"),
    invalid("updateshadow2"),
    invalid(""),
    {"name": "version alone", "args": ["version"], "stdout": VERSION_LINE},
    {"name": "version ignores its arguments", "args": ["version"] + words(12),
     "stdout": VERSION_LINE},
]

USAGE_CASES = (
    [usage("updateshadow", n, U1) for n in (0, 1, 10, 11)]
    + [usage("updateshadow", n, U2) for n in (3, 4, 5, 8)]
    + [usage("clustermigdiff", n, U3) for n in (0, 3, 5)]
    + [usage("rebuildshadow", n, U4) for n in (0, 2)]
    + [usage("execbunch", n, U5) for n in (0, 5)]
    + [usage("execbunch", 7, U5, args=words(6) + [""])]
    + [usage("validateqbsclient", n, U6) for n in (0, 2, 4)]
    + [usage("verifyshadow", n, U7) for n in (0, 1, 6)]
)

# Correct counts get past the driver to the sub-command.
REACHED_CASES = [
    reached("clustermigdiff", words(4), stdout="quenby::CLUSTERMIGDIFFERR::-1::0::0::0::\n",
            stderr="quenby::CLUSTERMIGDIFFERR::1::could not open a1 for read (error=2)\n"),
    reached("rebuildshadow", words(3), stderr=NO_SCAN),
    reached("rebuildshadow", words(4), stderr=NO_SCAN),
    reached("rebuildshadow", words(5), stderr=NO_SCAN),
    reached("execbunch", ["f", "c", "e", "s", "db", "abc"], stdout=EXECBUNCH_USAGE),
    reached("execbunch", ["nofile", "c", "e", "s", "db", "10"], stdout=EXECBUNCH_NOFILE, stderr=NOFILE),
    reached("execbunch", ["nofile", "c", "e", "s", "db", "10", "/fs"], stdout=EXECBUNCH_NOFILE, stderr=NOFILE),
    reached("execbunch", ["nofile", "c", "e", "s", "db", "10", "", "a8"], stdout=EXECBUNCH_NOFILE,
            stderr=NOFILE),
    reached("validateqbsclient", words(3), stderr=NO_QOPT, status=101),
    reached("verifyshadow", words(2), stdout=VERIFY_FAILED, stderr=NO_SHADOW),
    reached("verifyshadow", words(3), stdout=VERIFY_FAILED, stderr=NO_SHADOW),
    reached("verifyshadow", words(5), stdout=VERIFY_FAILED, stderr=NO_SHADOW),
]

# "updateshadow" with an accepted count hands over: the missing old shadow
# database is the sub-command's own failure, with its result line.
UPDATESHADOW_CASES = [
    {"name": "updateshadow with %d arguments reaches the sub-command" % len(args),
     "args": ["updateshadow"] + args,
     "stdout": UPDATE_FAILED, "stderr": OPEN_FAILED, "status": 255,
     "expect": {"new": None}}
    for args in (["missing", "new"],
                 ["missing", "new", "list", "chg", "exp", "uns"],
                 ["missing", "new", "list", "chg", "exp", "uns", "hsm"],
                 ["missing", "new", "list", "chg", "exp", "uns", "hsm", "sub", "fs1"])
]

TRACE_CASES = [
    {"name": "level 3 prints no trace", "args": ["version"], "env": {"DEBUGquenby": "3"},
     "stdout": VERSION_LINE},
    {"name": "level 4 traces the keyword and argument count", "args": ["version", "x"],
     "env": {"DEBUGquenby": "4"},
     "stdout": VERSION_LINE, "stderr": "quenby: version(argc=3)\n"},
    {"name": "trailing text after the level is ignored", "args": ["version"],
     "env": {"DEBUGquenby": "4abc"},
     "stdout": VERSION_LINE, "stderr": "quenby: version(argc=2)\n"},
    {"name": "level 5 dumps null for every missing position", "args": ["version"],
     "env": {"DEBUGquenby": "5"},
     "stdout": VERSION_LINE,
     "stderr": "quenby: version(argc=2)\n" + dump("version")},
    {"name": "level 5 dump before the sub-command", "args": ["validateqbsclient", "m", "n", "srv"],
     "env": {"DEBUGquenby": "5"},
     "stdout": "", "status": 101,
     "stderr": ("quenby: validateqbsclient(argc=5)\n" + dump("validateqbsclient", "m", "n", "srv") + NO_QOPT)},
    {"name": "level 5 dump shows only positions 2 to 9", "args": ["updateshadow"] + words(10),
     "env": {"DEBUGquenby": "5"},
     "stdout": "", "status": 22,
     "stderr": ("quenby: updateshadow(argc=12)\n" + dump("updateshadow", *words(8)) + U1)},
    {"name": "level 4 traces an invalid keyword before rejecting it", "args": ["Version"],
     "env": {"DEBUGquenby": "4"},
     "stdout": "", "status": 22,
     "stderr": "quenby: Version(argc=2)\nquenby: Invalid Keyword: Version\n"},
    {"name": "level 4 traces before a usage error", "args": ["verifyshadow", "s"],
     "env": {"DEBUGquenby": "4"},
     "stdout": "", "status": 22, "stderr": "quenby: verifyshadow(argc=3)\n" + U7},
    {"name": "a level that is not a number is 0", "args": ["version"],
     "env": {"DEBUGquenby": "x"}, "stdout": VERSION_LINE},
]


class DispatchTest(unittest.TestCase):
    def run_table(self, cases):
        for case in cases:
            run_case(self, case)

    def test_keywords(self):
        self.run_table(KEYWORD_CASES)

    def test_usage_texts(self):
        self.run_table(USAGE_CASES)

    def test_sub_commands_reached(self):
        self.run_table(REACHED_CASES)

    def test_updateshadow_reached(self):
        self.run_table(UPDATESHADOW_CASES)

    def test_traces(self):
        self.run_table(TRACE_CASES)


if __name__ == "__main__":
    e2e_util.main()
