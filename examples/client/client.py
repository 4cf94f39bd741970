#!/usr/bin/env python3
"""Asks the cloud one thing and prints its answer, with nothing but the standard library:

    client.py '{"method":"echo","params":{"hello":"cloud"}}'
"""
import json
import os
import socket
import struct
import sys

PATH = "/tmp/cloud_svr"
MAGIC = b"\xa1\xb2"
TIMEOUT_S = 10


def receive(stream):
    header = stream.read(6)
    if len(header) < 6 or header[:2] != MAGIC:
        raise RuntimeError("the daemon closed the connection")
    text = stream.read(struct.unpack(">I", header[2:])[0])
    if not text.endswith(b"}"):
        raise RuntimeError("the daemon closed the connection within a message")
    return json.loads(text)


def send(stream, message):
    text = json.dumps(message, separators=(",", ":")).encode()
    stream.write(MAGIC + struct.pack(">I", len(text)) + text)
    stream.flush()


def ask(stream, request):
    if receive(stream)["inner_params"]["type"] != 0:
        raise RuntimeError("the daemon has no room for another client")
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
            if message_id == 0:
                raise RuntimeError("the connection to the cloud broke: ask again")
        elif "response" in result:
            answers[result["id"]] = result["response"]
    return answers[message_id]


def connect(connection):
    connection.settimeout(TIMEOUT_S + 1)
    try:
        connection.connect(PATH)
    except OSError as error:
        raise RuntimeError(f"{PATH}: {error.strerror}") from error


def main():
    if len(sys.argv) != 2:
        print("usage: client.py JSON", file=sys.stderr)
        return 2
    try:
        with socket.socket(socket.AF_UNIX) as connection:
            connect(connection)
            with connection.makefile("rwb") as stream:
                # print would learn only at the very end that nobody reads it.
                os.write(1, f"{ask(stream, sys.argv[1])}\n".encode())
    except (OSError, RuntimeError) as error:
        print(f"client.py: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
