#!/usr/bin/env python3
"""Mutation runner: plants small faults in src/ one at a time and reports
which ones the unit and end-to-end tests catch.

It copies the repo's source into a scratch dir, builds it there once (Release,
tests on), then for each mutant edits one line, rebuilds incrementally, runs
ctest and puts the line back. The same --seed always picks the same mutants.
"""
import argparse, collections, fcntl, hashlib, json, os, random, re, resource, shutil, signal
import subprocess, sys, tempfile, time
from pathlib import Path

TEST_FILTER = "^(reliability_|man_page_lint)"
Mutant = collections.namedtuple("Mutant", "id file line col op original mutated")

# Operators on the masked line: (name, regex, replacement function).
SPACED = r"(?<=\s){}(?=\s)"  # spaced binary operators only: no templates, <<, ->
FLIP = {"<": ">=", ">=": "<", ">": "<=", "<=": ">", "==": "!=", "!=": "=="}
BOUND = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
OPERATORS = [
    ("flip_compare", SPACED.format(r"(<=|>=|==|!=|<|>)"), lambda m: FLIP[m.group(1)]),
    ("off_by_one", SPACED.format(r"(<=|>=|<|>)"), lambda m: BOUND[m.group(1)]),
    ("off_by_one", r"(?<=[+-] )1(?![\w.])", lambda m: "0"),
    ("swap_const", r"\b(true|false)\b", lambda m: "false" if m.group(1) == "true" else "true"),
    ("swap_const", r"(?<![\w.])([01])(?![\w.'])", lambda m: "1" if m.group(1) == "0" else "0"),
    ("swap_const", r"(&&|\|\|)", lambda m: "||" if m.group(1) == "&&" else "&&"),
    ("literal_plus_one", r"(?<![\w.'])([1-9]\d*)([uUlL]*)(?![\w.'])",
     lambda m: str(int(m.group(1)) + 1) + m.group(2)),
]
NOT_STATEMENTS = re.compile(r"(return|break|continue|goto|case|default|using|typedef|namespace|"
                            r"static_assert|delete|throw|else|if|for|while|do|auto|template)\b")


def declaration(stmt):
    """Two names in a row before any = ( [ {, as in `char* const end = ...;`,
    or a function pointer: dropping those would not compile."""
    head = re.split(r"[=(;\[{]", stmt)[0].strip()
    return bool(re.search(r"[\w>][\s*&]+\w", head) or re.match(r"[\w:]+\s+\(\s*\*", stmt))


CONTROL = re.compile(r"(?:\}\s*)?(?:(?:if|for|while)\s*\(.*\)|else)$")


def mask(lines):
    """Each line with comments and string/char literal contents blanked, or
    None for lines that hold no code to mutate (preprocessor, comment)."""
    out, in_block, in_macro = [], False, False
    for raw in lines:
        s, res, i = raw, [], 0
        if in_macro or (not in_block and s.lstrip().startswith("#")):
            in_macro = s.endswith("\\")
            out.append(None)
            continue
        while i < len(s):
            if in_block:
                end = s.find("*/", i)
                res.append(" " * ((len(s) if end < 0 else end + 2) - i))
                i, in_block = (len(s), True) if end < 0 else (end + 2, False)
            elif s.startswith("//", i):
                res.append(" " * (len(s) - i))
                i = len(s)
            elif s.startswith("/*", i):
                in_block = True
            elif s[i] in "\"'":
                j = i + 1
                while j < len(s) and s[j] != s[i]:
                    j += 2 if s[j] == "\\" else 1
                res.append(s[i] + " " * (min(j, len(s)) - i - 1) + (s[i] if j < len(s) else ""))
                i = j + 1
            else:
                res.append(s[i])
                i += 1
        code = "".join(res)
        out.append(code if code.strip() else None)
    return out


