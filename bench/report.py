#!/usr/bin/env python3
"""Every benchmark in one run and one report: pacing, throughput, the copy
kernels, the host calls' durations and the CPU of both ends beside JackTrip.

    bench/report.py [--bin DIR] [--out DIR] [--quick] [--only SECTION ...]

Sections: stream, pacing, kernels, init, cpu, throughput (all by default). Writes
OUT/report.md, OUT/report.json and OUT/*.png; each section's raw files stay
under OUT/<section>/. Figures are distributions and ratios measured side by
side in the same run, since absolute times on a shared machine drift.
"""

import argparse
import json
import os
import platform
import shutil
import signal
import statistics
import subprocess
import sys
import time

import stream

JACK_SERVER = "velmora-bench"
JACKTRIP_FRAMES = 64  # JackTrip's packets, frames; its nearest to our 1 ms cycle


# --- helpers ---------------------------------------------------------------


def run_json(command, path, timeout):
    subprocess.run(command, check=True, timeout=timeout)
    with open(path) as f:
        return json.load(f)


def gnuplot(script, png):
    """Draws `script` (with {term}) into png; the file's name, or None."""
    program = shutil.which("gnuplot")
    if program is None:
        return None
    for term in ("pngcairo", "png"):
        done = subprocess.run([program], input=script.format(term=term), text=True, capture_output=True)
        if done.returncode == 0 and os.path.exists(png) and os.path.getsize(png) != 0:
            return os.path.basename(png)
    return None


def ratio_text(value):
    return "–" if value is None else f"{value:.2f}×"


def goal_text(met):
    return "met" if met else "not met"


class Processes:
    """Programs started in the background, all stopped on close."""

    def __init__(self):
        self.running = []

    def start(self, command, log, env=None):
        out = open(log, "w")
        process = subprocess.Popen(command, stdout=out, stderr=subprocess.STDOUT, env=env)
        self.running.append((process, out))
        return process

    def close(self):
        for process, out in reversed(self.running):
            stream.stop(process)
            out.close()
        self.running = []


def cpu_percent(pids, seconds):
    """% of one core each process took over `seconds`, by its own clock ticks."""
    ticks = os.sysconf("SC_CLK_TCK")
    before = {pid: stream.cpu_ticks(pid) for pid in pids}
    start = time.monotonic()
    time.sleep(seconds)
    elapsed = time.monotonic() - start
    shares = {}
    for pid in pids:
        after = stream.cpu_ticks(pid)
        if before[pid] is None or after is None:
            shares[pid] = None
        else:
            shares[pid] = 100.0 * (after - before[pid]) / ticks / elapsed
    return shares


# --- pacing ------------------------------------------------------------------


def pacing(args, out):
    path = os.path.join(out, "pacing.json")
    cycles = 1000 if args.quick else 3000
    data = run_json([os.path.join(args.bin, "transfer_accuracy"), "--cycles", str(cycles), "--json", path],
                    path, timeout=3600)
    rows = []
    for s in data["series"]:
        values = sorted(s.pop("latenessUs"))
        s.update(median=stream.quantile(values, 0.5), p99=stream.quantile(values, 0.99), max=values[-1])
        s["histogram"] = histogram(values)
        rows.append(s)
    plots = [pacing_plot(rows, priority, out) for priority in ("normal", "realtime")
             if any(r["priority"] == priority for r in rows)]
    return {"cycles": cycles, "series": rows, "plots": [p for p in plots if p]}


def histogram(values):
    """Counts per bin on a log scale of µs: [upper bound, count]."""
    bounds = [1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 2000, 5000, 10000, 20000, 50000, 100000, float("inf")]
    counts = [0] * len(bounds)
    for v in values:
        counts[next(i for i, b in enumerate(bounds) if v <= b)] += 1
    return [[b if b != float("inf") else None, c] for b, c in zip(bounds, counts)]


