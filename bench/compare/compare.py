#!/usr/bin/env python3
"""Measures zrx2dsticker beside the tools a user would otherwise pick.

Called by run.sh, which builds the benchmarks and starts nginx. Makes the
corpora under WORK, runs every scenario in rounds (the order of the commands
rotates from round to round, after one untimed warm-up run of each), and
writes the raw samples, the medians and the median of the per-round ratios
to OUT/latest.json, a table to OUT/latest.md and the ratio chart to
OUT/ratios.svg (gnuplot).

Each command runs under zrx-bench-rusage, which takes the wall time around
the process and its CPU (user + sys) and peak RSS from wait4: the CPU
includes the reaped children (a shell loop counts all its curl and unzip
processes), the RSS is that of the largest process.
"""
import argparse
import json
import os
import random
import shutil
import statistics
import subprocess
import sys
import time
import zipfile

MIB = 1 << 20
PY = "/usr/bin/python3"

PY_EXTRACT = ("import sys, zipfile\n"
              "zipfile.ZipFile(sys.argv[1]).extractall(sys.argv[2])\n")
# The installed check in Python: each archive's listing, a stat of every
# entry, the sizes of file entries compared.
PY_CHECK = """import os, sys, zipfile
root, names = sys.argv[1], sys.argv[2]
bad = 0
for name in open(names).read().split():
    base = os.path.join(root, name)
    with zipfile.ZipFile(os.path.join(base, name + ".zip")) as archive:
        for info in archive.infolist():
            try:
                st = os.stat(base + "/" + info.filename)
            except OSError:
                bad += 1
                continue
            if not info.is_dir() and st.st_size != info.file_size:
                bad += 1
sys.exit(1 if bad else 0)
"""


def loadavg():
    with open("/proc/loadavg") as f:
        return " ".join(f.read().split()[:3])


RUSAGE = None  # the zrx-bench-rusage binary and its report, set by main()
REPORT = None


def run(argv, stderr=None, prep=None, env=None, report=None):
    """Runs one command; returns wall and CPU in seconds, peak RSS in KiB."""
    if prep:
        prep()
    report = report or REPORT
    err = open(stderr, "wb") if stderr else subprocess.DEVNULL
    try:
        subprocess.run([RUSAGE, report] + argv, stdout=subprocess.DEVNULL,
                       stderr=err, check=True, env=env)
    finally:
        if stderr:
            err.close()
    return read_report(report, argv)


def read_report(report, argv):
    with open(report) as f:
        wall, cpu, rss, code = f.read().split()
    if code != "0":
        raise SystemExit("failed (%s): %s" % (code, " ".join(argv)))
    return {"wall": float(wall), "cpu": float(cpu), "rss_kib": int(rss)}


def fresh(*dirs):
    """Empties the output directories, then waits for the page cache to be
    written back: each run starts with no earlier run's writes in flight
    (without it, 256 MiB runs took either 0.3 s or 0.5 s by chance)."""
    def prep():
        for d in dirs:
            shutil.rmtree(d, ignore_errors=True)
            os.makedirs(d)
        os.sync()
    return prep


def measure(name, commands, rounds):
    """commands: label -> dict(argv, prep, stderr). Returns the samples."""
    labels = list(commands)
    print("== %s (%d rounds, load %s)" % (name, rounds, loadavg()), flush=True)
    load_before = loadavg()
    for label in labels:  # warm-up, not recorded
        c = commands[label]
        run(c["argv"], c.get("stderr"), c.get("prep"), c.get("env"))
    samples = {label: [] for label in labels}
    for r in range(rounds):
        shift = r % len(labels)
        for label in labels[shift:] + labels[:shift]:
            c = commands[label]
            samples[label].append(run(c["argv"], c.get("stderr"),
                                      c.get("prep"), c.get("env")))
    for label in labels:
        s = samples[label]
        print("  %-22s wall %8.3f s  cpu %8.3f s  rss %7d KiB" % (
            label, med(s, "wall"), med(s, "cpu"), med(s, "rss_kib")),
            flush=True)
    return {"samples": samples, "load_before": load_before,
            "load_after": loadavg(), "rounds": rounds}


