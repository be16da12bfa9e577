#!/usr/bin/env python3
"""Stream quality: the driver under velmora-play streaming to velmora-target,
both real processes on the loopback address, one case at a time.

    bench/stream.py [--bin DIR] [--out DIR] [--quick | --hold | --all]
                    [--case NAME ...] [--seconds S] [--list]

Where root may, both programs run in a network namespace of their own, so
that the fixed ports are private; elsewhere the UDP ports 19638-19642 must be
free. Per case the figures are: end-to-end latency from the bufferSwitch
that handed a frame to the sink playing it (both on CLOCK_MONOTONIC),
underruns and overruns, the settled deviation, resends, whether the stream
arrived bit for bit (by the digests both ends keep), the callbacks' rate
against nominal, and the CPU both processes took while streaming.

Writes OUT/stream.json, OUT/stream.md, OUT/NAME.png per case and each
case's raw files under OUT/cases/NAME/.
"""

import argparse
import json
import os
import platform
import shutil
import signal
import socket
import subprocess
import sys
import time

CHECKPOINT_BYTES = 1 << 18  # StreamDigest::checkpointBytes
Q14 = 16384
PORTS = range(19638, 19643)
SETTLE_S = 5.0  # the deviation counts as settled after this much play
SECONDS = 20  # per case of the default matrix
QUICK_SECONDS = 9
HOLD_SECONDS = 60
# The README's low-latency settings: 250 us cycles, three ring slots of 32
# frames, a 3 ms sink buffer and a feedback report every 20 ms.
LOW_LATENCY = dict(buffer=32, cycle=250, sync=3, latency=30, settings={"InfoCycle": 20000})
SETTLE_BAND = 0.10  # settled: the mean level within this share of the centre

# One row per case. Keys (all optional):
#   rate, channels, bits (PCM), dsd (True: DSD at `rate`, one-bit samples)
#   buffer   ASIO buffer size (the driver's ASIOBufferSize and the host's choice;
#            for DSD in units of 32 one-bit samples, as ASIOBufferSize counts)
#   cycle    the driver's CycleTime, us; sync: SyncBufferCount
#   latency  the sink's buffer, velmora-target --latency (units of 100 us)
#   ppm, step ("PPM@SECONDS"), drop: the sink's clock, a jump in it, loss
#   jack     the sink plays to a jackd of its own (dummy backend, 48 kHz) with
#            periods of this many frames: the server's clock is the sink's
#   batch    velmora-target --batch-wait, us
#   settings more setting.inf keys; sets: which sets hold the case
BASE = dict(rate=48000, channels=2, bits=32, latency=200)
CASES = [
    dict(name="defaults", sets="matrix quick", base=False),
    dict(name="pcm48-24", bits=24, sets="matrix quick"),
    dict(name="pcm48-32", sets="matrix"),
    dict(name="pcm192", rate=192000, sets="matrix"),
    dict(name="pcm768x8", rate=768000, channels=8, buffer=2048, sets="matrix quick"),
    dict(name="dsd64", rate=2822400, dsd=True, sets="matrix quick"),
    dict(name="dsd512", rate=22579200, dsd=True, buffer=2048, sets="matrix"),
    dict(name="asio64-sink5", buffer=64, latency=50, sets="matrix quick"),
    dict(name="asio256", buffer=256, sets="matrix"),
    dict(name="asio2048", buffer=2048, sets="matrix"),
    dict(name="cycle500", cycle=500, sets="matrix"),
    dict(name="cycle2000", cycle=2000, sets="matrix"),
    dict(name="sync3", sync=3, sets="matrix"),
    dict(name="sync12", sync=12, sets="matrix"),
    dict(name="sink5", latency=50, sets="matrix"),
    dict(name="sink10", latency=100, sets="matrix"),
    dict(name="sink50", latency=500, sets="matrix"),
    dict(name="ppm+300", ppm=300, sets="matrix"),
    dict(name="ppm-300", ppm=-300, sets="matrix"),
    dict(name="ppm+1000", ppm=1000, sets="matrix quick"),
    dict(name="ppm-1000", ppm=-1000, sets="matrix quick"),
    dict(name="step+500", step="500@8", sets="matrix"),
    dict(name="step-1000", step="-1000@4", sets="quick"),
    dict(name="drop1", drop=0.01, sets="matrix quick"),
    dict(name="drop5", drop=0.05, sets="matrix"),
    dict(name="drop1-sink10", drop=0.01, latency=100, sets="matrix"),
    dict(name="low", **LOW_LATENCY, sets="matrix quick"),
    dict(name="low+1000", **LOW_LATENCY, ppm=1000, sets="matrix"),
    dict(name="low-1000", **LOW_LATENCY, ppm=-1000, sets="matrix"),
    dict(name="low-step+1000", **LOW_LATENCY, step="1000@8", sets="matrix"),
    dict(name="low-sync4", **{**LOW_LATENCY, "sync": 4}, sets="matrix"),
    dict(name="low-asio16", **{**LOW_LATENCY, "buffer": 16, "sync": 6}, sets="matrix"),
    dict(name="low-sink2", **{**LOW_LATENCY, "latency": 20}, sets="matrix"),
    dict(name="per-packet", batch=0, sets="matrix"),
    dict(name="jack256", jack=256, sets="matrix quick"),
    dict(name="jack256-per-packet", jack=256, batch=0, sets="matrix"),
    dict(name="low-jack64", **LOW_LATENCY, jack=64, sets="matrix"),
    dict(name="low-jack64-sink5", **{**LOW_LATENCY, "latency": 50}, jack=64, sets="matrix"),
    # The long goals: a minute each.
    dict(name="hold-48k-low", **LOW_LATENCY, sets="hold"),
    dict(name="hold-48k-low+1000", **LOW_LATENCY, ppm=1000, sets="hold"),
    dict(name="hold-48k-low-1000", **LOW_LATENCY, ppm=-1000, sets="hold"),
    dict(name="hold-768x8", rate=768000, channels=8, buffer=2048, latency=200, sets="hold"),
    dict(name="hold-dsd512", rate=22579200, dsd=True, buffer=2048, latency=200, sets="hold"),
]

