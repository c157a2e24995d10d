"""What a workload is made of: the server, the agent as it is installed, and measured programs."""
import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import time

SETTLING = 0.5  # seconds in which what has just been asked for comes to its end


def memory_of(process, kind="VmRSS"):
    """Resident memory in bytes; "VmHWM" is the highest so far."""
    for line in pathlib.Path(f"/proc/{process}/status").read_text().splitlines():
        if line.startswith(kind + ":"):
            return int(line.split()[1]) * 1024
    raise RuntimeError(f"no {kind}")


def cpu_of(process):
    """Processor time of the threads that live now, in seconds."""
    return sum(int((task / "schedstat").read_text().split()[0])
               for task in pathlib.Path(f"/proc/{process}/task").iterdir()) / 1e9


def size_below(directory):
    return sum(entry.stat().st_size for entry in directory.rglob("*") if entry.is_file())


class Program:
    """A program that runs and is measured; see measure.c."""

    def __init__(self, bench, arguments, environment=None):
        self.arguments = [str(argument) for argument in arguments]
        results, end = os.pipe()
        self.results = os.fdopen(results)
        self.errors = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen(
            [bench.program("kolvan-bench-measure"), str(end), *self.arguments],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=self.errors,
            pass_fds=[end], env={**os.environ, **(environment or {})})
        os.close(end)
        started = json.loads(self.results.readline())
        self.pid, self.begin = started["pid"], started["begin"]

    def finish(self):
        """Waits for the end. Returns what it took, and refuses a failure: it measures nothing."""
        with self.results:
            measured = json.loads(self.results.readline())
        self.process.wait()
        with self.errors:
            self.errors.seek(0)
            if measured["status"] != 0:
                raise RuntimeError(f"{' '.join(self.arguments)}: exit status "
                                   f"{measured['status']}: {self.errors.read()}")
        return {**measured, "begin": self.begin}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()  # and the program with it
            self.process.wait()

    def memory(self, kind="VmRSS"):
        return memory_of(self.pid, kind)

    def resources(self):
        """Memory, mappings, descriptors and threads, once the last operation's thread has gone."""
        time.sleep(SETTLING)
        return {"memory": self.memory(),
                "mappings": len(self._proc("maps").read_text().splitlines()),
                "descriptors": len(os.listdir(self._proc("fd"))),
                "threads": len(os.listdir(self._proc("task")))}

    def activity(self):
        """Context switches and processor time in seconds, of the threads that live now."""
        switches = 0
        for task in self._proc("task").iterdir():
            status = (task / "status").read_text().splitlines()
            switches += sum(int(line.split()[1]) for line in status if "ctxt_switches" in line)
        return {"switches": switches, "cpu": cpu_of(self.pid)}

    def _proc(self, name):
        return pathlib.Path("/proc") / str(self.pid) / name