def med(samples, key):
    return statistics.median(s[key] for s in samples)


def round_ratio(result, a, b, key="wall"):
    """Median over rounds of a/b, each round's pair taken together."""
    sa, sb = result["samples"][a], result["samples"][b]
    return statistics.median(x[key] / y[key] for x, y in zip(sa, sb))


# ---------------------------------------------------------------------------
# Corpora

def text_pool(rng, size):
    """Word text from a small vocabulary: deflates about 3:1 to 4:1."""
    letters = "etaoinshrdlucmfwypvbgkqjxz"
    vocab = ["".join(rng.choices(letters, k=rng.randint(2, 9)))
             for _ in range(4000)]
    words = []
    length = 0
    while length < size:
        chunk = rng.choices(vocab, k=10000)
        words.append(" ".join(chunk) + "\n")
        length += len(words[-1])
    return "".join(words).encode()[:size]


def text_slice(rng, pool, size):
    at = rng.randrange(0, len(pool) - size)
    return pool[at:at + size]


def write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def make_corpora(work, base):
    rng = random.Random(20261123)
    www, lists = os.path.join(work, "www"), os.path.join(work, "lists")
    os.makedirs(lists, exist_ok=True)
    pool = text_pool(rng, 16 * MIB)

    def rand(n):
        return rng.randbytes(n)

    def save_list(name, items):
        with open(os.path.join(lists, name), "w") as f:
            json.dump(items, f)

    # One 256 MiB plain sticker.
    with open(os.path.join(www, "big.bin"), "wb") as f:
        for _ in range(256):
            f.write(rand(MIB))
    save_list("big.json", [{"resId": "big", "url": base + "/big.bin",
                            "name": "big", "ext": ".bin"}])
    save_list("empty.json", [])

    # 500 plain stickers of 20 KiB.
    urls = []
    for i in range(500):
        write(os.path.join(www, "small", "f%03d.bin" % i), rand(20 * 1024))
        urls.append(base + "/small/f%03d.bin" % i)
    with open(os.path.join(lists, "small.txt"), "w") as f:
        f.write("\n".join(urls) + "\n")
    with open(os.path.join(lists, "small.curl"), "w") as f:
        f.write("".join('url = "%s"\n' % u for u in urls))
    save_list("small.json", [{"resId": "f%03d" % i, "url": u,
                              "name": "f%03d" % i, "ext": ".bin"}
                             for i, u in enumerate(urls)])

    # 40 archive stickers of about 2 MiB: a directory entry and ten deflated
    # files, five of them incompressible.
    names = []
    for i in range(40):
        name = "a%02d" % i
        names.append(name)
        path = os.path.join(www, "arch", name + ".zip")
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as z:
            z.writestr("img/", b"")
            for f in range(5):
                z.writestr("img/p%d.png" % f, rand(320 * 1024))
                z.writestr("img/t%d.json" % f,
                           text_slice(rng, pool, 400 * 1024))
    with open(os.path.join(lists, "arch.txt"), "w") as f:
        f.write("".join("%s %s/arch/%s.zip\n" % (n, base, n) for n in names))
    save_list("arch.json", [{"resId": n, "url": "%s/arch/%s.zip" % (base, n),
                             "name": n, "unzip_type": 1, "ext": ".zip"}
                            for n in names])

    # One archive of about 200 MiB, about 350 MiB inflated: 30 incompressible
    # files and 40 text files of 5 MiB.
    with zipfile.ZipFile(os.path.join(work, "big.zip"), "w",
                         zipfile.ZIP_DEFLATED) as z:
        z.writestr("data/", b"")
        for f in range(70):
            data = rand(5 * MIB) if f % 7 in (0, 2, 4) else \
                text_slice(rng, pool, 5 * MIB)
            z.writestr("data/f%02d.bin" % f, data)

    # The stop during an extraction: a first entry big enough that the stop
    # falls inside it.
    with zipfile.ZipFile(os.path.join(www, "stopx.zip"), "w",
                         zipfile.ZIP_DEFLATED) as z:
        z.writestr("first.bin", text_slice(rng, pool, 12 * MIB) * 4)
        z.writestr("second.bin", rand(32 * MIB))
    save_list("stopx.json", [{"resId": "stopx", "url": base + "/stopx.zip",
                              "name": "stopx", "unzip_type": 1,
                              "ext": ".zip"}])

    # The throttled 1 MiB transfer (also the transfer that is stopped).
    write(os.path.join(www, "slow", "one.bin"), rand(MIB))
    save_list("slow.json", [{"resId": "one", "url": base + "/slow/one.bin",
                             "name": "one", "ext": ".bin"}])

    # 2000 installed archive stickers of 20 entries each. The URLs lead
    # nowhere: a sticker found not installed fails at once, and so the run.
    tree = os.path.join(work, "installed")
    items, paths, stickers = [], [], []
    for s in range(2000):
        name = "s%04d" % s
        stickers.append(name)
        base_dir = os.path.join(tree, name)
        os.makedirs(os.path.join(base_dir, "img"))
        paths.append(base_dir + "/img/")
        with zipfile.ZipFile(os.path.join(base_dir, name + ".zip"), "w",
                             zipfile.ZIP_DEFLATED) as z:
            z.writestr("img/", b"")
            for f in range(19):
                entry = "img/frame_%02d.png" % f
                data = rand(200 + (s * 31 + f * 97) % 3800)
                z.writestr(entry, data)
                write(os.path.join(base_dir, entry), data)
                paths.append(base_dir + "/" + entry)
        items.append({"resId": name, "url": "http://127.0.0.1:9/%s.zip" % name,
                      "name": name, "unzip_type": 1, "ext": ".zip"})
    save_list("installed.json", items)
    with open(os.path.join(lists, "installed.names"), "w") as f:
        f.write("\n".join(stickers) + "\n")
    with open(os.path.join(lists, "installed.paths"), "w") as f:
        f.write("\n".join(paths) + "\n")


