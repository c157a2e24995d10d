"""The server's workload: agents by the thousand, and what they send, beside nginx which takes the
same bodies into files."""
import http.client
import json
import statistics
import time

from report import Row
from scene import size_below
from served import POLL_IS_HELD, Crowd, KolvanServer, Nginx
from workloads import all_of, compare, require, workload

MIB = 1 << 20
MESSAGES = "/api/collection-agent/message"
UPLOADS = "/api/collection-agent/trace/upload"
FORM = "multipart/form-data; boundary=end-of-part"


def identity(number, token):
    """The parameters that each message of an agent of the crowd has."""
    return {"agentUuid": f"00000000-0000-4000-8000-{number:012}", "accessToken": token}


def send(bench, target, senders, repeat, filling, size, **bound):
    """Lets all senders send; see server-load/senders.cpp, also for `bound`. What it took, with the server's memory at
    its highest, its processor time and that of the senders."""
    directory = bench.directory()
    jobs, result = directory / "jobs.json", directory / "result.json"
    jobs.write_text(json.dumps({"repeat": repeat, "filling": filling, "size": size,
                                "senders": senders, "result": str(result), **bound}))
    before = target.cpu()
    measured = bench.run(bench.program("kolvan-bench-senders"), target.port, target.manner, jobs)
    return {**json.loads(result.read_text()), "cpu": target.cpu() - before,
            "memory": target.memory("VmHWM"), "load": measured["cpu"]}


def held(bench, tls, count, commands=0):
    """Agents that hold their polls: memory, the server's processor time while each polls once, and
    how long commands take to reach them."""
    spread, window = bench.pick(POLL_IS_HELD, 5, 0.2), bench.pick(POLL_IS_HELD, POLL_IS_HELD, 0.5)
    with KolvanServer(bench, tls) as server, Crowd(bench, server, count, spread) as crowd:
        def moment():
            return {"polls": crowd.polls(), "cpu": server.cpu(), "load": crowd.cpu(),
                    "time": time.monotonic()}

        early = moment()
        time.sleep(window)  # what is measured is what the agents do by themselves
        late = moment()
        spent = {key: late[key] - early[key] for key in early}
        memory = server.memory()
        agents = server.agents() if commands else {}
        delays = []
        for number in range(commands):
            name = f"host-{number * 7919 % count}"
            asked = time.monotonic()
            server.ask("POST", f"agents/{agents[name]}/processes")
            reached, arrival, *_ = crowd.command()
            require(reached == name, "the command has reached another agent")
            delays.append(arrival - asked)
        return {"memory": memory, "delays": delays, "polls": spent["polls"],
                "share": spent["cpu"] / spent["time"], "load": spent["load"] / spent["time"],
                "cpuOfPoll": spent["cpu"] / max(spent["polls"], 1)}