def sites(path):
    """Every candidate mutation of one file, as (line, col, op, original, mutated)."""
    lines = path.read_text().splitlines()
    masked, found, prev = mask(lines), [], ""
    for n, (raw, code) in enumerate(zip(lines, masked), 1):
        if code is None:
            continue
        for op, rx, repl in OPERATORS:
            for m in re.finditer(rx, code):
                found.append((n, m.start(), op, raw, raw[:m.start()] + repl(m) + raw[m.end():]))
        stmt, indent = code.strip(), raw[: len(raw) - len(raw.lstrip())]
        simple = (stmt.endswith(";") and not NOT_STATEMENTS.match(stmt) and not declaration(stmt)
                  and "{" not in stmt and "}" not in stmt and stmt.count("(") == stmt.count(")"))
        if simple and (prev[-1:] in (";", "{", "}", ":") or CONTROL.match(prev)):
            # A bare `;` as the body of an if/else/for would trip -Wempty-body.
            found.append((n, len(indent), "drop_statement", raw, indent + ("{}" if CONTROL.match(prev) else ";")))
        for m in re.finditer(r"\breturn\s+([^;]+);", code):
            val = raw[m.start(1):m.end(1)].strip()
            if val in ("true", "false", "nullptr") or re.fullmatch(r"-?\d+", val):  # literals: swap_const
                continue
            neg = val[1:] if re.fullmatch(r"!\w+", val) else "!(" + val + ")"
            found.append((n, m.start(), "negate_return", raw, raw[:m.start(1)] + neg + raw[m.end(1):]))
        for m in re.finditer(r"\breturn\s*;", code):
            found.append((n, m.start(), "drop_return", raw, raw[:m.start()] + ";" + raw[m.end():]))
        prev = stmt
    seen, result = set(), []
    for s in found:  # one mutant per distinct mutated line
        if s[4] != s[3] and (s[0], s[4]) not in seen:
            seen.add((s[0], s[4]))
            result.append(s)
    return result


def folder_of(rel):
    return "src/main.cpp" if rel == "src/main.cpp" else "/".join(rel.split("/")[:2])


def candidates(src, seed):
    """All mutants in a seeded order that takes the folders in turn."""
    groups = collections.defaultdict(list)
    for p in sorted(src.glob("src/**/*")):
        if p.suffix in (".cpp", ".h"):
            rel = p.relative_to(src).as_posix()
            groups[folder_of(rel)] += [(rel,) + s for s in sites(p)]
    rng = random.Random(seed)
    queues = []
    for g in sorted(groups):
        rng.shuffle(groups[g])
        queues.append(collections.deque(groups[g]))
    order = []
    while any(queues):
        for q in queues:
            if q:
                order.append(q.popleft())
    return [Mutant(i, *c) for i, c in enumerate(order)]


def run_text(cmd, cwd, limit, mem_mb=None):
    """(returncode, or None on time-out, and the output); a time-out kills the whole group.
    mem_mb caps each process's memory and file size, so that a runaway mutant
    fails its tests instead of starving the machine."""
    def cap():
        for res in (resource.RLIMIT_AS, resource.RLIMIT_FSIZE):
            resource.setrlimit(res, (mem_mb << 20, mem_mb << 20))
    p = subprocess.Popen(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                         errors="replace", start_new_session=True, preexec_fn=cap if mem_mb else None)
    try:
        out = p.communicate(timeout=limit)[0]
        return p.returncode, out
    except subprocess.TimeoutExpired:
        os.killpg(p.pid, signal.SIGKILL)
        return None, p.communicate()[0]
    except BaseException:  # interrupted: leave no test running
        os.killpg(p.pid, signal.SIGKILL)
        raise


def sync_tree(repo, dest):
    """Copies the tracked files (every file, outside git) of repo; unchanged
    files keep their time stamps so that builds stay incremental."""
    top = subprocess.run(["git", "-C", repo, "rev-parse", "--show-toplevel"], capture_output=True, text=True)
    if top.returncode == 0 and Path(top.stdout.strip()).resolve() == repo.resolve():
        ls = subprocess.run(["git", "-C", repo, "ls-files", "-z"], capture_output=True, text=True, check=True)
        files = [f for f in ls.stdout.split("\0") if f and (repo / f).is_file()]
    else:
        files = [str(p.relative_to(repo)) for p in repo.rglob("*") if p.is_file()
                 and p.relative_to(repo).parts[0] not in (".git", "build")]
    for f in files:
        s, d = repo / f, dest / f
        if not d.is_file() or d.read_bytes() != s.read_bytes():
            d.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(s, d)
            os.utime(d)