# ---------------------------------------------------------------------------
# Scenarios

def variant(variants, name, argv_tail):
    """The host built with one fixed behaviour patched out, if it was."""
    where = os.path.join(variants, name)
    if not os.path.exists(os.path.join(where, "zrx-bench-host")):
        return {}
    env = dict(os.environ, LD_LIBRARY_PATH=where)
    return {"argv": [os.path.join(where, "zrx-bench-host")] + argv_tail,
            "env": env}


def measure_side_by_side(name, commands, rounds):
    """Runs the commands at the same time in each round (for runs that
    mostly wait, such as throttled transfers); the order in which they are
    started rotates from round to round."""
    print("== %s (%d rounds, side by side, load %s)" % (name, rounds,
                                                       loadavg()), flush=True)
    load_before = loadavg()
    labels = list(commands)
    samples = {label: [] for label in labels}
    for r in range(rounds):
        shift = r % len(labels)
        procs = []
        for label in labels[shift:] + labels[:shift]:
            c = commands[label]
            if c.get("prep"):
                c["prep"]()
            report = "%s.%d" % (REPORT, len(procs))
            procs.append((label, report, c["argv"], subprocess.Popen(
                [RUSAGE, report] + c["argv"], stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL, env=c.get("env"))))
        for label, report, argv, proc in procs:
            proc.wait()
            samples[label].append(read_report(report, argv))
    for label in labels:
        s = samples[label]
        print("  %-22s wall %8.3f s  cpu %8.3f s" % (
            label, med(s, "wall"), med(s, "cpu")), flush=True)
    return {"samples": samples, "load_before": load_before,
            "load_after": loadavg(), "rounds": rounds}


