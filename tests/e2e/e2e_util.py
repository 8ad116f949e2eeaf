"""Shared runner of the end-to-end tables. A case: name, args, env, files (inputs), expect ({path: text, None
when it must not exist}), stdout, stderr (default "") and status (default 0). A text may be a regex or hold NOW
where the program writes an asctime date. Inputs not expected as outputs must come through unchanged."""

import os
import re
import subprocess
import sys
import tempfile
import unittest

BINARY = None
NOW = "\x00NOW\x00"
NOW_SAMPLE = "Thu Jan  1 00:00:00 1970\n"  # as long as any asctime text
ASCTIME_RE = r"[A-Z][a-z]{2} [A-Z][a-z]{2} [ 123]\d \d\d:\d\d:\d\d \d{4}\n"


def clean_env(extra=None):
    """The environment without the program's variables, plus extra (a None value: unset)."""
    env = {k: v for k, v in os.environ.items() if k != "DEBUGquenby" and not k.startswith("KESTREL_")}
    return {k: v for k, v in dict(env, **(extra or {})).items() if v is not None}


def read_text(path):
    if os.path.exists(path):  # else None
        with open(path, "rb") as f:
            return f.read().decode("utf-8", "surrogateescape")


def check(test, case, what, expected, actual):
    with test.subTest(case=case["name"], check=what):
        if isinstance(expected, str) and NOW in expected:
            expected = re.compile(ASCTIME_RE.join(map(re.escape, expected.split(NOW))), re.S)
        if isinstance(expected, re.Pattern):
            test.assertTrue(actual is not None and expected.fullmatch(actual), "%r !~ %r" % (actual, expected))
        else:
            test.assertEqual(expected, actual)


def write_files(scratch, files):
    for path, text in files.items():
        os.makedirs(os.path.dirname(os.path.join(scratch, path)), exist_ok=True)
        with open(os.path.join(scratch, path), "wb") as f:
            f.write(text.encode("utf-8", "surrogateescape"))


def run_case(test, case, extra_check=None):
    """Runs one case in a fresh scratch directory; extra_check(test, case, scratch, stdout) may check more."""
    with tempfile.TemporaryDirectory(prefix="quenby-e2e-") as scratch:
        files, expect = case.get("files", {}), case.get("expect", {})
        write_files(scratch, files)
        proc = subprocess.run([BINARY] + case["args"], cwd=scratch, env=clean_env(case.get("env")),
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=60)
        out, err = (b.decode("utf-8", "surrogateescape") for b in (proc.stdout, proc.stderr))
        for what, want, got in [("status " + err, case.get("status", 0), proc.returncode),
                                ("stdout", case["stdout"], out), ("stderr", case.get("stderr", ""), err)] + [
                ("file " + p, t, read_text(os.path.join(scratch, p))) for p, t in dict(files, **expect).items()]:
            check(test, case, what, want, got)
        if extra_check is not None:
            extra_check(test, case, scratch, out)


def main(cases, extra_check=None, *more):
    """Runs the cases, then each function of more(test), against the program named by the only argument;
    exits non-zero on any failure."""
    global BINARY
    if len(sys.argv) != 2 or not os.access(sys.argv[1], os.X_OK):
        sys.exit("usage: %s /path/to/quenby" % sys.argv[0])
    BINARY = os.path.abspath(sys.argv[1])

    test = unittest.FunctionTestCase(lambda: [run_case(test, c, extra_check) for c in cases] + [f(test) for f in more])
    sys.exit(not unittest.TextTestRunner().run(test).wasSuccessful())
