"""The companions' server under load: the server itself, its agents, its senders and its peer."""
import http.client
import json
import os
import pathlib
import pwd
import socket
import ssl
import subprocess
import time

from scene import cpu_of, memory_of

SERVER = "companions/server/kolvan-server"  # below the build
POLL_IS_HELD = 25  # seconds
PATIENCE = 30      # seconds in which whatever was started must serve
LOOK = 0.01        # seconds between two looks


class KolvanServer:
    """The server with an empty data directory, and what its API is asked for."""

    def __init__(self, bench, tls=False):
        self.program = bench.build / SERVER
        self.data = bench.directory() / "data"
        self.tls = tls
        self.agentToken = self._make("agent-token", "add", "crowd", "--shared")
        self.token = self._make("token", "add", "bench", "--role", "engineer")
        identity = ["--certificate", bench.certificate, "--key", bench.certificate] if tls else []
        self.log = open(self.data.parent / "log", "w+")
        self.process = subprocess.Popen(
            [self.program, "--data", self.data, "--listen", "127.0.0.1:0", *identity],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=self.log, text=True)
        greeting = self.process.stdout.readline()
        if not greeting.startswith("Serving on"):
            raise RuntimeError(f"the server does not serve: {self.said()}")
        self.port = int(greeting.rsplit(":", 1)[1])
        self.connection = None

    def _make(self, *command):
        made = subprocess.run([self.program, "--data", self.data, *command], check=True,
                              capture_output=True, text=True)
        return made.stdout.splitlines()[0]

    @property
    def manner(self):
        return "tls" if self.tls else "plain"

    def said(self):
        self.log.seek(0)
        return self.log.read()

    def cpu(self):
        return cpu_of(self.process.pid)

    def memory(self, kind="VmRSS"):
        return memory_of(self.process.pid, kind)

    def ask(self, method, path, body=None):
        """The body of the answer, over a connection that stays."""
        if self.connection is None:
            anybody = ssl._create_unverified_context()
            self.connection = (http.client.HTTPSConnection("127.0.0.1", self.port, context=anybody)
                               if self.tls else http.client.HTTPConnection("127.0.0.1", self.port))
        self.connection.request(
            method, "/api/v1/" + path, None if body is None else json.dumps(body),
            {"Authorization": f"Bearer {self.token}", "Content-Type": "application/json"})
        answer = self.connection.getresponse()
        text = answer.read()
        if answer.status // 100 != 2:
            raise RuntimeError(f"{method} {path}: {answer.status}: {text[:1000]}")
        return text

    def agents(self):
        """The ids of all agents, by their names."""
        found, cursor = {}, ""
        while cursor is not None:
            page = json.loads(self.ask("GET", f"agents?limit=100{cursor}"))
            found.update((agent["name"], agent["id"]) for agent in page["items"])
            cursor = page["next"] and f"&cursor={page['next']}"
        return found

    def collect(self, agent):
        """Starts a collection, of which nobody will know what it is. Returns its id."""
        return json.loads(self.ask("POST", "collections",
                                   {"agent": agent, "target": {"command": ["true"]}}))["id"]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.connection is not None:
            self.connection.close()
        self.process.terminate()
        try:
            self.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()
        self.log.close()


class Crowd:
    """Agents whose polls are held; see server-load/crowd.cpp."""

    def __init__(self, bench, served, count, seconds=0):
        self.process = subprocess.Popen(
            [bench.program("kolvan-bench-crowd"), str(served.port), served.manner,
             served.agentToken, str(count), str(seconds)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self._line("connected")

    def _line(self, expected):
        line = self.process.stdout.readline().split()
        if line[:1] != [expected]:
            raise RuntimeError(f"not {expected}: {' '.join(line)}")
        return line[1:]

    def polls(self):
        """How many have been answered so far."""
        self.process.stdin.write("?\n")
        self.process.stdin.flush()
        return int(self._line("polls")[0])

    def command(self):
        """Waits for the next command: when, to whom, the operation's id, where its files belong."""
        name, moment, _, *operation = self._line("command")
        return name, float(moment), *operation

    def cpu(self):
        return cpu_of(self.process.pid)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait()
        self.process.stdout.close()


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


NGINX = """
user {user};
daemon off;
pid {directory}/pid;
error_log {directory}/error.log;
worker_processes auto;
events {{ worker_connections 4096; }}
http {{
    access_log off;
    client_max_body_size 0;
    client_body_buffer_size 128k;
    client_body_temp_path {directory}/temporary;
    server {{
        listen 127.0.0.1:{port} backlog=4096;
        location / {{
            root {directory}/files;
            dav_methods PUT;
            create_full_put_path on;
        }}
    }}
}}
"""


class Nginx:
    """nginx, which puts the bodies of requests into files as they are."""

    manner = "plain"

    def __init__(self, bench):
        self.directory = bench.directory()
        self.files = self.directory / "files"
        self.files.mkdir()
        self.port = free_port()
        configuration = self.directory / "nginx.conf"
        configuration.write_text(NGINX.format(
            user=pwd.getpwuid(os.getuid()).pw_name, directory=self.directory, port=self.port))
        path = f"{os.environ['PATH']}:/usr/sbin"
        self.process = subprocess.Popen(
            ["nginx", "-p", self.directory, "-e", self.directory / "error.log",
             "-c", configuration], env={**os.environ, "PATH": path}, stdin=subprocess.DEVNULL)
        self._wait()

    def _wait(self):
        deadline = time.monotonic() + PATIENCE
        while time.monotonic() < deadline and self.process.poll() is None:
            with socket.socket() as probe:
                if probe.connect_ex(("127.0.0.1", self.port)) == 0:
                    return
            time.sleep(LOOK)
        self.__exit__()
        raise RuntimeError((self.directory / "error.log").read_text())

    def _processes(self):
        tasks = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children")
        return [self.process.pid, *map(int, tasks.read_text().split())]

    def cpu(self):
        return sum(map(cpu_of, self._processes()))

    def memory(self, kind="VmRSS"):
        return sum(memory_of(process, kind) for process in self._processes())

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()