def pacing_plot(rows, priority, out):
    chosen = [r for r in rows if r["priority"] == priority]
    data = os.path.join(out, "pacing", f"{priority}.dat")
    os.makedirs(os.path.dirname(data), exist_ok=True)
    with open(data, "w") as f:
        for r in chosen:
            f.write(f"# {r['wait']}\n")
            for bound, count in r["histogram"]:
                f.write(f"{bound or 200000} {max(count, 0.5)}\n")
            f.write("\n\n")
    png = os.path.join(out, f"pacing-{priority}.png")
    curves = ", ".join(f"'{data}' index {i} using 1:2 with linespoints title '{r['wait']}'"
                       for i, r in enumerate(chosen))
    script = "\n".join([
        "set terminal {term} size 900,450 noenhanced", f"set output '{png}'",
        f"set title 'Lateness after the deadline, 1 ms cycles, {priority} priority'",
        "set logscale xy", "set xlabel 'lateness, µs (upper bound of the bin)'", "set ylabel 'cycles'",
        "set yrange [0.5:*]", "set grid", "set key outside right", "plot " + curves])
    return gnuplot(script, png)


# --- kernels -----------------------------------------------------------------

KERNEL_GOALS = {"copy": 0.8, "reversal": 0.5}


def kernels(args, out):
    path = os.path.join(out, "kernels.json")
    data = run_json([os.path.join(args.bin, "copy_kernels"), "--json", path], path, timeout=600)
    for k in data["kernels"]:
        k["ratio"] = k["gbps"] / k["memcpyGbps"]
        k["goal"] = KERNEL_GOALS[k["kind"]]
        k["met"] = k["ratio"] >= k["goal"]
    return data


# --- init across a veth pair -------------------------------------------------


class VethPair:
    """Two namespaces joined by a veth pair, link-local addresses at once."""

    def __init__(self):
        tag = f"vb{os.getpid()}"
        self.host, self.target = tag + "h", tag + "t"
        for ns in (self.host, self.target):
            subprocess.run(["ip", "netns", "add", ns], check=True)
            self.run(ns, "sysctl", "-qw", "net.ipv6.conf.all.accept_dad=0", "net.ipv6.conf.default.accept_dad=0")
            self.run(ns, "ip", "link", "set", "lo", "up")
        subprocess.run(["ip", "link", "add", "vbh", "netns", self.host, "type", "veth", "peer", "name", "vbt",
                        "netns", self.target], check=True)
        self.run(self.host, "ip", "link", "set", "vbh", "up")
        self.run(self.target, "ip", "link", "set", "vbt", "up")
        time.sleep(0.5)

    @staticmethod
    def run(ns, *command):
        subprocess.run(["ip", "netns", "exec", ns] + list(command), check=True)

    def close(self):
        for ns in (self.host, self.target):
            pids = subprocess.run(["ip", "netns", "pids", ns], capture_output=True, text=True).stdout.split()
            for pid in pids:
                try:
                    os.kill(int(pid), signal.SIGTERM)
                except (OSError, ValueError):
                    pass
            subprocess.run(["ip", "netns", "del", ns], capture_output=True)


def init_calls(args, out):
    if os.geteuid() != 0:
        return {"skipped": "needs root for a veth pair"}
    work = os.path.join(out, "init")
    os.makedirs(os.path.join(work, "config", "KESTRANE Velmora"), exist_ok=True)
    # No target named: the driver finds it on the link, as a user's would.
    with open(os.path.join(work, "config", "KESTRANE Velmora", "setting.inf"), "w", newline="") as f:
        f.write("")
    runs = 3 if args.quick else 7
    pair = VethPair()
    processes = Processes()
    calls = {}
    failures = []
    try:
        processes.start(["ip", "netns", "exec", pair.target, os.path.join(args.bin, "velmora-target"),
                         "--name", "Bench", "--sink", "1,0,Bench out", "--log-level", "3"],
                        os.path.join(work, "target.out"))
        time.sleep(1)
        for i in range(runs):
            report = os.path.join(work, f"play{i}.json")
            subprocess.run(["ip", "netns", "exec", pair.host, os.path.join(args.bin, "velmora-play"),
                            "--driver", os.path.join(args.bin, "asio_kestrane.so"), "--settings",
                            os.path.join(work, "config"), "--signal", "sine", "--seconds", "1", "--json", report],
                           capture_output=True, timeout=60)
            play = stream.load_json(report) or {}
            if play.get("failure"):
                failures.append(play["failure"])
            for call in play.get("calls", []):
                name = call["call"].split("(")[0]
                calls.setdefault(name, []).append(call.get("ms", 0.0))
    finally:
        processes.close()
        pair.close()
    rows = [{"call": name, "median": statistics.median(ms), "max": max(ms), "runs": len(ms)}
            for name, ms in calls.items()]
    init = next((r for r in rows if r["call"] == "init"), None)
    return {"runs": runs, "calls": rows, "failures": failures, "goalMs": 250,
            "met": init is not None and init["median"] <= 250}


