"""Runs the workloads of workloads.py. Called by scripts/bench, which has built everything."""
import argparse
import os
import pathlib
import platform
import time

import report
from scene import Bench
from workloads import WORKLOADS


def machine():
    model = next((line.split(":")[1].strip() for line in open("/proc/cpuinfo")
                  if line.startswith("model name")), "")
    return {"processor": model, "cores": os.cpu_count(), "kernel": platform.release(),
            "memory": os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES"),
            "load before": os.getloadavg()[0], "date": time.strftime("%Y-%m-%d %H:%M")}


def main():
    described = "\n".join(f"  {name:14}{function.__doc__}" for name, function in WORKLOADS.items())
    parser = argparse.ArgumentParser(
        prog="scripts/bench", description=f"Measures the agent beside its peers.\n\n{described}",
        formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("name", nargs="*", help="workloads to run (default: all of them)")
    parser.add_argument("--quick", action="store_true", help="smaller and fewer, under 3 minutes")
    parser.add_argument("--build", default="build/bench", help=argparse.SUPPRESS)
    options = parser.parse_args()
    unknown = set(options.name) - set(WORKLOADS)
    if unknown:
        parser.error(f"unknown workload: {', '.join(sorted(unknown))}")

    bench = Bench(pathlib.Path(options.build).resolve(), options.quick)
    facts = machine()
    rows = []
    for name in options.name or WORKLOADS:
        print(f"== {name}: {WORKLOADS[name].__doc__}", flush=True)
        try:
            for row in WORKLOADS[name](bench):
                row.workload = name
                rows.append(row)
        finally:
            bench.clean()
    results = bench.build / "results"
    report.write(results, rows, facts)
    print()
    print(report.table(rows))
    print(f"\n{', '.join(f'{key}: {value}' for key, value in facts.items())}")
    print(f"Also in {results}: bench.txt, bench.json, bench.svg")


main()
