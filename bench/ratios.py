#!/usr/bin/env python3
"""Prints the table of figures from Google Benchmark JSON files (scripts/bench.sh).

Usage: ratios.py RESULT.json... [SWEEP.sweep...]

Every benchmark runs as interleaved repetitions (--benchmark_enable_random_interleaving), so
the repetition k of ours and the repetition k of its reference ran close together; a ratio is
computed for every such pair, and the table shows the median of the ratios with their spread
(lowest and highest, and the count of pairs). A ratio above 1 means ours is faster.
"""
import json
import statistics
import sys

# (figure, ours, reference, kind, target)
#   cpu:     ratio = reference CPU time / our CPU time, per pair (per item where items are
#            counted); target is the lowest median allowed
#   real:    the same with wall time
#   ns:      our CPU time per operation; the reference's beside it; target the highest allowed
#   cycles:  the counter "cycles" (time-stamp counter cycles per operation), ours and the
#            reference's
#   overhead: our wall time minus the reference's per pair, in ms; target the highest allowed
#   counter: the median of a counter of ours (named by the reference column); target the
#            highest allowed
#   counter_ratio: per pair, our counter / the reference's counter, for the counter named in
#            the target tuple (name, highest allowed)
# The message sweep (message_bench --sweep, files *.sweep) adds one row per order and way: the
# highest cost in copies of lrpc2 from 4 KiB up, beside Protocol Buffers' at that size.
SWEEP_FROM = 4096
SWEEP_TARGET = 4.0


ROWS = [
    ("1 exchange, client CPU vs raw blocking ping-pong", "BM_PingExchange/0/real_time",
     "BM_PingRawBlocking/0/real_time", "cpu", 0.9),
    ("1 exchange, client system calls per round trip", "BM_PingExchange/0/real_time", "syscalls",
     "counter", None),
    ("1 exchange: sendmsg per round trip", "BM_PingExchange/0/real_time", "sendmsg", "counter",
     None),
    ("1 exchange: recv per round trip", "BM_PingExchange/0/real_time", "recv", "counter", None),
    ("1 exchange: ppoll per round trip", "BM_PingExchange/0/real_time", "ppoll", "counter", None),
    ("1 raw ping-pong system calls (write, read)", "BM_PingRawBlocking/0/real_time", "syscalls",
     "counter", None),
    ("1 exchange, wall time (peer on the other CPU)", "BM_PingExchange/0/real_time",
     "BM_PingRawBlocking/0/real_time", "real", None),
    ("1 exchange, client CPU, both pinned to CPU 0", "BM_PingExchange/1/real_time",
     "BM_PingRawBlocking/1/real_time", "cpu", None),
    ("1 connect+handshake+close, client CPU vs raw", "BM_ConnectHandshakeClose/0/real_time",
     "BM_ConnectRawBlocking/0/real_time", "cpu", None),
    ("2 typical message encode vs Protocol Buffers", "BM_EncodeLrpc2", "BM_EncodeProtobuf", "cpu",
     1.3),
    ("2 typical message decode vs Protocol Buffers", "BM_DecodeLrpc2", "BM_DecodeProtobuf", "cpu",
     1.5),
    ("2 typical message encode vs memcpy", "BM_EncodeLrpc2", "BM_CopyImage", "cpu", None),
    ("3 snprintf integers vs libc", "BM_FormatInt/zfw", "BM_FormatInt/libc", "cpu", 1.3),
    ("3 snprintf strings vs libc", "BM_FormatString/zfw", "BM_FormatString/libc", "cpu", 1.3),
    ("3 snprintf mixed vs libc", "BM_FormatMixed/zfw", "BM_FormatMixed/libc", "cpu", None),
    ("3 snprintf floats (%f) vs libc", "BM_FormatFloat/zfw", "BM_FormatFloat/libc", "cpu", None),
    ("4 guarded log call, disabled (isEnabled, log)", "BM_GuardedLogCall", "BM_LevelCompare",
     "ns", None),
    ("4 same, in cycles", "BM_GuardedLogCall", "BM_LevelCompare", "cycles", None),
    ("4 disabled log call", "BM_DisabledLogCall", "BM_LevelCompare", "ns", None),
    ("4 same, in cycles", "BM_DisabledLogCall", "BM_LevelCompare", "cycles", None),
    ("4 log call to datagram sink vs bare syslog(), CPU", "BM_LogDirect/process_time/real_time",
     "BM_SyslogDirect/process_time/real_time", "cpu", None),
    ("4 queued log calls incl. drain vs direct, CPU", "BM_LogQueued/process_time/real_time",
     "BM_LogDirect/process_time/real_time", "cpu", None),
    ("4 queued log calls incl. drain vs direct, wall", "BM_LogQueued/process_time/real_time",
     "BM_LogDirect/process_time/real_time", "real", None),
    ("5 properties parse 10k lines vs getline", "BM_PropertiesParse", "BM_GetlineOnly", "cpu",
     None),
    ("5 simple reader 10k lines vs getline", "BM_SimpleReader", "BM_GetlineOnly", "cpu", None),
    ("6 run queue unbounded 1P/1C vs deque+mutex+condvar, CPU, both on CPU 0",
     "BM_RunQueueOneProducerOneConsumer/0/1/process_time/real_time",
     "BM_StdQueueOneProducerOneConsumer/0/1/process_time/real_time", "cpu", 0.9),
    ("6 same, CPU, placed by the scheduler",
     "BM_RunQueueOneProducerOneConsumer/0/0/process_time/real_time",
     "BM_StdQueueOneProducerOneConsumer/0/0/process_time/real_time", "cpu", None),
    ("6 same, wall time, placed by the scheduler",
     "BM_RunQueueOneProducerOneConsumer/0/0/process_time/real_time",
     "BM_StdQueueOneProducerOneConsumer/0/0/process_time/real_time", "real", None),
    ("6 run queue bounded 4096 vs bounded deque, CPU",
     "BM_RunQueueOneProducerOneConsumer/4096/0/process_time/real_time",
     "BM_StdQueueOneProducerOneConsumer/4096/0/process_time/real_time", "cpu", None),
    ("6 run queue bounded 256 vs bounded deque, CPU",
     "BM_RunQueueOneProducerOneConsumer/256/0/process_time/real_time",
     "BM_StdQueueOneProducerOneConsumer/256/0/process_time/real_time", "cpu", None),
    ("6 list walk of 2048 items (ns)", "BM_ListWalk/2048", "", "ns", None),
    ("6 sched_yield (ns)", "BM_Yield", "", "ns", None),
    ("7 kvstop overhead beyond sleep 1 (ms)", "BM_Kvstop/iterations:1/real_time",
     "BM_Sleep1/iterations:1/real_time", "overhead", 5.0),
    ("7 kvstop CPU / sleep 1 CPU", "BM_Kvstop/iterations:1/real_time",
     "BM_Sleep1/iterations:1/real_time", "counter_ratio", ("cpu_ms", 2.0)),
    ("7 kvstop CPU time, user+system (ms)", "BM_Kvstop/iterations:1/real_time", "cpu_ms",
     "counter", None),
    ("7 sleep 1 CPU time, user+system (ms)", "BM_Sleep1/iterations:1/real_time", "cpu_ms",
     "counter", None),
    ("7 kvstop peak RSS (MiB)", "BM_Kvstop/iterations:1/real_time", "peak_rss_mib", "counter",
     4.0),
]

