"""The workloads: each runs the agent and its peers in turn and yields rows of figures.

A workload is a function of the Bench (scene.py); its first line of text says what it measures.
"""
import json
import os
import shutil
import subprocess
import time

from report import Row
from scene import SETTLING, Program, Server

WORKLOADS = {}


def workload(function):
    WORKLOADS[function.__name__.replace("_", "-")] = function
    return function


def all_of(key, measured):
    return [one[key] for one in measured]


def compare(figure, key, unit, ours, peer, versus, reach=None, proud=None):
    return Row(figure, unit, all_of(key, ours), all_of(key, peer), versus, reach, proud)


def require(holds, what):
    """A run that did not do its work has measured something else."""
    if not holds:
        raise RuntimeError(what)


@workload
def limits(bench):
    """the limits of the benchmarks' own server: over bare sockets, and by its processor time"""
    posts, size = bench.pick(20000, 5000, 100), bench.pick(4 << 30, 1 << 30, 1 << 24)
    package = bench.packages / "zeros"
    with open(package, "wb") as file:
        file.truncate(size)

    def raw(*arguments):
        with Server(bench) as served:
            measured = bench.run(bench.program("peer-raw"), served.port, *arguments)
            return {"wall": measured["wall"], "cpu": served.cpu()}

    for figure, unit, amount, arguments in (
            ("small posts, a connection each", "1/s", posts, ("posts", posts)),
            ("one large post", "B/s", size, ("body", size)),
            ("one large download", "B/s", size, ("package", package.name))):
        measured = [raw(*arguments) for _ in range(bench.rounds)]
        yield Row(figure, unit, [amount / one["wall"] for one in measured])
        yield Row(figure + ", limit", unit, [amount / one["cpu"] for one in measured])


def make_package(bench, archive, large_files):
    """Many small files and few large ones that compress to about half, and a collector. Two
    archives have no file in common."""
    staging = bench.directory()
    inner = staging / "package" / archive.suffix[1:]
    inner.mkdir(parents=True)
    shutil.copy(bench.collector, inner / "kolvan-trcap")
    for number in range(bench.pick(3000, 3000, 30)):
        part = staging / "package" / f"{inner.name}-part{number // 100}"
        part.mkdir(exist_ok=True)
        (part / f"file{number}").write_bytes(os.urandom(300 + number * 3).hex().encode())
    for number in range(large_files):
        (inner / f"library{number}").write_bytes(os.urandom(10 << 20).hex().encode())
    subprocess.run(["bsdtar", "--auto-compress", "-cf", archive, "-C", staging, "package"],
                   check=True)


@workload
def install(bench):
    """download and extract two packages of 150 MB each, many small files and few large ones"""
    large = bench.pick(6, 1, 0)
    names = [f"package{large}.tar.gz", f"package{large}.tar.zst"]
    for name in names:
        if not (bench.packages / name).exists():
            make_package(bench, bench.packages / name, large)

    def by_hand():
        with Server(bench) as served:
            url = f"{served.endpoint}/api/collection-agent/target-package?targetPackageArchiveName="
            return bench.shell(
                'cd "$1" && curl -sS -o x86 "$2" && bsdtar -xf x86 && '
                'curl -sS -o x64 "$3" && bsdtar -xf x64',
                bench.directory(), *(url + name for name in names))

    ours, peer = bench.alternate(
        lambda: bench.agent_run("one-by-one 1 nothing", packages=names), by_hand)
    yield compare("wall", "wall", "s", ours, peer, "curl -o, bsdtar -xf", 1.00, 0.90)
    yield compare("processor time", "cpu", "s", ours, peer, "curl -o, bsdtar -xf")


