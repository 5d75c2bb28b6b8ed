#!/usr/bin/env python3
# The tables, the plot script and the performance page from the rounds that scripts/bench ran.
# A figure is the median over the rounds of each round's median, with the range of those beside
# it; a ratio is taken within each round (both sides measured by the same process, the same
# way) and summarised over the rounds alike.
#
# usage: bench_report.py BUILD_DIR ROOT MACHINE
# Writes BUILD_DIR/results.md and BUILD_DIR/receive-paced.gp; after a full run of every program
# in every round, also the results section of ROOT/docs/performance.md, and then creates
# BUILD_DIR/page-updated.
import json
import os
import statistics
import sys
import time

build, root, machine = sys.argv[1:4]
with open(os.path.join(build, "run-info.json")) as f:
    run = json.load(f)
round_dirs = sorted((d for d in os.listdir(os.path.join(build, "rounds")) if d.isdigit()), key=int)
short = {"compare_codec": "codec", "compare_matching": "matching", "compare_receive": "receive",
         "compare_drain": "drain", "compare_tcp": "tcp", "query_bench": "query"}
to_ns = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
page_begin = "<!-- results: scripts/bench writes what follows, up to the end marker -->"
page_end = "<!-- end of results -->"
out = []


def load(round_dir, name, suffix):
    path = os.path.join(build, "rounds", round_dir, name + suffix)
    if not os.path.exists(path):
        return None
    with open(path) as f:
        return json.load(f)


def results(name):
    """The program's results and run records, round by round, for the rounds that have them."""
    found = []
    for d in round_dirs:
        data, info = load(d, name, ".json"), load(d, name, ".info")
        if data is not None and info is not None:
            found.append((data, info))
    return found


def spread(values, fmt):
    """'median (lowest–highest)' over the rounds; the median alone for a single round."""
    values = [v for v in values if v is not None]
    if not values:
        return ""
    if len(values) == 1:
        return fmt(values[0])
    return f"{fmt(statistics.median(values))} ({fmt(min(values))}–{fmt(max(values))})"


def fmt_ns(t):
    return f"{t:.1f}" if t < 100 else f"{t:,.0f}"


def fmt_ratio(r):
    return f"{r:.2f}"


def fmt_percent(p):
    return f"{p:.2f}" if p < 1 else f"{p:.1f}"


def plural(n, noun):
    return f"{n} {noun}" if n == 1 else f"{n} {noun}s"


def command(name):
    text = run["env"] + "scripts/bench"
    if run["mode"] == "quick":
        text += " --quick"
    return f"`{text} --only {short[name]}`"


def conditions(name, found):
    """Which command, how many rounds, and how busy the machine was in each."""
    loads = ", ".join(info["load_start"].split()[0] + ("" if info["quiet"] else " (not quiet)")
                      for _, info in found)
    others = ", ".join(f"{info['others_percent']:.0f} %" for _, info in found)
    return (f"Command: {command(name)}. {len(found)} of {plural(len(round_dirs), 'round')}; "
            f"1-minute load average at the start of each: {loads}; other work meanwhile: "
            f"{others} of the cores.\n")


def table(header, rows):
    out.append("| " + " | ".join(header) + " |")
    out.append("|" + "---|" * len(header))
    for row in rows:
        out.append("| " + " | ".join(row) + " |")
    out.append("")


# MARK: Google Benchmark programs


def google_rounds(found):
    """Per round: case -> library -> median CPU time in ns."""
    per_round = []
    for data, _ in found:
        times = {}
        for b in data["benchmarks"]:
            if b.get("aggregate_name") != "median":
                continue
            case, _, library = b["run_name"].partition("/")
            times.setdefault(case, {})[library or "kavrin"] = b["cpu_time"] * to_ns[b["time_unit"]]
        per_round.append(times)
    return per_round


def case_order(name, per_round):
    cases = list(dict.fromkeys(case for times in per_round for case in times))
    path = os.path.join(build, name + ".order")
    if os.path.exists(path):
        with open(path) as f:
            listed = list(dict.fromkeys(line.split("/")[0] for line in f.read().split()))
        cases.sort(key=lambda case: listed.index(case) if case in listed else len(listed))
    return cases


