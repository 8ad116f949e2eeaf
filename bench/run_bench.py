#!/usr/bin/env python3
"""Time quenby's sub-commands on generated data, each against plain tools that
read the same files, and optionally prove that a change alters no output.

Usage:
  python3 bench/run_bench.py [--records N] [--runs R] [--quenby PATH] [--data DIR]
                             [--only SCENARIO,...] [--save DIR | --check DIR] [--markdown]

The data is generated once into DIR (default ${TMPDIR:-/tmp}/quenby-bench/<N>)
and reused while its stamp file is there.  Each scenario runs quenby and its
baselines alternately, after one untimed warm-up of each; the table shows
medians, and the ratio is the median of quenby's wall time over the
baseline's, run by run.  quenby's peak memory is its own (VmHWM), without
the sort or backup client it runs.  --save DIR keeps every output of the last quenby run of each
scenario, --check DIR compares them byte for byte (exit status 1 on a
difference).
"""

import argparse
import contextlib
import os
import shutil
import statistics
import subprocess
import sys
import threading
import time
from dataclasses import dataclass

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BENCH = os.path.join(REPO, "bench")
CLIENT = os.path.join(REPO, "tests", "e2e", "fake_client.sh")
STAMP = "generated.ok"
SAMPLE_EVERY = 0.002  # seconds between VmHWM samples


@dataclass
class Scenario:
    name: str
    argv: str            # quenby's arguments; {names} come from the data's facts
    expect: tuple        # (exit status, last stdout line; "" = no output at all)
    inputs: str          # links in the work dir: "name" or "name=path in the data dir"
    outputs: str         # removed before every run, saved/checked afterwards
    baselines: tuple     # (name, argv, stdout file or None for /dev/null)
    env: tuple = ()
    spawns: bool = False  # quenby runs children: its ru_maxrss counts theirs
    restore: tuple = ()  # (pristine, target) copied before every run
    keep: tuple = ()     # (source, copy) after the warm-up, for the baseline
    count: tuple = ()    # (file, fact): the file must have that many lines


def execbunch(sub, lines):
    """A bunch of {lines} "updated" lines over the records of a copy of shadow.old, all BACKUP."""
    return Scenario("execbunch " + sub,
                    "execbunch bunch list.chg list.exp list.upd shadow.base {%s}" % lines,
                    (0, "::EXECANDMONITOR::{%s}::0::0::" % lines),
                    "bunch=%s/bunch pristine=%s/shadow.pristine" % (sub, sub),
                    "shadow.base list.chg list.exp list.upd",
                    (("client", "sh {client} client.chg", None),),
                    env=(("KESTREL_BACKUP_CMD", "{client} list.chg"),), spawns=True,
                    restore=("pristine", "shadow.base"), keep=("list.chg", "client.chg"))


JOIN = "join -t: -j 3 --nocheck-order"
SORT = "sort -b -k 2 -T sorttmp -o sorted.index index"  # as quenby sorts its path index

SCENARIOS = [
    Scenario("updateshadow",
             "updateshadow shadow.old shadow.new scan.new changed expired unsupp hsm",
             (0, "::UPDATESHADOW::0::{changed}::{expired}::0::"),
             "shadow.old scan.new", "shadow.new changed expired unsupp hsm",
             (("cat", "cat shadow.old scan.new", "cat.out"),),
             env=(("KESTREL_QBSC_INCR_SUPPORTED", "1"),)),
    Scenario("clustermigdiff", "clustermigdiff scan.old scan.new changed expired",
             (0, "::CLUSTERMIGDIFF::0::{changed}::{expired}::0::"),
             "scan.old scan.new", "changed expired",
             (("cat", "cat scan.old scan.new", None),
              ("join", JOIN + " scan.old scan.new", None))),
    # The generated database holds a few internal records (.kestrelShadow...),
    # which list mode reports as invalid: exactly those, and nothing else.
    Scenario("verifyshadow list", "verifyshadow shadow.old scan.old report",
             (1, "::VERIFYSHADOW::1::{internal}::0::"),
             "shadow.old scan.old", "report",
             (("cat", "cat shadow.old scan.old", None),
              ("join", JOIN + " shadow.old scan.old", None))),
    Scenario("rebuildshadow", "rebuildshadow query scan.old rebuilt.shadow sorttmp",
             (0, ""), "query scan.old index=scan.old.index", "rebuilt.shadow scan.old.Sorted",
             (("sort", SORT, None),), spawns=True, count=("rebuilt.shadow", "query_lines")),
    Scenario("verifyshadow query", "verifyshadow shadow.old scan.old report query sorttmp",
             (0, "::VERIFYSHADOW::0::"),
             "shadow.old scan.old query index=shadow.old.index", "report shadow.old.Sorted",
             (("sort", SORT, None),), spawns=True),
    execbunch("full", "full_lines"),
    execbunch("10k", "k10_lines"),
]