CHANNEL_BITS = {1: 0x01, 2: 0x02, 4: 0x04, 6: 0x08, 8: 0x10}
PCM_BITS = {16: 0x200, 24: 0x400, 32: 0x800}
DSD_LSB_WORD = 0x2510000  # 32-bit words, little-endian, least significant bit first


def case_parameters(case):
    """The case over the base (48 kHz stereo 32-bit, sink 20 ms)."""
    merged = dict(BASE) if case.get("base", True) else {}
    merged.update({k: v for k, v in case.items() if k not in ("sets", "base")})
    return merged


def rate_fields(rate):
    """The high half of a format mask for one rate: base and multiplier."""
    for base, bit in ((44100, 0x2), (48000, 0x4)):
        multiplier = rate // base
        if rate % base == 0 and multiplier & (multiplier - 1) == 0:
            return bit | multiplier << 3
    raise ValueError(f"no format word for {rate} Hz")


def target_masks(p):
    """velmora-target options that offer exactly the case's format."""
    if "rate" not in p:
        return []
    channels = CHANNEL_BITS[p.get("channels", 2)]
    if p.get("dsd"):
        # The driver still picks its PCM form at init: offer stereo PCM too.
        return ["--pcm", f"0x{0x800 | channels:x}:0x{rate_fields(44100):x}",
                "--dsd-lsb", f"0x{DSD_LSB_WORD | channels:x}:0x{rate_fields(p['rate']):x}"]
    return ["--pcm", f"0x{PCM_BITS[p['bits']] | channels:x}:0x{rate_fields(p['rate']):x}"]


def settings_text(p):
    keys = {"TargetAddress": "::1,19642", "InterLoopback": "enable"}
    if "bits" in p and not p.get("dsd"):
        keys["PCMRequest"] = p["bits"]
    for field, key in (("buffer", "ASIOBufferSize"), ("cycle", "CycleTime"), ("sync", "SyncBufferCount")):
        if field in p:
            keys[key] = p[field]
    keys.update(p.get("settings", {}))
    return "".join(f"{k}={v}\r\n" for k, v in keys.items())