def google_table(name, title, prefix, columns, unit):
    """columns: library names (times), or (label, ours, peers) for our time over the fastest of
    the peers in the same round."""
    found = results(name)
    out.append(f"### {title}\n")
    if not found:
        out.append(f"{name} was not run.\n")
        return
    out.append(conditions(name, found))
    per_round = google_rounds(found)
    cases = [c for c in case_order(name, per_round) if c.startswith(prefix)]
    present = {l for times in per_round for c in cases for l in times.get(c, {})}
    columns = [c for c in columns if (c[1] if isinstance(c, tuple) else c) in present]

    def ratio(times, ours, peers):
        fastest = min((times[p] for p in peers if p in times), default=None)
        return times[ours] / fastest if fastest and ours in times else None

    rows = []
    for case in cases:
        row = [case]
        for c in columns:
            if isinstance(c, tuple):
                _, ours, peers = c
                row.append(spread([ratio(t.get(case, {}), ours, peers) for t in per_round], fmt_ratio))
            else:
                row.append(spread([t.get(case, {}).get(c) for t in per_round], fmt_ns))
        rows.append(row)
    header = ["Case"] + [c[0] if isinstance(c, tuple) else f"{c} ({unit})" for c in columns]
    table(header, rows)


# MARK: OSCQuery and zeroconf


def query_table():
    """Real time per iteration (the program's own measure) against each case's goal."""
    found = results("query_bench")
    out.append("### OSCQuery and zeroconf (median real time per iteration)\n")
    if not found:
        out.append("query_bench was not run.\n")
        return
    out.append(conditions("query_bench", found))
    goals = {"Tree1000Methods": ("the whole tree of 1,000 methods over HTTP", "≤ 5 ms"),
             "OneValueOf1000": ("one method's ?VALUE", ""),
             "Stream10000PerSecondTo10Listeners": ("10,000 updates sent in 1 s, until 10 listeners have all",
                                                   "none dropped"),
             "BrowserReportsAService": ("an advertised service until a browser reports it", "≤ 2 s")}
    rows = []
    for case, (what, goal) in goals.items():
        times, dropped, skipped = [], [], None
        for data, _ in found:
            for b in data["benchmarks"]:
                if b["run_name"].split("/")[0] != case:
                    continue
                if b.get("error_occurred"):
                    skipped = b.get("error_message", "skipped")
                elif b.get("aggregate_name", "median") == "median":
                    times.append(b["real_time"] * to_ns[b["time_unit"]] / 1e6)
                    if "dropped" in b:
                        dropped.append(b["dropped"])
        row = [f"{case}: {what}", spread(times, lambda t: f"{t:,.2f} ms") or (skipped or "not run"), goal]
        row.append(spread(dropped, lambda d: f"{d:.0f}") if dropped else "")
        rows.append(row)
    table(["Case", "Time", "Goal", "Dropped"], rows)


# MARK: Receive


def drain_receivers(found):
    return list(dict.fromkeys(d["receiver"] for data, _ in found for d in data["drain"]))


def drain_rows(found, peers):
    """Per receiver of a drain: its rate, its rate over each peer's within a round, and whether
    every datagram arrived in every run ("yes" or "no")."""
    rates = [{d["receiver"]: d["median_rate"] for d in data["drain"]} for data, _ in found]
    rows = []
    for r in drain_receivers(found):
        row = [r, spread([rate.get(r) for rate in rates], lambda v: f"{v:,.0f}")]
        for peer in peers:
            row.append(spread([rate[r] / rate[peer] if rate.get(r) and rate.get(peer) else None
                               for rate in rates], fmt_ratio))
        complete = all(d["complete"] for data, _ in found for d in data["drain"] if d["receiver"] == r)
        row.append("yes" if complete else "no")
        rows.append(row)
    return rows