# --- CPU beside JackTrip -------------------------------------------------------


def jacktrip_available():
    return all(shutil.which(p) for p in ("jackd", "jacktrip"))


def jacktrip_cpu(ns, seconds, work):
    """JackTrip's client against its server on the loopback address, clocked
    by jackd's dummy backend: % of a core per process."""
    env = dict(os.environ, JACK_DEFAULT_SERVER=JACK_SERVER, JACK_NO_AUDIO_RESERVATION="1")
    processes = Processes()
    try:
        jackd = processes.start(ns.prefix() + ["jackd", "-n", JACK_SERVER, "-d", "dummy", "-r", "48000", "-p",
                                               str(JACKTRIP_FRAMES)], os.path.join(work, "jackd.out"), env)
        time.sleep(2)
        server = processes.start(ns.prefix() + ["jacktrip", "-s", "-n", "2", "-q", "4", "-J", "jts", "-B", "4464"],
                                 os.path.join(work, "jts.out"), env)
        time.sleep(1)
        client = processes.start(ns.prefix() + ["jacktrip", "-c", "127.0.0.1", "-n", "2", "-q", "4", "-J", "jtc",
                                                "-B", "4474", "-P", "4464"], os.path.join(work, "jtc.out"), env)
        time.sleep(3)
        if any(p.poll() is not None for p in (jackd, server, client)):
            return None
        shares = cpu_percent([client.pid, server.pid, jackd.pid], seconds)
        return {"client": shares[client.pid], "server": shares[server.pid], "jackd": shares[jackd.pid]}
    finally:
        processes.close()


def velmora_cpu(args, ns, out, name, parameters, seconds):
    case = dict(name=name, sets="", **parameters)
    case_args = argparse.Namespace(bin=args.bin, seconds=seconds, set="matrix", wav=False)
    result = stream.run_case(case, case_args, ns, out)
    shares = result.get("cpuPct") or {}
    return {"host": shares.get("host"), "target": shares.get("target"), "error": result.get("error")}


def cpu(args, out):
    work = os.path.join(out, "cpu")
    os.makedirs(work, exist_ok=True)
    rounds = 1 if args.quick else 3
    seconds = 8 if args.quick else 15
    settings = {"defaults": dict(base=False, latency=200), "cycle 250 µs": dict(base=False, latency=200, cycle=250),
                "low latency": dict(stream.LOW_LATENCY)}
    samples = {name: [] for name in settings}
    samples["jacktrip"] = []
    ns = stream.Namespace()
    try:
        # Rounds interleave, so that both sides see the same machine.
        for _ in range(rounds):
            if jacktrip_available():
                jt = jacktrip_cpu(ns, seconds, work)
                if jt:
                    samples["jacktrip"].append(jt)
            for name, parameters in settings.items():
                samples[name].append(velmora_cpu(args, ns, work, "cpu-" + name.replace(" ", "-"), parameters,
                                                 seconds))
    finally:
        ns.close()

    def median(rows, key):
        values = [r[key] for r in rows if r.get(key) is not None]
        return statistics.median(values) if values else None

    jt_client = median(samples["jacktrip"], "client")
    result = {"rounds": rounds, "seconds": seconds, "samples": samples, "jacktripClient": jt_client,
              "jacktripServer": median(samples["jacktrip"], "server"), "jackd": median(samples["jacktrip"], "jackd")}
    for name in settings:
        host = median(samples[name], "host")
        # JackTrip's client is woken by jackd, which pays for the clock; the
        # host clocks itself, so both ratios are shown.
        jt_clocked = jt_client + result["jackd"] if jt_client is not None and result["jackd"] is not None else None
        result[name] = {"host": host, "target": median(samples[name], "target"),
                        "ratio": host / jt_client if host is not None and jt_client else None,
                        "ratioWithJackd": host / jt_clocked if host is not None and jt_clocked else None}
    # The goals hold the host against JackTrip's client; the low-latency
    # settings are shown beside them.
    result["goals"] = {"defaults": 1.0, "cycle 250 µs": 2.0, "low latency": None}
    return result


