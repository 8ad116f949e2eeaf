"""Outputs that cannot be written (/dev/full) and memory limits too small:
every sub-command must end with its failure result and a non-zero exit,
never by a signal, and leave its inputs as they were.

Run: python3 test_io_faults.py /path/to/quenby
"""

import hashlib
import os
import re
import shlex
import subprocess
import sys
import tempfile

from test_crash_consistency import FAKE, HERE, build, clean_env

MAKE_QUERY = os.path.join(HERE, "..", "..", "bench", "make_query.py")
INPUTS = ("db", "scan", "shadow.old", "scan.old", "bunch", "query")
US_FAIL = r"quenby::UPDATESHADOWERR::-\d+::\d+::\d+::0::\n"
# -107 when a list line cannot be written, -110 when only the last flush fails
EB_FAIL = r"quenby:execBunch\(\) error -1(07|10) parsing records, skipping exec\n"
# args, stdout (regex), a part of stderr. A write error shows at the write
# that meets it or, when everything fits the stream's buffer, at the close.
FULL = [
    ("updateshadow db /dev/full scan chg exp uns", US_FAIL, r"output to /dev/full failed|\A\Z"),
    ("updateshadow db new scan /dev/full exp uns", US_FAIL, r"updatePDRForBackup|\A\Z"),
    ("updateshadow db new scan chg /dev/full uns", US_FAIL, r"updatePDRForExpire|\A\Z"),
    ("clustermigdiff scan.old scan /dev/full exp", r"quenby::CLUSTERMIGDIFFERR::-\d+::\d+::\d+::0::\n", r"updatePDRFor|\A\Z"),
    ("rebuildshadow query scan /dev/full .", "", r"writing merged record fail|db file I/O error"),
    ("verifyshadow db scan.old /dev/full", r"::VERIFYSHADOW::-1::\d+::\d+::\n", r"write to /dev/full failed"),
    ("execbunch bunch /dev/full exp upd db 9999", EB_FAIL, ""),
    ("execbunch bunch chg /dev/full upd db 9999", EB_FAIL, ""),
]
SWEPT = ("updateshadow db new scan chg exp uns", "clustermigdiff scan.old scan chg exp",
         "verifyshadow db scan.old rep", "execbunch bunch chg exp upd db 9999")


def run(d, args, limit=None):
    env = clean_env({"KESTREL_EXPIRE_CMD": "FAKE_LOG=ran sh %s exp" % FAKE,
                     "KESTREL_BACKUP_CMD": "FAKE_LOG=ran sh %s chg" % FAKE})
    if limit is not None:
        args = ["/bin/sh", "-c", 'ulimit -v %d; exec "$@"' % limit, "sh"] + args
    p = subprocess.run(args, cwd=d, env=env, capture_output=True, timeout=60)
    out, err = p.stdout.decode(errors="replace"), p.stderr.decode(errors="replace")
    assert p.returncode >= 0 and not re.search("Sanitizer|Segmentation|terminate called|core dumped", err), \
        "%s: crashed (%d): %s" % (args, p.returncode, err[-1500:])
    return p.returncode, out, err


def digest(d):
    return {n: hashlib.sha1(open(os.path.join(d, n), "rb").read()).hexdigest() for n in INPUTS}


def smallest_limit(binary):
    """Smallest address-space limit (KiB) under which the program starts, or None."""
    def starts(limit):
        return subprocess.run(["/bin/sh", "-c", "ulimit -v %d; exec %s version" % (limit, shlex.quote(binary))],
                              capture_output=True, timeout=60).returncode == 0
    lo, hi = 256, 1 << 23
    if not starts(hi):
        return None  # a sanitizer build reserves more than any sane limit
    while hi - lo > 8:
        lo, hi = (lo, (lo + hi) // 2) if starts((lo + hi) // 2) else ((lo + hi) // 2, hi)
    return hi


def main():
    binary = os.path.abspath(sys.argv[1])
    with tempfile.TemporaryDirectory(prefix="quenby-io-") as d:
        base = build(d, 2000)[0]
        with open(os.path.join(d, "db"), "wb") as f:
            f.write(base)
        subprocess.run([sys.executable, MAKE_QUERY, "--list", "scan", "--out", "query"], cwd=d, check=True)
        before = digest(d)
        for args, out_re, err_part in FULL:
            status, out, err = run(d, [binary] + args.split())
            assert status != 0 and re.fullmatch(out_re, out) and re.search(err_part, err), (args, status, out, err[-1500:])
            assert digest(d) == before and not os.path.exists(os.path.join(d, "ran")), (args, "inputs or client")
        floor = smallest_limit(binary)
        if floor is None:
            print("%d /dev/full cases; memory limits skipped: the program does not start under ulimit -v" % len(FULL))
            return
        sweeps, fails = 0, 0
        for args in SWEPT:
            for limit in [None] + list(range(floor, floor + 400, 40)):
                with open(os.path.join(d, "db"), "wb") as f:  # undo what a whole execbunch run did
                    f.write(base)
                status, out, err = run(d, [binary] + args.split(), limit)
                if limit is None:
                    want = (status, out)
                    continue
                sweeps, fails = sweeps + 1, fails + ((status, out) != want)
                assert (status, out) == want or (status != 0 and "quenby" in out + err), \
                    (args, limit, status, out, err[-1500:])
                assert digest(d) == before or status == 0, (args, limit, "changed an input")
        print("%d /dev/full cases; %d runs under ulimit -v %d..%d KiB, %d ended in a clean failure"
              % (len(FULL), sweeps, floor, floor + 400, fails))
        assert fails > 0, "no limit was tight enough to make an allocation fail"


if __name__ == "__main__":
    main()