def scenarios(work, bins, base, quick, variants):
    host, extract, floor = bins["host"], bins["extract"], bins["floor"]
    lists = os.path.join(work, "lists")
    dl = os.path.join(work, "dl")
    out = os.path.join(work, "out")
    L = lambda name: os.path.join(lists, name)
    rounds = (lambda n: 2) if quick else (lambda n: n)
    results = {}

    big_url = base + "/big.bin"
    plain = {
        "library": {"argv": [host, L("big.json"), dl], "prep": fresh(dl)},
        "curl -o": {"argv": ["curl", "-s", "-o", out + "/big.bin", big_url],
                    "prep": fresh(out)},
        "wget -O": {"argv": ["wget", "-q", "-O", out + "/big.bin", big_url],
                    "prep": fresh(out)},
        "curl -o /dev/null": {"argv": ["curl", "-s", "-o", "/dev/null",
                                       big_url]},
        "idle host": {"argv": [host, L("empty.json"), dl], "prep": fresh(dl)},
    }
    for label, name in (("library, 100 KiB receive buffer [variant]",
                         "recv100k"),
                        ("library, no flush per chunk [variant]", "noflush")):
        v = variant(variants, name, [L("big.json"), dl])
        if v:
            plain[label] = dict(v, prep=fresh(dl))
    results["plain256"] = measure("256 MiB plain sticker", plain, rounds(9))

    loop = os.path.join(work, "curl-loop.sh")
    with open(loop, "w") as f:
        f.write('while read -r u; do curl -s -o "$2/${u##*/}" "$u"; '
                'done < "$1"\n')
    trace = os.path.join(work, "stderr.log")
    aria = ["aria2c", "-q", "-d", out, "-i", L("small.txt"),
            "--allow-overwrite=true", "--file-allocation=none"]
    curl_all = ["curl", "-s", "--output-dir", out, "--remote-name-all",
                "-K", L("small.curl")]
    small = {
        "library": {"argv": [host, L("small.json"), dl], "prep": fresh(dl)},
        "library, stderr to a file": {
            "argv": [host, L("small.json"), dl], "prep": fresh(dl),
            "stderr": trace},
        "library, log on, stderr to a file": {
            "argv": [host, "--log", L("small.json"), dl], "prep": fresh(dl),
            "stderr": trace},
        "curl loop": {"argv": ["bash", loop, L("small.txt"), out],
                      "prep": fresh(out)},
        "curl, all URLs": {"argv": curl_all, "prep": fresh(out)},
        "aria2c -j1": {"argv": aria + ["-j1"], "prep": fresh(out)},
        "aria2c -j16": {"argv": aria + ["-j16"], "prep": fresh(out)},
        "curl, all URLs, Connection: close": {
            "argv": curl_all + ["-H", "Connection: close"],
            "prep": fresh(out)},
    }
    v = variant(variants, "noverbose", [L("small.json"), dl])
    if v:
        small["library, no verbose trace [variant]"] = dict(v, prep=fresh(dl))
    results["small500"] = measure("500 plain stickers of 20 KiB", small,
                                  rounds(5))

    def serial(extractor):
        script = os.path.join(work, "serial-%s.sh" % extractor)
        x = {"unzip": 'unzip -q -o "$3/$n/$n.zip" -d "$3/$n"',
             "bsdtar": 'bsdtar -xf "$3/$n/$n.zip" -C "$3/$n"'}[extractor]
        with open(script, "w") as f:
            f.write('set -e\nwhile read -r n u; do mkdir -p "$3/$n"; '
                    'curl -s -o "$3/$n/$n.zip" "$u"; %s; done < "$1"\n' % x)
        return ["bash", script, L("arch.txt"), "-", out]
    results["arch40"] = measure("40 archive stickers of 2 MiB", {
        "library": {"argv": [host, L("arch.json"), dl], "prep": fresh(dl)},
        "curl + unzip loop": {"argv": serial("unzip"), "prep": fresh(out)},
        "curl + bsdtar loop": {"argv": serial("bsdtar"), "prep": fresh(out)},
    }, rounds(5))

    big_zip = os.path.join(work, "big.zip")
    results["extract200"] = measure("extraction of a 200 MiB archive", {
        "library": {"argv": [extract, big_zip, out], "prep": fresh(out)},
        "unzip -q -o": {"argv": ["unzip", "-q", "-o", big_zip, "-d", out],
                        "prep": fresh(out)},
        "bsdtar -xf": {"argv": ["bsdtar", "-xf", big_zip, "-C", out],
                       "prep": fresh(out)},
        "python zipfile": {"argv": [PY, "-c", PY_EXTRACT, big_zip, out],
                           "prep": fresh(out)},
        "minizip 4 KiB floor": {"argv": [floor, "inflate", big_zip]},
        # What the fixed 4096-byte copy step costs the floor itself.
        "minizip 64 KiB reads": {"argv": [floor, "inflate", big_zip,
                                          "65536"]},
    }, rounds(5))

    tree = os.path.join(work, "installed")
    results["check2000"] = measure("installed check, 2000 x 20", {
        "library": {"argv": [host, L("installed.json"), tree]},
        "python zipfile + stat": {"argv": [PY, "-c", PY_CHECK, tree,
                                           L("installed.names")]},
        "bare stat floor": {"argv": [floor, "stat", L("installed.paths")]},
        "minizip + stat floor": {"argv": [floor, "list-stat", tree,
                                          L("installed.names")]},
    }, rounds(9))

    slow = {
        "library": {"argv": [host, L("slow.json"), dl + "/a"],
                    "prep": fresh(dl + "/a")},
        "curl -o": {"argv": ["curl", "-s", "-o", out + "/one.bin",
                             base + "/slow/one.bin"], "prep": fresh(out)},
    }
    v = variant(variants, "wait1s", [L("slow.json"), dl + "/b"])
    if v:
        slow["library, 1 s select wait [variant]"] = dict(
            v, prep=fresh(dl + "/b"))
    results["throttled"] = measure_side_by_side(
        "throttled 1 MiB at 100 KiB/s", slow, 2 if quick else 5)

    print("== stop latency (load %s)" % loadavg(), flush=True)
    stops = {}
    runs = "5" if quick else "30"
    for mode, argv in (
            ("transfer", [host, "--stop-transfer", runs, L("slow.json"), dl]),
            ("extraction", [host, "--stop-extract", runs,
                            dl + "/stopx/first.bin", L("stopx.json"), dl])):
        fresh(dl)()
        text = subprocess.run(argv, check=True, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL).stdout.decode()
        stops[mode] = json.loads(text.strip().splitlines()[-1])
        print("  during a %-10s p50 %.1f ms  p95 %.1f ms  p99 %.1f ms  "
              "max %.1f ms" % (mode, stops[mode]["p50_ms"],
                               stops[mode]["p95_ms"], stops[mode]["p99_ms"],
                               stops[mode]["max_ms"]), flush=True)
    results["stop"] = stops
    return results


