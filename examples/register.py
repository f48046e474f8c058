#!/usr/bin/python3
"""Registers the box and follows the registration: register.py RUN_DIRECTORY TOKEN

Exit code 0 when the box is registered. Needs pyzmq, Debian's package python3-zmq."""

import json
import sys

import zmq

CONNECT_SECONDS = 5
REPLY_SECONDS = 120


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    run_directory, token = sys.argv[1:]
    context = zmq.Context()
    context.setsockopt(zmq.LINGER, 0)

    # Subscribe before sending the command: a message that is published earlier is lost.
    published = context.socket(zmq.SUB)
    published.subscribe(b"")
    published.connect(f"ipc://{run_directory}/published")
    if not published.poll(CONNECT_SECONDS * 1000):
        sys.exit(f"no cvcloudd serves {run_directory}")

    commands = context.socket(zmq.DEALER)
    commands.connect(f"ipc://{run_directory}/commands")
    payload = json.dumps({"token": token, "token_type": "partner"})
    commands.send_multipart([b"start_cloud_registration", b"2", payload.encode()])

    poller = zmq.Poller()
    poller.register(published, zmq.POLLIN)
    poller.register(commands, zmq.POLLIN)
    while True:
        ready = dict(poller.poll(REPLY_SECONDS * 1000))
        if not ready:
            sys.exit(f"no reply within {REPLY_SECONDS} s")
        if published in ready:
            name, payload, _ = published.recv_multipart()
            if name == b"cvcloudd_progress":
                print("progress", payload.decode())
        elif commands in ready:
            reply = commands.recv_multipart()[0].decode(errors="replace")
            print("reply", reply)
            # A failure can quote the cloud and then be no JSON: only the beginning counts.
            sys.exit(0 if reply.startswith('{"result": "ok", ') else 1)


if __name__ == "__main__":
    main()