def format_name(p):
    rate, channels = p.get("rate", 48000), p.get("channels", 2)
    if p.get("dsd"):
        return f"DSD{rate // 44100} x{channels}"
    bits = p.get("bits", 32)
    return f"{rate / 1000:g}k x{channels} x{bits}"


# --- running ---------------------------------------------------------------


class Namespace:
    """A private network namespace, where root may make one; else None."""

    def __init__(self):
        self.name = None
        if os.geteuid() != 0 or shutil.which("ip") is None:
            return
        name = f"velmora-bench-{os.getpid()}"
        made = subprocess.run(["ip", "netns", "add", name], capture_output=True)
        if made.returncode != 0:
            return
        self.name = name
        subprocess.run(self.prefix() + ["ip", "link", "set", "lo", "up"], check=True)

    def prefix(self):
        return ["ip", "netns", "exec", self.name] if self.name else []

    def close(self):
        if self.name:
            subprocess.run(["ip", "netns", "delete", self.name], capture_output=True)
            self.name = None


def ports_taken():
    taken = []
    for port in PORTS:
        with socket.socket(socket.AF_INET6, socket.SOCK_DGRAM) as s:
            try:
                s.bind(("::", port))
            except OSError:
                taken.append(port)
    return taken


def cpu_ticks(pid):
    """utime + stime of every thread of `pid`, in clock ticks; None once gone."""
    try:
        with open(f"/proc/{pid}/stat") as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return int(fields[11]) + int(fields[12])
    except (OSError, IndexError, ValueError):
        return None


def steal_ticks():
    """Time the hypervisor gave this machine's CPUs to others, in clock ticks:
    moments in which no thread of ours could run, however urgent."""
    try:
        with open("/proc/stat") as f:
            fields = f.readline().split()
        return int(fields[8]) if fields[0] == "cpu" and len(fields) > 8 else None
    except (OSError, ValueError):
        return None


def wait_for_text(path, text, process, seconds=5.0):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        try:
            with open(path) as f:
                if text in f.read():
                    return True
        except OSError:
            pass
        if process.poll() is not None:
            return False
        time.sleep(0.02)
    return False


def commands(p, args, ns, work, seconds):
    """The target's and the host's command lines for a case."""
    target = ns.prefix() + [os.path.join(args.bin, "velmora-target"), "--loopback", "--name", "Bench",
                            "--sink", "1,0,Bench out", "--stats-json", os.path.join(work, "stats.json"),
                            "--log-level", "3"] + target_masks(p)
    if p.get("jack"):
        target[target.index("--sink") + 2:target.index("--sink") + 2] = ["--jack", "velmora-bench"]
    for field, option in (("latency", "--latency"), ("ppm", "--ppm"), ("step", "--ppm-step"),
                          ("drop", "--drop"), ("batch", "--batch-wait")):
        if p.get(field) is not None:
            target += [option, str(p[field])]
    play = ns.prefix() + [os.path.join(args.bin, "velmora-play"),
                          "--driver", os.path.join(args.bin, "asio_kestrane.so"),
                          "--settings", os.path.join(work, "config"), "--signal", "noise",
                          "--seconds", str(seconds), "--json", os.path.join(work, "play.json")]
    if "rate" in p:
        play += ["--rate", str(p["rate"]), "--channels", str(p.get("channels", 2))]
    if p.get("dsd"):
        play += ["--dsd"]
    if "buffer" in p:
        play += ["--buffer", str(p["buffer"] * (32 if p.get("dsd") else 1))]
    if args.wav:
        target += ["--wav", os.path.join(work, "sink.wav")]
        play += ["--given", os.path.join(work, "given.wav")]
    return target, play


def stop(process):
    if process.poll() is None:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(5)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def wait_for_stats(work, target):
    """The target writes a stream's statistics when the stream ends."""
    stats = os.path.join(work, "stats.json")
    end = time.monotonic() + 5
    while not os.path.exists(stats) and time.monotonic() < end and target.poll() is None:
        time.sleep(0.05)
    time.sleep(0.1)