def micro(bins, work, quick):
    print("== micro benchmarks (load %s)" % loadavg(), flush=True)
    path = os.path.join(work, "micro.json")
    argv = [bins["micro"], "--benchmark_out=" + path,
            "--benchmark_out_format=json"]
    if quick:
        # Long enough for several parses of the 100k list: a single one
        # pays the first touch of every page and reads ten times too slow.
        argv.append("--benchmark_min_time=0.2")
    else:
        argv += ["--benchmark_repetitions=5",
                 "--benchmark_enable_random_interleaving=true",
                 "--benchmark_report_aggregates_only=true"]
    subprocess.run(argv, check=True, stderr=subprocess.DEVNULL)
    with open(path) as f:
        data = json.load(f)
    found = {}
    for b in data["benchmarks"]:
        if b.get("run_type") == "aggregate" and b["aggregate_name"] != "median":
            continue
        name = b.get("run_name", b["name"])
        scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[b["time_unit"]]
        found[name] = {"real_s": b["real_time"] * scale,
                       "cpu_s": b["cpu_time"] * scale}
        print("  %-45s %12.1f ns" % (name, b["real_time"] * scale * 1e9))
    return {"context": data["context"], "benchmarks": found}


# ---------------------------------------------------------------------------
# Summary

def summarize(results):
    """The rows of the target table: (work, measure, value, target, met)."""
    r = results
    p, s, a = r["plain256"], r["small500"], r["arch40"]
    x, c, t = r["extract200"], r["check2000"], r["throttled"]
    m = r["micro"]["benchmarks"]
    rows = []

    def row(work, what, value, target, met, chart=None):
        rows.append({"work": work, "measure": what, "value": value,
                     "target": target, "met": bool(met), "chart": chart})

    def chart(label, ratio, limit):
        return {"label": label, "ratio": ratio, "limit": limit}

    v = round_ratio(p, "library", "curl -o")
    row("256 MiB plain", "wall / curl -o", "%.3f" % v, "<= 1.05", v <= 1.05,
        chart("256 MiB\nwall/curl", v, 1.05))
    v = round_ratio(p, "library", "curl -o", "cpu")
    row("256 MiB plain", "CPU / curl's", "%.3f" % v, "<= 1.1", v <= 1.1,
        chart("256 MiB\nCPU/curl", v, 1.1))
    v = (med(p["samples"]["library"], "rss_kib") -
         med(p["samples"]["idle host"], "rss_kib")) / 1024
    row("256 MiB plain", "peak RSS above an idle host", "%.1f MiB" % v,
        "< 10 MiB", v < 10)
    v = round_ratio(s, "library", "curl, all URLs, Connection: close")
    row("500 x 20 KiB", "wall / fresh-connection curl floor", "%.3f" % v,
        "<= 1.2", v <= 1.2, chart("500 x 20 KiB\n/curl floor", v, 1.2))
    v = round_ratio(s, "library", "aria2c -j1")
    row("500 x 20 KiB", "wall / aria2c -j1", "%.3f" % v, "< 1", v < 1,
        chart("500 x 20 KiB\n/aria2c -j1", v, 1.0))
    faster = min(("curl + unzip loop", "curl + bsdtar loop"),
                 key=lambda k: med(a["samples"][k], "wall"))
    v = 1 / round_ratio(a, "library", faster)
    row("40 archives x 2 MiB", "speed-up over %s" % faster, "%.2fx" % v,
        ">= 1.3x", v >= 1.3, chart("40 archives\n/serial loop", 1 / v, 1 / 1.3))
    v = round_ratio(x, "library", "minizip 4 KiB floor")
    row("200 MiB extraction", "wall / minizip 4 KiB floor", "%.3f" % v,
        "<= 1.15", v <= 1.15, chart("extraction\n/minizip floor", v, 1.15))
    v = round_ratio(x, "library", "unzip -q -o")
    row("200 MiB extraction", "wall / unzip", "%.3f" % v, "< 1", v < 1,
        chart("extraction\n/unzip", v, 1.0))
    v = round_ratio(c, "library", "minizip + stat floor")
    row("installed check 2000 x 20", "wall / minizip+stat floor", "%.3f" % v,
        "<= 1.2", v <= 1.2, chart("installed check\n/minizip floor", v, 1.2))
    v = 1 / round_ratio(c, "library", "python zipfile + stat")
    row("installed check 2000 x 20", "speed-up over Python", "%.2fx" % v,
        ">= 1.5x", v >= 1.5, chart("installed check\n/Python", 1 / v, 1 / 1.5))
    v = (m["BM_ParseList100k"]["real_s"] /
         m["BM_RapidJsonParse100k"]["real_s"])
    row("parse 100k items", "time / RapidJSON alone", "%.2f" % v, "<= 1.5",
        v <= 1.5, chart("parse 100k\n/RapidJSON", v, 1.5))
    st = r["stop"]
    row("stop", "p99 during a transfer", "%.0f ms" % st["transfer"]["p99_ms"],
        "< 300 ms", st["transfer"]["p99_ms"] < 300)
    row("stop", "p99 during an extraction",
        "%.1f ms" % st["extraction"]["p99_ms"], "< 50 ms",
        st["extraction"]["p99_ms"] < 50)
    v = round_ratio(t, "library", "curl -o", "cpu")
    row("throttled transfer", "CPU / curl's", "%.2f" % v, "<= 1", v <= 1,
        chart("throttled\nCPU/curl", v, 1.0))
    v = m["BM_LogFiltered/real_time/threads:1"]["real_s"] * 1e9
    row("log", "filtered call, one thread", "%.1f ns" % v, "<= 20 ns",
        v <= 20)
    v = m["BM_LogPassing/real_time/threads:1"]["real_s"] * 1e9
    row("log", "passing call, no-op callback, one thread", "%.0f ns" % v,
        "<= 1000 ns", v <= 1000)
    return rows


