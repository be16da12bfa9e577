#!/usr/bin/env python3
"""Soak: one long stream through the driver under velmora-play to
velmora-target at 1 % packet loss and a sink clock 1000 ppm fast.

    bench/soak.py [--bin DIR] [--out DIR] [--minutes N]

Samples the resident memory (VmRSS) of both processes every second and
compares the first minute with the last: it must stay flat. The stream must
arrive bit for bit (by the digests both ends keep). Exit 0 when both hold,
1 when not, 2 when it can't run. Writes OUT/soak.json with the figures and
every sample.
"""

import argparse
import json
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import stream  # noqa: E402

CASE = dict(name="soak", drop=0.01, ppm=1000, sets="soak")
# Resident memory may move by allocator noise; growth beyond this is not flat.
FLAT_SLACK_KB = 1024


def rss_kb(pid):
    """VmRSS of `pid` in kB; None once it is gone."""
    try:
        with open(f"/proc/{pid}/status") as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
    except (OSError, ValueError):
        pass
    return None


def run(target_cmd, play_cmd, work, seconds):
    """Runs the target, then the host to its end; (samples, error). A sample
    is (seconds since the host started, host kB, target kB)."""
    samples, error = [], None
    with open(os.path.join(work, "target.out"), "w") as target_out, \
            open(os.path.join(work, "play.out"), "w") as play_out:
        target = stream.subprocess.Popen(target_cmd, stdout=target_out, stderr=stream.subprocess.STDOUT)
        try:
            if not stream.wait_for_text(target_out.name, "sink 1:", target):
                return samples, "velmora-target didn't start"
            play = stream.subprocess.Popen(play_cmd, stdout=play_out, stderr=stream.subprocess.STDOUT)
            began = time.monotonic()
            while play.poll() is None:
                now = time.monotonic() - began
                if now > 2 * seconds + 60:
                    stream.stop(play)
                    error = "velmora-play didn't end"
                    break
                host, sink = rss_kb(play.pid), rss_kb(target.pid)
                if host is not None and sink is not None:
                    samples.append((now, host, sink))
                time.sleep(1.0)
            stream.wait_for_stats(work, target)
        finally:
            stream.stop(target)
    return samples, error


def minute(samples, first):
    """The highest host and target figures of the first or the last minute."""
    if not samples:
        return None
    end = samples[-1][0]
    chosen = [s for s in samples if (s[0] < 60 if first else s[0] >= end - 60)]
    return {"hostKb": max(s[1] for s in chosen), "targetKb": max(s[2] for s in chosen)}


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    root = os.path.dirname(here)
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--bin", default=os.path.join(root, "build", "linux", "bin"))
    parser.add_argument("--out", default=os.path.join(root, "build", "bench", "soak"))
    parser.add_argument("--minutes", type=float, default=10.0)
    args = parser.parse_args()
    if args.minutes < 2:
        print("soak: --minutes must be at least 2, to compare a first and a last minute", file=sys.stderr)
        return 2
    for program in ("velmora-target", "velmora-play", "asio_kestrane.so"):
        if not os.path.exists(os.path.join(args.bin, program)):
            print(f"soak: {args.bin}/{program} is missing: build it first", file=sys.stderr)
            return 2
    args.wav = False  # the digests compare, so no WAV of ten minutes is written

    ns = stream.Namespace()
    try:
        if ns.name is None and stream.ports_taken():
            print(f"soak: UDP ports {stream.ports_taken()} are in use: stop what holds them", file=sys.stderr)
            return 2
        p = stream.case_parameters(CASE)
        seconds = int(args.minutes * 60)
        work = os.path.join(args.out, "run")
        stream.shutil.rmtree(work, ignore_errors=True)
        os.makedirs(os.path.join(work, "config", "KESTRANE Velmora"))
        with open(os.path.join(work, "config", "KESTRANE Velmora", "setting.inf"), "w", newline="") as f:
            f.write(stream.settings_text(p))
        target_cmd, play_cmd = stream.commands(p, args, ns, work, seconds)
        print(f"soak: {args.minutes:g} min of {stream.format_name(p)}, 1 % loss, +1000 ppm", flush=True)
        samples, error = run(target_cmd, play_cmd, work, seconds)
    finally:
        ns.close()

    play = stream.load_json(os.path.join(work, "play.json")) or {}
    stats = stream.load_json(os.path.join(work, "stats.json")) or {}
    exact, why, _ = stream.bit_exact(p, play.get("digest"), stats.get("digest"))
    first, last = minute(samples, True), minute(samples, False)
    flat = bool(first and last) and all(last[k] <= first[k] + FLAT_SLACK_KB for k in ("hostKb", "targetKb"))
    result = {
        "minutes": args.minutes, "error": error or play.get("failure"), "bitExact": exact, "bitExactDetail": why,
        "firstMinute": first, "lastMinute": last, "flat": flat, "flatSlackKb": FLAT_SLACK_KB,
        "packets": stats.get("packets"), "dropped": stats.get("dropped"), "resends": stats.get("resends"),
        "underruns": stats.get("underruns"), "samples": samples,
    }
    os.makedirs(args.out, exist_ok=True)
    with open(os.path.join(args.out, "soak.json"), "w") as f:
        json.dump(result, f, indent=1)

    if first and last:
        for role, key in (("host", "hostKb"), ("target", "targetKb")):
            print(f"  {role:7} RSS first minute {first[key]} kB, last minute {last[key]} kB "
                  f"({last[key] - first[key]:+d} kB)")
    print(f"  packets {result['packets']}, dropped {result['dropped']}, resends {result['resends']}, "
          f"underruns {result['underruns']}")
    print(f"  memory flat: {'yes' if flat else 'no'}; bit-exact: {exact} ({why})"
          + (f" [{result['error']}]" if result["error"] else ""))
    print(f"  files in {args.out}")
    return 0 if flat and exact and not result["error"] else 1


if __name__ == "__main__":
    sys.exit(main())
