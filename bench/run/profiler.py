"""The profiler's workload: what it takes from the program that it looks at, and from the machine,
beside Debian's perf; and how true it is of programs that know the truth."""
import json
import os
import pathlib
import subprocess
import time

from report import Row
from scene import Program, size_below
from workloads import all_of, compare, require, workload

FREQUENCY = 999
REPOSITORY = pathlib.Path(__file__).parents[2]
LOOK = 0.02  # seconds between two looks for a compiler that has begun to compile


def own_words(bench, directory, command):
    """The command, such that what it takes stands in `directory`/own at its end."""
    return ["sh", "-c", 'exec 5>"$0" && exec "$@"', directory / "own",
            bench.program("kolvan-bench-measure"), 5, *command]


def own_figures(directory):
    """What such a command has taken. Refuses a failure: it measures nothing."""
    measured = json.loads((directory / "own").read_text().splitlines()[1])
    require(measured["status"] == 0, "the program that is looked at has failed")
    return measured


def alone(bench, command):
    directory = bench.directory()
    bench.run(*own_words(bench, directory, command))
    return {"wall": own_figures(directory)["wall"]}


def results(directory):
    """What a collection says of itself, and its bytes."""
    written = directory / "result" / "data.0"
    profile = json.loads((written / "summary.json").read_text())["profile"]
    require(profile["engine"] == "perf", "perf_event_open is not to be had here")
    require(profile["samples"] > 0, "there are no samples")
    return {**profile, "bytes": size_below(written), "cut": 1 - profile["rootShare"],
            "missing": 1 - profile["coverage"]}


def collector(bench, directory, *options):
    return [bench.build / "companions" / "profiler" / "kolvan-trcap", "-r", directory / "result",
            "--frequency", FREQUENCY, *options]


def profiled(bench, command):
    """The command under the profiler: its wall time, and the profiler's own processor time."""
    directory = bench.directory()
    whole = bench.run(*collector(bench, directory), "--", *own_words(bench, directory, command))
    return {"wall": own_figures(directory)["wall"], "cpu": whole["ownCpu"], **results(directory)}


def perf(bench, command):
    """The same by perf: one program records, another one makes names of it."""
    directory = bench.directory()
    data = directory / "perf"
    record = bench.run("perf", "record", "--quiet", "--call-graph", "dwarf,32768", "-F", FREQUENCY,
                       "-o", data, "--", *own_words(bench, directory, command))
    # Without the functions that compilers have inlined, which would take it longer still.
    script = bench.run("perf", "script", "--no-inline", "-i", data)
    measured = {"wall": own_figures(directory)["wall"], "cpu": record["ownCpu"] + script["cpu"],
                "bytes": data.stat().st_size}
    data.unlink()
    return measured


def interrupted(bench, command):
    """What nobody who samples by a timer can be spared: the interrupts, with nothing copied and
    nothing unwound. In a virtual machine they are dear."""
    directory = bench.directory()
    bench.run("perf", "record", "--quiet", "-F", FREQUENCY, "-o", directory / "perf", "--",
              *own_words(bench, directory, command))
    return {"wall": own_figures(directory)["wall"]}


def text_to_compress(bench):
    path = bench.files / f"text-{bench.size}"
    if not path.exists():
        unfinished = path.with_suffix(".unfinished")
        unfinished.write_text(os.urandom(bench.pick(100, 25, 1) << 20).hex())
        unfinished.rename(path)
    return path


HEADERS = """
#include <functional>
#include <map>
#include <regex>
#include <unordered_map>
"""
FUNCTION = """
struct Entry{0} {{ long value = {0}; }};
long use{0}(const std::string& text) {{
    std::map<std::string, Entry{0}> sorted;
    std::unordered_map<std::string, Entry{0}> hashed;
    sorted[text].value += 1;
    hashed[text].value -= 1;
    const std::function<long()> sum = [&] {{ return sorted[text].value + hashed[text].value; }};
    return std::regex_match(text, std::regex("a*b")) ? sum() : {0};
}}
"""


def compiler(source):
    """The command of the compiler proper, of some 35 MB and stripped."""
    program = subprocess.run(["g++", "-print-prog-name=cc1plus"], text=True, check=True,
                             stdout=subprocess.PIPE).stdout.strip()
    return [program, "-quiet", "-std=c++20", "-O2", source, "-o", os.devnull]


