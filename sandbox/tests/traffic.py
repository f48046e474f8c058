"""Holds what crossed the handler's boundary, as the record of a daemon has it, against docs/schemas."""

import json
import re
from pathlib import Path

import jsonschema

import desk

SCHEMAS = Path(__file__).parents[2] / "docs" / "schemas"

START = "start_cloud_registration"
DONE = "cloud_registration_done"

# The cloud's words become the reason of these as they are: the reply need not be JSON, or not mean what it says as
# JSON.
QUOTING = ("error_cvnc", "error_connect", "error_get_device_token", "error_register_box")

VALIDATORS = {path.stem: jsonschema.Draft202012Validator(json.loads(path.read_text(encoding="utf-8")))
              for path in SCHEMAS.glob("*.json")}


class TrafficError(AssertionError):
    """What is not as its schema says; one line with the record's file and line."""


def problem_of(name, text):
    """What is wrong with a text by the schema of this name, or None."""
    try:
        document = json.loads(text)
    except ValueError as error:
        return f"it is no JSON: {error}"
    error = jsonschema.exceptions.best_match(VALIDATORS[name].iter_errors(document))
    return error and f"docs/schemas/{name}.json: {error.json_path}: {error.message}"


def result_of(reply):
    result = re.match(r'\{"result": "(\w+)", ', reply)
    return result and result[1]


def problem_of_reply(text):
    if not text:
        return None  # The settings allow no try, so nothing has failed that could be told.
    result = result_of(text)
    if result in QUOTING and desk.read_reply(text):
        return None
    return problem_of(DONE if result == "ok" else "error_reply", text)


def problem_of_request(method, params):
    if method == "get_device_token":
        return "its parameters are not empty" if params else None
    if method not in ("connect", "register_box"):
        return "the handler has no such request"
    return problem_of(f"{method}_params", params)


def problem_of_start(payload, reply):
    """A start is refused for its arguments when its schema refuses it, and only then."""
    result = result_of(reply)
    if result == "error_in_progress":
        return None  # Its payload was not looked at.
    problem = problem_of(START, payload)
    if problem and result != "error_invalid_arguments":
        return f"it was accepted, but {problem}"
    if not problem and result == "error_invalid_arguments":
        return f"it was refused with {reply}, but docs/schemas/{START}.json allows it"
    return None


def check(path):
    """Raises TrafficError for the first event of a record that is not as its schema says."""
    starts = {}
    latest = {"command": 0, "build": 0}
    # Not splitlines(), which knows line ends that JSON leaves as they are.
    lines = path.read_text(encoding="utf-8").split("\n")[:-1]
    if not lines or "record" not in json.loads(lines[0]):
        raise TrafficError(f"{path}: it does not begin as a record does")
    for number, line in enumerate(lines[1:], 2):
        event = json.loads(line)
        kind = event.get("event")
        problem = None
        if kind == "command" and event["name"] == START:
            starts[event["request_id"]] = event["payload"]
        elif kind == "build":
            problem = problem_of_request(event["method"], event["params"])
        elif kind == "publish":
            problem = (problem_of(DONE, event["payload"]) if event["name"] == DONE
                       else "the handler publishes no such message")
        elif kind == "reply":
            problem = problem_of_reply(event["payload"])
            if not problem and event["request_id"] in starts:
                problem = problem_of_start(starts[event["request_id"]], event["payload"])
        if kind in latest:
            before, latest[kind] = latest[kind], event["request_id" if kind == "command" else "request"]
            if latest[kind] <= before:
                problem = f"its number {latest[kind]} comes after {before}"
        if problem:
            raise TrafficError(f"{path}:{number}: {problem}; the event is {line}")


def check_all(directory):
    """Checks every record in a directory; returns how many there are."""
    paths = sorted(directory.iterdir())
    for path in paths:
        check(path)
    return len(paths)
