"""rebuildshadow and verifyshadow refuse what would destroy an input or give
a wrong answer: an output naming an input, a query file out of path order,
a default report name already taken; a sort never takes a file name for an
option, and a report that cannot be written fails the run.

Run: python3 test_safety_rebuild.py /path/to/quenby
"""

import os
import subprocess
import tempfile
import time

import e2e_util
from test_rebuildshadow import index, query
from test_updateshadow import header, pdr

A = pdr(1, path="a")
SHADOW = header() + A
Q_ACB = query("a") + query("c") + query("b")  # line 3 sorts below line 2
RB_FAIL = "quenby:rebuildShadow: Failed with rc=-1\n"


def case(name, args, err, out="", status=255, files=None, expect=None):
    return {"name": name, "args": args, "stdout": out, "stderr": err, "status": status,
            "files": dict({"q": query("a"), "scan": A, "shadow": SHADOW, "prep": A}, **(files or {})),
            "expect": expect or {}}


CASES = [
    case("rebuildshadow: out shadow named as the query file; nothing written", ["rebuildshadow", "q", "scan", "./q"],
         "quenby: rebuildShadow: output ./q is the input q\n", expect={"scan.Sorted": None}),
    case("rebuildshadow: query out of order; the earlier out shadow stays", ["rebuildshadow", "q", "scan", "out"],
         "quenby: rebuildShadow: q line 3: the query file is not sorted by path\n" + RB_FAIL,
         files={"q": Q_ACB, "out": "earlier\n"}, expect={"out": "earlier\n"}),
    case("rebuildshadow: a scan list named -x is no option to the sort", ["rebuildshadow", "q", "-x", "out"], "",
         status=0, files={"-x": A}, expect={"out": A, "-x.Sorted": index([A])}),
    case("verifyshadow: report named as the shadow database", ["verifyshadow", "shadow", "prep", "shadow"],
         "quenby::VERIFYSHADOW::1::output shadow is the input shadow\n", "::VERIFYSHADOW::-1::0::0::\n"),
    case("verifyshadow: query out of order, found in the query tail", ["verifyshadow", "shadow", "prep", "rep", "q"],
         "quenby:VERIFYSHADOW::1::q line 3: the query file is not sorted by path\n",
         "::VERIFYSHADOW::-1::1::0::\n", files={"q": Q_ACB},
         expect={"rep": "File doesn't exist in Shadow: c\n"}),
    case("verifyshadow: a finding that cannot be written fails a clean run",
         ["verifyshadow", "shadow", "prep", "/dev/full"],
         "quenby::VERIFYSHADOW::1::write to /dev/full failed (error=28)\n", "::VERIFYSHADOW::-1::0::0::\n",
         files={"prep": ""}),
]


def default_report_name_taken_by_a_link(test):
    with tempfile.TemporaryDirectory(prefix="quenby-e2e-") as d:
        e2e_util.write_files(d, {"shadow": SHADOW, "prep": A})
        target = os.path.join(d, "target")
        # The run names its report after the second it starts in.
        now = time.time()
        links = {time.strftime("/tmp/quenby.verifyShadow.%Y%m%d.%H%M%S", time.localtime(now + s))
                 for s in range(4)}
        made = []
        try:
            for link in links:
                try:
                    os.symlink(target, link)
                    made.append(link)
                except FileExistsError:  # another run's report: as much in the way
                    pass
            proc = subprocess.run([e2e_util.BINARY, "verifyshadow", "shadow", "prep", "NONE"], cwd=d,
                                  env=e2e_util.clean_env(), capture_output=True, timeout=60)
        finally:
            for link in made:
                os.remove(link)
        test.assertEqual((proc.returncode, proc.stdout), (255, b"::VERIFYSHADOW::-1::0::0::\n"))
        test.assertRegex(proc.stderr.decode(), r"\Aquenby::VERIFYSHADOW::1::could not open "
                         r"/tmp/quenby\.verifyShadow\.\d{8}\.\d{6} for write \(error=17\)\n\Z")
        test.assertFalse(os.path.lexists(target), "the report was written through the link")


if __name__ == "__main__":
    e2e_util.main(CASES, None, default_report_name_taken_by_a_link)