def p99(samples):
    return sorted(samples)[len(samples) * 99 // 100]


def of_agents(bench):
    count = bench.pick(2000, 200, 20)
    tls = held(bench, True, count, bench.pick(1000, 200, 20))
    over = f"{count:,} agents over TLS: "
    yield Row(over + "memory", "B", [tls["memory"]], reach=250 * MIB, proud=150 * MIB)
    yield Row(over + "command to agent, p50", "s", [statistics.median(tls["delays"])])
    yield Row(over + "command to agent, p99", "s", [p99(tls["delays"])], reach=0.1, proud=0.02)
    yield Row(over + "share of one core", "", [tls["share"]])
    yield Row(over + "share of the load", "", [tls["load"]])
    yield Row(over + "processor time of a poll", "s", [tls["cpuOfPoll"]])
    count = bench.pick(10000, 1000, 20)
    plain = held(bench, False, count)
    over = f"{count:,} agents, plain: "
    yield Row(over + "memory", "B", [plain["memory"]], reach=400 * MIB, proud=200 * MIB)
    yield Row(over + "share of one core", "", [plain["share"]], reach=0.25, proud=0.10)
    yield Row(over + "share of the load", "", [plain["load"]])
    yield Row(over + "processor time of a poll", "s", [plain["cpuOfPoll"]])


def small_messages(bench, tls):
    """Messages that the server has nothing to do for, from 16 agents as fast as they are answered:
    processor time of one, with the handshakes of its connection."""
    count, repeat = 16, bench.pick(200 if tls else 600, 50, 2)
    with KolvanServer(bench, tls) as server, Crowd(bench, server, count):
        senders = [{"method": "POST", "target": MESSAGES,
                    "type": "application/x-www-form-urlencoded", "after": "",
                    "before": json.dumps({"messageType": "none", "messageParameters":
                                          identity(number, server.agentToken)})}
                   for number in range(count)]
        measured = send(bench, server, senders, repeat, "bytes", 0)
        return {"cpu": measured["cpu"] / (count * repeat),
                "rate": count * repeat / measured["seconds"]}


def of_small_messages(bench):
    for tls, manner in ((False, "plain"), (True, "TLS")):
        measured = [small_messages(bench, tls) for _ in range(bench.pick(3, 3, 1))]
        yield Row(f"small messages, {manner}: rate", "1/s", all_of("rate", measured))
        yield Row(f"small messages, {manner}: processor time of one", "s",
                  all_of("cpu", measured))


def collections(server, crowd, count):
    """A collection of each agent: its id, that of the operation, and where its files belong."""
    agents = server.agents()
    places = {}
    for number in range(count):
        collection = server.collect(agents[f"host-{number}"])
        name, _, operation, directory = crowd.command()
        places[int(name.removeprefix("host-"))] = (collection, operation, directory)
    return [places[number] for number in range(count)]


def output(number, token, operation, size):
    """A message with output, as a sender's "before" and "after"."""
    text = json.dumps({"messageType": "collector:stdout", "messageParameters": {
        **identity(number, token), "id": operation, "size": str(size // 4 * 3),
        "message": "#"}})
    before, after = text.split("#")
    return {"before": before, "after": after}


def form(directory, name):
    """A form with one file, as a sender's "before" and "after"."""
    return {
        "before": f'--end-of-part\r\nContent-Disposition: form-data; name="{directory}"; '
                  f'filename="{name}"\r\nContent-Type: application/octet-stream\r\n\r\n',
        "after": '\r\n--end-of-part\r\nContent-Disposition: form-data; name="submit"\r\n\r\n'
                 'send\r\n--end-of-part--\r\n'}


def put(sender, number):
    """The same body for nginx, into files of its own."""
    return {**sender, "method": "PUT", "target": f"/{number}/#"}


def into_files(bench, count, repeat, filling, size, bodies, kept):
    """Rounds of our server and nginx, in turn. `bodies` makes the senders of what `collections` has
    returned; `kept` is the place below the data where the server has put what they sent, and how
    much of each body that is."""
    place, share = kept
    senders = []

    def ours():
        with KolvanServer(bench) as server, Crowd(bench, server, count) as crowd:
            senders[:] = bodies(server, collections(server, crowd, count))
            measured = send(bench, server, senders, repeat, filling, size)
            require(size_below(server.data / place) == count * repeat * int(size * share),
                    "not everything is in its file")
            return measured

    def peer():
        with Nginx(bench) as nginx:
            measured = send(bench, nginx, [put(sender, number)
                                           for number, sender in enumerate(senders)],
                            repeat, filling, size)
            require(size_below(nginx.files) >= count * repeat * size,
                    "nginx has not put everything into its file")
            return measured

    return bench.alternate(ours, peer, rounds=bench.pick(3, 1, 1))


def of_output(bench):
    count, repeat, size = 50, bench.pick(40, 10, 1), bench.pick(256, 256, 4) << 10

    def bodies(server, places):
        return [{"method": "POST", "target": MESSAGES,
                 "type": "application/x-www-form-urlencoded",
                 **output(number, server.agentToken, operation, size)}
                for number, (_, operation, _) in enumerate(places)]

    ours, nginx = into_files(bench, count, repeat, "base64", size, bodies, ("output", 3 / 4))
    yield from beside_nginx("output of 50 agents", ours, nginx, 1 / 0.7)


def of_uploads(bench):
    # All of them together are less than the kernel gathers before it lets writers wait for the disk.
    count, size = 100, bench.pick(16 * MIB, 4 * MIB, 64 << 10)

    def bodies(_, places):
        return [{"method": "POST", "target": UPLOADS, "type": FORM,
                 **form(directory + "/data.0", "trace")} for _, _, directory in places]

    ours, nginx = into_files(bench, count, 1, "bytes", size, bodies, ("collections", 1))
    yield from beside_nginx("100 uploads at once", ours, nginx, 1 / 0.8)
    yield Row("100 uploads at once: memory", "B", all_of("memory", ours), reach=100 * MIB,
              proud=60 * MIB)


def of_large_uploads(bench):
    """Uploads that are all under way at once. Whole, they would take 100 GiB of disk; what the
    server keeps in memory for one does not depend on how much of it is still to come."""
    count, until = 100, bench.pick(4 << 30, 256 * MIB, 16 * MIB)
    measured = []
    for _ in range(bench.pick(3, 1, 1)):
        with KolvanServer(bench) as server, Crowd(bench, server, count) as crowd:
            senders = [{"method": "POST", "target": UPLOADS, "type": FORM,
                        **form(directory + "/data.0", "trace")}
                       for _, _, directory in collections(server, crowd, count)]
            measured.append(send(bench, server, senders, 1, "bytes", MIB // 16,
                                 announced=1 << 30, until=until))
            require(measured[-1]["least"] > 0, "not all uploads were under way at once")
    name = f"100 uploads of 1 GiB at once, until {until // MIB:,} MiB have come"
    yield Row(f"{name}: memory", "B", all_of("memory", measured), reach=100 * MIB, proud=60 * MIB)
    yield Row(f"{name}: time", "s", all_of("seconds", measured))


def beside_nginx(name, ours, nginx, reach):
    versus = "nginx, PUT"
    yield compare(f"{name}: wall", "seconds", "s", ours, nginx, versus, reach, 1.0)
    yield compare(f"{name}: processor time", "cpu", "s", ours, nginx, versus)
    yield compare(f"{name}: that of the load", "load", "s", ours, nginx, versus)


def made_profile(bench, samples):
    path = bench.files / f"profile-{samples}.pb.gz"
    if not path.exists():
        unfinished = path.with_suffix(".unfinished")
        bench.run(bench.program("kolvan-bench-profile"), samples, unfinished)
        unfinished.rename(path)
    return path.read_bytes()


def upload(server, directory, name, content):
    parts = form(directory, name)
    connection = http.client.HTTPConnection("127.0.0.1", server.port)
    connection.request("POST", UPLOADS, parts["before"].encode() + content +
                       parts["after"].encode(), {"Content-Type": FORM})
    answer = connection.getresponse()
    answer.read()
    require(answer.status == 200, "the upload was refused")
    connection.close()


def of_profiles(bench):
    samples = bench.pick(1000000, 100000, 1000)
    content = made_profile(bench, samples)
    delays = []
    with KolvanServer(bench) as server, Crowd(bench, server, bench.rounds) as crowd:
        for collection, _, directory in collections(server, crowd, bench.rounds):
            upload(server, directory + "/data.0", "profile.pb.gz", content)
            uploaded = time.monotonic()
            server.ask("GET", f"collections/{collection}/flamegraph.json")
            delays.append(time.monotonic() - uploaded)
    yield Row(f"profile of {samples:,} samples: upload to flame graph", "s", delays, reach=2.0,
              proud=0.5)


@workload
def server(bench):
    """the server: thousands of agents, their output and uploads beside nginx, profiles"""
    yield from of_agents(bench)
    yield from of_small_messages(bench)
    yield from of_output(bench)
    yield from of_uploads(bench)
    yield from of_large_uploads(bench)
    yield from of_profiles(bench)