# Why a target can be missed: the written rule that costs the time, by the figure's prefix.
# Printed under the table for every target that this run missed.
GAPS = {
    "1 exchange, client CPU":
        "The raw ping-pong makes 2 calls per round trip (blocking write and read); the exchange "
        "makes the calls in the rows above. Each is required: a socket is written with sendmsg "
        "(transfer rules of the connection); the reply is read as exactly 8 header bytes and "
        "then exactly length - 8 bytes into a block of the length the header gives (exchange, "
        "steps 4, 6 and 7), so 2 recv even when both are there; the descriptor stays "
        "non-blocking for the life of the connection, and a read that would block waits for "
        "readiness bounded by the time-out, so each time the reply is not there yet one recv "
        "answers EAGAIN and one ppoll waits (the ppoll row is that share). The flag reads "
        "(fcntl) are made only for a time-out of 0, where they are needed.",
    "2 typical message decode":
        "Every get hands out a fresh allocation holding a copy (message buffers, every get, "
        "step 3): the typical message's gets make 13 allocations and the caller 13 frees (3 "
        "strings, a blob, the string set's array and 3 texts, the key-value array and 4 texts), "
        "besides the message record and its image. The reused Protocol Buffers message keeps "
        "the storage of its strings and is read in place, allocating nothing.",
    "2 decode,":
        "Decoding makes two copies into blocks of their own (the parse's copy of the image, as a "
        "reply arrives in one, and the blob that the get hands out: message buffers, parsing "
        "and every get), so it works on three buffers of the blob's size where one copy works "
        "on two. Where two buffers of that size fit a core's first-level data cache and three "
        "do not (about 16 to 24 KiB on this machine), the yardstick is cheap and any such "
        "decoding dear: two plain mallocs and memcpys, with no format at all, cost about as "
        "many copies there (\"two plain copies\" in the Reference column and the plot), and "
        "Protocol Buffers, which also copies twice, pays the same.",
    "6 run queue unbounded":
        "Every lock of a run queue is a MutexLock, which keeps cancellation off while the "
        "mutex is held (mutexes: pthread_testcancel and pthread_setcancelstate before the lock, "
        "pthread_setcancelstate and pthread_testcancel after the unlock, on both producer and "
        "consumer), the mutex is recursive and tracks its depth and owner, add wakes consumers "
        "with broadcast (never signal) and pending items are a list (one node allocation and "
        "free per item). The plain queue does none of this. In a profile (callgrind) the "
        "cancellation calls alone are about 45 instructions per item on each side.",
    "7 kvstop overhead":
        "The wall time of a process start on this machine moves by milliseconds with the load "
        "(see the spread and the load average); the CPU rows show kvstop's own work.",
    "7 kvstop CPU":
        "A run reads the configuration file four times (the properties store once, the simple "
        "reader for the time-out and for each of the two connects), looks for the host "
        "settings, opens the system log and makes two connections with handshake and "
        "credential passing (stop command, client session); `sleep 1` only starts and sleeps.",
}
TO_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def load(paths):
    """run name -> list of repetitions (dicts with real_ns, cpu_ns, counters), in order."""
    runs = {}
    for path in paths:
        try:
            with open(path) as f:
                data = json.load(f)
        except (OSError, ValueError) as e:
            print(f"ratios: {path}: {e}", file=sys.stderr)
            continue
        for b in data.get("benchmarks", []):
            if b.get("error_occurred") or b.get("run_type") != "iteration":
                continue
            unit = TO_NS[b.get("time_unit", "ns")]
            rep = dict(b)
            rep["real_ns"] = b["real_time"] * unit
            rep["cpu_ns"] = b["cpu_time"] * unit
            # Per item where a benchmark counts items (a log call, a line, a queued item).
            items = b.get("items_per_second")
            if items:
                clock = rep["real_ns"] if "/real_time" in b["run_name"] else rep["cpu_ns"]
                per_iteration = items * clock / 1e9
                rep["real_ns"] /= per_iteration
                rep["cpu_ns"] /= per_iteration
            runs.setdefault(b["run_name"], []).append(rep)
    for reps in runs.values():
        reps.sort(key=lambda r: r.get("repetition_index", 0))
    return runs