# --- throughput ----------------------------------------------------------------

PCM_LADDER = [(192000, 8, None), (384000, 8, 1024), (768000, 8, 2048)]
DSD_LADDER = [(2822400, None), (5644800, None), (11289600, 2048), (22579200, 2048)]


def sustained(r):
    ppm = r.get("callbackPpm")
    return (not r.get("error") and r.get("underruns") == 0 and r.get("bitExact") is True
            and ppm is not None and abs(ppm) <= 1000)


def throughput(args, out):
    work = os.path.join(out, "throughput")
    seconds = 6 if args.quick else 12
    case_args = argparse.Namespace(bin=args.bin, seconds=seconds, set="matrix", wav=False)
    rows = []
    ns = stream.Namespace()
    try:
        for rate, channels, buffer in PCM_LADDER:
            case = dict(name=f"pcm{rate // 1000}x{channels}", sets="", rate=rate, channels=channels, latency=200)
            if buffer:
                case["buffer"] = buffer
            rows.append(summary_row("PCM", rate * channels, stream.run_case(case, case_args, ns, work)))
        for rate, buffer in DSD_LADDER:
            case = dict(name=f"dsd{rate // 44100}", sets="", rate=rate, dsd=True, latency=200)
            if buffer:
                case["buffer"] = buffer
            rows.append(summary_row("DSD", rate * 2, stream.run_case(case, case_args, ns, work)))
    finally:
        ns.close()
    best = {}
    for kind in ("PCM", "DSD"):
        held = [r for r in rows if r["kind"] == kind and r["sustained"]]
        best[kind] = max(held, key=lambda r: r["samplesPerSecond"])["case"] if held else None
    return {"seconds": seconds, "cases": rows, "highest": best}


def summary_row(kind, samples_per_second, r):
    return {"kind": kind, "case": r["name"], "format": r.get("format"), "samplesPerSecond": samples_per_second,
            "underruns": r.get("underruns"), "bitExact": r.get("bitExact"), "callbackPpm": r.get("callbackPpm"),
            "hostCpu": (r.get("cpuPct") or {}).get("host"), "error": r.get("error"), "sustained": sustained(r)}


# --- the report ------------------------------------------------------------------


def fmt(value, digits=1):
    return stream.fmt(value, digits)


