"""Runs the workloads of workloads.py, profiler.py and server.py. Called by scripts/bench, which builds all."""
import argparse
import os
import pathlib
import platform
import signal
import sys
import time

import profiler  # noqa: F401, which adds its workload
import report
import server  # noqa: F401, the same
from scene import Bench
from workloads import WORKLOADS


def machine():
    model = next((line.split(":")[1].strip() for line in open("/proc/cpuinfo")
                  if line.startswith("model name")), "")
    return {"processor": model, "cores": os.cpu_count(), "kernel": platform.release(),
            "memory": os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES"),
            "load before": os.getloadavg()[0], "date": time.strftime("%Y-%m-%d %H:%M")}


SMOKE_LIMIT = 60  # seconds for one workload; none of them needs a tenth of it


def give_up(*_):
    raise TimeoutError("the workload does not end")


def measure(bench, name):
    """The rows of one workload. One that does not end, or brings no figure, is an error."""
    if bench.size == "smoke":
        signal.signal(signal.SIGALRM, give_up)
        signal.alarm(SMOKE_LIMIT)
    try:
        rows = list(WORKLOADS[name](bench))
    finally:
        signal.alarm(0)
        bench.clean()
    for row in rows:
        row.workload = name
        if not row.complete:
            sys.exit(f"{name}: {row.figure}: figures are missing")
    if not rows:
        sys.exit(f"{name}: there are no figures")
    return rows


def main():
    described = "\n".join(f"  {name:14}{function.__doc__}" for name, function in WORKLOADS.items())
    parser = argparse.ArgumentParser(
        prog="scripts/bench",
        description=f"Measures the agent, the profiler and the server beside their peers.\n\n{described}",
        formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("name", nargs="*", help="workloads to run (default: all of them)")
    size = parser.add_mutually_exclusive_group()
    size.add_argument("--quick", dest="size", action="store_const", const="quick",
                      help="smaller and fewer, about 4 minutes")
    size.add_argument("--smoke", dest="size", action="store_const", const="smoke",
                      help="as small as can be: shows only that every workload still works")
    parser.set_defaults(size="full")
    parser.add_argument("--build", default="build/bench", help=argparse.SUPPRESS)
    options = parser.parse_args()
    unknown = set(options.name) - set(WORKLOADS)
    if unknown:
        parser.error(f"unknown workload: {', '.join(sorted(unknown))}")

    bench = Bench(pathlib.Path(options.build).resolve(), options.size)
    facts = machine()
    rows = []
    for name in options.name or WORKLOADS:
        print(f"== {name}: {WORKLOADS[name].__doc__}", flush=True)
        rows += measure(bench, name)
    if options.size == "smoke":
        print(f"{len(rows)} figures of {len(options.name or WORKLOADS)} workloads: all there")
        return
    results = bench.build / "results"
    report.write(results, rows, facts)
    print()
    print(report.table(rows))
    print(f"\n{', '.join(f'{key}: {value}' for key, value in facts.items())}")
    print(f"Also in {results}: bench.txt, bench.json, bench.svg")


main()
