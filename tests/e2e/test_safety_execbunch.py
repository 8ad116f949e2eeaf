"""execbunch keeps its inputs and ends a hung client: outputs that name the
bunch file or each other are refused, and so is a QUENBY_WRITE that names
neither write path; QUENBY_CLIENT_TIMEOUT ends a client run, with what it
left running, and the lock it was held under.

Run: python3 test_safety_execbunch.py /path/to/quenby
"""

import os
import subprocess
import tempfile
import time

import e2e_util
from test_execbunch import ALL, ARGS, BASE, NO_LISTS, A, D, D2, DELETE, NORMAL, R, bline, case, client

REFUSED = "quenby:execBunch(): output %s is %s\n"
# Refused runs: nothing written, no client run (no log), the database as it was.
CASES = [
    case(name, REFUSED % said, env=ALL, log=None, expect=NO_LISTS, status=255,
         args=["execbunch", "bunch", chg, "exp", "upd", db, "10"])
    for name, said, chg, db in (
        ("the bunch file named as the database", ("bunch", "the input bunch"), "chg", "bunch"),
        ("a list naming the database", ("./db", "also the output db"), "./db", "db"))
] + [
    case("QUENBY_CLIENT_TIMEOUT=%r ends no client that finishes" % value, R(1, 0), "a", {A: NORMAL},
         dict(ALL, KESTREL_BACKUP_CMD="FAKE_SLEEP=1.5 " + client("chg"), QUENBY_CLIENT_TIMEOUT=value), log="chg\n")
    for value in (None, "0", "1.5")
] + [
    case("QUENBY_WRITE=%r is refused before anything is written" % value,
         "quenby:execBunch(): QUENBY_WRITE=%s is neither mmap nor pwrite\n" % value, env=dict(ALL, QUENBY_WRITE=value),
         log=None, expect=NO_LISTS, status=255)
    for value in ("", "MMAP", "write")
] + [
    case("QUENBY_WRITE=%s rewrites a record and a pair" % value, R(2, 0), "ad", {A: NORMAL, D: DELETE, D2: NORMAL},
         dict(ALL, QUENBY_WRITE=value), log="chg\n")
    for value in ("mmap", "pwrite")
]


def hung_client_is_ended_with_its_group_and_the_lock_released(test):
    """The client's background child holds its output and stderr open: unless the whole group goes at the
    deadline, the run, and the second run waiting for its lock, last 30 seconds."""
    with tempfile.TemporaryDirectory(prefix="quenby-e2e-") as d:
        e2e_util.write_files(d, dict(case("", "", "ad")["files"], b2=bline("updated", BASE.at(A), "/fs/a")))
        env = {"KESTREL_LOCK_SHADOW": "1", "QUENBY_CLIENT_TIMEOUT": "1",
               "KESTREL_BACKUP_CMD": "sleep 30 & echo $! > bg"}
        hung = subprocess.Popen([e2e_util.BINARY] + ARGS, cwd=d, env=e2e_util.clean_env(env), text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        while not os.path.exists(os.path.join(d, "bg")) and hung.poll() is None:
            time.sleep(0.02)
        start = time.monotonic()
        env.update(QUENBY_CLIENT_TIMEOUT="", KESTREL_BACKUP_CMD=client("c2"))
        second = subprocess.run([e2e_util.BINARY, "execbunch", "b2", "c2", "e2", "u2", "db", "10"], cwd=d,
                                env=e2e_util.clean_env(env), capture_output=True, text=True, timeout=60)
        out, err = hung.communicate(timeout=60)
        test.assertLess(time.monotonic() - start, 10)
        test.assertEqual((hung.returncode, out, err), (9, "quenby: execAndMonitor() backup command timed out after "
                         "1 seconds\nquenby: execAndMonitor() backup command close returned 9\n" + R(0, 0, 9), ""))
        test.assertEqual((second.returncode, second.stdout, second.stderr),
                         (0, "quenby: execBunch() shadow DB lock denied. sleeping.\n" + R(1, 0), ""))
        test.assertEqual(e2e_util.read_text(os.path.join(d, "db")), case("", "", "a", {A: NORMAL})["expect"]["db"])


if __name__ == "__main__":
    e2e_util.main(CASES, None, hung_client_is_ended_with_its_group_and_the_lock_released)