def fixed_costs(results):
    """What each fixed behaviour costs: the run with it over the run
    without it (a patched variant, or the peer that differs only there)."""
    r, rows = results, []

    def cost(what, scenario, a, b, key="wall"):
        sm = r[scenario]["samples"]
        if a in sm and b in sm:
            rows.append({"behaviour": what, "scenario": scenario,
                         "measure": key, "ratio": round_ratio(
                             r[scenario], a, b, key)})

    for key in ("wall", "cpu"):
        cost("16 KiB receive buffer (vs 100 KiB)", "plain256", "library",
             "library, 100 KiB receive buffer [variant]", key)
        cost("fflush after every chunk (vs a 1 MiB buffer)", "plain256",
             "library", "library, no flush per chunk [variant]", key)
        cost("verbose trace to /dev/null (vs none)", "small500", "library",
             "library, no verbose trace [variant]", key)
    cost("200 ms select wait (vs 1 s)", "throttled", "library",
         "library, 1 s select wait [variant]", "cpu")
    cost("verbose trace to a file (vs /dev/null)", "small500",
         "library, stderr to a file", "library")
    cost("log on, stderr to a file (vs log off, /dev/null)", "small500",
         "library, log on, stderr to a file", "library")
    cost("a fresh connection per sticker (curl, vs keep-alive)", "small500",
         "curl, all URLs, Connection: close", "curl, all URLs")
    cost("4096-byte copy step (minizip, vs 64 KiB)", "extract200",
         "minizip 4 KiB floor", "minizip 64 KiB reads")
    m = r["micro"]["benchmarks"]
    if "BM_DebugChannelWrites/real_time" in m:
        rows.append({"behaviour": "two debug-channel writes of a passing "
                     "log call (their share of it)", "scenario": "micro",
                     "measure": "time",
                     "ratio": m["BM_DebugChannelWrites/real_time"]["real_s"] /
                     m["BM_LogPassing/real_time/threads:1"]["real_s"]})
    return rows


