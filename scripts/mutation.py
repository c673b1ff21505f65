#!/usr/bin/env python3
"""Mutation testing of the suite; run through scripts/mutation.sh (which installs the tool).

For every named source file, universalmutator writes its mutants (flipped comparisons, changed
constants, dropped statements, ...). A seeded shuffle of them is walked until N mutants have
been judged: each is copied over the file in a copy of the tree, the module's test programs are
rebuilt incrementally (a mutant that does not compile is skipped and not counted; one whose
object file is byte for byte the original's is equivalent and not counted either), and run
under a time limit. A failing or timed-out run kills the mutant. The working tree is never
touched: the copy under build-mutation/tree is refreshed from it at every start, so an
interrupted run leaves nothing behind.
"""

import argparse
import datetime
import difflib
import hashlib
import json
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time

# The modules where a fault costs users most, with the test programs that own them.
MODULES = {
    "box_filter": (["src/boxfile/box_filter.cpp"], ["test_box_filter"]),
    "grid_peaks": (["src/pickora56/grid_peaks.cu"], ["test_grid_peaks"]),
    "mrc": (["src/mrcfile/mrc_read.cpp", "src/mrcfile/mrc_head.cpp", "src/mrcfile/mrc_write.cpp"], ["test_mrcfile"]),
    "star": (["src/starfile/starfile.cpp"], ["test_starfile"]),
    "template_norm": (["src/pickora56/template_norm.cpp"], ["test_templates"]),
    "ice_detect": (["src/pickora56/ice_detect.cu"], ["test_ice_detect"]),
    "para": (["src/pickora56/pickora_para.cpp"], ["test_command"]),
}

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), ".."))


def parse_args():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("modules", nargs="+", help="module names (%s, all) or source files" % ", ".join(MODULES))
    p.add_argument("-n", type=int, default=20, help="mutants judged per file (default 20)")
    p.add_argument("--seed", type=int, default=19, help="seed of the shuffle (default 19)")
    p.add_argument("--timeout", type=int, default=60, help="seconds per test program and mutant (default 60)")
    p.add_argument("--tests", help="comma-separated test programs for source files given by path")
    p.add_argument("--jobs", type=int, default=2, help="build jobs (default 2)")
    p.add_argument("--dir", default="build-mutation", help="work folder (default build-mutation)")
    p.add_argument("--sanitize", action="store_true",
                   help="build with the address and undefined-behaviour sanitizers, as CI runs the suite, so that "
                        "a dropped free or a read past a buffer kills its mutant")
    return p.parse_args()


def targets(args):
    """(file, tests) pairs in the order asked."""
    out = []
    for m in args.modules:
        names = list(MODULES) if m == "all" else [m]
        for name in names:
            if name in MODULES:
                files, tests = MODULES[name]
                out += [(f, tests) for f in files]
            elif os.path.isfile(os.path.join(ROOT, name)):
                base = os.path.splitext(os.path.basename(name))[0]
                tests = args.tests.split(",") if args.tests else ["test_" + base]
                out.append((name, tests))
            else:
                sys.exit("mutation: unknown module or file '%s'" % name)
    return out


def sync_tree(tree):
    """Copies the tracked and untracked-but-not-ignored files that differ into tree."""
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=ROOT, check=True,
                            capture_output=True).stdout.decode().split("\0")
    for rel in filter(None, listed):
        src, dst = os.path.join(ROOT, rel), os.path.join(tree, rel)
        if not os.path.isfile(src):
            continue
        with open(src, "rb") as f:
            data = f.read()
        if os.path.isfile(dst):
            with open(dst, "rb") as f:
                if f.read() == data:
                    continue
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        with open(dst, "wb") as f:
            f.write(data)