class JackServer:
    """jackd's dummy backend under a name of this run, for a case whose sink
    plays to JACK; nothing for the others."""

    def __init__(self, p, ns, work):
        self.process = None
        self.env = dict(os.environ)
        if not p.get("jack"):
            return
        self.env["JACK_DEFAULT_SERVER"] = f"velmora-bench-{os.getpid()}"
        with open(os.path.join(work, "jackd.out"), "w") as out:
            self.process = subprocess.Popen(ns.prefix() + ["jackd", "-n", self.env["JACK_DEFAULT_SERVER"], "-d",
                                                           "dummy", "-r", "48000", "-p", str(p["jack"])],
                                            stdout=out, stderr=subprocess.STDOUT, env=self.env)
        subprocess.run(["jack_wait", "-w", "-t", "5"], env=self.env, capture_output=True)

    def close(self):
        if self.process:
            stop(self.process)


def run_processes(target_cmd, play_cmd, work, seconds, result, env=None):
    """Runs the target, then the host to its end, sampling both processes'
    CPU time; the samples by role."""
    samples = {"host": [], "target": [], "steal": []}
    with open(os.path.join(work, "target.out"), "w") as target_out, \
            open(os.path.join(work, "play.out"), "w") as play_out:
        target = subprocess.Popen(target_cmd, stdout=target_out, stderr=subprocess.STDOUT, env=env)
        try:
            if not wait_for_text(target_out.name, "sink 1:", target):
                result["error"] = "velmora-target didn't start"
                return samples
            play = subprocess.Popen(play_cmd, stdout=play_out, stderr=subprocess.STDOUT)
            limit = time.monotonic() + 3 * seconds + 60
            while True:
                now = time.monotonic_ns()
                for role, pid in (("host", play.pid), ("target", target.pid)):
                    ticks = cpu_ticks(pid)
                    if ticks is not None:
                        samples[role].append((now, ticks))
                steal = steal_ticks()
                if steal is not None:
                    samples["steal"].append((now, steal))
                ended, status, _ = os.wait4(play.pid, os.WNOHANG)
                if ended == play.pid:
                    play.returncode = result["playExit"] = os.waitstatus_to_exitcode(status)
                    break
                if time.monotonic() > limit:
                    stop(play)
                    result["error"] = "velmora-play didn't end"
                    break
                time.sleep(0.1)
            wait_for_stats(work, target)
        finally:
            stop(target)
    return samples


def run_case(case, args, ns, out):
    p = case_parameters(case)
    held = "hold" in case["sets"].split()
    seconds = args.seconds or (HOLD_SECONDS if held else QUICK_SECONDS if args.set == "quick" else SECONDS)
    work = os.path.join(out, "cases", case["name"])
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(os.path.join(work, "config", "KESTRANE Velmora"))
    with open(os.path.join(work, "config", "KESTRANE Velmora", "setting.inf"), "w", newline="") as f:
        f.write(settings_text(p))
    target_cmd, play_cmd = commands(p, args, ns, work, seconds)
    with open(os.path.join(work, "commands.txt"), "w") as f:
        f.write(" ".join(target_cmd) + "\n" + " ".join(play_cmd) + "\n")
    result = {"name": case["name"], "parameters": p, "format": format_name(p), "seconds": seconds}
    jack = JackServer(p, ns, work)
    try:
        samples = run_processes(target_cmd, play_cmd, work, seconds, result, jack.env)
    finally:
        jack.close()

    play = load_json(os.path.join(work, "play.json"))
    stats = load_json(os.path.join(work, "stats.json"))
    if play is None:
        result.setdefault("error", "velmora-play wrote no report")
        return result
    if play.get("failure"):
        result["error"] = play["failure"]
    if stats is None:
        result.setdefault("error", "the target wrote no statistics")
        stats = {}
    result.update(analyse(p, play, stats, samples))
    if args.wav:
        wavs = [os.path.join(work, "given.wav"), os.path.join(work, "sink.wav")]
        compare = subprocess.run([os.path.join(args.bin, "velmora-play"), "--compare"] + wavs,
                                 capture_output=True, text=True)
        result["wavCompare"] = (compare.stdout or compare.stderr).strip()
        if result["bitExact"] is None:
            result["bitExact"] = compare.returncode == 0
        for wav in wavs:
            if os.path.exists(wav):
                os.remove(wav)
    result["plot"] = plot(case["name"], stats, out, work)
    return result