def table(results, rows):
    lines = ["| Work | Measure | Result | Target | |", "|---|---|---|---|---|"]
    for w in rows:
        lines.append("| %s | %s | %s | %s | %s |" % (
            w["work"], w["measure"], w["value"], w["target"],
            "met" if w["met"] else "**missed**"))
    lines += ["", "| Fixed behaviour | Scenario | Measure | With / without |",
              "|---|---|---|---|"]
    for c in results["fixed_costs"]:
        lines.append("| %s | %s | %s | %.3f |" % (
            c["behaviour"], c["scenario"], c["measure"], c["ratio"]))
    lines += ["", "| Scenario | Command | Wall (s) | CPU (s) | Peak RSS (MiB) |",
              "|---|---|---|---|---|"]
    for key in ("plain256", "small500", "arch40", "extract200", "check2000",
                "throttled"):
        for label, s in results[key]["samples"].items():
            lines.append("| %s | %s | %.3f | %.3f | %.1f |" % (
                key, label, med(s, "wall"), med(s, "cpu"),
                med(s, "rss_kib") / 1024))
    lines += ["", "| Stop during | p50 (ms) | p95 (ms) | p99 (ms) | max (ms) |",
              "|---|---|---|---|---|"]
    for mode, st in results["stop"].items():
        lines.append("| %s | %.1f | %.1f | %.1f | %.1f |" % (
            mode, st["p50_ms"], st["p95_ms"], st["p99_ms"], st["max_ms"]))
    lines += ["", "| Micro benchmark (median) | Real time | CPU time |",
              "|---|---|---|"]
    for name, b in results["micro"]["benchmarks"].items():
        lines.append("| %s | %s | %s |" % (name, human(b["real_s"]),
                                           human(b["cpu_s"])))
    return "\n".join(lines) + "\n"