def duration(ns):
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if ns >= scale:
            return f"{ns / scale:.3g} {unit}"
    return f"{ns:.3g} ns"


def spread(values, fmt):
    return f"{fmt(min(values))} .. {fmt(max(values))}"


def ratio_fmt(v):
    return f"{v:.3g}x"


def row(runs, figure, ours, ref, kind, target):
    empty = [figure, "not measured", "", "", "", "", "", ""]
    a = runs.get(ours)
    if a is None:
        return empty
    if kind == "counter":
        values = [r[ref] for r in a if ref in r]
        if not values:
            return empty
        value = statistics.median(values)
        cells = [f"{value:.3g}", "", "", spread(values, lambda v: f"{v:.3g}"), str(len(values))]
        met = None if target is None else value <= target
        goal = "" if target is None else f"<= {target:g}"
        return [figure] + cells + [goal, "" if met is None else ("yes" if met else "NO")]
    b = runs.get(ref)
    if kind == "ns" or kind == "cycles":
        key = "cpu_ns" if kind == "ns" else "cycles"
        mine = [r[key] for r in a if key in r]
        if not mine:
            return empty
        theirs = [r[key] for r in (b or []) if key in r]
        fmt = duration if kind == "ns" else (lambda v: f"{v:.3g} cyc")
        cells = [fmt(statistics.median(mine)),
                 fmt(statistics.median(theirs)) if theirs else "", "",
                 spread(mine, fmt), str(len(mine))]
        return [figure] + cells + ["", ""]
    if b is None:
        return empty
    pairs = list(zip(a, b))
    if kind == "cpu" or kind == "real":
        key = "cpu_ns" if kind == "cpu" else "real_ns"
        values = [y[key] / x[key] for x, y in pairs]
        mine = statistics.median(x[key] for x, _ in pairs)
        theirs = statistics.median(y[key] for _, y in pairs)
        value = statistics.median(values)
        cells = [duration(mine), duration(theirs), ratio_fmt(value), spread(values, ratio_fmt),
                 str(len(values))]
        met = None if target is None else value >= target
        goal = "" if target is None else f">= {target:g}x"
    elif kind == "overhead":
        values = [(x["real_ns"] - y["real_ns"]) / 1e6 for x, y in pairs]
        value = statistics.median(values)
        cells = [duration(statistics.median(x["real_ns"] for x, _ in pairs)),
                 duration(statistics.median(y["real_ns"] for _, y in pairs)),
                 f"{value:+.2f} ms", spread(values, lambda v: f"{v:+.1f}"), str(len(values))]
        met = value <= target
        goal = f"<= {target:g} ms"
    else:  # counter_ratio
        name, most = target
        pairs = [(x, y) for x, y in pairs if name in x and y.get(name)]
        if not pairs:
            return empty
        values = [x[name] / y[name] for x, y in pairs]
        value = statistics.median(values)
        cells = [f"{statistics.median(x[name] for x, _ in pairs):.3g}",
                 f"{statistics.median(y[name] for _, y in pairs):.3g}", ratio_fmt(value),
                 spread(values, ratio_fmt), str(len(values))]
        met = value <= most
        goal = f"<= {most:g}x"
    return [figure] + cells + [goal, "" if met is None else ("yes" if met else "NO")]


