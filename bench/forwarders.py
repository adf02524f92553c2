"""What can stand between a client and a service on a device, and how each is started and stopped.

Each forwarder has `port`, where the client connects, and `device`, the process on the device's side.
"""

import http.client
import http.server
import json
import os
import re
import resource
import signal
import socket
import struct
import subprocess
import threading
import time

# Megabits per second from the device, milliseconds each way, megabits per second to the device.
SLOW_LINE = ("20", "15", "10000")
NARROW_LINE = ("1000", "0", "29")  # brings the device a packet every 0.4 ms

# The device's side has a processor of its own, the last one, as a device has; its cloud and the clients share
# the others. Left to the kernel, who wakes whom on which processor decided more than any forwarder did.
PROCESSORS = sorted(os.sched_getaffinity(0))
DEVICE_PROCESSOR, CLOUD_PROCESSORS = PROCESSORS[-1], PROCESSORS[:-1] or PROCESSORS


def on_device(*command):
    return ("taskset", "--cpu-list", str(DEVICE_PROCESSOR), *command)


class Process:
    """A program of ours with its output in a file; `with` ends it."""

    def __init__(self, name, command, folder, **options):
        self.name, self.log = name, os.path.join(folder, name + ".log")
        with open(self.log, "w", encoding="utf-8") as log:
            self.process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=log, stderr=log, **options)
        self.pid = self.process.pid

    def wait_for(self, pattern, seconds=20):
        """The first match of `pattern` in its output."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            with open(self.log, encoding="utf-8", errors="replace") as log:
                found = re.search(pattern, log.read(), re.MULTILINE)
            if found:
                return found
            if self.process.poll() is not None:
                break
            time.sleep(0.02)
        raise RuntimeError(f"{self.name} did not say {pattern!r}, see {self.log}")

    def signal(self, number):
        self.process.send_signal(number)

    def stop(self):
        self.process.send_signal(signal.SIGCONT)  # one that stands still would not end
        self.process.terminate()
        try:
            self.process.wait(5)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


class Forwarder:
    """Starts its processes into `processes`; stopping ends them, the last first."""

    has_uplink = True  # the device's side and the cloud's are two processes with a connection between them

    def __init__(self, tools, folder, service_port, line=None, counts_mallocs=False, frame_bytes=None):
        self.tools, self.folder, self.service_port = tools, folder, service_port
        self.line, self.counts_mallocs, self.frame_bytes = line, counts_mallocs, frame_bytes
        self.processes, self.device, self.proxy = [], None, None

    def __enter__(self):
        try:
            self.start()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for process in reversed(self.processes):
            process.stop()
        if self.proxy:
            self.proxy.shutdown()

    def run(self, name, *command, **options):
        process = Process(name, command, self.folder, **options)
        self.processes.append(process)
        return process

    def via_line(self, port):
        """The port that the device connects to in order to reach `port`."""
        if not self.line:
            return port
        link = self.run("link", self.tools + "/bench-link", str(port), *self.line)
        return int(link.wait_for(r"port (\d+)")[1])

    def device_environment(self):
        environment = dict(os.environ, no_proxy="127.0.0.1")
        if self.counts_mallocs:
            environment["LD_PRELOAD"] = os.path.abspath(self.tools + "/libbench-mallocs.so")
            environment["BENCH_MALLOCS"] = self.folder + "/mallocs"
        return environment


class Direct(Forwarder):
    name, has_uplink = "direct", False

    def start(self):
        self.port = self.service_port


class Relay(Forwarder):
    name, has_uplink = "haproxy", False

    def start(self):
        self.port = free_port()
        config = self.folder + "/haproxy.cfg"
        write(config, f"""
global
    maxconn 4000
    nbthread 1
defaults
    mode tcp
    timeout connect 5s
    timeout client 300s
    timeout server 300s
listen bench
    bind 127.0.0.1:{self.port}
    server service 127.0.0.1:{self.service_port}
""")
        self.device = self.run(self.name, *on_device("haproxy", "-db", "-f", config))
        wait_for_port(self.port)


class Ssh(Forwarder):
    name = "ssh"

    def start(self):
        host_key, user_key = self.make_key("host"), self.make_key("user")
        port, config = free_port(), self.folder + "/sshd.conf"
        write(config, f"""