def run_tests(build, args):
    """Outcome and the failing tests as {name: ctest status}."""
    rc, out = run_text(["ctest", "-j", str(args.jobs), "-E", TEST_FILTER, "--timeout", str(args.timeout)],
                       build, args.timeout, args.mem_limit)
    failed = {m.group(1): m.group(2).lstrip("*") for m in re.finditer(
        r"Test\s+#\d+: (\S+) \.*\s*(.*?)\s+[\d.]+ sec", out) if m.group(2) != "Passed"}
    if rc is None or (failed and all("Timeout" in s for s in failed.values())):
        return "timed out", failed
    if failed or rc != 0:
        return "killed", failed or {"ctest exit %d" % rc: out[-300:]}
    return "survived", failed


def try_mutant(m, src, build, args):
    """Plants m, builds, tests, puts the file back: (outcome, failing, seconds)."""
    path = src / m.file
    saved = path.read_bytes()
    lines = saved.decode().split("\n")
    assert lines[m.line - 1] == m.original, "source changed under %s:%d" % (m.file, m.line)
    lines[m.line - 1] = m.mutated
    start = time.time()
    try:
        path.write_text("\n".join(lines))
        rc, out = run_text(["cmake", "--build", build, "-j", str(args.jobs)], src, args.build_timeout)
        if rc != 0:
            if rc is not None and "Error running test executable" in out:
                return "killed", {"gtest_discovery": "Failed"}, time.time() - start
            return "uncompilable", {} if rc is not None else {"build": "time-out"}, time.time() - start
        outcome, failed = run_tests(build, args)
        return outcome, failed, time.time() - start
    finally:
        path.write_bytes(saved)
        os.utime(path)