def receive_tables():
    found = results("compare_receive")
    if not found:
        out.append("### Loopback receive\n\ncompare_receive was not run.\n")
        return None
    first = found[0][0]
    out.append("### Loopback receive: drain\n")
    out.append(conditions("compare_receive", found))
    out.append(f"{first['drain_count']:,} datagrams of {first['datagram_bytes']} bytes queued in "
               f"the receiver's socket buffer, then timed while it empties it; in each round the "
               f"median of {plural(first['drain_runs'], 'run')}. Receiver on cpu {first['receiver_cpu']}, "
               f"sender on cpu {first['sender_cpu']}.\n")
    rows = drain_rows(found, ("liblo", "recvfrom", "recvmmsg"))
    for row, r in zip(rows, drain_receivers(found)):
        if row[-1] == "no":
            fewest = min(d["min_delivered"] for data, _ in found for d in data["drain"]
                         if d["receiver"] == r)
            row[-1] = f"no (fewest {fewest:,})"
    table(["Receiver", "datagrams/s", "÷ liblo", "÷ recvfrom ceiling", "÷ recvmmsg ceiling",
           "all arrived in every run"], rows)

    core_text = {
        "awake": "receiver's core kept awake (a SCHED_IDLE spinner takes it whenever the receiver "
                 "sleeps, so waking the receiver never waits for a halted virtual CPU)",
        "idle": "receiver's core left to idle between datagrams, as a quiet machine runs it",
    }
    cells = [{(p.get("core", "idle"), p["receiver"], p["offered"]): p for p in data["paced"]}
             for data, _ in found]
    keys = list(dict.fromkeys(k for c in cells for k in c))
    offered = sorted({k[2] for k in keys})
    for core in dict.fromkeys(k[0] for k in keys):
        names = list(dict.fromkeys(k[1] for k in keys if k[0] == core))
        out.append(f"### Loopback receive: paced, {core} core\n")
        out.append(conditions("compare_receive", found))
        out.append(f"Per cent of the offered messages lost over {first['paced_seconds']:g} s, in "
                   f"each round the median of {plural(first['paced_runs'], 'run')}; {core_text.get(core, core)}. "
                   f"Each library at its default kernel buffer (SO_RCVBUF as the kernel reports "
                   f"it), ours also with 4 MiB.\n")

        def lost(r, o):
            ps = [c.get((core, r, o)) for c in cells]
            shares = [100 * p["lost"] / p["sent"] for p in ps if p]
            if shares and not any(shares):
                return "none lost"
            return spread(shares, fmt_percent)

        rows = []
        for r in names:
            buffers = [c[core, r, o]["rcvbuf"] for c in cells for o in offered if (core, r, o) in c]
            rows.append([r, f"{max(buffers):,}" if buffers else ""] + [lost(r, o) for o in offered])
        achieved = [min((c[k]["achieved"] for c in cells for k in c if k[0] == core and k[2] == o),
                        default=0) for o in offered]
        rows.append(["sender achieved (lowest)", ""] + [f"{a:,.0f}/s" for a in achieved])
        table(["Receiver", "SO_RCVBUF"] + [f"{o / 1000:g}k/s offered, % lost" for o in offered], rows)

        out.append("Messages delivered, ours ÷ theirs, in the same runs:\n")
        rows = []
        for ours in (r for r in names if r.startswith("kavrin")):
            for peer in ("liblo", "recvfrom", "recvmmsg"):
                if peer not in names:
                    continue
                row = [f"{ours} ÷ {peer}"]
                for o in offered:
                    row.append(spread([c[core, ours, o]["delivered"] / c[core, peer, o]["delivered"]
                                       if (core, ours, o) in c and c.get((core, peer, o), {}).get("delivered")
                                       else None for c in cells], fmt_ratio))
                rows.append(row)
        table(["Receiver"] + [f"{o / 1000:g}k/s offered" for o in offered], rows)
    return found


