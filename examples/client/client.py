#!/usr/bin/env python3
"""Asks the cloud one thing and prints its answer, with nothing but the standard library:

    client.py '{"method":"echo","params":{"hello":"cloud"}}'
"""
import json
import socket
import struct
import sys

MAGIC = b"\xa1\xb2"
TIMEOUT_S = 10


def receive(stream):
    header = stream.read(6)
    if len(header) < 6 or header[:2] != MAGIC:
        raise ConnectionError("the daemon closed the connection")
    return json.loads(stream.read(struct.unpack(">I", header[2:])[0]))


def send(stream, message):
    text = json.dumps(message, separators=(",", ":")).encode()
    stream.write(MAGIC + struct.pack(">I", len(text)) + text)
    stream.flush()


def ask(stream, request):
    if receive(stream)["inner_params"]["type"] != 0:
        raise ConnectionError("the daemon has no room for another client")
    params = {"request": request, "timeout_ms": TIMEOUT_S * 1000, "flag": 1}
    send(stream, {"inner_method": "device_request", "inner_id": 1, "inner_params": params})
    message_id, answers = None, {}
    # The cloud's answer may come before the daemon's, which tells the answer's id.
    while message_id not in answers:
        message = receive(stream)
        if message.get("inner_error_code", 0) != 0:
            raise RuntimeError(f"the daemon says {message['inner_error_code']}")
        result = message.get("inner_result", {})
        if message.get("inner_id") == 1:
            message_id = result["id"]
        elif "response" in result:
            answers[result["id"]] = result["response"]
    return answers[message_id]


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: client.py JSON")
    with socket.socket(socket.AF_UNIX) as connection:
        connection.settimeout(TIMEOUT_S + 1)
        connection.connect("/tmp/cloud_svr")
        with connection.makefile("rwb") as stream:
            print(ask(stream, sys.argv[1]))


if __name__ == "__main__":
    try:
        main()
    except (OSError, RuntimeError) as error:
        sys.exit(f"client.py: {error}")