def load_json(path):
    try:
        with open(path) as f:
            return json.load(f)
    except (OSError, ValueError):
        return None


# --- figures ---------------------------------------------------------------


def quantile(values, q):
    ordered = sorted(values)
    return ordered[int(q * (len(ordered) - 1))] if ordered else None


def frames_in(lead_bytes, p):
    """Samples per channel in `lead_bytes` of the interleaved stream."""
    channels = p.get("channels", 2)
    if p.get("dsd"):
        return lead_bytes * 8 // channels
    return lead_bytes // (channels * p.get("bits", 32) // 8)


def bit_exact(p, given, sink):
    """The last checkpoint both digests hold must cover all but two of the
    given stream's, and every checkpoint both hold must agree. Returns
    whether it is so, why, and the bytes after the lead up to which the
    two agree (None: no checkpoint disagrees)."""
    if not given or not sink:
        return None, "no digest", None
    a = {int(b): int(h, 16) for b, h in given.get("checkpoints", [])}
    b = {int(b): int(h, 16) for b, h in sink.get("checkpoints", [])}
    shared = sorted(set(a) & set(b))
    if not shared:
        return False, "no checkpoint in common", 0
    wrong = [n for n in shared if a[n] != b[n]]
    if wrong:
        agreed = max([n for n in shared if n < wrong[0]], default=0)
        at = frames_in(wrong[0], p) / p.get("rate", 48000)
        return False, f"agrees up to byte {agreed}, differs by byte {wrong[0]} ({at:.1f} s in)", agreed
    if shared[-1] < given["length"] - 2 * CHECKPOINT_BYTES:
        return False, f"only {shared[-1]} of {given['length']} bytes arrived", None
    return True, f"{shared[-1]} bytes agree", None


def callback_ns(timeline, buffer, frame):
    """When the callback whose buffer held host frame `frame` came, from the
    thinned timeline of (position, ns): interpolated between its neighbours."""
    start = frame // buffer * buffer
    lo, hi = 0, len(timeline) - 1
    if not timeline or start < timeline[0][0] or start > timeline[-1][0]:
        return None
    while hi - lo > 1:
        mid = (lo + hi) // 2
        if timeline[mid][0] <= start:
            lo = mid
        else:
            hi = mid
    (p0, t0), (p1, t1) = timeline[lo], timeline[hi]
    if start <= p0 or p1 == p0:
        return t0 if start == p0 else t1
    return t0 + (t1 - t0) * (start - p0) / (p1 - p0)


def latency(p, play, stats, agreed):
    """Per sample of the sink's timeline: when the newest frame it holds
    plays, minus when the host handed it over, in ms. Only up to where the
    streams agree (`agreed` bytes after the lead): past a difference the
    sink's frames no longer line up with the host's."""
    timeline = play.get("timeline") or []
    moments = stats.get("timeline") or []
    given, sink = play.get("digest"), stats.get("digest")
    play_rate = stats.get("playRate") or stats.get("rate")
    if not timeline or not moments or not given or not sink or not play_rate:
        return None
    shift = frames_in(sink["lead"], p) - frames_in(given["lead"], p)
    buffer = play["bufferSize"]["used"]
    sound_end = play.get("sourceFrames", 0)
    if agreed is not None:
        sound_end = min(sound_end, frames_in(given["lead"], p) + frames_in(agreed, p))
    values = []
    for ns, received, level in (m[:3] for m in moments):
        host_frame = received - 1 - shift
        if received == 0 or host_frame < 0 or host_frame >= sound_end:
            continue
        handed = callback_ns(timeline, buffer, host_frame)
        if handed is not None:
            values.append((ns + level / play_rate * 1e9 - handed) / 1e6)
    return values or None


