#!/usr/bin/env python3
"""Turns Google Benchmark JSON output into the comparison table of bench/run.

Each benchmark is named "<operation>/<input>/<implementation>". The row of "msplatform" is paired with every
other implementation of the same operation and input. Times are the median CPU time of the repetitions,
divided by the operations one iteration does (the counter "ops"). The ratio is this library's time over the
peer's: below 1 this library is faster.
"""
import json
import sys

OURS = "msplatform"

# (operation, peer) or (operation, peer, input) -> (largest ratio that meets the goal, how the goal reads); the
# entry with the input wins. Rows without an entry are shown for information.
GOALS = {
    ("xml_ParseXML+ProcessXMLNodeList", "pugixml"): (1.0, "at least pugixml's throughput"),
    ("MD5Update+MD5Final", "OpenSSL_MD5", "16MB"): (1.15, "within 15% of OpenSSL (on 16MB)"),
    ("Convert_UTF8_UCS", "iconv", "1MB_ascii"): (1 / 3, "at least 3x iconv"),
    ("Convert_UCS_UTF8", "iconv", "1MB_ascii"): (1 / 3, "at least 3x iconv"),
    ("Convert_UTF8_UCS", "iconv", "1MB_mixed"): (0.5, "at most half of iconv's time"),
    ("Convert_UCS_UTF8", "iconv", "1MB_mixed"): (0.5, "at most half of iconv's time"),
    ("HTTPUrlEscape", "plain_table"): (1.0, "at least the plain escape's speed"),
    ("strToEscapedUri", "plain_table"): (1.0, "at least the plain escape's speed"),
    ("getConfigInt", "GKeyFile"): (1.0, "at least GKeyFile's speed, lock included"),
    ("getConfigInt", "inih"): (1.0, "at most inih's time, lock included"),
    ("setConfigInt", "GKeyFile"): (0.5, "at most half of GKeyFile's time, lock included"),
    ("eventLogOut", "spdlog"): (1.0, "at least spdlog's lines per second"),
    ("eventLogOut", "floor:lock+fprintf+fflush"): (1.10, "within 10% of its floor"),
    ("MF_extension_lookup", "floor:lock+unordered_map", "shipped_table"): (1.10, "within 10% of its floor"),
    ("Mutex::lock+unlock", "flock"): (2.0, "within 2x of flock"),
    ("Zv_FindFirst+FindNext", "readdir64+stat64"): (1.5, "within 1.5x of the plain walk"),
}
# Goals on this library's own time per operation, in nanoseconds: (operation, input) -> (limit, text).
ABSOLUTE_GOALS = {
    ("MF_extension_lookup", "shipped_table"): (1000.0, "under 1 us per lookup"),
}

UNITS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def show(ns):
    unit, scale = next(((u, s) for u, s in (("s", 1e9), ("ms", 1e6), ("us", 1e3)) if ns >= s), ("ns", 1.0))
    value = ns / scale
    digits = 0 if value >= 100 else 1 if value >= 10 else 2
    return f"{value:.{digits}f} {unit}"


def load(paths):
    times = {}  # name -> ns per operation
    order = []
    for path in paths:
        with open(path) as f:
            data = json.load(f)
        medians = {}
        singles = {}
        for b in data.get("benchmarks", []):
            if b.get("error_occurred"):
                print(f"error in {b['name']}: {b.get('error_message')}", file=sys.stderr)
                continue
            name = b.get("run_name", b["name"])
            ns = b["cpu_time"] * UNITS[b.get("time_unit", "ns")] / max(b.get("ops", 1), 1)
            if b.get("run_type") == "aggregate":
                if b.get("aggregate_name") == "median":
                    medians[name] = ns
            else:
                singles.setdefault(name, ns)
        for name in list(medians) + [n for n in singles if n not in medians]:
            if name not in times:
                order.append(name)
            times[name] = medians.get(name, singles.get(name))
    return times, order


def main():
    times, order = load(sys.argv[1:])
    rows = []
    seen = set()
    for name in order:
        op, input_, impl = name.rsplit("/", 2)
        if (op, input_) in seen:
            continue
        seen.add((op, input_))
        ours = times.get(f"{op}/{input_}/{OURS}")
        peers = [n for n in order if n.rsplit("/", 2)[:2] == [op, input_] and n.rsplit("/", 2)[2] != OURS]
        if ours is not None and (op, input_) in ABSOLUTE_GOALS:
            limit, text = ABSOLUTE_GOALS[(op, input_)]
            verdict = "met" if ours <= limit else "MISSED"
            rows.append((op, input_, show(ours), "-", "-", f"{text}: {verdict}"))
        if not peers:
            if (op, input_) not in ABSOLUTE_GOALS:
                rows.append((op, input_, show(ours) if ours is not None else "-", "-", "-", ""))
            continue
        for peer_name in peers:
            peer = peer_name.rsplit("/", 2)[2]
            theirs = times[peer_name]
            goal = ""
            entry = GOALS.get((op, peer, input_)) or GOALS.get((op, peer))
            if ours is not None and entry:
                limit, text = entry
                goal = f"{text}: {'met' if ours / theirs <= limit else 'MISSED'}"
            ratio = f"{ours / theirs:.2f}" if ours is not None else "-"
            rows.append((op, input_, show(ours) if ours is not None else "-", f"{peer} {show(theirs)}", ratio,
                         goal))

    header = ("operation", "input", "this library", "peer", "ratio", "goal")
    widths = [max(len(r[i]) for r in rows + [header]) for i in range(len(header))]
    def line(cells):
        return "| " + " | ".join(c.ljust(w) for c, w in zip(cells, widths)) + " |"
    print(line(header))
    print("|" + "|".join("-" * (w + 2) for w in widths) + "|")
    for r in rows:
        print(line(r))
    print()
    print("Times are per operation, the median CPU time of the repetitions; ratio = this library / peer "
          "(below 1: this library is faster).")


if __name__ == "__main__":
    main()
