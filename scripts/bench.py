"""The run behind bench.sh, in a file system and process space of its own: starts the cloud, the
gateways and the echo ends, drives the same work through each way, and writes what it saw to
standard output as JSON: figures[mode][case][way] is a list with one entry per round."""
import argparse
import json
import os
import select
import socket
import subprocess
import sys
import time

SOCKET = "/tmp/cloud_svr"
CLIENTS = (1, 8, 32, 200)
MEMORY_CLIENTS = (1, 32, 200)
LARGE = (4096, 16000)
LIMIT_S = 30
QUIET_S = 2

STUNNEL = """foreground = yes
pid =
output = /tmp/{name}.log
[cloud]
client = yes
accept = 127.0.0.1:{port}
connect = 127.0.0.1:{cloud}
"""
BROKER = """user root
allow_anonymous true
set_tcp_nodelay true
max_queued_messages 0
log_dest file /tmp/{name}.log
listener {port} 127.0.0.1
"""
FAR = "certfile /tmp/cert.pem\nkeyfile /tmp/key.pem\n"
BRIDGE = """connection {name}
remote_clientid {name}
address 127.0.0.1:{far}
bridge_cafile /tmp/cert.pem
bridge_insecure true
bridge_protocol_version mqttv311
notifications false
restart_timeout 1
topic q/# out 0
topic r/# in 0
topic d/# in 0
topic u/# out 0
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def write(name, text):
    path = f"/tmp/{name}"
    with open(path, "w", encoding="ascii") as file:
        file.write(text)
    return path


def line_of(process):
    """The next line that it prints; none buffered, so that the wait sees what there is."""
    ready, _, _ = select.select([process.stdout], [], [], LIMIT_S)
    line = process.stdout.readline() if ready else ""
    if not line:
        raise RuntimeError(f"no line from {' '.join(process.args)}")
    return line


def status_of(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        return dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)


def memory_of(pid):
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        kib = {line.split(":")[0]: int(line.split()[1]) for line in file if line.endswith("kB\n")}
    return {"pss": kib["Pss"], "private": kib["Private_Clean"] + kib["Private_Dirty"]}


def cpu_of(pid):
    return time.clock_gettime((~pid << 3) | 2)  # what clock_getcpuclockid gives


def wake_ups_of(pid):
    tasks = os.listdir(f"/proc/{pid}/task")
    return sum(int(status_of(f"{pid}/task/{task}")["voluntary_ctxt_switches"]) for task in tasks)


class Stack:
    """Everything that runs in one mode. A "way" is direct, stunnel, mosquitto or daemon."""

    def __init__(self, build, seconds):
        self.build, self.seconds = build, seconds
        self.running = []
        self.daemon = None
        self.clouds, self.ports = {}, {}
        for way in ("direct", "stunnel", "daemon"):
            self.clouds[way] = self.start([self.tool, "cloud", "/tmp/cloud.pem"])
            self.ports[way] = int(line_of(self.clouds[way]))
        for name in ("stunnel", "stunnel-first", "near", "near-first", "far"):
            self.ports[name + ".in"] = free_port()
        self.gateways = {"stunnel": self.start(self.stunnel_command("stunnel"))}
        self.far_start()
        self.gateways["mosquitto"] = self.start(self.near_command("near"))
        self.start_answer(f"mqtt:d:u@tcp:{self.ports['near.in']}", patient=True)
        self.peers = {
            "direct": f"cloud@tls:{self.ports['direct']}",
            "stunnel": f"cloud@tcp:{self.ports['stunnel.in']}",
            "mosquitto": f"mqtt:q:r@tcp:{self.ports['near.in']}",
            "daemon": f"daemon@{SOCKET}",
        }
        self.daemon_start()
        for peer in self.peers.values():
            self.call("first", peer, 0)

    @property
    def tool(self):
        return f"{self.build}/cloud_bench"

    # ---- Processes

    def start(self, command, stdout=subprocess.PIPE):
        stderr = None if command[0] == self.tool else subprocess.DEVNULL
        process = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE,
                                   stdout=stdout, stderr=stderr, text=True)
        self.running.append(process)
        return process

    def end(self, process):
        self.running.remove(process)
        process.terminate()
        process.wait(LIMIT_S)

    def end_all(self):
        for process in list(self.running):
            self.end(process)

    def call(self, *words):
        done = subprocess.run([self.tool, *map(str, words)], stdin=subprocess.DEVNULL, text=True,
                              stdout=subprocess.PIPE, timeout=LIMIT_S, check=True)
        return json.loads(done.stdout)

    def stunnel_command(self, name):
        text = STUNNEL.format(name=name, port=self.ports[name + ".in"], cloud=self.ports["stunnel"])
        return ["stunnel4", write(name + ".conf", text)]

    def near_command(self, name):
        text = BROKER.format(name=name, port=self.ports[name + ".in"])
        text += BRIDGE.format(name=name, far=self.ports["far.in"])
        return ["mosquitto", "-c", write(name + ".conf", text)]

    def far_start(self):
        text = BROKER.format(name="far", port=self.ports["far.in"]) + FAR
        self.far = self.start(["mosquitto", "-c", write("far.conf", text)])
        self.start_answer(f"mqtt:q:r@tls:{self.ports['far.in']}", patient=True)

    def start_answer(self, peer, patient=False):
        """Whoever answers; with patience, until the broker that it needs is up."""
        deadline = time.monotonic() + LIMIT_S
        while True:
            process = self.start([self.tool, "answer", peer])
            if process.stdout.readline() == "ready\n":
                return process
            self.end(process)
            if not patient or time.monotonic() > deadline:
                raise RuntimeError(f"nobody answers at {peer}")

    def daemon_config(self, kit):
        config = {"cloud": {"domain": "127.0.0.1", "port": self.ports["daemon"]},
                  "default": {"heartbeat_interval_ms": 240000, "request_timeout_ms": 5000,
                              "max_message_number": 65535, "max_client_number": 256,
                              "cer_file": "/tmp/cloud.pem"}}
        if kit:
            config["module"] = {"cloud_kit": f"{self.build}/examples/libcloud-kit.so"}
        return write("cloud_svr.cfg", json.dumps(config))

    def daemon_command(self, kit=True):
        return [f"{self.build}/cloud_svr", "-c", self.daemon_config(kit)]

    def daemon_start(self, kit=True, log="/tmp/cloud_svr.log"):
        with open(log, "a", encoding="utf-8") as out:
            self.daemon = self.start(self.daemon_command(kit), stdout=out)
        self.gateways["daemon"] = self.daemon
        deadline = time.monotonic() + LIMIT_S
        while not os.path.exists(SOCKET) and time.monotonic() < deadline:
            time.sleep(0.005)
        if kit:
            self.call("first", self.peers["daemon"], 0)

    def daemon_end(self):
        self.end(self.daemon)
        del self.gateways["daemon"]

    # ---- Measurements; each gives a record

    def drive(self, way, clients, size, seconds=None, peer=None):
        """The driver, whose connections stay open until it is ended, and its record."""
        pids = [self.gateways[way].pid] if way in self.gateways else []
        driver = self.start([self.tool, "load", peer or self.peers[way], clients, size,
                             seconds or self.seconds, *pids])
        return driver, json.loads(line_of(driver))

    def load(self, way, clients, size, peer=None):
        driver, record = self.drive(way, clients, size, peer=peer)
        self.end(driver)
        for log in ("cloud_svr", "near", "far", "stunnel"):
            if os.path.exists(f"/tmp/{log}.log"):
                os.truncate(f"/tmp/{log}.log", 0)
        return record

    def memory(self, clients, seconds):
        """What the gateways hold when so many clients have become quiet."""
        driven = {way: self.drive(way, clients, 128, seconds) for way in self.gateways}
        time.sleep(QUIET_S)
        for way, (driver, record) in driven.items():
            pid = self.gateways[way].pid
            record.update(memory_of(pid), threads=int(status_of(pid)["Threads"]))
            self.end(driver)
        return {way: record for way, (_, record) in driven.items()}

    def ask(self, cloud, way, window):
        pids = [self.gateways[way].pid] if way in self.gateways else []
        process = self.clouds[cloud]
        print("ask", int(self.seconds * 1000), window, 128, *pids, file=process.stdin, flush=True)
        return json.loads(line_of(process))

    def answered(self, peer, measure):
        answer = self.start_answer(peer)
        try:
            return measure()
        finally:
            self.end(answer)

    def asks(self, window):
        """Requests from the cloud to the device, by way."""
        reverse = f"mqtt:d:u@tls:{self.ports['far.in']}"
        result = {"mosquitto": self.load("mosquitto", window, 128, peer=reverse),
                  "daemon": self.ask("daemon", "daemon", window)}
        for way in ("direct", "stunnel"):
            result[way] = self.answered(self.peers[way], lambda way=way: self.ask(way, way, window))
        return result

    def first(self, way):
        if way == "direct":
            return self.call("anew", self.peers["direct"])
        if way == "daemon":
            return self.call("first", self.peers[way], 0, "/tmp/cloud_svr.log",
                             *self.daemon_command())
        name = "stunnel-first" if way == "stunnel" else "near-first"
        port = self.ports[name + ".in"]
        command = self.stunnel_command(name) if way == "stunnel" else self.near_command(name)
        command[0] = subprocess.check_output(["which", command[0]], text=True).strip()
        peer = self.peers[way].split("@")[0] + f"@tcp:{port}"
        return self.call("first", peer, 0, f"/tmp/{name}.log", *command)

    def gap(self, way):
        """The longest time without an answer when the cloud drops every connection."""
        seconds = 10 if way == "mosquitto" else 0.5  # a broker tries only now and then
        driver = self.start([self.tool, "on", self.peers[way], seconds])
        time.sleep(0.15)
        if way == "mosquitto":
            self.far.kill()
            self.end(self.far)
            self.far_start()
        else:
            print("close", file=self.clouds[way].stdin, flush=True)
            line_of(self.clouds[way])
        return float(driver.communicate(timeout=LIMIT_S)[0])

    def idle(self, seconds):
        quiet = [self.drive(way, 1, 128, 0.05)[0] for way in self.peers]
        time.sleep(QUIET_S)
        pids = {way: process.pid for way, process in self.gateways.items()}
        before = {way: (cpu_of(pid), wake_ups_of(pid)) for way, pid in pids.items()}
        time.sleep(seconds)
        result = {way: {"cpu_percent": 100 * (cpu_of(pid) - before[way][0]) / seconds,
                        "wake_ups": (wake_ups_of(pid) - before[way][1]) / seconds}
                  for way, pid in pids.items()}
        for driver in quiet:
            self.end(driver)
        return result


class Run:
    """One mode. `thorough`: with what hardly depends on the mode; a quick run does that once."""

    def __init__(self, stack, quick, thorough):
        self.stack, self.quick, self.thorough = stack, quick, thorough
        self.figures = {}

    def add(self, case, way, value):
        self.figures.setdefault(case, {}).setdefault(way, []).append(value)

    def memory(self):
        for clients in MEMORY_CLIENTS:
            for way, record in self.stack.memory(clients, 0.1 if self.quick else 0.5).items():
                self.add(f"memory {clients}", way, record)
        for way, process in self.stack.gateways.items():
            self.add("peak", way, int(status_of(process.pid)["VmHWM"].split()[0]))

    def idle(self):
        for way, record in self.stack.idle(2 if self.quick else 10).items():
            self.add("idle", way, record)

    def loads(self):
        large_counts = (1,) if self.quick else (1, 32)
        for size, counts in ((128, CLIENTS), *((size, large_counts) for size in LARGE)):
            for clients in counts:
                for way in self.stack.peers:
                    self.add(f"{clients} x {size}", way, self.stack.load(way, clients, size))

    def other_logs(self):
        """The daemon with its log thrown away, then with a registered client and no plug-in."""
        self.stack.daemon_end()
        self.stack.daemon_start(log="/dev/null")
        for clients in (1, 32):
            self.add(f"{clients} x 128", "no log", self.stack.load("daemon", clients, 128))
        self.stack.daemon_end()
        self.stack.daemon_start(kit=False)
        agent = self.stack.start_answer(self.stack.peers["daemon"])
        self.stack.call("first", self.stack.peers["daemon"], 0)
        for window in (1, 8):
            self.add(f"ask {window}", "registered", self.stack.ask("daemon", "daemon", window))
        self.stack.end(agent)
        self.stack.daemon_end()

    def round(self, number):
        self.loads()
        for window in (1, 8):
            for way, record in self.stack.asks(window).items():
                self.add(f"ask {window}", way, record)
        if self.thorough and (number == 0 or not self.quick):
            for way in self.stack.peers:
                self.add("reconnect", way, self.stack.gap(way))
        self.other_logs()
        for _ in range(1 if self.quick else 3):
            for way in self.stack.peers:
                self.add("first", way, self.stack.first(way))
        self.stack.daemon_start()

    def all(self, rounds):
        if self.thorough:
            self.memory()
            self.idle()
        for number in range(rounds):
            print(f"   round {number + 1} of {rounds}", file=sys.stderr)
            self.round(number)
        return self.figures


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--quick", action="store_true")
    options = parser.parse_args()
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
                    "/CN=127.0.0.1", "-keyout", "/tmp/key.pem", "-out", "/tmp/cert.pem"],
                   check=True, stderr=subprocess.DEVNULL)
    cores = os.sched_getaffinity(0)
    figures = {}
    for mode, allowed in (("all cores", cores), ("one core", {max(cores)})):
        print(f"== {mode}", file=sys.stderr)
        os.sched_setaffinity(0, allowed)  # everything that is started inherits it
        stack = Stack(options.build, 0.08 if options.quick else 1)
        try:
            figures[mode] = Run(stack, options.quick, not options.quick or not figures).all(3)
        finally:
            stack.end_all()
    json.dump({"cores": len(cores), "quick": options.quick, "figures": figures}, sys.stdout,
              indent=1)


main()
