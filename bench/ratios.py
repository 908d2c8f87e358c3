#!/usr/bin/env python3
"""Prints the table of ratios from Google Benchmark JSON files (scripts/bench.sh).

Every figure compares two benchmarks of the same run by their median real time; a ratio
above 1 means ours is faster than the reference.
"""
import json
import sys

# (figure, ours, reference, kind, target)
#   speed:    ratio = reference time / our time; target is the lowest ratio allowed
#   speed_cpu: the same with CPU time (of this process only, for the exchange: the client)
#   ns:       our median time in ns; target is the highest allowed
#   overhead: our time minus the reference time in ms; target is the highest allowed
#   counter:  a counter of ours (reference names it); target is the highest allowed
ROWS = [
    ("1 KVPing exchange vs raw blocking ping-pong", "BM_PingExchange/0/real_time",
     "BM_PingRawBlocking/0/real_time", "speed", 0.6),
    ("1 same, client CPU time per exchange", "BM_PingExchange/0/real_time",
     "BM_PingRawBlocking/0/real_time", "speed_cpu", None),
    ("1 same, both pinned to CPU 0", "BM_PingExchange/1/real_time",
     "BM_PingRawBlocking/1/real_time", "speed", None),
    ("1 connect+handshake+close vs raw", "BM_ConnectHandshakeClose/0/real_time",
     "BM_ConnectRawBlocking/0/real_time", "speed", None),
    ("2 message encode vs Protocol Buffers", "BM_EncodeLrpc2", "BM_EncodeProtobuf", "speed", 1.0),
    ("2 message decode vs Protocol Buffers", "BM_DecodeLrpc2", "BM_DecodeProtobuf", "speed", 1.0),
    ("2 message encode vs memcpy", "BM_EncodeLrpc2", "BM_CopyImage", "speed", None),
    ("2 message decode vs memcpy", "BM_DecodeLrpc2", "BM_CopyImage", "speed", None),
    ("3 snprintf integers vs libc", "BM_FormatInt/zfw", "BM_FormatInt/libc", "speed", 1.0),
    ("3 snprintf strings vs libc", "BM_FormatString/zfw", "BM_FormatString/libc", "speed", 1.0),
    ("3 snprintf mixed vs libc", "BM_FormatMixed/zfw", "BM_FormatMixed/libc", "speed", None),
    ("3 snprintf floats vs libc", "BM_FormatFloat/zfw", "BM_FormatFloat/libc", "speed", None),
    ("4 disabled log call (ns)", "BM_DisabledLogCall", "BM_LevelCompare", "ns", 2.0),
    ("4 disabled log call vs one comparison", "BM_DisabledLogCall", "BM_LevelCompare", "speed",
     None),
    ("4 log call to datagram sink vs bare syslog()", "BM_LogDirect/real_time",
     "BM_SyslogDirect/real_time", "speed", None),
    ("4 queued log call vs direct log call", "BM_LogQueued/real_time", "BM_LogDirect/real_time",
     "speed", None),
    ("5 properties parse 10k lines vs getline", "BM_PropertiesParse", "BM_GetlineOnly", "speed",
     None),
    ("5 simple reader 10k lines vs getline", "BM_SimpleReader", "BM_GetlineOnly", "speed", None),
    ("6 run queue 1P/1C vs std::mutex+condvar queue",
     "BM_RunQueueOneProducerOneConsumer/4096/real_time",
     "BM_StdQueueOneProducerOneConsumer/4096/real_time", "speed", None),
    ("7 kvstop overhead beyond sleep 1 (ms)", "BM_Kvstop/iterations:1/real_time",
     "BM_Sleep1/iterations:1/real_time", "overhead", 20.0),
    ("7 kvstop CPU time, user+system (ms)", "BM_Kvstop/iterations:1/real_time", "cpu_ms",
     "counter", None),
    ("7 sleep 1 CPU time, user+system (ms)", "BM_Sleep1/iterations:1/real_time", "cpu_ms",
     "counter", None),
    ("7 kvstop peak RSS (MiB)", "BM_Kvstop/iterations:1/real_time", "peak_rss_mib", "counter",
     8.0),
]