def run(cmd, cwd=None, timeout=None):
    """The exit status, or "timeout"; a timed-out command is ended with everything it started."""
    p = subprocess.Popen(cmd, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
    try:
        return p.wait(timeout=timeout)
    except subprocess.TimeoutExpired:
        os.killpg(p.pid, signal.SIGKILL)
        p.wait()
        return "timeout"


def failed_tests(binary, cwd, timeout):
    """The tests of one program that fail (["(timeout)"] or ["(crash)"] when it does not finish
    cleanly); empty when it passes."""
    p = subprocess.Popen([binary], cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
    try:
        out, _ = p.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        os.killpg(p.pid, signal.SIGKILL)
        p.communicate()
        return ["(timeout)"]
    if p.returncode == 0:
        return []
    text = out.decode(errors="replace")
    names = sorted({l.split()[3] for l in text.splitlines() if l.startswith("[  FAILED  ] ") and "," not in l
                    and len(l.split()) >= 4 and "." in l.split()[3]})
    return names or ["(crash)"]


def build(build_dir, tests, jobs):
    return run(["cmake", "--build", build_dir, "-j%d" % jobs, "--target"] + tests) == 0


def object_of(build_dir, rel):
    """The object file the library builds from rel (a .cu file is compiled through a wrapper)."""
    lib = os.path.join(build_dir, "CMakeFiles", "pickora_cpu.dir")
    for want in (rel + ".o", rel + ".cpp.o"):
        for sub in ("", "cpu_sources"):
            path = os.path.join(lib, sub, want)
            if os.path.isfile(path):
                return path
    sys.exit("mutation: no object file for %s under %s" % (rel, lib))


def digest(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


def mutants_of(path, work):
    """Mutant files of path, written by universalmutator into work."""
    r = subprocess.run(["mutate", path, "cpp", "--noCheck", "--mutantDir", work], cwd=work, capture_output=True)
    if r.returncode != 0:
        sys.exit("mutation: mutate failed on %s:\n%s" % (path, r.stderr.decode()))
    base = os.path.splitext(os.path.basename(path))[0]
    names = [n for n in os.listdir(work) if n.startswith(base + ".mutant.")]
    return sorted(names, key=lambda n: int(n.split(".")[-2]))


def change_of(original, mutant):
    """'line N: old -> new' for a mutant's first changed line."""
    diff = list(difflib.unified_diff(original, mutant, n=0, lineterm=""))
    old = [d[1:].strip() for d in diff if d.startswith("-") and not d.startswith("---")]
    new = [d[1:].strip() for d in diff if d.startswith("+") and not d.startswith("+++")]
    line = next((d.split()[1].split(",")[0].lstrip("-") for d in diff if d.startswith("@@")), "?")
    return "line %s: `%s` -> `%s`" % (line, old[0] if old else "", new[0] if new else "")


def judge_file(rel, tests, tree, build_dir, args, rng, cache, kills):
    src = os.path.join(tree, rel)
    with open(src, "rb") as f:
        original = f.read()
    obj = object_of(build_dir, rel)
    clean = digest(obj)
    counts = {"killed": 0, "survived": 0, "invalid": 0, "equivalent": 0}
    survivors = []
    work = tempfile.mkdtemp(prefix="mutants-", dir=args.dir)
    try:
        names = mutants_of(src, work)
        rng.shuffle(names)
        judged = 0
        for name in names:
            if judged >= args.n:
                break
            with open(os.path.join(work, name), "rb") as f:
                mutant = f.read()
            # Whether a mutant compiles, and to the original's object, does not depend on the
            # tests: remembered, so that measuring the suite again costs only the real mutants.
            key = hashlib.sha256(rel.encode() + b"\0" + mutant).hexdigest()
            if key in cache:
                counts[cache[key]] += 1
                continue
            with open(src, "wb") as f:
                f.write(mutant)
            try:
                if not build(build_dir, tests, args.jobs):
                    counts["invalid"] += 1
                    cache[key] = "invalid"
                    continue
                if digest(obj) == clean:
                    counts["equivalent"] += 1
                    cache[key] = "equivalent"
                    continue
                judged += 1
                # Every test program runs to its end, so that the report says which tests kill
                # which mutant: a test that kills only what others kill too carries no weight.
                killers = []
                for t in tests:
                    killers += ["%s:%s" % (t, n) for n in
                                failed_tests(os.path.join(build_dir, "tests", t), build_dir, args.timeout)]
                verdict = "killed" if killers else "survived"
                kills["%s:%s" % (rel, name)] = killers
                counts[verdict] += 1
                if verdict == "survived":
                    survivors.append(change_of(original.decode(errors="replace").splitlines(),
                                               mutant.decode(errors="replace").splitlines()))
            finally:
                with open(src, "wb") as f:
                    f.write(original)
        print("  %s: %d mutants written, %d tried" % (rel, len(names), sum(counts.values())), flush=True)
    finally:
        shutil.rmtree(work, ignore_errors=True)
        with open(src, "wb") as f:
            f.write(original)
    return counts, survivors


def main():
    args = parse_args()
    args.dir = os.path.abspath(os.path.join(ROOT, args.dir))
    tree = os.path.join(args.dir, "tree")
    build_dir = os.path.join(args.dir, "build-sanitize" if args.sanitize else "build")
    jobs = targets(args)
    os.makedirs(tree, exist_ok=True)
    sync_tree(tree)
    # A compiler cache, where there is one, makes the first build of the copy nearly free.
    extra = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
    extra += ["-DPICKORA_SANITIZE=ON"] if args.sanitize else []
    if run(["cmake", "-S", tree, "-B", build_dir, "-DPICKORA_CUDA=OFF", "-DCMAKE_BUILD_TYPE=Release"] + extra) != 0:
        sys.exit("mutation: configuring %s failed" % build_dir)
    all_tests = sorted({t for _, ts in jobs for t in ts})
    if not build(build_dir, all_tests, args.jobs):
        sys.exit("mutation: the unmutated tree does not build")
    for t in all_tests:
        if run([os.path.join(build_dir, "tests", t)], cwd=build_dir, timeout=args.timeout) != 0:
            sys.exit("mutation: %s fails on the unmutated tree" % t)

    cache_path = os.path.join(args.dir, "not-judged%s.json" % ("-sanitize" if args.sanitize else ""))
    cache = json.load(open(cache_path)) if os.path.isfile(cache_path) else {}
    kills = {}
    started = time.time()
    rows, lines = [], []
    for rel, tests in jobs:
        rng = random.Random("%d:%s" % (args.seed, rel))  # one sample per file, whatever else is asked
        counts, survivors = judge_file(rel, tests, tree, build_dir, args, rng, cache, kills)
        with open(cache_path, "w") as f:
            json.dump(cache, f)
        judged = counts["killed"] + counts["survived"]
        score = 100.0 * counts["killed"] / judged if judged else float("nan")
        rows.append((rel, ",".join(tests), counts, score))
        lines.append("### %s: %.0f%% (%d of %d)" % (rel, score, counts["killed"], judged))
        lines += ["- survived: %s" % s for s in survivors]
    total_k = sum(r[2]["killed"] for r in rows)
    total_j = sum(r[2]["killed"] + r[2]["survived"] for r in rows)

    out = ["Mutation score, %s, `scripts/mutation.sh -n %d --seed %d%s %s`, %.0f min" %
           (datetime.date.today().isoformat(), args.n, args.seed, " --sanitize" if args.sanitize else "",
            " ".join(args.modules), (time.time() - started) / 60),
           "", "| file | tests | killed | survived | score | not compiling | equivalent |", "|---|---|---|---|---|---|---|"]
    for rel, tests, c, score in rows:
        out.append("| %s | %s | %d | %d | %.0f%% | %d | %d |" %
                   (rel, tests, c["killed"], c["survived"], score, c["invalid"], c["equivalent"]))
    out.append("| all | | %d | %d | %.0f%% | | |" % (total_k, total_j - total_k, 100.0 * total_k / max(total_j, 1)))
    # Tests by the mutants they kill, and how many of those no other test kills.
    by_test = {}
    for killers in kills.values():
        for k in killers:
            by_test.setdefault(k, [0, 0])[0] += 1
            if len(killers) == 1:
                by_test[k][1] += 1
    out += ["", "| test | mutants killed | killed by it alone |", "|---|---|---|"]
    out += ["| %s | %d | %d |" % (k, v[0], v[1]) for k, v in sorted(by_test.items())]
    out += [""] + lines
    text = "\n".join(out) + "\n"
    with open(os.path.join(args.dir, "kills.json"), "w") as f:
        json.dump(kills, f, indent=1)
    print(text)
    with open(os.path.join(args.dir, "report.md"), "w") as f:
        f.write(text)


if __name__ == "__main__":
    main()