ListenAddress 127.0.0.1:{port}
HostKey {host_key}
AuthorizedKeysFile {user_key}.pub
PermitRootLogin prohibit-password
StrictModes no
UsePAM no
PidFile none
""")
        if os.geteuid() == 0:
            os.makedirs("/run/sshd", exist_ok=True)  # sshd's own demand
        self.run("sshd", "/usr/sbin/sshd", "-D", "-e", "-f", config)
        wait_for_port(port)
        self.device = self.run(self.name, *on_device(
            "ssh", "-F", "none", "-N", "-T", "-p", str(self.via_line(port)), "-i", user_key,
            "-o", "BatchMode=yes", "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null",
            "-o", "IdentityAgent=none", "-o", "ExitOnForwardFailure=yes", "-c", "aes128-gcm@openssh.com",
            "-R", f"127.0.0.1:0:127.0.0.1:{self.service_port}", "127.0.0.1"))
        self.port = int(self.device.wait_for(r"Allocated port (\d+)")[1])

    def make_key(self, name):
        path = f"{self.folder}/{name}-key"
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", path], check=True, timeout=20)
        return path


class WithLab(Forwarder):
    """What speaks the tunnel's frames, with tunnel-lab as its cloud."""

    def start(self):
        self.config, self.environment = self.folder + "/agent.json", self.folder + "/agent.env"
        frames = ["--frame-bytes", str(self.frame_bytes)] if self.frame_bytes else []
        self.lab = lab = self.run(
            "lab", self.tools + "/../lab/tunnel-lab", "--write-config", self.config, "--write-env",
            self.environment, "--route", f"bench={self.service_port}", *frames)
        self.sso, self.api, self.tunnel = (
            int(lab.wait_for(rf"^{name} .*:(\d+)$")[1]) for name in ("sso", "api", "tunnel"))
        lab.wait_for("^ready$")
        self.start_device()
        self.port = int(lab.wait_for(r"^route \S+ bench 127.0.0.1:(\d+)")[1])
        lab.wait_for("^device .* connected$")


class Agent(WithLab):
    name, build = "agent", None


    def start_device(self):
        environment = self.device_environment()
        with open(self.environment, encoding="utf-8") as file:
            environment.update(re.findall(r"^(\w+)='(.*)'$", file.read(), re.MULTILINE))
        if self.line:  # an HTTP proxy tells the agent that the tunnel server is where the line begins
            self.proxy = Proxy(self.api, {f":{self.tunnel}\"": f":{self.via_line(self.tunnel)}\""})
            environment.update(http_proxy=f"http://127.0.0.1:{self.proxy.server_port}", no_proxy="")
        agent = on_device((self.build or self.tools + "/..") + "/core/tunnel-client", self.config)
        self.device = self.run(self.name, *agent, env=environment)


class Before(Agent):
    """Another build of the agent, an earlier one; all that surrounds it is today's."""

    name = "before"  # and `build` its folder, when there is one to measure


class Floor(WithLab):
    name = "floor"

    def start_device(self):
        user, password = self.register()
        port = str(self.via_line(self.tunnel))
        floor = on_device(self.tools + "/bench-floor", port, user, password, "floor")
        self.device = self.run(self.name, *floor, env=self.device_environment())

    def register(self):
        """What an agent does before it connects, here on the floor's behalf."""
        with socket.create_connection(("127.0.0.1", self.sso)) as sso:
            request = json.dumps({"request": "token", "scope": "file-receiver hardware-read"}).encode()
            sso.sendall(struct.pack(">I", len(request)) + request)
            token = json.loads(sso.makefile("rb").read()[4:])["token"]
        client = {"deviceId": "floor", "deviceType": "recorder", "name": "floor", "tenantId": "lab-tenant",
                  "clientMode": "tunnel-client"}
        route = {"deviceId": "floor", "clientMode": "tunnel-client", "port": 0, "remoteHost": "127.0.0.1",
                 "remotePort": self.service_port, "serviceName": "bench"}
        reply = post(self.api, "/clients/add", token, {"client": client})
        post(self.api, "/routes/add", token, {"route": route})
        credentials = reply["data"]["tunnelServerCredentials"]
        return credentials["username"], credentials["password"]


FORWARDERS = {kind.name: kind for kind in (Direct, Floor, Relay, Ssh, Agent)}


class Proxy(http.server.ThreadingHTTPServer):
    """Passes HTTP requests on to a local port and replaces texts in the replies."""

    def __init__(self, port, replacements):
        class Handler(http.server.BaseHTTPRequestHandler):
            def forward(self):
                body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
                upstream = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
                upstream.request(self.command, self.path.split(f":{port}", 1)[-1], body,
                                 {name: self.headers[name] for name in ("Authorization", "Content-Type")})
                reply = upstream.getresponse()
                text = reply.read().decode()
                for old, new in replacements.items():
                    text = text.replace(old, new)
                self.send_response(reply.status)
                self.send_header("Content-Length", str(len(text)))
                self.end_headers()
                self.wfile.write(text.encode())

            do_POST = do_DELETE = forward

            def log_message(self, *_):
                pass

        super().__init__(("127.0.0.1", 0), Handler)
        threading.Thread(target=self.serve_forever, daemon=True).start()


def post(port, path, token, body):
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
    connection.request("POST", path, json.dumps(body),
                       {"Authorization": "Bearer " + token, "Content-Type": "application/json"})
    reply = connection.getresponse()
    text = reply.read()
    if reply.status != 200:
        raise RuntimeError(f"{path}: {reply.status} {text}")
    return json.loads(text)


def free_port():
    """For programs that cannot choose one themselves and tell."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]


def wait_for_port(port, seconds=10):
    end = time.monotonic() + seconds
    while True:
        try:
            return socket.create_connection(("127.0.0.1", port)).close()
        except OSError:
            if time.monotonic() > end:
                raise
            time.sleep(0.05)


def write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def raise_descriptor_limit():
    """Sessions linger in the agent for seconds after their end, each with a socket."""
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