def deviation_series(stats, play):
    """(seconds of play, q14) while the host was streaming: the sink's mean
    level over each 100 ms against its centre, 16384 a whole centre."""
    moments = stats.get("timeline")
    if moments:
        t0 = moments[0][0]
        last = play["timeline"][-1][1] if play.get("timeline") else float("inf")
        centre = stats.get("centre") or 1
        def q14(m):
            return (m[4] - centre) / centre * Q14 if len(m) > 4 else m[3]
        return [((m[0] - t0) / 1e9, q14(m)) for m in moments if m[0] <= last]
    # Older sinks: [ms since the first packet, q14].
    span_ms = float("inf")
    if play.get("timeline"):
        span_ms = (play["timeline"][-1][1] - play["timeline"][0][1]) / 1e6
    return [(ms / 1000.0, q) for ms, q in stats.get("deviation", []) if ms <= span_ms]


def settle_seconds(series, since, until):
    """Seconds from `since` after which the mean level stays within the band
    up to `until`; None if it never does."""
    inside = [(t, abs(q) <= SETTLE_BAND * Q14) for t, q in series if since <= t < until]
    if not inside:
        return None
    settled_from = None
    for t, ok in inside:
        if not ok:
            settled_from = None
        elif settled_from is None:
            settled_from = t
    return None if settled_from is None else settled_from - since


def step_seconds(p):
    return float(p["step"].split("@")[1]) if p.get("step") else None


def interval_ppm(play):
    """The mean callback interval against nominal, in ppm, from positions
    and times a second apart and more: the report's mean in ms is too
    coarse for it. The first second, where the driver fills its ring in a
    burst, is left out."""
    timeline = play.get("timeline") or []
    if not timeline:
        return None
    settled = [m for m in timeline if m[1] >= timeline[0][1] + 1_000_000_000]
    if len(settled) < 2 or settled[-1][1] - settled[0][1] < 1_000_000_000:
        return None
    seconds = (settled[-1][1] - settled[0][1]) / 1e9
    return (seconds * play["rate"] / (settled[-1][0] - settled[0][0]) - 1) * 1e6


def cpu_share(samples, start_ns, end_ns):
    """Per cent of one core between the first and last sample in the window."""
    inside = [s for s in samples if start_ns <= s[0] <= end_ns]
    if len(inside) < 2 or inside[-1][0] == inside[0][0]:
        return None
    ticks = inside[-1][1] - inside[0][1]
    return 100.0 * ticks / os.sysconf("SC_CLK_TCK") / ((inside[-1][0] - inside[0][0]) / 1e9)


def analyse(p, play, stats, samples):
    figures = {}
    exact, why, agreed = bit_exact(p, play.get("digest"), stats.get("digest"))
    figures["bitExact"] = exact
    figures["bitExactDetail"] = why
    lat = latency(p, play, stats, agreed)
    if lat:
        figures["latencyMs"] = {"p50": quantile(lat, 0.5), "p99": quantile(lat, 0.99), "max": max(lat),
                                "samples": len(lat)}
    for key in ("underruns", "overruns", "resends", "gaps", "dropped", "duplicates", "packets"):
        if key in stats:
            figures[key] = stats[key]
    series = deviation_series(stats, play)
    settled = [abs(q) * 100.0 / Q14 for t, q in series if t >= SETTLE_S]
    if settled:
        figures["settledDeviationPct"] = {"p50": quantile(settled, 0.5), "p99": quantile(settled, 0.99)}
    step = step_seconds(p)
    figures["settleS"] = settle_seconds(series, 0, step or float("inf"))
    if step is not None:
        figures["settleAfterStepS"] = settle_seconds(series, step, float("inf"))
    if series and "silenceSeconds" in stats:
        figures["underrunPct"] = 100.0 * stats["silenceSeconds"] / max(series[-1][0], 1e-9)
    cb = play.get("callbacks", {})
    if cb.get("expectedMs") and cb.get("meanMs"):
        figures["callbackMeanMs"] = cb["meanMs"]
        figures["callbackExpectedMs"] = cb["expectedMs"]
        figures["callbackPpm"] = interval_ppm(play) or (cb["meanMs"] / cb["expectedMs"] - 1) * 1e6
    if cb.get("maxMs") is not None:
        figures["callbackMaxMs"] = cb["maxMs"]
    if play.get("timeline"):
        # Away from start and stop: the source is made before, the digest after.
        start = play["timeline"][0][1] + 1_000_000_000
        end = play["timeline"][-1][1] - 500_000_000
        figures["cpuPct"] = {role: cpu_share(samples[role], start, end) for role in samples}
    for key in ("rate", "playRate", "centre", "capacity"):
        if key in stats:
            figures["sink" + key[0].upper() + key[1:]] = stats[key]
    return figures