def slug(name):
    return name.replace(" ", "-")


def log(msg):
    print(msg, file=sys.stderr, flush=True)


# ---------------------------------------------------------------- data

def write_index(src, dst):
    """The unsorted path index quenby builds before its sort: offset and path per record."""
    offset = 0
    with open(src, "rb") as f, open(dst, "wb") as out:
        for line in f:
            if not line.startswith(b"%%"):
                head, _, rest = line.partition(b"!")
                path = rest[:abs(int(head.split(b":")[8]))]
                out.write(b"%016x %s\n" % (offset, path))
            offset += len(line)


def count_lines(path):
    with open(path, "rb") as f:
        return sum(chunk.count(b"\n") for chunk in iter(lambda: f.read(1 << 20), b""))


def generate(data, records):
    def step(what, *argv):
        log("generating %s in %s ..." % (what, data))
        return subprocess.run([sys.executable, *argv], check=True, stdout=subprocess.PIPE,
                              text=True).stdout
    os.makedirs(data, exist_ok=True)
    summary = step("shadow.old, scan.old, scan.new", os.path.join(BENCH, "gen_data.py"),
                   "--records", str(records), "--out", data)
    with open(os.path.join(data, "gen.txt"), "w") as f:
        f.write(summary)
    step("query", os.path.join(BENCH, "make_query.py"), "--list", os.path.join(data, "scan.old"),
         "--out", os.path.join(data, "query"))
    for name in ("scan.old", "shadow.old"):
        log("generating %s.index ..." % name)
        write_index(os.path.join(data, name), os.path.join(data, name + ".index"))
    for sub, lines in (("full", records), ("10k", 10000)):
        out = os.path.join(data, sub)
        step("%s bunch" % sub, os.path.join(BENCH, "make_bench_bunch.py"), "--shadow",
             os.path.join(data, "shadow.old"), "--lines", str(lines), "--out", out)
        os.rename(os.path.join(out, "shadow.base"), os.path.join(out, "shadow.pristine"))
    with open(os.path.join(data, STAMP), "w") as f:
        f.write("records=%d\n" % records)
    log("data ready")


def facts(data):
    """What the results must show on this data, from the generator's summary and the files."""
    with open(os.path.join(data, "gen.txt")) as f:
        g = {k: int(v) for k, v in (kv.split("=") for kv in f.read().split())}
    return {
        "changed": sum(g[k] for k in ("content", "ctime", "hsm", "new", "moved", "reused")),
        "expired": g["deleted"] + g["moved"],
        "internal": g["internal"],
        "query_lines": count_lines(os.path.join(data, "query")),
        "full_lines": count_lines(os.path.join(data, "full", "bunch")),
        "k10_lines": count_lines(os.path.join(data, "10k", "bunch")),
        "client": CLIENT,
    }


# ---------------------------------------------------------------- timing

def vm_hwm_kib(pid_or_self):
    """(program name, VmHWM in KiB) of a process, or None once it is gone."""
    try:
        with open("/proc/%s/status" % pid_or_self) as f:
            fields = dict(line.split(":", 1) for line in f.read().splitlines())
    except OSError:
        return None
    return fields["Name"].strip(), int(fields.get("VmHWM", "0 kB").split()[0])


