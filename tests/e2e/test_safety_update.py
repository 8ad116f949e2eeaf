"""updateshadow and clustermigdiff refuse what would destroy an input or
expire live files: an output naming an input or another output, lists out
of inode order, more expiries than QUENBY_MAX_EXPIRE_PERCENT allows. A
refused or failed run leaves the outputs as they were."""

import os
import stat
import tempfile

import e2e_util
from test_updateshadow import OLD_HDR, pdr

A, B, C = pdr(0x10), pdr(0x20), pdr(0x30)
EARLIER = {"new": "yesterday\n", "chg": "yesterday\n", "exp": "earlier\n", "uns": "earlier\n"}
US = ["updateshadow", "old", "new", "scan", "chg", "exp", "uns"]
US_FAIL = "quenby::UPDATESHADOWERR::-1::0::0::0::\n"


def case(name, args, err, old=OLD_HDR + A + B, scan=A + B, out=US_FAIL, env=None, files=None):
    inputs = dict(EARLIER, old=old, scan=scan, **(files or {}))
    return {"name": name, "args": args, "files": inputs, "env": env, "stdout": out, "stderr": err,
            "status": 255 if out != "::UPDATESHADOW::0::0::1::0::\n" else 0}


def unsorted(word, name, line, ino, before):
    return "quenby::%sERR::1::%s line %d: inode number %x follows %x: the list is not sorted by inode number\n" % (
        word, name, line, ino, before)


CASES = [
    case("new database named as the old one", ["updateshadow", "old", "old", "scan", "chg", "exp", "uns"],
         "quenby::UPDATESHADOWERR::1::output old is the input old\n"),
    case("new database and scan list swapped: the failed run leaves the scan list",
         ["updateshadow", "old", "scan", "new", "chg", "exp", "uns"],
         "quenby: failed to parse shadow line [1]yesterday\n\n"),
    case("changed list named as the new database", ["updateshadow", "old", "new", "scan", "./new", "exp", "uns"],
         "quenby::UPDATESHADOWERR::1::output ./new is also the output new\n"),
    case("scan list out of order", US, unsorted("UPDATESHADOW", "scan", 3, 0x10, 0x30), scan=A + C + A,
         out="quenby::UPDATESHADOWERR::-1::1::1::0::\n"),
    case("old database out of order, header lines counted", US, unsorted("UPDATESHADOW", "old", 7, 0x10, 0x20),
         old=OLD_HDR + B + A, out="quenby::UPDATESHADOWERR::-1::1::0::0::\n"),
    case("clustermigdiff: a list out of order", ["clustermigdiff", "scan", "old", "chg", "exp"],
         unsorted("CLUSTERMIGDIFF", "old", 2, 0x10, 0x20), old=B + A,
         out="quenby::CLUSTERMIGDIFFERR::-1::0::1::0::\n"),
    case("clustermigdiff: expired list named as an input", ["clustermigdiff", "old", "scan", "chg", "scan"],
         "quenby::CLUSTERMIGDIFFERR::1::output scan is the input scan\n", old=A,
         out="quenby::CLUSTERMIGDIFFERR::-1::0::0::0::\n"),
    case("more expiries than allowed", US, "quenby::UPDATESHADOWERR::1::1 of the 2 old records would be expired, "
         "more than QUENBY_MAX_EXPIRE_PERCENT=49%\n", scan=A, env={"QUENBY_MAX_EXPIRE_PERCENT": "49"},
         out="quenby::UPDATESHADOWERR::-1::0::1::0::\n"),
    case("a limit that is no percentage", US,
         "quenby::UPDATESHADOWERR::1::QUENBY_MAX_EXPIRE_PERCENT=5x is not a number from 0 to 100\n",
         env={"QUENBY_MAX_EXPIRE_PERCENT": "5x"}),
]


def within_the_limit_the_new_database_keeps_the_old_mode(test):
    with tempfile.TemporaryDirectory(prefix="quenby-e2e-") as d:
        e2e_util.write_files(d, {"old": OLD_HDR + A + B, "scan": A})
        os.chmod(os.path.join(d, "old"), 0o640)
        proc = e2e_util.subprocess.run([e2e_util.BINARY] + US, cwd=d, capture_output=True,
                                       env=e2e_util.clean_env({"QUENBY_MAX_EXPIRE_PERCENT": "50"}))
        test.assertEqual((proc.returncode, proc.stdout), (0, b"::UPDATESHADOW::0::0::1::0::\n"))
        test.assertEqual(stat.S_IMODE(os.stat(os.path.join(d, "new")).st_mode), 0o640)
        test.assertEqual([n for n in os.listdir(d) if n.startswith(".")], [], "a temporary file was left")


if __name__ == "__main__":
    e2e_util.main(CASES, None, within_the_limit_the_new_database_keeps_the_old_mode)