# --- plots and tables ------------------------------------------------------


def plot(name, stats, out, work):
    """Level (ms) and deviation (%) over time, from the sink's timeline."""
    gnuplot = shutil.which("gnuplot")
    moments = stats.get("timeline")
    rate = stats.get("playRate") or stats.get("rate")
    data = os.path.join(work, "timeline.dat")
    with open(data, "w") as f:
        if moments and rate:
            t0 = moments[0][0]
            for m in moments:
                mean = m[4] if len(m) > 4 else m[2]
                f.write(f"{(m[0] - t0) / 1e9:.3f} {m[2] / rate * 1e3:.4f} {m[3] * 100.0 / Q14:.3f} "
                        f"{mean / rate * 1e3:.4f}\n")
        else:
            for ms, q in stats.get("deviation", []):
                f.write(f"{ms / 1000:.3f} NaN {q * 100.0 / Q14:.3f}\n")
    if gnuplot is None or os.path.getsize(data) == 0:
        return None
    png = os.path.join(out, name + ".png")
    centre = stats.get("centre", 0) / rate * 1e3 if rate else None
    curves = "'{data}' using 1:3 axes x1y2 with lines lc rgb '#c03030' title 'deviation (%)'"
    if moments and rate:
        curves = ("'{data}' using 1:2 with lines lc rgb '#a0b0d0' title 'level (ms)', "
                  "'{data}' using 1:4 with lines lw 1.5 lc rgb '#2040a0' title 'mean level per 100 ms', "
                  + (f"{centre:.4f} with lines dt 2 lc rgb 'gray40' title 'centre', " if centre else "")
                  + curves)
    script = "\n".join([
        "set terminal {term} size 1000,500 noenhanced",
        f"set output '{png}'",
        f'set title "{name}: the sink\'s level and the deviation it reported"',
        "set xlabel 'seconds since play began'",
        "set ylabel 'level (ms)'", "set y2label 'deviation reported (% of full scale)'",
        "set ytics nomirror", "set y2tics", "set y2range [-105:105]", "set grid",
        "set key outside bottom center horizontal",
        "plot " + curves,
    ])
    for term in ("pngcairo", "png"):
        run = subprocess.run([gnuplot], input=script.format(term=term, data=data), text=True,
                             capture_output=True)
        if run.returncode == 0 and os.path.exists(png) and os.path.getsize(png) != 0:
            return os.path.basename(png)
    if os.path.exists(png):
        os.remove(png)
    return None


def fmt(value, digits=1):
    return "–" if value is None else f"{value:.{digits}f}"


COLUMNS = ["case", "format", "ASIO", "cycle µs", "sync", "sink ms asked (held)", "sink ppm", "loss %",
           "latency ms p50 / p99 / max", "under / over", "in underrun %", "deviation % p50 / p99",
           "settle s (step)", "resends",
           "bit-exact", "callbacks ppm", "longest callback gap ms", "CPU % host / target / steal"]


def table_row(r):
    p = r["parameters"]
    lat = r.get("latencyMs")
    dev = r.get("settledDeviationPct")
    cpu = r.get("cpuPct", {})
    exact = r.get("bitExact")
    # The buffer the sink really keeps: the driver may ask for more.
    held = r["sinkCapacity"] / r["sinkRate"] * 1e3 if r.get("sinkCapacity") and r.get("sinkRate") else None
    cells = [
        r["name"], r["format"], str(p.get("buffer", "pref")), str(p.get("cycle", "def")),
        str(p.get("sync", "def")),
        (f"{p['latency'] / 10:g}" if "latency" in p else "def") + (f" ({held:.3g})" if held else ""),
        f"{p.get('ppm', 0):+g}" + (f", {p['step']}" if p.get("step") else ""),
        f"{p.get('drop', 0) * 100:g}",
        " / ".join(fmt(lat[k], 2) for k in ("p50", "p99", "max")) if lat else "–",
        f"{r.get('underruns', '–')} / {r.get('overruns', '–')}",
        fmt(r.get("underrunPct"), 2),
        f"{fmt(dev['p50'])} / {fmt(dev['p99'])}" if dev else "–",
        fmt(r.get("settleS")) + (f" ({fmt(r.get('settleAfterStepS'))})" if "settleAfterStepS" in r else ""),
        str(r.get("resends", "–")),
        "–" if exact is None else "yes" if exact else "no",
        fmt(r.get("callbackPpm"), 0),
        fmt(r.get("callbackMaxMs")),
        f"{fmt(cpu.get('host'))} / {fmt(cpu.get('target'))} / {fmt(cpu.get('steal'))}",
    ]
    if r.get("error"):
        cells[0] += f" ({r['error']})"
    return "| " + " | ".join(cells) + " |"