def summary(done, elapsed):
    real = [d for d in done if d["outcome"] != "uncompilable"]
    lines, width = [], max([len(d["file"]) for d in real] + [12])
    for title, key in (("per file", "file"), ("per folder", "folder")):
        lines.append("%-*s %7s %9s %10s" % (width, title, "killed", "survived", "timed out"))
        for k in sorted({d[key] for d in real}):
            c = collections.Counter(d["outcome"] for d in real if d[key] == k)
            lines.append("%-*s %7d %9d %10d" % (width, k, c["killed"], c["survived"], c["timed out"]))
        lines.append("")
    c, n = collections.Counter(d["outcome"] for d in real), max(len(real), 1)
    lines.append("mutants: %d real, %d uncompilable (replaced), %.0f s" % (len(real), len(done) - len(real), elapsed))
    lines.append("detected (killed + timed out): %d/%d = %.1f%%" % (c["killed"] + c["timed out"], len(real),
                                                                    100.0 * (c["killed"] + c["timed out"]) / n))
    lines.append("killed only: %d/%d = %.1f%%" % (c["killed"], len(real), 100.0 * c["killed"] / n))
    sole = [d for d in real if len(d["failing_tests"]) == 1]
    lines.append("\ndetected by exactly one test:")
    lines += ["  #%d %s:%d %s%s" % (d["id"], d["file"], d["line"], d["failing_tests"][0],
                                    " (timed out)" if d["outcome"] == "timed out" else "") for d in sole]
    lines.append("\nsurvived:")
    lines += ["  #%d %s:%d %s: %s -> %s" % (d["id"], d["file"], d["line"], d["operator"], d["original"].strip(),
                                             d["mutated"].strip()) for d in real if d["outcome"] == "survived"]
    return "\n".join(lines)


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--repo", type=Path, default=Path(__file__).resolve().parent.parent,
                    help="source tree to mutate (default: the repo holding this script)")
    ap.add_argument("--work", type=Path, help="scratch dir (default: one per repo under the temp dir)")
    ap.add_argument("-n", type=int, default=100, help="number of compiling mutants (default 100)")
    ap.add_argument("--seed", type=int, default=1, help="selection seed (default 1)")
    ap.add_argument("--timeout", type=int, default=120, help="test time limit per mutant and per test, s")
    ap.add_argument("--build-timeout", type=int, default=900, help="build time limit per mutant, s")
    ap.add_argument("--mem-limit", type=int, default=2048, metavar="MB",
                    help="memory and file size cap of each test process (default 2048)")
    ap.add_argument("--jobs", type=int, default=2, help="build and ctest parallelism (default 2)")
    ap.add_argument("--json", type=Path, help="write the report here")
    ap.add_argument("--list", action="store_true", help="print the chosen mutants and stop")
    ap.add_argument("--only", type=int, metavar="ID", help="run only the mutant with this id")
    args = ap.parse_args()
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # so that the planted file is put back
    repo = args.repo.resolve()
    work = args.work or Path(tempfile.gettempdir()) / ("mutate-" + hashlib.sha1(str(repo).encode()).hexdigest()[:8])
    if args.list:  # a private copy: a run may be planting mutants in the work dir
        work = Path(tempfile.mkdtemp(prefix="mutate-list-"))
    src, build = work / "src", work / "build"
    src.mkdir(parents=True, exist_ok=True)
    lock = open(work / "lock", "w")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        sys.exit("another run is using %s" % work)
    sync_tree(repo, src)
    cands = candidates(src, args.seed)
    plan = [c for c in cands if c.id == args.only] if args.only is not None else cands[: args.n]
    if args.list:
        for m in plan:
            print("#%d %s:%d %s: %s -> %s" % (m.id, m.file, m.line, m.op, m.original.strip(), m.mutated.strip()))
        print("%d of %d candidates" % (len(plan), len(cands)))
        shutil.rmtree(work)
        return 0
    if not plan:
        sys.exit("no such mutant")
    start = time.time()
    cfg = ["cmake", "-S", str(src), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release", "-DQUENBY_TESTS=ON"]
    if not (build / "CMakeCache.txt").exists() and shutil.which("ninja"):
        cfg += ["-G", "Ninja"]
    for cmd in (cfg, ["cmake", "--build", str(build), "-j", str(args.jobs)]):
        rc, out = run_text(cmd, src, args.build_timeout)
        if rc != 0:
            sys.exit(out[-3000:] + "\nbaseline build failed: " + " ".join(cmd))
    outcome, failed = run_tests(build, args)
    if outcome != "survived":
        sys.exit("baseline tests do not pass: %s" % ", ".join(failed))
    print("baseline built and passing (%.0f s); mutants run in %s" % (time.time() - start, work), flush=True)
    used, queue, done = {m.id for m in plan}, collections.deque(plan), []
    while queue:
        m = queue.popleft()
        outcome, failed, secs = try_mutant(m, src, str(build), args)
        done.append(dict(id=m.id, file=m.file, folder=folder_of(m.file), line=m.line, column=m.col + 1,
                         operator=m.op, original=m.original, mutated=m.mutated, outcome=outcome,
                         failing_tests=sorted(failed), failing_status=failed, seconds=round(secs, 1)))
        print("#%-4d %-10s %s:%d %s  %s" % (m.id, outcome, m.file, m.line, m.op, " ".join(sorted(failed))[:120]),
              flush=True)
        if outcome == "uncompilable" and args.only is None:
            # The next unused candidate, from the same folder while it has any.
            nxt = next((c for c in cands if c.id not in used and folder_of(c.file) == folder_of(m.file)),
                       next((c for c in cands if c.id not in used), None))
            if nxt:
                used.add(nxt.id)
                queue.append(nxt)
        if args.json:
            args.json.write_text(json.dumps(dict(repo=str(repo), seed=args.seed, n=args.n, timeout=args.timeout,
                                                 seconds=round(time.time() - start), mutants=done), indent=1))
    print("\n" + summary(done, time.time() - start))
    return 0


if __name__ == "__main__":
    sys.exit(main())