def markdown(report):
    lines = [f"# Benchmarks ({report['machine']['cores']} cores, kernel {report['machine']['kernel']})", ""]
    if "pacing" in report:
        p = report["pacing"]
        lines += ["## Pacing: lateness after the deadline, 1 ms cycles", "",
                  f"{p['cycles']} cycles per row. `sleep` is the machine's floor: a plain sleep to each deadline.",
                  "", "| priority | wait | median µs | p99 µs | max µs | CPU % |", "|---|---|---|---|---|---|"]
        lines += [f"| {s['priority']} | {s['wait']} | {fmt(s['median'])} | {fmt(s['p99'])} | {fmt(s['max'])} "
                  f"| {fmt(s.get('cpuPct'))} |" for s in p["series"]]
        lines += [""] + [f"![{png}]({png})" for png in p["plots"]] + [""]
    if "kernels" in report:
        lines += ["## Copy kernels against memcpy on the same buffers", "",
                  "| kernel | bytes | GB/s | memcpy GB/s | ratio | goal |", "|---|---|---|---|---|---|"]
        lines += [f"| {k['kernel']} | {k['bytes']} | {fmt(k['gbps'])} | {fmt(k['memcpyGbps'])} | "
                  f"{k['ratio']:.2f} | ≥ {k['goal']} {goal_text(k['met'])} |" for k in report["kernels"]["kernels"]]
        lines.append("")
    if "init" in report:
        i = report["init"]
        lines += ["## Host calls against one target across a veth pair", ""]
        if "skipped" in i:
            lines += [f"Skipped: {i['skipped']}.", ""]
        else:
            lines += [f"{i['runs']} runs; init's goal ≤ {i['goalMs']} ms at the median: {goal_text(i['met'])}.", "",
                      "| call | median ms | max ms |", "|---|---|---|"]
            lines += [f"| {r['call']} | {fmt(r['median'], 2)} | {fmt(r['max'], 2)} |" for r in i["calls"]]
            lines += [f"\nFailures: {'; '.join(i['failures'])}" if i["failures"] else "", ""]
    if "cpu" in report:
        c = report["cpu"]
        lines += ["## CPU, % of one core, 48 kHz stereo", "",
                  f"Median of {c['rounds']} interleaved rounds of {c['seconds']} s. JackTrip: client and server "
                  f"on the loopback address, {JACKTRIP_FRAMES}-frame packets, jackd's dummy backend clocking "
                  f"them (jackd {fmt(c['jackd'])} %, server {fmt(c['jacktripServer'])} %).", "",
                  "| settings | host | target | JackTrip client | host / client | goal | host / (client + jackd) |",
                  "|---|---|---|---|---|---|---|"]
        for name, goal in c["goals"].items():
            row = c[name]
            met = row["ratio"] is not None and goal is not None and row["ratio"] <= goal
            lines.append(f"| {name} | {fmt(row['host'])} | {fmt(row['target'])} | {fmt(c['jacktripClient'])} | "
                         f"{ratio_text(row['ratio'])} | {f'≤ {goal}× ' + goal_text(met) if goal else '–'} | "
                         f"{ratio_text(row['ratioWithJackd'])} |")
        lines.append("")
    if "throughput" in report:
        t = report["throughput"]
        lines += ["## Throughput: what holds in real time", "",
                  f"{t['seconds']} s per case; held = 0 underruns, bit-exact, callbacks within 0.1 % of nominal. "
                  f"Highest held: PCM {t['highest']['PCM'] or 'none'}, DSD {t['highest']['DSD'] or 'none'}.", "",
                  "| case | format | underruns | bit-exact | callbacks ppm | host CPU % | held |",
                  "|---|---|---|---|---|---|---|"]
        lines += [f"| {r['case']} | {r['format']} | {r['underruns']} | {r['bitExact']} | {fmt(r['callbackPpm'], 0)} "
                  f"| {fmt(r['hostCpu'])} | {'yes' if r['sustained'] else 'no'} |" for r in t["cases"]]
        lines.append("")
    if "stream" in report:
        lines += ["## Stream quality (bench/stream.py; plots per case in stream/)", "", report["stream"]["table"]]
    return "\n".join(lines)


def stream_set(args, out):
    """The stream-quality set (bench/stream.py), its table taken in."""
    where = os.path.join(out, "stream")
    command = [sys.executable, os.path.join(os.path.dirname(os.path.abspath(__file__)), "stream.py"),
               "--bin", args.bin, "--out", where] + (["--quick"] if args.quick else [])
    subprocess.run(command, check=True)
    with open(os.path.join(where, "stream.md")) as f:
        table = f.read()
    return {"table": table, "json": os.path.join("stream", "stream.json")}


SECTIONS = {"stream": stream_set, "pacing": pacing, "kernels": kernels, "init": init_calls, "cpu": cpu, "throughput": throughput}


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    root = os.path.dirname(here)
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--bin", default=os.path.join(root, "build", "linux", "bin"))
    parser.add_argument("--out", default=os.path.join(root, "build", "bench"))
    parser.add_argument("--quick", action="store_true", help="fewer cycles, rounds and seconds")
    parser.add_argument("--only", nargs="+", choices=list(SECTIONS), default=list(SECTIONS))
    args = parser.parse_args()
    os.makedirs(args.out, exist_ok=True)
    report = {"machine": {"cores": os.cpu_count(), "kernel": platform.release()}}
    for name in args.only:
        print(f"== {name}", flush=True)
        began = time.monotonic()
        report[name] = SECTIONS[name](args, args.out)
        print(f"   {time.monotonic() - began:.0f} s", flush=True)
    with open(os.path.join(args.out, "report.json"), "w") as f:
        json.dump(report, f, indent=1)
    text = markdown(report)
    with open(os.path.join(args.out, "report.md"), "w") as f:
        f.write(text)
    print(text)
    print(f"files in {args.out}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