def markdown(results):
    lines = ["| " + " | ".join(COLUMNS) + " |", "|" + "---|" * len(COLUMNS)]
    return "\n".join(lines + [table_row(r) for r in results]) + "\n"


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    root = os.path.dirname(here)
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--bin", default=os.path.join(root, "build", "linux", "bin"))
    parser.add_argument("--out", default=os.path.join(root, "build", "bench", "stream"))
    group = parser.add_mutually_exclusive_group()
    group.add_argument("--quick", dest="set", action="store_const", const="quick")
    group.add_argument("--hold", dest="set", action="store_const", const="hold")
    group.add_argument("--all", dest="set", action="store_const", const="all")
    parser.add_argument("--case", nargs="+", default=[], help="only these cases, by name")
    parser.add_argument("--seconds", type=float, help="play this long per case")
    parser.add_argument("--wav", action="store_true",
                        help="also compare WAV files of both ends (for sinks without a digest)")
    parser.add_argument("--list", action="store_true", help="list the cases and end")
    args = parser.parse_args()
    args.set = args.set or "matrix"

    if args.list:
        for case in CASES:
            print(f"{case['name']:20} {case['sets']:14} {format_name(case_parameters(case))}")
        return 0
    if args.case:
        unknown = set(args.case) - {c["name"] for c in CASES}
        if unknown:
            print(f"stream: no case {', '.join(sorted(unknown))} (see --list)", file=sys.stderr)
            return 2
        chosen = [c for c in CASES if c["name"] in args.case]
    else:
        chosen = [c for c in CASES if args.set == "all" or args.set in c["sets"].split()]
    for program in ("velmora-target", "velmora-play", "asio_kestrane.so"):
        if not os.path.exists(os.path.join(args.bin, program)):
            print(f"stream: {args.bin}/{program} is missing: build it first", file=sys.stderr)
            return 2

    ns = Namespace()
    private = ns.name is not None
    if not private:
        taken = ports_taken()
        if taken:
            print(f"stream: UDP ports {taken} are in use (a velmora-target, velmora-log or a test): "
                  "stop it and try again", file=sys.stderr)
            return 2
    os.makedirs(args.out, exist_ok=True)
    results = []
    began = time.monotonic()
    try:
        for i, case in enumerate(chosen, 1):
            print(f"[{i}/{len(chosen)}] {case['name']}", end="", flush=True)
            r = run_case(case, args, ns, args.out)
            results.append(r)
            lat = r.get("latencyMs")
            print(f": latency p50 {fmt(lat and lat['p50'], 2)} ms, underruns {r.get('underruns', '–')}, "
                  f"bit-exact {r.get('bitExact')}" + (f" [{r['error']}]" if r.get("error") else ""),
                  flush=True)
    finally:
        ns.close()
    summary = {
        "machine": {"cores": os.cpu_count(), "kernel": platform.release()},
        "namespace": private, "set": args.set, "seconds": time.monotonic() - began,
        "cases": results,
    }
    with open(os.path.join(args.out, "stream.json"), "w") as f:
        json.dump(summary, f, indent=1)
    table = markdown(results)
    with open(os.path.join(args.out, "stream.md"), "w") as f:
        f.write(table)
    print()
    print(table, end="")
    print(f"\n{len(results)} cases in {summary['seconds']:.0f} s; files in {args.out}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