class Server:
    """The benchmarks' server; its commands are listed in server/Script.h."""

    def __init__(self, bench, wrapper=()):
        self.process = subprocess.Popen(
            [*wrapper, bench.program("kolvan-bench-server"), bench.packages, bench.certificate],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.port, self.tlsPort = self.process.stdout.readline().split()
        self.endpoint = f"http://127.0.0.1:{self.port}"
        self.tlsEndpoint = f"https://127.0.0.1:{self.tlsPort}"

    def tell(self, *commands):
        self.process.stdin.write("".join(command + "\n" for command in commands))
        self.process.stdin.flush()

    def wait(self):
        """Until every turn is over and every operation has ended."""
        self.tell("wait")
        if self.process.stdout.readline() != "quiet\n":
            raise RuntimeError("the server has ended")

    def cpu(self):
        """Processor time so far, in seconds."""
        return cpu_of(self.process.pid)

    def report(self):
        """What was noted down. Refuses a run that has not asked for everything that it was to do."""
        self.tell("report")
        noted = json.loads(self.process.stdout.readline())
        if noted["turnsLeft"] > 0:
            raise RuntimeError(f"{noted['turnsLeft']} turns of the script were never asked for")
        return noted

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait()
        self.process.stdout.close()


class Bench:
    """Where everything lies, and how much is measured."""

    SIZES = ("full", "quick", "smoke")

    def __init__(self, build, size):
        self.build = pathlib.Path(build)
        self.size = size
        self.rounds = self.pick(5, 3, 1)
        # Not "data": a collection uploads every file whose path contains that, its options too.
        self.files = self.build / "files"
        self.packages = self.files / "packages"
        self.packages.mkdir(parents=True, exist_ok=True)
        self.certificate = self.files / "server.pem"
        if not self.certificate.exists():
            subprocess.run(
                ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                 "-nodes", "-days", "3650", "-subj", "/CN=bench", "-keyout", self.certificate,
                 "-out", self.certificate], check=True, capture_output=True)

    def pick(self, *choices):
        """One of three: for the full, the quick and the smoke size."""
        return choices[self.SIZES.index(self.size)]

    def program(self, name):
        return self.build / "bench" / name

    @staticmethod
    def places():
        """Two wrappers: for the programs that are measured, and for the servers that they ask. Each
        has a processor of its own where there are two. Left to itself the system puts an asking
        program now beside its server and now apart from it, which changes what a small request takes
        by a fifth, for seconds at a time."""
        processors = sorted(os.sched_getaffinity(0))
        return [["taskset", "--cpu-list", str(processors[place])] for place in (0, -1)]

    @property
    def collector(self):
        return self.program("kolvan-bench-collector")

    def alternate(self, *runs, rounds=None):
        """Runs A B A B ... and returns the measurements of each."""
        measured = [[] for _ in runs]
        for _ in range(rounds or self.rounds):
            for run, list_ in zip(runs, measured):
                list_.append(run())
        return measured

    def run(self, *arguments):
        with Program(self, arguments) as program:
            return program.finish()

    def shell(self, script, *arguments):
        """A measured shell; the arguments are $1, $2, ..."""
        return self.run("sh", "-c", script, "sh", *arguments)

    def directory(self):
        """An empty directory on the same file system as the data, with nothing left to write."""
        path = pathlib.Path(tempfile.mkdtemp(prefix="scene-", dir=self.files))
        os.sync()
        return path

    def clean(self):
        """Removes the directories. Not earlier: ext4 is slow to make files for some seconds after
        many were deleted."""
        for path in self.files.glob("scene-*"):
            shutil.rmtree(path)

    def agent(self, server, tls=False, packages=None, wrapper=()):
        """The agent, running. It has its collector already, unless it is to install packages.
        Whoever uses it lets the server stop it, and finishes it."""
        home = self.directory()
        (home / "kolvan-agent").symlink_to(self.build / "kolvan-agent")
        x86, x64 = packages or ("none", "none")
        (home / "kolvan-agent.config.json").write_text(json.dumps({
            "accessToken": "0123456789abcdef",
            "serverEndpoint": server.tlsEndpoint if tls else server.endpoint,
            "serverCertificateName": "server.pem" if tls else "",
            "buildVersion": "" if packages else "1",
            "x86TargetPackageArchiveName": x86, "x64TargetPackageArchiveName": x64}))
        shutil.copy(self.certificate, home / "server.pem")
        if not packages:
            inner = home / "target" / "bench" / "x64"
            inner.mkdir(parents=True)
            shutil.copy(self.collector, inner / "kolvan-trcap")
        temporary = home / "tmp"
        temporary.mkdir()
        return Program(self, [*wrapper, home / "kolvan-agent"], {"TMPDIR": str(temporary)})

    def agent_run(self, *commands, **options):
        """One life of the agent: what the server says, then "stop". Returns what it took, and with
        it what the server has noted down."""
        with Server(self) as server:
            server.tell(*commands, "stop")
            with self.agent(server, **options) as agent:
                return {**agent.finish(), **server.report()}

    def peer_run(self, name, *arguments, commands=(), tls=False):
        """The same for a program of peers/, which takes the endpoint first."""
        with Server(self) as server:
            server.tell(*commands)
            endpoint = server.tlsEndpoint if tls else server.endpoint
            return {**self.run(self.program(name), endpoint, *arguments), **server.report()}
