"""Registers the box once: starts a desk, runs cvex start, shows the steps and stops everything again."""

import contextlib
import shlex
import sqlite3

import desk


def register(make_desk, say, token, token_type, mac, record_directory, on_line):
    """Returns the exit code of cvex start. Without `token` it is one that the cloud accepts, without `mac` the MAC
    address is that of the box's interface; `on_line` is called with each line of the logs, which are then detailed."""
    token = token or desk.TOKENS[token_type]
    record = record_directory / "record.jsonl" if record_directory else None
    with make_desk(on_line) as appliance:
        boxes = appliance.run_directory / "boxes.sqlite"
        appliance.start_cloud(tokens={token_type: token}, options=["--boxes", boxes])
        say("cloud", f"listening on {appliance.cloud_url}")
        appliance.start_daemon("--log-level", "3" if on_line or record else "2",
                               *(["--record", record, "--record-title", "One registration"] if record else []))
        say("cvcloudd", f"ready in {appliance.place}")
        command = appliance.cvex_command("start", f"--token={token}", "--token-type", token_type)
        if mac:
            command.append(f"--mac={mac}")
        exit_code = appliance.start(command, watched=False).process.wait()
        for address, number in _stored(boxes):
            say("cloud", f"has stored {address} as box-{number}")
    # The daemon has ended, so the record is whole.
    if record:
        say("record", shlex.join([appliance.programs["cvex"], "timeline", str(record)]))
    return exit_code


def _stored(boxes):
    with contextlib.closing(sqlite3.connect(f"{boxes.as_uri()}?mode=ro", uri=True)) as database:
        return database.execute("SELECT mac, number FROM boxes ORDER BY number").fetchall()
