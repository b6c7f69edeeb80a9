#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""report.py table MACHINE UNIT <JSON: the bench's results as Markdown.
report.py picture <MARKDOWN: the first table in it as SVG, a bar for each ratio."""
import html
import json
import statistics
import sys


def table(machine, unit):
    run = json.load(sys.stdin)
    print(f"{machine}; {run['context']['built']}; {run['context']['date'][:10]}.\n")
    print(f"| operation | {unit} | yardstick | {unit} | ratio |")
    print("| --- | ---: | --- | ---: | ---: |")
    times = {}
    runs = [one for one in run["benchmarks"] if one["run_type"] == "iteration"]
    for one in sorted(runs, key=lambda one: one["family_index"]):
        # Two threads that wait for each other use time, but no processor time.
        clock = "real_time" if one["threads"] > 1 else "cpu_time"
        times.setdefault(one["run_name"], []).append(one[clock])
    best = {}
    for name, all_times in times.items():
        # A disturbance only slows one thread down, but two may be fast because one starts late.
        contend = "threads:" in name
        best[name.split("/")[0]] = statistics.median(all_times) if contend else min(all_times)
    for name, its in best.items():
        operation, _, yardstick = name.partition(" | ")
        if yardstick:
            ours = best[operation]
            shown = [f"{time:.0f}" if time >= 100 else f"{time:.3g}" for time in (ours, its)]
            print(f"| {operation} | {shown[0]} | {yardstick} | {shown[1]} | {ours / its:.2f} |")


def picture():
    first = sys.stdin.read().partition("| ratio |")[2].partition("\n\n")[0]
    rows = [line.strip("| ").split(" | ") for line in first.splitlines()[2:]]
    high = 18 * len(rows) + 60
    print(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 960 {high}" '
          'font-family="sans-serif" font-size="12">\n<!-- SPDX-' 'License-Identifier: MIT -->')
    print(f'<rect width="960" height="{high}" fill="white"/>')
    print('<text x="440" y="20">ours, divided by the yardstick: shorter is better</text>')
    for count, (operation, _, yardstick, _, ratio) in enumerate(rows):
        y = 18 * count + 44
        length = 200 * min(float(ratio), 2.2)
        color = "#4878a8" if float(ratio) <= 1 else "#c88040"
        words = html.escape(f"{operation} : {yardstick}")
        print(f'<text x="432" y="{y}" text-anchor="end">{words}</text>')
        print(f'<rect x="440" y="{y - 10}" width="{length:.0f}" height="13" fill="{color}"/>')
        print(f'<text x="{length + 445:.0f}" y="{y}">{ratio}</text>')
    print(f'<path d="M640 28V{high - 24}" stroke="black" stroke-dasharray="3 3"/>')
    print(f'<text x="640" y="{high - 8}" text-anchor="middle">1</text></svg>')


if sys.argv[1] == "table":
    table(*sys.argv[2:])
else:
    picture()
