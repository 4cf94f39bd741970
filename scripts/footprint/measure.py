"""Drives one daemon through its life and prints what it holds at each stage.

    measure.py FOLDER [--pages] COMMAND...

FOLDER has cloud_sim, the libraries that are preloaded, the daemon's symbols as nm -S -C lists them,
and takes the logs. --pages: also with the daemon by itself, what the kernel says; an emulator's
memory would hide it. {preload} in COMMAND becomes the assignments NAME=VALUE that the daemon is to
have in its environment.
"""

import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import time

CLIENTS = 20
REQUESTS = 10000
RECONNECTS = 200
LIMIT_S = 120
# One level more, and cJSON takes the message for malformed: the members around it are levels, too.
NESTED = 997


def wait_until(condition, what):
    end = time.monotonic() + LIMIT_S
    while not condition():
        if time.monotonic() > end:
            sys.exit(f"waited too long for {what}")
        time.sleep(0.02)


class Client:
    """One connection to the daemon; answers what the cloud asks meanwhile."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(LIMIT_S)
        self.socket.connect("/tmp/cloud_svr")
        self.stream = self.socket.makefile("rb")
        self.read()

    def read(self):
        size = struct.unpack(">2xI", self.stream.read(6))[0]
        return json.loads(self.stream.read(size))

    def write(self, message):
        text = json.dumps(message, separators=(",", ":")).encode()
        self.socket.sendall(b"\xa1\xb2" + struct.pack(">I", len(text)) + text)

    def call(self, method, params):
        self.write({"inner_method": method, "inner_id": 1, "inner_params": params})
        self.collect(1)

    def collect(self, replies):
        while replies:
            message = self.read()
            if message.get("inner_method") == "cloud_request":
                self.answer(message)
            else:
                replies -= 1

    def answer(self, message):
        result = {"response": '{"error_code":0}'}
        self.write({"inner_id": message["inner_id"], "inner_error_code": 0,
                    "inner_result": result})

    def ask(self, params):
        """Sends a request. Two replies follow: the daemon's, with an id, and the cloud's."""
        text = '{"method":"echo","params":%s}' % params
        self.write({"inner_method": "device_request", "inner_id": 1,
                    "inner_params": {"request": text, "timeout_ms": -1, "flag": 0}})

    def request(self, params):
        self.ask(params)
        self.collect(2)


class Cloud:
    def __init__(self, folder):
        self.log = os.path.join(folder, "cloud.log")
        with open(self.log, "w") as out:
            self.process = subprocess.Popen([f"{folder}/cloud_sim", "--port", "0"], stdout=out,
                                            stdin=subprocess.PIPE)
        wait_until(lambda: self.read().endswith("\n"), "cloud_sim")
        self.port = int(re.search(r":(\d+)\n", self.read())[1])

    def read(self):
        with open(self.log) as log:
            return log.read()

    def handshakes(self):
        return self.read().count("handshake done")


class Daemon:
    def __init__(self, folder, command, preload):
        self.log = os.path.join(folder, "memdebug.log")
        with open(os.path.join(folder, "symbols")) as symbols:
            self.for_tls = [(int(start, 16), int(start, 16) + int(size, 16)) for start, size in
                            re.findall(r"^(\w+) (\w+) .*memory_(?:get|resize)\(", symbols.read(), re.M)]
        words = []
        for word in command:
            words += preload if word == "{preload}" else [word]
        with open(os.path.join(folder, "daemon.log"), "w") as out:
            self.process = subprocess.Popen(words, stdout=out)
        wait_until(lambda: os.path.exists("/tmp/cloud_svr"), "the daemon")

    def blocks(self):
        """What is held, by call site, as libcloud_svr_memdebug tells on SIGUSR2."""
        done = self.reports()
        self.process.send_signal(signal.SIGUSR2)
        wait_until(lambda: self.reports() > done, "the statistics")
        held = {}
        with open(self.log) as log:
            lines = log.read().rsplit("statistics on SIGUSR2", 1)[1]
        for size, name in re.findall(r": +(\d+) bytes in .* in all  (.*)", lines):
            if name == "all" or "+0x" in name:
                owner = self.owner(name)
                held[owner] = held.get(owner, 0) + int(size)
        return held

    def owner(self, site):
        """Who holds what a call site asked for. OpenSSL asks through functions of the daemon."""
        name, _, offset = site.partition("+")
        if name == "cloud_svr":
            at = int(offset, 16)
            return "tls" if any(start <= at <= end for start, end in self.for_tls) else "own"
        return {"libcjson": "own", "libssl": "tls", "libcrypto": "tls"}.get(name.split(".")[0], name)

    def reports(self):
        if not os.path.exists(self.log):
            return 0
        with open(self.log) as log:
            return len(re.findall(r"SIGUSR2(?s:.*?) faults", log.read()))

    def memory(self):
        """Proportional and private KiB, and threads."""
        with open(f"/proc/{self.process.pid}/smaps_rollup") as smaps:
            sizes = dict(re.findall(r"^(\w+): +(\d+) kB", smaps.read(), re.M))
        return (int(sizes["Pss"]), int(sizes["Private_Dirty"]),
                len(os.listdir(f"/proc/{self.process.pid}/task")))

    def stop(self):
        self.process.terminate()
        self.process.wait(LIMIT_S)


def show(stage, daemon, with_blocks):
    time.sleep(1.5)  # what a stage began ends; the daemon's loops turn within a second
    if with_blocks:
        held = daemon.blocks()
        own, tls = held.get("own", 0), held.get("tls", 0)
        print(f"{stage:30} {held['all']:9} {own:9} {tls:9} {held['all'] - own - tls:9}", flush=True)
    else:
        print(f"{stage:30} {'%9d KiB %9d KiB %4d' % daemon.memory()}", flush=True)


def configure(folder, port):
    path = os.path.join(folder, "footprint.cfg")
    with open(path, "w") as out:
        json.dump({"cloud": {"domain": "127.0.0.1", "port": port},
                   "default": {"heartbeat_interval_ms": 240000, "request_timeout_ms": 20000,
                               "max_message_number": 65535, "max_client_number": 32,
                               "cer_file": "/etc/cloud_svr/cloud.pem"}}, out)


def ask_all(clients, rounds):
    for n in range(rounds):
        for client in clients:
            client.ask('{"n":%d}' % n)
        for client in clients:
            client.collect(2)


def live(cloud, daemon, with_blocks):
    """The whole life. Statistics by blocks and by pages exclude each other: see footprint.sh."""
    show("started", daemon, with_blocks)
    agent = Client()
    agent.call("register_callback", {"hello_cloud": 0})
    show("connected, one client", daemon, with_blocks)
    clients = [agent] + [Client() for _ in range(CLIENTS - 1)]
    ask_all(clients, 1)
    show(f"{CLIENTS} clients", daemon, with_blocks)
    ask_all(clients, REQUESTS // CLIENTS)
    show(f"after {REQUESTS} requests", daemon, with_blocks)
    for client in clients[1:]:
        client.stream.close()
        client.socket.close()
    show("the clients gone but one", daemon, with_blocks)
    for _ in range(RECONNECTS):
        done = cloud.handshakes()
        agent.write({"inner_method": "reconnect_cloud", "inner_id": 2})
        while cloud.handshakes() == done:
            message = agent.read()
            if message.get("inner_method") == "cloud_request":
                agent.answer(message)
                if "notifyEvent" in json.dumps(message):
                    wait_until(lambda: cloud.handshakes() > done, "a handshake")
    show(f"after {RECONNECTS} reconnects", daemon, with_blocks)


def stacks(daemon, folder):
    agent = Client()
    agent.call("register_callback", {"hello_cloud": 0})
    log = os.path.join(folder, "stack.log")

    def deepest():
        time.sleep(0.5)  # threads count when they have ended
        with open(log) as lines:
            used, size = lines.read().split("\n")[-2].split()
        return f"{int(used):7} of {size} bytes"

    agent.request("{}")
    print("stack of a thread, plain requests  ", deepest())
    agent.request("[" * NESTED + "]" * NESTED)
    print("  and a message of cJSON's depth   ", deepest())
    daemon.stop()
    print("  and at the end, every thread     ", deepest(), flush=True)


def run(folder, command, preload, scene):
    daemon = Daemon(folder, command, preload)
    try:
        scene(daemon)
    finally:
        daemon.stop()


def main():
    folder, command = sys.argv[1], sys.argv[2:]
    pages = command[0] == "--pages"
    command = command[1:] if pages else command
    cloud = Cloud(folder)
    configure(folder, cloud.port)
    try:
        memdebug = [f"LD_PRELOAD={folder}/libcloud_svr_memdebug.so",
                    f"CLOUD_SVR_MEMDEBUG_LOG={folder}/memdebug.log"]
        print(f"{'bytes held':30} {'all':>9} {'own':>9} {'OpenSSL':>9} {'C library':>9}")
        run(folder, command, memdebug, lambda daemon: live(cloud, daemon, True))
        if pages:
            print(f"{'pages, threads':30} {'PSS':>13} {'private':>13}")
            run(folder, command, [], lambda daemon: live(cloud, daemon, False))
        probe = [f"LD_PRELOAD={folder}/stack_probe.so", f"STACK_PROBE_LOG={folder}/stack.log"]
        run(folder, command, probe, lambda daemon: stacks(daemon, folder))
    finally:
        cloud.process.terminate()
        cloud.process.wait(LIMIT_S)


main()