TO_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def load(paths):
    medians = {}
    for path in paths:
        try:
            with open(path) as f:
                data = json.load(f)
        except (OSError, ValueError) as e:
            print(f"ratios: {path}: {e}", file=sys.stderr)
            continue
        for b in data.get("benchmarks", []):
            if b.get("error_occurred"):
                continue
            if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
                continue
            b = dict(b)
            # Benchmarks that wait on other threads or processes count real time; the others
            # count CPU time, which a machine shared with other work disturbs less.
            clock = "real_time" if b["run_name"].endswith("/real_time") else "cpu_time"
            unit = TO_NS[b.get("time_unit", "ns")]
            b["ns"] = b[clock] * unit
            b["cpu_ns"] = b["cpu_time"] * unit
            # Per item where a benchmark counts items (a burst of log calls, a file's lines).
            items = b.get("items_per_second")
            if items:
                b["cpu_ns"] *= 1e9 / items / b["ns"]
                b["ns"] = 1e9 / items
            # A median wins over a single run of the same name.
            if b.get("run_type") == "aggregate" or b["run_name"] not in medians:
                medians[b["run_name"]] = b
    return medians


def rate(ns):
    per_s = 1e9 / ns
    for unit, scale in (("G/s", 1e9), ("M/s", 1e6), ("k/s", 1e3)):
        if per_s >= scale:
            return f"{per_s / scale:.2f} {unit}"
    return f"{per_s:.2f} /s"


def duration(ns):
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if ns >= scale:
            return f"{ns / scale:.2f} {unit}"
    return f"{ns:.2f} ns"


def row(results, figure, ours, ref, kind, target):
    a = results.get(ours)
    b = results.get(ref) if kind != "counter" else a
    if a is None or b is None:
        return [figure, "not measured", "", "", "", ""]
    if kind == "speed_cpu":
        value = b["cpu_ns"] / a["cpu_ns"]
        cells = [duration(a["cpu_ns"]), duration(b["cpu_ns"]), f"{value:.3g}x"]
        met = None
        goal = ""
    elif kind == "speed":
        value = b["ns"] / a["ns"]
        cells = [duration(a["ns"]), duration(b["ns"]), f"{value:.3g}x"]
        met = None if target is None else value >= target
        goal = "" if target is None else f">= {target:g}x"
    elif kind == "ns":
        value = a["ns"]
        cells = [duration(a["ns"]), duration(b["ns"]), f"{a['ns'] / b['ns']:.1f}x time"]
        met = value <= target
        goal = f"<= {target:g} ns"
    elif kind == "overhead":
        value = (a["ns"] - b["ns"]) / 1e6
        cells = [duration(a["ns"]), duration(b["ns"]), f"+{value:.1f} ms"]
        met = value <= target
        goal = f"<= {target:g} ms"
    else:
        if ref not in a:
            return [figure, "not measured", "", "", "", ""]
        value = a[ref]
        cells = [f"{value:.2f}", "", ""]
        met = None if target is None else value <= target
        goal = "" if target is None else f"<= {target:g}"
    return [figure] + cells + [goal, "" if met is None else ("yes" if met else "NO")]


def main():
    results = load(sys.argv[1:])
    header = ["Figure", "Ours", "Reference", "Ratio", "Target", "Met"]
    table = [header] + [row(results, *r) for r in ROWS]
    widths = [max(len(r[i]) for r in table) for i in range(len(header))]
    for n, r in enumerate(table):
        print("| " + " | ".join(c.ljust(w) for c, w in zip(r, widths)) + " |")
        if n == 0:
            print("|" + "|".join("-" * (w + 2) for w in widths) + "|")
    print("\nTimes are medians of the repetitions, per operation or per item counted (a log "
          "call, a line) (real time for benchmarks named .../real_time, CPU time for the "
          "others); ratio = reference time / our time, so above 1 means ours is faster.")


if __name__ == "__main__":
    main()
