"""Shared runner for the end-to-end tables.

A case is a dict:
  name     what the case shows (reported with every difference)
  args     the words after the program name
  env      variables to add to the controlled environment
  files    input files to create in the scratch directory: {path: text}
  expect   output files: {path: text, or None when the file must not exist}
  stdout   the whole standard output, or a compiled regex that must match it
  stderr   the whole standard error (default ""), a regex, or IGNORE
  status   the exit status (default 0), or NONZERO

Expected text may hold NOW where the program writes the current local time
as asctime formats it; only its shape is checked there.
"""

import os
import re
import subprocess
import sys
import tempfile
import unittest

BINARY = None

IGNORE = object()
NONZERO = object()

NOW = "\x00NOW\x00"
# Same length as any asctime text, for computing byte positions.
NOW_SAMPLE = "Thu Jan  1 00:00:00 1970\n"
ASCTIME_RE = (r"(Sun|Mon|Tue|Wed|Thu|Fri|Sat) "
              r"(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
              r"[ 123]\d \d\d:\d\d:\d\d \d{4}\n")


def clean_env(extra=None):
    env = {k: v for k, v in os.environ.items()
           if k != "DEBUGquenby" and not k.startswith("KESTREL_")}
    env.update(extra or {})
    return env


def matches(expected, actual):
    """True when actual (text) fits expected (text with NOW, or a regex)."""
    if isinstance(expected, re.Pattern):
        return expected.fullmatch(actual) is not None
    if NOW in expected:
        pattern = ASCTIME_RE.join(re.escape(p) for p in expected.split(NOW))
        return re.fullmatch(pattern, actual, re.S) is not None
    return expected == actual


def read_text(path):
    with open(path, "rb") as f:
        return f.read().decode("utf-8", "surrogateescape")


def write_text(path, text):
    os.makedirs(os.path.dirname(path) or ".", exist_ok=True)
    with open(path, "wb") as f:
        f.write(text.encode("utf-8", "surrogateescape"))


class Outcome:
    def __init__(self, scratch, proc):
        self.scratch = scratch
        self.status = proc.returncode
        self.stdout = proc.stdout.decode("utf-8", "surrogateescape")
        self.stderr = proc.stderr.decode("utf-8", "surrogateescape")

    def path(self, name):
        return os.path.join(self.scratch, name)

    def read(self, name):
        return read_text(self.path(name))


def run_case(test, case, extra_check=None):
    """Runs one case in a fresh scratch directory and reports every
    difference as its own subtest; extra_check(test, case, outcome) may add
    more while the scratch directory still exists."""
    name = case["name"]
    with tempfile.TemporaryDirectory(prefix="quenby-e2e-") as scratch:
        files = case.get("files", {})
        for path, text in files.items():
            write_text(os.path.join(scratch, path), text)
        proc = subprocess.run([BINARY] + list(case["args"]), cwd=scratch,
                              env=clean_env(case.get("env")),
                              stdin=subprocess.DEVNULL, capture_output=True,
                              timeout=60)
        out = Outcome(scratch, proc)

        def check(what, expected, actual):
            with test.subTest(case=name, check=what):
                if not matches(expected, actual):
                    if isinstance(expected, str) and NOW not in expected:
                        test.assertEqual(expected, actual)
                    test.fail("%r does not match %r" % (actual, expected))

        status = case.get("status", 0)
        with test.subTest(case=name, check="status"):
            if status is NONZERO:
                test.assertNotEqual(0, out.status, out.stderr)
            else:
                test.assertEqual(status, out.status, out.stderr)
        check("stdout", case["stdout"], out.stdout)
        if case.get("stderr", "") is not IGNORE:
            check("stderr", case.get("stderr", ""), out.stderr)

        for path, expected in case.get("expect", {}).items():
            exists = os.path.exists(out.path(path))
            with test.subTest(case=name, check="exists " + path):
                test.assertEqual(expected is not None, exists)
            if expected is not None and exists:
                check("file " + path, expected, out.read(path))

        # Inputs that are not outputs must come through untouched.
        for path, text in files.items():
            if path in case.get("expect", {}):
                continue
            with test.subTest(case=name, check="unchanged " + path):
                test.assertEqual(text, out.read(path))

        if extra_check is not None:
            extra_check(test, case, out)


def main():
    """Takes the program's path from the first argument and leaves the rest
    to unittest; exits non-zero on any failure."""
    global BINARY
    if len(sys.argv) < 2 or not os.access(sys.argv[1], os.X_OK):
        sys.exit("usage: %s /path/to/quenby [unittest args]" % sys.argv[0])
    BINARY = os.path.abspath(sys.argv.pop(1))
    unittest.main(argv=sys.argv, verbosity=1)