def preprocessed(bench, name, text):
    source = bench.files / f"{name}.ii"
    if not source.exists():
        unfinished = source.with_suffix(".unfinished")
        unfinished.write_text(subprocess.run(
            ["g++", "-std=c++20", "-I", REPOSITORY, "-E", "-x", "c++", "-"], input=text, text=True,
            check=True, stdout=subprocess.PIPE).stdout)
        unfinished.rename(source)
    return source


def source_of_people(bench):
    """What people let a compiler translate: a source of the server's, with all that it includes."""
    path = REPOSITORY / "companions/server/http/Server.cpp"
    return preprocessed(bench, "source-server", path.read_text())


def source_of_functions(bench, count):
    """A source on which the compiler works the longer, the larger `count` is."""
    return preprocessed(bench, f"source-{count}-functions",
                        HEADERS + "".join(map(FUNCTION.format, range(count))))


def memory_beside_compiler(bench, command, seconds):
    """The profiler's memory at its highest. The compiler is none of its children, because theirs
    would count."""
    directory = bench.directory()
    with Program(bench, command) as compiling:
        while "cc1plus" not in os.readlink(f"/proc/{compiling.pid}/exe"):
            time.sleep(LOOK)
        measured = bench.run(*collector(bench, directory, "--pid", compiling.pid,
                                        "--duration", f"{seconds}s"))
    results(directory)
    return measured["memory"]


def error_of_share(bench, milliseconds):
    """By how much the profile is wrong about the share of a function that is measured itself."""
    directory = bench.directory()
    truth = directory / "truth"
    found = profiled(bench, [bench.program("target-shares"), milliseconds, truth])
    hottest = found["top"][0]
    require(hottest["function"] == "hottest", "the hottest function has another name")
    return abs(hottest["selfShare"] - float(pathlib.Path(truth).read_text()))


@workload
def profiler(bench):
    """the profiler at 999 Hz: its cost beside perf record and perf script, and how true it is"""
    rounds = bench.pick(7, 3, 1)
    zstd = ["zstd", "-q", "-f", "-T2", "-9", text_to_compress(bench), "-o", os.devnull]
    server = bench.program("target-requests")
    # Threads of two milliseconds are what the profiler promises to see. Of those that end before their
    # first sample it sees nothing, and says so; what they cost beside perf is shown all the same.
    requests = [server, bench.pick(4000, 600, 10), 2000]
    short_requests = [server, bench.pick(60000, 10000, 200), 100]

    of_zstd = None
    for name, command, reach, proud in (
            ("zstd -T2 -9", zstd, 1.03, 1.015), ("a thread for each request", requests, 1.03, 1.015),
            ("a thread for each 0.1 ms", short_requests, None, None)):
        without, ours, peer, timer = bench.alternate(
            lambda: alone(bench, command), lambda: profiled(bench, command),
            lambda: perf(bench, command), lambda: interrupted(bench, command), rounds=rounds)
        of_zstd = of_zstd or ours
        yield compare(f"wall, {name}", "wall", "s", ours, without, "no profiler", reach, proud)
        yield compare(f"wall, {name}", "wall", "s", ours, peer, "perf record")
        yield compare(f"wall, {name}", "wall", "s", ours, timer, "perf record without stacks")
        yield compare(f"processor time, {name}", "cpu", "s", ours, peer,
                      "perf record, perf script", 0.3, 0.1)
        yield compare(f"bytes written, {name}", "bytes", "B", ours, peer, "perf record", 0.01,
                      0.001)
        yield Row(f"processor time without samples, {name}", "", all_of("missing", ours))

    compiling = compiler(source_of_functions(bench, bench.pick(1000, 100, 1)))
    for name, ours in (
            ("zstd", of_zstd),
            ("exceptions", [profiled(bench, [bench.program("target-exceptions"),
                                             bench.pick(1000000, 200000, 10000)])]),
            ("compiler", [profiled(bench, compiler(source_of_people(bench)))]),
            ("frames of 25 kB", [profiled(bench, [bench.program("target-frames"),
                                                  bench.pick(10000, 3000, 100)])])):
        yield Row(f"stacks that miss their root, {name}", "", all_of("cut", ours), reach=0.01,
                  proud=0.001)

    yield Row("share of the hottest function, error", "",
              [error_of_share(bench, bench.pick(10000, 3000, 200)) for _ in range(rounds)],
              reach=0.02, proud=0.01)
    yield Row("memory, compiler of 35 MB", "B",
              [memory_beside_compiler(bench, compiling, bench.pick(60, 10, 0.3))],
              reach=150e6, proud=80e6)
