#!/usr/bin/env python3
"""Mutation testing: applies one-line mutants of the product code, one at a
time, rebuilds the native build, runs the test binary that should notice,
and reports each mutant killed or survived.

    tools/mutants/mutate.py [--build DIR] [--list FILE] [--only N ...] [--json FILE]

Each line of the list (tools/mutants/mutants.txt) reads
    file ~~ text before ~~ text after ~~ test binary [~~ gtest filter]
`text before` must occur exactly once in the file. A mutant the compiler
refuses counts as invalid, not as killed. The file is always restored.
"""

import argparse
import json
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))


def read_list(path):
    mutants = []
    with open(path) as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if not line.strip() or line.lstrip().startswith("#"):
                continue
            fields = [field.strip() for field in line.split(" ~~ ")]
            if len(fields) not in (4, 5):
                sys.exit(f"{path}:{number}: want 'file ~~ before ~~ after ~~ binary [~~ filter]'")
            mutants.append({"line": number, "file": fields[0], "before": fields[1], "after": fields[2],
                            "binary": fields[3], "filter": fields[4] if len(fields) == 5 else "*"})
    return mutants


def run(command, timeout):
    try:
        done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True, timeout=timeout)
        return done.returncode, done.stdout + done.stderr
    except subprocess.TimeoutExpired:
        return None, "timed out"


def try_mutant(m, build):
    path = os.path.join(ROOT, m["file"])
    with open(path) as f:
        original = f.read()
    count = original.count(m["before"])
    if count != 1:
        return "not applicable", f"'before' found {count} times"
    try:
        with open(path, "w") as f:
            f.write(original.replace(m["before"], m["after"]))
        code, output = run(["cmake", "--build", build, "--target", m["binary"]], 1800)
        if code != 0:
            return "invalid", "does not build"
        # The first failing test is enough to call it killed.
        code, output = run([os.path.join(build, "bin", m["binary"]), f"--gtest_filter={m['filter']}",
                            "--gtest_fail_fast"], 600)
        if code is None:
            return "killed", "the tests timed out"
        if code != 0:
            failed = [line.split("]", 1)[1].strip().split(" (")[0] for line in output.splitlines()
                      if line.startswith("[  FAILED  ]") and "," not in line and "listed below" not in line]
            return "killed", ", ".join(sorted(set(failed))[:3]) or f"exit {code}"
        return "survived", ""
    finally:
        with open(path, "w") as f:
            f.write(original)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default=os.path.join(ROOT, "build", "linux"))
    parser.add_argument("--list", default=os.path.join(HERE, "mutants.txt"))
    parser.add_argument("--only", nargs="+", type=int, help="only the mutants on these lines of the list")
    parser.add_argument("--json", help="write the results here too")
    args = parser.parse_args()
    mutants = read_list(args.list)
    if args.only:
        mutants = [m for m in mutants if m["line"] in args.only]
    # Every binary built once unmutated, so that each mutant rebuilds only its own change.
    for binary in sorted({m["binary"] for m in mutants}):
        code, output = run(["cmake", "--build", args.build, "--target", binary], 3600)
        if code != 0:
            sys.exit(f"{binary} doesn't build unmutated:\n{output[-2000:]}")
    results = []
    began = time.monotonic()
    for m in mutants:
        outcome, detail = try_mutant(m, args.build)
        results.append({**m, "outcome": outcome, "detail": detail})
        print(f"{m['line']:4} {outcome:15} {m['file']}: {m['before']} -> {m['after']}"
              + (f"  [{detail}]" if detail else ""), flush=True)
    # The tree as it was: rebuild what the last mutant left behind.
    for binary in sorted({m["binary"] for m in mutants}):
        run(["cmake", "--build", args.build, "--target", binary], 3600)
    counted = [r for r in results if r["outcome"] in ("killed", "survived")]
    killed = sum(r["outcome"] == "killed" for r in counted)
    rate = 100.0 * killed / len(counted) if counted else 0.0
    print(f"\n{killed} of {len(counted)} killed ({rate:.0f} %), "
          f"{len(results) - len(counted)} invalid or not applicable, {time.monotonic() - began:.0f} s")
    for r in results:
        if r["outcome"] == "survived":
            print(f"survived: line {r['line']}: {r['file']}: {r['before']} -> {r['after']}")
    if args.json:
        with open(args.json, "w") as f:
            json.dump({"killed": killed, "counted": len(counted), "ratePct": rate, "mutants": results}, f, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())