def drain_table():
    found = results("compare_drain")
    out.append("### In-process drain\n")
    if not found:
        out.append("compare_drain was not run.\n")
        return
    first = found[0][0]
    out.append(conditions("compare_drain", found))
    out.append(f"Every receiver in one process, one after another, each on {first['count']:,} "
               f"datagrams of {first['datagram_bytes']} bytes queued in its socket buffer while its "
               f"threads were parked, and timed to the last one; in each round the median of "
               f"{plural(first['runs'], 'run')}.\n")
    table(["Receiver", "datagrams/s", "÷ oscpack", "÷ liblo", "÷ recvmmsg", "all arrived"],
          drain_rows(found, ("oscpack", "liblo", "recvmmsg")))


# MARK: TCP


def tcp_table():
    found = results("compare_tcp")
    out.append("### Loopback TCP (messages per second)\n")
    if not found:
        out.append("compare_tcp was not run.\n")
        return
    first = found[0][0]
    out.append(conditions("compare_tcp", found))
    security = next((r["security"] for data, _ in found for r in data["rows"] if r["tls"]), "")
    out.append(f"The {first['message_bytes']}-byte Typical message, framed, over one connection "
               f"written as fast as the receiver takes it; each receiver timed from the first "
               f"message it counts to the last, in each round the median of "
               f"{plural(first['runs'], 'run')}. Receiver on cpu {first['receiver_cpu']}, sender "
               f"on cpu {first['sender_cpu']}"
               f"{f'; TLS is {security}, the sender verifying nothing' if security else ''}. "
               f"Before timing, every receiver counted a whole run right, checking each message. "
               f"Ratios to liblo on the same framing are for the plain rows.\n")
    if any(r["library"] == "liblo" and r["framing"] == "SLIP" for data, _ in found for r in data["rows"]):
        out.append("liblo on SLIP is given fewer messages, as many as it takes in a few seconds: "
                   "of SLIP frames that arrive together its TCP server handles a few hundred a "
                   "second (about one every 10 ms once the sender pauses).\n")
    rates = [{(r["library"], r["framing"], r["tls"]): r["median_rate"] for r in data["rows"]}
             for data, _ in found]
    keys = list(dict.fromkeys((r["library"], r["framing"], r["tls"])
                              for data, _ in found for r in data["rows"]))
    counts = {(r["library"], r["framing"], r["tls"]): r["count"] for data, _ in found for r in data["rows"]}

    def ratio(key, peer):
        return spread([rate[key] / rate[peer] if rate.get(key) and rate.get(peer) else None
                       for rate in rates], lambda r: fmt_ratio(r) if r < 100 else f"{r:,.0f}")

    rows = []
    for key in keys:
        library, framing, tls = key
        rows.append([library, framing, "yes" if tls else "no", f"{counts[key]:,}",
                     spread([rate.get(key) for rate in rates], lambda v: f"{v:,.0f}"),
                     "" if tls else ratio(key, ("liblo", framing, False)),
                     ratio(key, ("liblo", "length-prefixed", False)),
                     ratio(key, ("recv", "length-prefixed", False))])
    table(["Receiver", "Framing", "TLS", "messages per run", "messages/s",
           "÷ liblo, same framing", "÷ liblo, length-prefixed", "÷ recv ceiling"], rows)


# MARK: Rounds


def rounds_table():
    out.append("### Rounds\n")
    out.append("Each round ran each program as a new process, once the 1-minute load average was "
               f"below {run['max_load']} or {run['wait_limit']} s had passed. The load at the end "
               "includes the bench's own processes (one core busy for the Google Benchmark "
               "programs, two for the receive and TCP tests); *other work* is the share of both cores "
               "that anything else used meanwhile (approximate: the machine's busy time less the "
               "program's own), *stolen* the share the hypervisor gave to other machines.\n")
    rows, noisy = [], []
    for d in round_dirs:
        for name in run["programs"]:
            info = load(d, name, ".info")
            if info is None:
                continue
            started = time.strftime("%Y-%m-%d %H:%M", time.gmtime(info["started"]))
            rows.append([d, name, started, info["load_start"], info["load_end"],
                         f"{info['waited']} s", f"{info['others_percent']:.0f} %",
                         f"{info['steal_percent']:.0f} %", f"{info['seconds']:.0f} s",
                         "yes" if info["quiet"] else "**no**",
                         "" if info["status"] == "ok" else info["status"]])
            if not info["quiet"]:
                noisy.append(f"load {info['load_start'].split()[0]} at the start of round {d} "
                             f"of {name}")
    if noisy:
        out.append(f"**The machine was not quiet**: {'; '.join(noisy)} (threshold "
                   f"{run['max_load']}, after waiting up to {run['wait_limit']} s).\n")
    else:
        out.append(f"Every program started with the 1-minute load average below "
                   f"{run['max_load']}.\n")
    table(["Round", "Program", "Started (UTC)", "Load at start (1, 5, 15 min)", "Load at end",
           "Waited", "Other work", "Stolen", "Took", "Quiet", "Failed"], rows)