def measure(argv, cwd, env, stdout, stderr, sample_name=None):
    """Run argv as a child; returns (exit status, wall s, cpu s, ru_maxrss KiB, VmHWM KiB, fork floor KiB)."""
    floor = vm_hwm_kib("self")[1]  # the forked child starts no larger than we are
    t0 = time.perf_counter()
    pid = os.fork()
    if pid == 0:
        try:
            os.chdir(cwd)
            fd_in = os.open(os.devnull, os.O_RDONLY)
            fd_out = os.open(stdout or os.devnull, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
            fd_err = os.open(stderr, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
            for fd, to in ((fd_in, 0), (fd_out, 1), (fd_err, 2)):
                os.dup2(fd, to)
            os.execvpe(argv[0], argv, env)
        except BaseException as e:
            os.write(2, ("cannot run %s: %s\n" % (argv[0], e)).encode())
        os._exit(127)
    peak = [0]
    stop = threading.Event()

    def sample():
        # Only samples taken after the exec count: before it the child is a copy of us.
        while not stop.is_set():
            got = vm_hwm_kib(pid)
            if got and got[0] == sample_name:
                peak[0] = max(peak[0], got[1])
            stop.wait(SAMPLE_EVERY)

    sampler = threading.Thread(target=sample) if sample_name else None
    if sampler:
        sampler.start()
    os.waitid(os.P_PID, pid, os.WEXITED | os.WNOWAIT)  # exited, not yet reaped: the pid stays ours
    wall = time.perf_counter() - t0
    stop.set()
    if sampler:
        sampler.join()
    _, status, ru = os.wait4(pid, 0)
    return (os.waitstatus_to_exitcode(status), wall, ru.ru_utime + ru.ru_stime, ru.ru_maxrss,
            peak[0], floor)


def remove(paths):
    for p in paths:
        with contextlib.suppress(FileNotFoundError):
            os.unlink(p)


def run_scenario(sc, args, fx, data):
    """Returns {"quenby": [(wall, cpu)], "peak": KiB, baseline: [(wall, cpu)], "failed": {who: why}}."""
    work = os.path.join(data, "work", slug(sc.name))
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(os.path.join(work, "sorttmp"))
    for item in sc.inputs.split():
        name, _, src = item.partition("=")
        os.symlink(os.path.join(data, src or name), os.path.join(work, name))
    env = dict(os.environ, **{k: v.format(**fx) for k, v in sc.env})
    base_env = dict(os.environ)
    qargv = [args.quenby] + [a.format(**fx) for a in sc.argv.split()]
    outputs = [os.path.join(work, o) for o in sc.outputs.split()]
    stdout, stderr = os.path.join(work, "stdout"), os.path.join(work, "stderr")
    kept = os.path.join(work, "kept")
    want_rc, want_line = sc.expect[0], sc.expect[1].format(**fx)
    res = {"quenby": [], "peak": 0, "failed": {}}
    for b in sc.baselines:
        res[b[0]] = []

    def prepare():
        remove(outputs)
        if sc.restore:
            shutil.copyfile(os.path.join(work, sc.restore[0]), os.path.join(work, sc.restore[1]))
        os.sync()  # no run pays for writing back what an earlier one left dirty

    def check_quenby(rc):
        with open(stdout, "rb") as f:
            out = f.read().decode("utf-8", "replace")
        last = out.rstrip("\n").rpartition("\n")[2]
        if rc != want_rc:
            return "exit status %d, wanted %d" % (rc, want_rc)
        if last != want_line:
            return "result line %r, wanted %r" % (last, want_line)
        if sc.count:
            n = count_lines(os.path.join(work, sc.count[0]))
            if n != fx[sc.count[1]]:
                return "%s has %d lines, wanted %d" % (sc.count[0], n, fx[sc.count[1]])
        return None

    for i in range(args.runs + 1):  # run 0 is the warm-up
        prepare()
        rc, wall, cpu, maxrss, hwm, floor = measure(qargv, work, env, stdout, stderr,
                                                    os.path.basename(args.quenby)[:15])
        why = check_quenby(rc)
        if why:
            res["failed"]["quenby"] = why
            log("%s: quenby FAILED: %s\n  %s\n  stderr: %s" % (sc.name, why, " ".join(qargv),
                                                              open(stderr, errors="replace").read()[-2000:]))
            return res
        if i == 0 and sc.keep:
            shutil.copyfile(os.path.join(work, sc.keep[0]), os.path.join(work, sc.keep[1]))
        if i == args.runs:  # the last run's outputs, out of the baselines' way
            os.makedirs(kept)
            for p in outputs + [stdout]:
                if os.path.exists(p):
                    os.rename(p, os.path.join(kept, os.path.basename(p)))
        if i > 0:
            res["quenby"].append((wall, cpu))
            # Without children ru_maxrss is quenby's own, once it is past what the fork copied.
            own = maxrss if not sc.spawns and maxrss > floor else 0
            res["peak"] = max(res["peak"], hwm, own)
            if not (hwm or own):  # a run too short to sample
                res["rough_peak"] = max(res.get("rough_peak", 0), maxrss)
        for name, bargv, bout in sc.baselines:
            if name in res["failed"]:
                continue
            prepare()
            bstderr = os.path.join(work, name + ".stderr")
            rc, wall, cpu, _, _, _ = measure(bargv.format(**fx).split(), work, base_env,
                                             bout and os.path.join(work, bout), bstderr)
            if rc != 0:
                res["failed"][name] = "exit status %d" % rc
                log("%s: baseline %s FAILED: exit status %d\n  stderr: %s" % (
                    sc.name, name, rc, open(bstderr, errors="replace").read()[-2000:]))
            elif i > 0:
                res[name].append((wall, cpu))
    res["saved"] = [os.path.join(kept, n) for n in sorted(os.listdir(kept))]
    return res


# ---------------------------------------------------------------- save / check

def save(dest, sc, files):
    d = os.path.join(dest, slug(sc.name))
    shutil.rmtree(d, ignore_errors=True)
    os.makedirs(d)
    for p in files:
        shutil.copyfile(p, os.path.join(d, os.path.basename(p)))


def same_output(a, b):
    """Byte for byte, except the write time that ends a shadow database's first line."""
    with open(a, "rb") as fa, open(b, "rb") as fb:
        la, lb = fa.readline(), fb.readline()
        if la.startswith(b"%%mshadow0%%:") and lb.startswith(b"%%mshadow0%%:"):
            la, lb = la.split(b":", 6)[:6], lb.split(b":", 6)[:6]
        if la != lb:
            return False
        while True:
            x, y = fa.read(1 << 20), fb.read(1 << 20)
            if x != y:
                return False
            if not x:
                return True


def check(ref, sc, files):
    """Names of the outputs that differ from the saved ones (missing on either side included)."""
    d = os.path.join(ref, slug(sc.name))
    if not os.path.isdir(d):
        return ["(nothing saved for this scenario)"]
    mine = {os.path.basename(p): p for p in files}
    names = sorted(set(mine) | set(os.listdir(d)))
    return [n for n in names if n not in mine or not os.path.exists(os.path.join(d, n))
            or not same_output(mine[n], os.path.join(d, n))]


# ---------------------------------------------------------------- report

def machine_line(records):
    model = "unknown cpu"
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
    with open("/proc/meminfo") as f:
        mem_kib = int(f.readline().split()[1])
    return "machine: %s, %d cores, %.1f GiB, Linux %s; records: %d" % (
        model, os.cpu_count(), mem_kib / 2**20, os.uname().release, records)


def table_rows(results):
    med = lambda xs, k: statistics.median(x[k] for x in xs)
    rows = []
    for sc, res in results:
        qfail = "quenby" in res["failed"]
        q = ["FAILED"] * 2 if qfail else ["%.3f" % med(res["quenby"], 0), "%.3f" % med(res["quenby"], 1)]
        peak = "FAILED" if qfail else "%.1f" % (res["peak"] / 1024)
        if not qfail and res.get("rough_peak", 0) > res["peak"]:
            peak = "%.1f*" % (res["rough_peak"] / 1024)
        for name, _, _ in sc.baselines:
            if name in res["failed"] or not res[name]:  # failed, or not run after quenby failed
                b, ratio = ["FAILED" if name in res["failed"] else "-"] * 2, "-"
            else:
                b = ["%.3f" % med(res[name], 0), "%.3f" % med(res[name], 1)]
                ratio = "-" if qfail else "%.2f" % statistics.median(
                    qw / bw for (qw, _), (bw, _) in zip(res["quenby"], res[name]))
            rows.append([sc.name] + q + [name] + b + [ratio, peak])
    return rows


HEAD = ["scenario", "quenby wall s", "quenby cpu s", "baseline", "base wall s", "base cpu s",
        "ratio", "quenby peak MiB"]


def print_table(rows, markdown):
    if markdown:
        print("| " + " | ".join(HEAD) + " |")
        print("|" + "|".join("---" if i in (0, 3) else "---:" for i in range(len(HEAD))) + "|")
        for r in rows:
            print("| " + " | ".join(r) + " |")
        return
    widths = [max(len(str(r[i])) for r in rows + [HEAD]) for i in range(len(HEAD))]
    for r in [HEAD] + rows:
        print("  ".join(c.ljust(w) if i in (0, 3) else c.rjust(w) for i, (c, w) in enumerate(zip(r, widths))))


def main():
    ap = argparse.ArgumentParser(description="Benchmark quenby against plain tools on generated data.")
    ap.add_argument("--records", type=int, default=1000000, metavar="N", help="records in the data (default 1000000)")
    ap.add_argument("--runs", type=int, default=3, metavar="R", help="timed runs of each command (default 3)")
    ap.add_argument("--quenby", metavar="PATH", default=os.path.join(REPO, "build", "release", "quenby"),
                    help="the program to time (default build/release/quenby)")
    ap.add_argument("--data", metavar="DIR", help="data directory (default ${TMPDIR:-/tmp}/quenby-bench/<records>)")
    ap.add_argument("--only", metavar="SCENARIO,...", help="comma-separated scenarios: " + ", ".join(s.name for s in SCENARIOS))
    ap.add_argument("--markdown", action="store_true", help="print the table in Markdown")
    mode = ap.add_mutually_exclusive_group()
    mode.add_argument("--save", metavar="DIR", help="keep every output in DIR")
    mode.add_argument("--check", metavar="DIR", help="compare every output with DIR")
    args = ap.parse_args()
    if args.records < 1 or args.runs < 1:
        ap.error("--records and --runs must be at least 1")
    args.quenby = os.path.abspath(args.quenby)
    if not os.access(args.quenby, os.X_OK):
        ap.error("no quenby at %s" % args.quenby)
    if args.check and not os.path.isdir(args.check):
        ap.error("nothing saved in %s" % args.check)
    scenarios = SCENARIOS
    if args.only:
        wanted = [w.strip().replace("-", " ").replace("_", " ") for w in args.only.split(",")]
        unknown = [w for w in wanted if w not in {s.name for s in SCENARIOS}]
        if unknown:
            ap.error("unknown scenario %s" % ", ".join(unknown))
        scenarios = [s for s in SCENARIOS if s.name in wanted]
    data = os.path.abspath(args.data or os.path.join(os.environ.get("TMPDIR") or "/tmp",
                                                     "quenby-bench", str(args.records)))
    if not os.path.exists(os.path.join(data, STAMP)):
        generate(data, args.records)
    fx = facts(data)

    started = time.perf_counter()
    ok, results, differences = True, [], []
    for sc in scenarios:
        log("running %s ..." % sc.name)
        res = run_scenario(sc, args, fx, data)
        results.append((sc, res))
        ok = ok and not res["failed"]
        if "quenby" in res["failed"]:
            differences.append((sc.name, ["not run: quenby FAILED"]))
        elif args.save:
            save(args.save, sc, res["saved"])
        elif args.check:
            differences.append((sc.name, check(args.check, sc, res["saved"])))

    print(machine_line(args.records))
    print_table(table_rows(results), args.markdown)
    if any(r.get("rough_peak", 0) > r["peak"] for _, r in results):
        print("* a run ended before its memory was sampled: ru_maxrss, which also counts "
              "its children and the forked python")
    lines = {"execbunch full": fx["full_lines"], "execbunch 10k": fx["k10_lines"]}
    per_line = {sc.name: statistics.median(w for w, _ in res["quenby"]) / lines[sc.name] * 1e6
                for sc, res in results if sc.name in lines and res["quenby"]}
    if len(per_line) == 2:
        f, k = per_line["execbunch full"], per_line["execbunch 10k"]
        print("\nexecbunch per record: full %.2f us (%d lines), 10k %.2f us (%d lines), full/10k %.2f"
              % (f, fx["full_lines"], k, fx["k10_lines"], f / k))
    if args.check:
        print("\ncheck against %s:" % args.check)
        for name, diff in differences:
            print("  %-20s %s" % (name, "same" if not diff else "DIFFERS: " + ", ".join(diff)))
            ok = ok and not diff
    log("benchmark took %.1f s" % (time.perf_counter() - started))
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