def human(seconds):
    for unit, scale in (("s", 1), ("ms", 1e-3), ("us", 1e-6)):
        if seconds >= scale:
            return "%.3g %s" % (seconds / scale, unit)
    return "%.3g ns" % (seconds / 1e-9)


def chart(rows, out_dir):
    """Bars: each ratio (blue where the target is met, red where missed);
    black marks: the targets."""
    data = os.path.join(out_dir, "ratios.dat")
    tics = []
    with open(data, "w") as f:
        for w in rows:
            b = w["chart"]
            if b:
                tics.append('"%s" %d' % (b["label"].replace("\n", "\\n"),
                                         len(tics)))
                f.write("%.4f %.4f %d\n" % (
                    b["ratio"], b["limit"],
                    0x3B75AF if w["met"] else 0xC0392B))
    script = """
set terminal svg size 960,520 dynamic font "sans,12"
set output '%s'
set title "zrx2dsticker over its reference (lower is better); black marks: targets"
set style fill solid 0.85 border -1
set boxwidth 0.7
set yrange [0:*]
set xrange [-0.6:*]
set grid ytics
set bmargin 5
set xtics (%s) nomirror font "sans,10"
set key off
plot '%s' using 0:1:3 with boxes lc rgb variable, \\
     '' using 0:2:(0.38) with xerrorbars pt 0 lw 3 lc rgb 'black'
""" % (os.path.join(out_dir, "ratios.svg"), ", ".join(tics), data)
    subprocess.run(["gnuplot"], input=script.encode(), check=True)
    os.remove(data)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--work", required=True)
    ap.add_argument("--out", required=True)
    ap.add_argument("--base", required=True, help="http://127.0.0.1:PORT")
    ap.add_argument("--bin", required=True, help="build directory's bench/")
    ap.add_argument("--variants", default="",
                    help="hosts built with a fixed behaviour patched out")
    ap.add_argument("--quick", action="store_true",
                    help="two rounds, five stops: checks the harness")
    a = ap.parse_args()
    bins = {k: os.path.join(a.bin, "zrx-bench-" + k)
            for k in ("host", "extract", "floor", "micro", "rusage")}
    global RUSAGE, REPORT
    RUSAGE, REPORT = bins["rusage"], os.path.join(a.work, "rusage.out")
    began = time.time()
    print("== corpora in %s" % a.work, flush=True)
    make_corpora(a.work, a.base)
    results = {"load_start": loadavg(),
               "started": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())}
    results.update(scenarios(a.work, bins, a.base, a.quick, a.variants))
    results["micro"] = micro(bins, a.work, a.quick)
    results["load_end"] = loadavg()
    results["seconds"] = round(time.time() - began)
    rows = summarize(results)
    results["targets"] = rows
    results["fixed_costs"] = fixed_costs(results)
    os.makedirs(a.out, exist_ok=True)
    with open(os.path.join(a.out, "latest.json"), "w") as f:
        json.dump(results, f, indent=1)
    md = table(results, rows)
    with open(os.path.join(a.out, "latest.md"), "w") as f:
        f.write(md)
    chart(rows, a.out)
    print(md)
    print("== done in %d s, load %s" % (results["seconds"], loadavg()))


if __name__ == "__main__":
    main()