# MARK: Output

started = min((load(d, n, ".info") or {}).get("started", time.time())
              for d in round_dirs for n in run["programs"]) if round_dirs else time.time()
google = [f"`{n}`" for n in run["programs"]
          if n not in ("compare_receive", "compare_drain", "compare_tcp")]
given = ([f"{' and '.join(google)} with `{run['google_args']}`"] if google else []) + \
    ([f"`compare_receive` with `{run['receive_args']}`"] if "compare_receive" in run["programs"] else []) + \
    ([f"`compare_drain` with `{run.get('drain_args', '')}`"] if "compare_drain" in run["programs"] else []) + \
    ([f"`compare_tcp` with `{run['tcp_args']}`"] if "compare_tcp" in run["programs"] else [])
out.append("## Results: Kavrin against liblo and oscpack\n")
out.append(f"Run {time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime(started))} with "
           f"`{run['command']}` on {machine}: {plural(len(round_dirs), 'round')}. Every figure is "
           f"the median over the rounds of one round's median, with the lowest and highest of "
           f"those in brackets; every ratio is taken within a round and summarised the same way. "
           f"Each round runs, from `build-bench/bench/`, {', and '.join(given)}.\n")
if run["mode"] == "quick":
    out.append("**A quick run**: too few and too short repetitions to quote; it checks that "
               "everything runs.\n")
google_table("compare_codec", "Encode (median ns per packet)", "Encode",
             ["kavrin", "liblo", "oscpack", ("kavrin ÷ fastest peer", "kavrin", ["liblo", "oscpack"]),
              "kavrin_rawdata",
              ("kavrin_rawdata ÷ fastest peer", "kavrin_rawdata", ["liblo", "oscpack"]),
              "kavrin_writer", ("kavrin_writer ÷ oscpack", "kavrin_writer", ["oscpack"]),
              "kavrin_prebuilt", "liblo_prebuilt",
              ("kavrin_prebuilt ÷ liblo_prebuilt", "kavrin_prebuilt", ["liblo_prebuilt"])], "ns")
google_table("compare_codec", "Decode (median ns per packet)", "Decode",
             ["kavrin", "kavrin_shared", "kavrin_view", "liblo", "oscpack", "owning_floor",
              ("kavrin ÷ fastest peer", "kavrin", ["liblo", "oscpack"]),
              ("kavrin_shared ÷ fastest peer", "kavrin_shared", ["liblo", "oscpack"]),
              ("kavrin_view ÷ fastest peer", "kavrin_view", ["liblo", "oscpack"])], "ns")
google_table("compare_matching", "Matching (median ns per match)", "Match",
             ["kavrin", "kavrin_compiled", "liblo", ("kavrin ÷ liblo", "kavrin", ["liblo"]),
              ("kavrin_compiled ÷ liblo", "kavrin_compiled", ["liblo"])], "ns")
google_table("compare_matching", "Dispatch over 10,000 methods (median ns per dispatch)",
             "Dispatch", ["kavrin"], "ns")
receive = receive_tables()
drain_table()
tcp_table()
query_table()
rounds_table()