def sweep_rows(paths):
    """One row per sweep file and way: lrpc2's highest median cost in copies from SWEEP_FROM."""
    rows = []
    for path in paths:
        with open(path) as f:
            lines = f.read().splitlines()
        order = lines[0].split(",")[0].removeprefix("# order ")
        seed = lines[0].split(",")[1].strip()
        columns = lines[1].lstrip("# ").split()
        table = [dict(zip(columns, map(float, line.split()))) for line in lines[2:]]
        rounds = lines[0].split(",")[2].split()[0]
        for way in ("encode", "decode"):
            sized = [r for r in table if r["size"] >= SWEEP_FROM]
            if not sized:
                continue
            worst = max(sized, key=lambda r: r[f"lrpc2-{way}"])
            value = worst[f"lrpc2-{way}"]
            at = size_name(int(worst["size"]))
            rows.append([f"2 {way}, {order} sizes ({seed}): highest cost in copies, 4 KiB..16 MiB",
                         f"{value:.3g} copies at {at}",
                         f"{worst[f'protobuf-{way}']:.3g} copies (Protocol Buffers)"
                         + (f", {worst['two-copies']:.3g} (two plain copies)" if way == "decode"
                            else ""), "",
                         f"{worst[f'lrpc2-{way}_min']:.3g} .. {worst[f'lrpc2-{way}_max']:.3g}",
                         rounds, f"<= {SWEEP_TARGET:g}", "yes" if value <= SWEEP_TARGET else "NO"])
    return rows


def size_name(n):
    for unit, shift in (("MiB", 20), ("KiB", 10)):
        if n >= 1 << shift:
            return f"{n / (1 << shift):.3g} {unit}"
    return f"{n} B"


def main():
    sweeps = [p for p in sys.argv[1:] if p.endswith(".sweep")]
    runs = load([p for p in sys.argv[1:] if not p.endswith(".sweep")])
    header = ["Figure", "Ours", "Reference", "Ratio (median)", "Spread (min .. max)", "n",
              "Target", "Met"]
    # Only the sweep when only the sweep ran (scripts/bench.sh --sweep-only).
    measured = [row(runs, *r) for r in ROWS] if runs else []
    table = [header] + measured + sweep_rows(sweeps)
    widths = [max(len(r[i]) for r in table) for i in range(len(header))]
    for n, r in enumerate(table):
        print("| " + " | ".join(c.ljust(w) for c, w in zip(r, widths)) + " |")
        if n == 0:
            print("|" + "|".join("-" * (w + 2) for w in widths) + "|")
    print("\nOurs and Reference: medians over the repetitions (CPU time per operation or item "
          "unless the row says wall). Ratio: the median of the per-pair ratios reference / ours "
          "(above 1: ours is faster); spread: the lowest and highest pair; n: pairs.")
    missed = [r[0] for r in table[1:] if r[-1] == "NO"]
    if missed:
        print("\n## Targets not met in this run, and the rule that makes it so\n")
        for figure in missed:
            key = next((k for k in GAPS if figure.startswith(k)), None)
            text = GAPS.get(key, "") if key else ""
            print(f"- **{figure}**: {text or 'no rule found that explains it; see the notes.'}")


if __name__ == "__main__":
    main()