@workload
def stream(bench):
    """the collector writes 1 GiB to its standard output as fast as it is read"""
    size = bench.pick(1 << 30, 1 << 28, 1 << 22)

    def checked(measured):
        require(measured["outputBytes"] >= size // 3 * 4, "not everything arrived")
        return measured

    def pipeline():
        with Server(bench) as served:
            measured = bench.shell(
                '"$1" flood $2 | base64 -w0 | curl -sS -T - $3/api/collection-agent/message',
                bench.collector, size, served.endpoint)
            return {**measured, **served.report()}

    ours, by_hand, pieces, gather = bench.alternate(
        lambda: checked(bench.agent_run(f"one-by-one 1 flood {size}")),
        lambda: checked(pipeline()),
        lambda: checked(bench.peer_run("peer-pieces", bench.collector, "flood", size)),
        lambda: checked(bench.peer_run("peer-gather", bench.collector, "flood", size)))
    yield compare("wall", "wall", "s", ours, by_hand, "collector | base64 | curl -T -", 1.15, 1.00)
    yield compare("wall", "wall", "s", ours, pieces, "posts 1 MiB pieces", 0.80, 0.65)
    yield compare("processor time", "cpu", "s", ours, by_hand, "collector | base64 | curl -T -",
                  0.65, 0.55)
    yield compare("memory", "memory", "B", ours, gather, "gathers 20 ms", 0.4)
    yield Row("memory", "B", all_of("memory", ours), reach=600e6, proud=300e6)


def growth(bench, rate, seconds, delay=0):
    """The agent's memory at its highest over that when it was idle, in bytes."""
    with Server(bench) as served, bench.agent(served) as agent:
        served.tell(f"delay {delay}", "one-by-one 1 nothing")
        served.wait()
        idle_memory = agent.memory()
        served.tell(f"one-by-one 1 pace {rate} {seconds}")
        served.wait()
        highest = agent.memory("VmHWM")
        served.tell("stop")
        agent.finish()
        return highest - idle_memory


@workload
def paced(bench):
    """the collector writes 20 MB/s: memory at its highest over that of the idle agent"""
    seconds = bench.pick(30, 5, 1)
    yield Row("memory over idle", "B",
              [growth(bench, 20_000_000, seconds) for _ in range(bench.rounds)],
              reach=24e6, proud=12e6)


@workload
def lines(bench):
    """lines of 80 bytes, 20,000 a second: processor time without the collector's, and delay"""
    seconds = bench.pick(10, 2, 1)
    task = f"lines {20000 * seconds} {seconds}"

    def checked(measured):
        require(measured["lines"] == 20000 * seconds, "not every line arrived")
        return {**measured, "p50": measured["p50"] / 1e9, "p99": measured["p99"] / 1e9}

    ours, peer = bench.alternate(
        lambda: checked(bench.agent_run("latencies", f"one-by-one 1 {task}")),
        lambda: checked(bench.peer_run("peer-gather", bench.collector, *task.split(),
                                       commands=["latencies"])))
    yield compare("processor time", "ownCpu", "s", ours, peer, "gathers 20 ms", 1.10, 1.05)
    yield compare("delay of a line, p50", "p50", "s", ours, peer, "gathers 20 ms", 1.03, 1.00)
    yield compare("delay of a line, p99", "p99", "s", ours, peer, "gathers 20 ms", 1.05, 1.00)


def burst(server, program, count):
    """What each of so many polls takes, which a program makes one after the other. It holds one
    before and one after them."""
    cpu, begin = program.activity()["cpu"], time.monotonic()
    server.tell(f"polls {count}")
    server.wait()
    wall = time.monotonic() - begin
    return {"wall": wall / count, "cpu": (program.activity()["cpu"] - cpu) / count}


def life_in_bursts(bench, count, tls):
    """The agent and its peer live at the same time and poll in turn, a tenth of a second each; who
    begins changes as well. Whole runs, one after the other, would meet a processor that has become
    faster or slower meanwhile, and count what the agent does at its start and its end."""
    where, beside = bench.places()
    with Server(bench, beside) as served, Server(bench, beside) as peers, \
            bench.agent(served, tls=tls, wrapper=where) as agent, \
            Program(bench, [*where, bench.program("peer-poll"),
                            peers.tlsEndpoint if tls else peers.endpoint,
                            *([bench.certificate] if tls else [])]) as peer:
        served.tell("one-by-one 1 nothing")  # which waits for the installation
        served.wait()
        sides = [(served, agent), (peers, peer)]
        for server, _ in sides:
            # The first ones find cold caches and fresh memory, and the operation's thread goes
            # meanwhile.
            server.tell(f"polls {count}")
            server.wait()
        measured = [[], []]
        for number in range(bench.pick(12, 4, 1)):
            for place in (0, 1) if number % 2 == 0 else (1, 0):
                measured[place].append(burst(*sides[place], count))
        for server, program in sides:
            server.tell("stop")
            program.finish()
        return measured


@workload
def poll(bench):
    """requests for commands that the server answers at once"""
    for tls, count in ((False, bench.pick(1000, 1000, 50)), (True, bench.pick(80, 80, 10))):
        ours, peer = [], []
        # Several lives, because where its memory lies makes a process faster or slower for good.
        for _ in range(bench.rounds):
            for all_, some in zip((ours, peer), life_in_bursts(bench, count, tls)):
                all_ += some
        over = ", TLS" if tls else ""
        for figure, key in (("wall", "wall"), ("processor time", "cpu")):
            yield compare(figure + over, key, "s", ours, peer, "a duplicate each", 1.05, 1.02)


def make_traces(bench, count, size):
    directory = bench.files / f"traces-{count}-{size}"
    if not directory.exists():
        unfinished = bench.files / "traces-unfinished"
        shutil.rmtree(unfinished, ignore_errors=True)
        unfinished.mkdir()
        for number in range(count):
            (unfinished / f"trace{number}").write_bytes(os.urandom(size))
        unfinished.rename(directory)
    return directory


def collect(bench, traces, **options):
    return bench.agent_run(f"collection {traces}", **options)


@workload
def upload(bench):
    """200 trace files of 4 MiB: from the first request to the last answer"""
    count = bench.pick(200, 50, 3)
    traces = make_traces(bench, count, 4 << 20)

    def checked(measured):
        require(measured["uploads"] == count, "not every file arrived")
        return {**measured, "span": measured["uploadSpan"] / 1e9}

    def by_hand():
        with Server(bench) as served:
            uploads = bench.directory() / "config"
            uploads.write_text("next\n".join(
                f'url = "{served.endpoint}/api/collection-agent/trace/upload"\n'
                f'form = "data=@{trace}"\nform = "submit=send"\n' for trace in traces.iterdir()))
            bench.run("curl", "--silent", "--parallel", "--config", uploads)
            return served.report()

    ours, curl, threads = bench.alternate(
        lambda: checked(collect(bench, traces)), lambda: checked(by_hand()),
        lambda: checked(bench.peer_run("peer-upload", traces)))
    yield compare("wall", "span", "s", ours, curl, "curl --parallel", 1.00, 0.90)
    yield compare("processor time", "cpu", "s", ours, threads, "a thread per file", 1.10, 1.00)
    yield compare("memory", "memory", "B", ours, threads, "a thread per file", 1.15, 1.00)


@workload
def many_traces(bench):
    """5,000 trace files in one collection, under the usual soft limit of descriptors"""
    count = bench.pick(5000, 1000, 10)
    traces = make_traces(bench, count, 4096)
    limited = ["sh", "-c", 'ulimit -Sn 1024 && exec "$0"']
    measured = [collect(bench, traces, wrapper=limited) for _ in range(bench.rounds)]
    yield Row("files missing", "files", [count - one["uploads"] for one in measured], reach=0)
    yield Row("memory", "B", all_of("memory", measured), reach=1e9, proud=300e6)


@workload
def start(bench):
    """from exec to the arrival of "connect\""""
    text = json.dumps({"messageType": "connect", "messageParameters": {
        "accessToken": "0123456789abcdef", "agentUuid": "01234567-89ab-4def-8123-456789abcdef",
        "hostname": "bench", "serverResolvedHostnames": "", "serverResolvedIpAddress": ""}},
        separators=(",", ":"))

    def arrival(measured):
        return {"arrival": measured["connected"] / 1e9 - measured["begin"]}

    def by_hand():
        with Server(bench) as served:
            url = f"{served.endpoint}/api/collection-agent/message"
            return {**bench.run("curl", "-sS", "-d", text, url), **served.report()}

    ours, peer = bench.alternate(lambda: arrival(bench.agent_run()), lambda: arrival(by_hand()),
                                 rounds=bench.pick(41, 15, 1))
    yield compare("time", "arrival", "s", ours, peer, "curl -d", 1.20, 1.10)


@workload
def idle(bench):
    """the request for commands is held: both at the same time, for five minutes"""
    seconds = bench.pick(300, 10, 1)
    with Server(bench) as served, Server(bench) as peers, bench.agent(served) as agent, \
            Program(bench, [bench.program("peer-poll"), peers.endpoint]) as peer:
        served.tell("one-by-one 1 nothing")
        peers.tell("polls 1")
        served.wait()
        peers.wait()
        time.sleep(SETTLING)
        moments = [(agent.activity(), peer.activity())]
        for _ in range(bench.rounds):
            time.sleep(seconds / bench.rounds)  # what is measured is that nothing happens
            moments.append((agent.activity(), peer.activity()))
        memory = [[agent.memory()], [peer.memory()]]
        served.tell("stop")
        peers.tell("stop")
        agent.finish()
        peer.finish()

    def in_a_second(key):
        return [[(late[who][key] - early[who][key]) * bench.rounds / seconds
                 for early, late in zip(moments, moments[1:])] for who in (0, 1)]

    versus = "a held poll"
    yield Row("memory", "B", *memory, versus, 1.5, 1.2)
    yield Row("context switches", "1/s", *in_a_second("switches"), versus, 2.0, 1.2)
    yield Row("processor time in a second", "s", *in_a_second("cpu"), versus)


def periods(ends):
    return [(late - early) / 1e9 for early, late in zip(ends, ends[1:])]


def median_of(numbers):
    return sorted(numbers)[len(numbers) // 2]


@workload
def execute(bench):
    """one "collector:execute" after the other"""
    count = bench.pick(500, 200, 10)

    def period(measured):
        return {"period": median_of(periods(measured["ends"]))}

    ours, peer = bench.alternate(
        lambda: period(bench.agent_run(f"one-by-one {count} nothing")),
        lambda: period(bench.peer_run("peer-execute", count, bench.collector, "nothing")))
    yield compare("time of one", "period", "s", ours, peer, "spawns and posts", 1.35, 1.10)

    lines_ = [median_of(bench.agent_run(f"one-by-one {bench.pick(50, 50, 5)} line")["durations"])
              / 1e9 for _ in range(bench.rounds)]
    yield Row("one with a line of output", "s", lines_, reach=0.023, proud=0.021)


@workload
def many_executes(bench):
    """what 5,000 operations leave behind, and what a stop takes after 6,000"""
    first, last, end = bench.pick((100, 5000, 6000), (100, 1000, 1200), (10, 20, 30))

    def life():
        with Server(bench) as served, bench.agent(served) as agent:
            def run_to(number):
                served.tell(f"one-by-one {number} nothing")
                served.wait()
                return agent.resources()

            early = run_to(first)
            late = run_to(last - first)
            run_to(end - last)
            stopped = time.monotonic()
            served.tell("stop")
            stop = agent.finish()["end"] - stopped
            times = periods(served.report()["ends"])
        grown = {key: late[key] - early[key] for key in early}
        slower = median_of(times[max(last - 200, 0):last]) / median_of(times[first:first + 200])
        return {**grown, "memory": grown["memory"] / (last - first), "slower": slower, "stop": stop}

    lives = [life() for _ in range(bench.rounds)]
    for figure, key, unit, reach, proud in (
            ("memory left by one", "memory", "B", 300, 100),
            ("mappings left", "mappings", "", 0, None),
            ("descriptors left", "descriptors", "", 0, None),
            ("threads left", "threads", "", 0, None),
            ("time of the last over the first", "slower", "", 1.15, 1.00),
            ("stop afterwards", "stop", "s", 0.020, 0.005)):
        yield Row(figure, unit, all_of(key, lives), reach=reach, proud=proud)


def at_once_by_agent(bench, count, milliseconds):
    measured = bench.agent_run(f"at-once {count} sleep {milliseconds}")
    require(len(measured["ends"]) == count, "not every operation has ended")
    return {"wall": max(measured["durations"]) / 1e9, "memory": measured["memory"]}


def at_once_by_shell(bench, count, milliseconds):
    return bench.shell('for i in $(seq $1); do "$2" sleep $3 & done; wait', count, bench.collector,
                       milliseconds)


@workload
def at_once(bench):
    """256 and 16 operations that sleep, in one reply: what they take beyond their sleep"""
    milliseconds = bench.pick(2000, 1000, 100)

    def over(measured):
        return {**measured, "over": measured["wall"] - milliseconds / 1000}

    for count, reach, proud in ((256, 1.2, 1.0), (16, 1.8, 1.2)):
        ours, peer = bench.alternate(lambda: over(at_once_by_agent(bench, count, milliseconds)),
                                     lambda: over(at_once_by_shell(bench, count, milliseconds)))
        yield compare(f"time of {count} over their sleep", "over", "s", ours, peer,
                      "a shell: & and wait", reach, proud)
        if count == 256:
            yield Row("memory", "B", all_of("memory", ours), reach=25e6, proud=16e6)


@workload
def curves(bench):
    """how memory, operations and uploads behave as rate, delay and number grow"""
    for delay in bench.pick((0, 100, 1000), (0, 100), (0,)):
        for rate in bench.pick((1, 5, 20, 80), (20,), (20,)):
            yield Row(f"memory, {rate} MB/s, answers after {delay} ms", "B",
                      [growth(bench, rate * 1_000_000, bench.pick(5, 2, 1), delay)
                       for _ in range(bench.pick(3, 1, 1))])

    numbers = bench.pick((100, 1000, 2000, 5000, 10000), (100, 500), (10,))
    times = periods(bench.agent_run(f"one-by-one {numbers[-1]} nothing")["ends"])
    for number in numbers:
        yield Row(f"one operation, after {number}", "s", times[max(number - 100, 0):number])

    for count in bench.pick((1, 10, 100, 1000, 3000), (10, 300), (3,)):
        traces = make_traces(bench, count, 1 << 18)
        yield Row(f"upload of 256 kB, one of {count}", "s",
                  [collect(bench, traces)["uploadSpan"] / 1e9 / count
                   for _ in range(bench.rounds)])


@workload
def pieces(bench):
    """single pieces of the agent and the server, by themselves"""
    result = subprocess.run(
        [bench.program("kolvan-bench-pieces"), "--benchmark_format=json",
         f"--benchmark_repetitions={bench.rounds}",
         f"--benchmark_min_time={bench.pick(0.3, 0.02, 0.001)}"],
        check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    samples = {}
    for run in json.loads(result.stdout)["benchmarks"]:
        if run["run_type"] == "iteration":
            key = "bytes_per_second" if run.get("bytes_per_second", 0) > 1 else "real_time"
            figure = run["name"].removesuffix("/real_time")
            samples.setdefault((figure, key), []).append(run[key])
    for (figure, key), values in samples.items():
        rate = key == "bytes_per_second"
        yield Row(figure, "B/s" if rate else "s", values if rate else [v / 1e9 for v in values])