# The monitor's load test keeps its own rounds and writes its own table.
app_path = os.path.join(build, "monitor-load.md")
app_done = run.get("app", False) and os.path.exists(app_path)
if run.get("app", False):
    out.append("### The monitor under load\n")
    if app_done:
        with open(app_path) as f:
            out.append("Messages `/load/msg ,i N` sent from loopback to the headless monitor at a "
                       "steady rate, over UDP and over its TCP connection, by `scripts/bench-app`, "
                       "which this run started"
                       f"{' with `' + run['app_args'] + '`' if run.get('app_args') else ''}:\n")
            out.append(f.read())
    else:
        out.append("The monitor's load test failed; see the run's output.\n")

complete = (run["mode"] == "full" and set(run["programs"]) == set(short) and app_done
            and all(len(results(n)) == len(round_dirs) for n in short))
if receive:
    out.append("![Delivered against offered rate for each receiver](performance-receive.png)\n")
with open(os.path.join(build, "results.md"), "w") as f:
    f.write("\n".join(out))

flag = os.path.join(build, "page-updated")
if os.path.exists(flag):
    os.remove(flag)
if complete:
    page = os.path.join(root, "docs", "performance.md")
    with open(page) as f:
        text = f.read()
    begin, end = text.find(page_begin), text.find(page_end)
    if begin < 0 or end < begin:
        sys.exit(f"bench: {page} has lost its results markers; the page was not written")
    # The page has its own heading for the section.
    text = text[:begin + len(page_begin)] + "\n" + "\n".join(out[1:]) + text[end:]
    with open(page, "w") as f:
        f.write(text)
    open(flag, "w").close()

# Delivered against offered rate, medians over the rounds: one panel per core state.
gp_path = os.path.join(build, "receive-paced.gp")
if os.path.exists(gp_path):
    os.remove(gp_path)
if receive:
    paced = [p for data, _ in receive for p in data["paced"]]
    cores = list(dict.fromkeys(p.get("core", "idle") for p in paced))
    receivers = list(dict.fromkeys(p["receiver"] for p in paced))
    colours = ["#1b7837", "#5aae61", "#c51b7d", "#2166ac", "#000000", "#e08214", "#762a83"]
    top = max(p["achieved"] for p in paced) / 1000 * 1.05
    gp = ["set terminal pngcairo size %d,560 font ',10'" % (600 * len(cores)),
          f"set output '{os.path.join(build, 'performance-receive.png')}'",
          f"set multiplot layout 1,{len(cores)} title 'Loopback receive of the "
          f"{receive[0][0]['datagram_bytes']}-byte message: delivered against offered rate, "
          f"median of {len(receive)} rounds'",
          "set xlabel 'offered (thousand messages/s)'", "set ylabel 'delivered (thousand messages/s)'",
          "set key top left", "set grid", f"set xrange [0:{top:.0f}]", f"set yrange [0:{top:.0f}]"]
    for core in cores:
        plots = ["x title 'offered = delivered' with lines dashtype 2 linecolor rgb 'gray'"]
        for i, r in enumerate(receivers):
            points = {}
            for p in paced:
                if p.get("core", "idle") == core and p["receiver"] == r:
                    points.setdefault(p["offered"], []).append(p)
            if not points:
                continue
            dat = os.path.join(build, f"receive-{core}-{i}.dat")
            with open(dat, "w") as f:
                for o in sorted(points):
                    achieved = statistics.median(p["achieved"] for p in points[o])
                    delivered = statistics.median(p["achieved"] * p["delivered"] / p["sent"]
                                                  for p in points[o])
                    f.write(f"{achieved / 1000:.1f} {delivered / 1000:.1f}\n")
            plots.append(f"'{dat}' using 1:2 title '{r}' with linespoints linewidth 2 pointtype 7 "
                         f"linecolor rgb '{colours[i % len(colours)]}'")
        gp.append(f"set title \"receiver's core {'kept awake' if core == 'awake' else 'left to idle'}\"")
        gp.append("plot " + ", \\\n     ".join(plots))
    gp.append("unset multiplot")
    with open(gp_path, "w") as f:
        f.write("\n".join(gp) + "\n")
