"""Scenarios: a bad day of the appliance in a file of YAML each, played on a desk and held against what must come out.

    summary: One line for --list
    settings: {retry_num: 2}            # of the registration; a key that begins with / is a key of the store
    cloud: [--fault, connect=drop]      # options of cvcloud-sim; KEPT_BOXES stands for a file that lasts
    daemon: [--refuse, publish*1]       # options of cvcloudd
    steps:                              # in this order
      - start: {token_type: temporary, token: T, mac: M, no_reply: true, timeout: 1, as: NAME}
        exit: 1                         # what cvex must do; without it, it runs on under its name
        reply: {result: ..., reason: ...}
      - retry: {}
      - send: {name: COMMAND, payload: TEXT or JSON}
      - answer: NAME                    # waits for the end of a cvex that runs on; with exit and reply
      - faults: [connect*2=status:503]  # adds to the cloud's faults; or clear
      - cloud: stop                     # or start, on the same port
      - daemon: stop                    # by SIGTERM; or start
      - until_requests: 2               # waits until the cloud has seen so many since the scenario began
      - until_published: 1              # waits until so many were published
      - until_log: REGULAR EXPRESSION   # waits for a line in the daemon's log
    published: [{result: ok, ...}]      # every cloud_registration_done, in order; default: none
    requests:                           # every request that the cloud has seen, in order
      - connect*3
      - register_box: {macs: [...]}     # with all its params
        pause: 1                        # seconds after the request before, at least

All parts but summary, steps and requests may be missing; `start`, `retry` and `send` take only what they need. A text
between slashes is a regular expression. A reply that is a text is compared as it came. Every successful reply must have
been published, word by word. There is one retry without a pause unless the settings say so.
"""

import json
import re
import threading
from pathlib import Path

import yaml

import desk

DIRECTORY = Path(__file__).parents[1] / "scenarios"
SETTINGS_PREFIX = "/daemons/cvcloudd/registration/"
SETTINGS = {SETTINGS_PREFIX + "retry_num": 1, SETTINGS_PREFIX + "retry_interval": 0}

REQUEST_LINE = r"^[-0-9T:.]+Z (connect/.*)$"
DONE_MESSAGE = "cloud_registration_done"
DONE_LINE = f'"name": "{DONE_MESSAGE}"'
IN_PROGRESS = "error_in_progress"

PARTS = {"summary", "settings", "cloud", "daemon", "steps", "published", "requests"}
# The members of each action's argument, for those that run cvex.
CLIENT_ACTIONS = {
    "start": {"token", "token_type", "mac", "no_reply", "timeout", "as"},
    "retry": {"no_reply", "timeout", "as"},
    "send": {"name", "payload", "no_reply", "timeout", "as"},
}
OTHER_ACTIONS = {"answer", "faults", "cloud", "daemon", "until_requests", "until_published", "until_log"}


class ScenarioError(desk.DeskError):
    """A mistake in a file, or something that did not come out; the text is one line with file and line."""


class Mapping(dict):
    """A mapping of the file, with the lines that it and its members are on."""
    line = 0
    lines = {}


class Sequence(list):
    """A sequence of the file, with the lines that its items are on."""
    line = 0
    lines = ()


class Loader(yaml.SafeLoader):
    """Takes every word for a text but JSON's numbers, true, false and null: no is a text."""


Loader.yaml_implicit_resolvers = {}
for _kind, _pattern, _first in (("int", r"-?(0|[1-9][0-9]*)", "-0123456789"),
                                ("float", r"-?[0-9]+\.[0-9]+", "-0123456789"),
                                ("bool", r"true|false", "tf"), ("null", r"null", "n")):
    Loader.add_implicit_resolver(f"tag:yaml.org,2002:{_kind}", re.compile(f"^({_pattern})$"), list(_first))


class Scenario:
    def __init__(self, path):
        """Reads the file and checks it; raises ScenarioError."""
        self.path = Path(path)
        self.name = self.path.stem
        document = self._read()
        if not isinstance(document, Mapping):
            self.fail(1, "a scenario is a mapping with summary, steps and requests")
        for part in document:
            if part not in PARTS:
                self.fail(document.lines[part], f"no part is called '{part}'; choose {_words(PARTS)}")
        self.summary = self._part(document, "summary", str)
        self.steps = self._part(document, "steps", list)
        self.requests = self._part(document, "requests", list)
        self.published = self._part(document, "published", list, Sequence())
        self.cloud_options = self._part(document, "cloud", list, [])
        self.daemon_options = self._part(document, "daemon", list, [])
        settings = self._part(document, "settings", dict, {})
        self.settings = {**SETTINGS, **{key if key.startswith("/") else SETTINGS_PREFIX + key: value
                                        for key, value in settings.items()}}
        self._check_steps()
        self._check_requests()

    def fail(self, line, problem):
        raise ScenarioError(f"{self.path}:{line}: {problem}")

    def _read(self):
        loader = None
        try:
            loader = Loader(self.path.read_text(encoding="utf-8"))
            node = loader.get_single_node()
            return self._located(loader, node) if node else None
        except OSError as error:
            raise ScenarioError(f"{self.path}: {error.strerror}") from None
        except yaml.MarkedYAMLError as error:
            mark = error.problem_mark or error.context_mark
            raise ScenarioError(f"{self.path}:{mark.line + 1}: {error.problem}") from None
        finally:
            if loader:
                loader.dispose()

    def _located(self, loader, node):
        if isinstance(node, yaml.MappingNode):
            mapping = Mapping()
            mapping.line = node.start_mark.line + 1
            mapping.lines = {}
            for key_node, value_node in node.value:
                key = loader.construct_object(key_node, deep=True)
                line = key_node.start_mark.line + 1
                if not isinstance(key, str):
                    self.fail(line, f"the key {key} is not a text")
                if key in mapping:
                    self.fail(line, f"'{key}' is there twice")
                mapping[key] = self._located(loader, value_node)
                mapping.lines[key] = line
            return mapping
        if isinstance(node, yaml.SequenceNode):
            sequence = Sequence(self._located(loader, item) for item in node.value)
            sequence.line = node.start_mark.line + 1
            sequence.lines = [item.start_mark.line + 1 for item in node.value]
            return sequence
        return loader.construct_object(node)

    def _part(self, document, part, kind, default=None):
        if part not in document:
            if default is None:
                self.fail(1, f"'{part}' is missing")
            return default
        if not isinstance(document[part], kind):
            words = {str: "a text", list: "a sequence", dict: "a mapping"}
            self.fail(document.lines[part], f"'{part}' is not {words[kind]}")
        return document[part]

    def _check_steps(self):
        running = {}
        for line, step in zip(self.steps.lines, self.steps):
            actions = {*CLIENT_ACTIONS, *OTHER_ACTIONS}
            named = [key for key in step if key in actions] if isinstance(step, Mapping) else []
            if len(named) != 1:
                self.fail(line, f"a step is one of {_words(actions)}")
            action = named[0]
            takes_expectation = action in CLIENT_ACTIONS or action == "answer"
            for key in step:
                if key != action and not (takes_expectation and key in ("exit", "reply")):
                    self.fail(step.lines[key], f"the step '{action}' has no '{key}'")
            if "reply" in step and "exit" not in step:
                self.fail(step.lines["reply"], "'reply' needs 'exit', the exit code of cvex")
            argument = step[action]
            if action in CLIENT_ACTIONS:
                self._check_client(step.lines[action], action, argument)
                if "exit" not in step:
                    running[argument.get("as", action)] = line
            elif action == "answer":
                if argument not in running:
                    self.fail(line, f"no cvex runs under the name '{argument}'")
                if "exit" not in step:
                    self.fail(line, "'answer' needs 'exit', the exit code of cvex")
                del running[argument]
            elif action in ("cloud", "daemon") and argument not in ("start", "stop"):
                self.fail(line, f"'{action}' is start or stop")
            elif action == "faults" and argument != "clear" and not isinstance(argument, list):
                self.fail(line, "'faults' is a sequence of faults or clear")
            elif action in ("until_requests", "until_published") and not isinstance(argument, int):
                self.fail(line, f"'{action}' is a number")
            elif action == "until_log" and not isinstance(argument, str):
                self.fail(line, "'until_log' is a regular expression")
        for name, line in running.items():
            self.fail(line, f"no step 'answer' waits for the end of '{name}'")

    def _check_client(self, line, action, argument):
        if not isinstance(argument, Mapping):
            self.fail(line, f"'{action}' is a mapping; " + "{} when there is nothing to say")
        for key in argument:
            if key not in CLIENT_ACTIONS[action]:
                self.fail(argument.lines[key], f"'{action}' takes no '{key}'; choose {_words(CLIENT_ACTIONS[action])}")
        if action == "send" and "name" not in argument:
            self.fail(line, "'send' needs 'name', the command")

    def _check_requests(self):
        """Makes every item (line, method, params or None, pause or None)."""
        requests = []
        for line, item in zip(self.requests.lines, self.requests):
            if isinstance(item, str):
                method, _, count = item.partition("*")
                if count and not count.isdigit():
                    self.fail(line, f"'{count}' is not a count of requests")
                requests += [(line, method, None, None)] * int(count or 1)
                continue
            methods = [key for key in item if key != "pause"] if isinstance(item, Mapping) else []
            if len(methods) != 1:
                self.fail(line, "a request is METHOD, METHOD*COUNT, or METHOD: with its params and perhaps pause:")
            requests.append((line, methods[0], item[methods[0]], item.get("pause")))
        self.requests = requests


def _words(words):
    *most, last = sorted(words)
    return f"{', '.join(most)} or {last}"


def find(name):
    """The scenario of this name; raises ScenarioError."""
    path = DIRECTORY / f"{name}.yaml"
    if not path.is_file():
        raise ScenarioError(f"no scenario is called '{name}'; --list shows them")
    return Scenario(path)


def files():
    return sorted(DIRECTORY.glob("*.yaml"))


def matches(expected, actual):
    """Whether a value is as the file says."""
    if isinstance(expected, str) and len(expected) > 1 and expected[0] == expected[-1] == "/":
        return isinstance(actual, str) and re.fullmatch(expected[1:-1], actual, re.DOTALL) is not None
    if isinstance(expected, dict):
        return (isinstance(actual, dict) and expected.keys() == actual.keys()
                and all(matches(value, actual[key]) for key, value in expected.items()))
    if isinstance(expected, list):
        return isinstance(actual, list) and len(expected) == len(actual) and all(map(matches, expected, actual))
    return expected == actual and isinstance(expected, bool) == isinstance(actual, bool)


def matches_text(expected, text):
    """Whether a reply, or any text, is as the file says; the members in its order."""
    if isinstance(expected, str):
        return matches(expected, text)
    document = desk.read_reply(text)
    return document and matches(expected, document) and (not isinstance(expected, dict) or list(expected) == list(document))


def published_in(record):
    """The payloads that the handler published, as the record of a daemon that has ended has them."""
    published = []
    for text in record.read_text(encoding="utf-8").splitlines():
        event = json.loads(text)
        if event.get("event") == "publish" and event["name"] == DONE_MESSAGE:
            published.append(event["payload"])
        elif event.get("event") == "refused" and event.get("of") == "publish":
            published.pop()
    return published


class Player:
    """Plays one scenario on a desk of its own."""

    def __init__(self, scenario, make_desk, say=lambda head, text: None, on_line=None, record_directory=None):
        """`make_desk` is called with an `on_line` for the new desk. `say` is told each step and each request as it
        happens, in a head and a text, on any thread."""
        self.scenario = scenario
        self._say = say
        self._watch = on_line
        self._desk = make_desk(self._on_line)
        self._record_directory = record_directory
        self._clients = {}
        self._listeners = []
        self._records = []
        self._requests = []
        self._successes = []

    def play(self):
        """Raises ScenarioError when something does not come out, DeskError when a program fails."""
        with self._desk:
            self._start_cloud()
            self._start_daemon()
            for line, step in zip(self.scenario.steps.lines, self.scenario.steps):
                self._do(line, step)
            if self._desk.daemon:
                self._stop_daemon(1)
            if self._desk.cloud:
                self._stop_cloud(1)
            self._check_published()
            self._check_requests()

    def _on_line(self, line):
        if self._watch:
            self._watch(line)
        if request := re.search(REQUEST_LINE, line):
            self._say("  cloud", request[1])

    def _start_cloud(self):
        port = self._desk.cloud_url.rsplit(":", 1)[1] if self._desk.cloud_url else 0
        boxes = str(self._desk.run_directory / "boxes.sqlite")
        options = [boxes if option == "KEPT_BOXES" else option for option in self.scenario.cloud_options]
        self._desk.start_cloud(port, options=options)

    def _stop_cloud(self, line):
        self._requests += self._desk.ask_cloud("GET", "/requests")
        if self._desk.cloud.stop() != 0:
            self.scenario.fail(line, f"the cloud ended with exit code {self._desk.cloud.process.returncode}")
        self._desk.cloud = None

    def _start_daemon(self):
        directory = self._record_directory or self._desk.run_directory
        number = len(self._records) + 1
        record = directory / ("record.jsonl" if number == 1 else f"record-{number}.jsonl")
        self._records.append(record)
        self._desk.start_daemon("--log-level", "3", "--record", record, "--record-title", self.scenario.name,
                                *self.scenario.daemon_options,
                                settings=self.scenario.settings)
        listener = self._desk.start(self._desk.cvex_command("listen", "--json"))
        listener.wait_for_line(r"^cvex: listening$")
        self._listeners.append(listener)

    def _stop_daemon(self, line):
        if self._desk.daemon.stop() != 0:
            self.scenario.fail(line, f"the daemon ended with exit code {self._desk.daemon.process.returncode}")
        self._desk.daemon = None
        # The listener would go on with the next daemon.
        if count := len(published_in(self._records[-1])):
            self._wait(line, self._listeners[-1], DONE_LINE, count)
        self._listeners[-1].stop()

    def _do(self, line, step):
        action = next(key for key in step if key not in ("exit", "reply"))
        argument = step[action]
        self._say(action, argument if isinstance(argument, str) else json.dumps(argument))
        if action in CLIENT_ACTIONS:
            name = argument.get("as", action)
            self._clients[name] = self._start_client(action, argument)
            if "exit" in step:
                self._check_answer(line, step, name, lambda: self._start_client(action, argument))
        elif action == "answer":
            self._check_answer(line, step, argument, None)
        elif action == "faults":
            try:
                if argument == "clear":
                    self._desk.ask_cloud("DELETE", "/faults")
                else:
                    self._desk.ask_cloud("POST", "/faults", argument)
            except desk.DeskError as error:
                self.scenario.fail(line, error)
        elif action == "cloud":
            self._start_cloud() if argument == "start" else self._stop_cloud(line)
        elif action == "daemon":
            self._start_daemon() if argument == "start" else self._stop_daemon(line)
        elif action == "until_requests":
            self._wait(line, self._desk.cloud, REQUEST_LINE, argument - len(self._requests))
        elif action == "until_published":
            self._wait_for_published(argument, line)
        elif action == "until_log":
            self._wait(line, self._desk.daemon, argument, 1)

    def _start_client(self, action, argument):
        command = [action]
        if action == "start":
            token_type = argument.get("token_type", "partner")
            token = argument.get("token", desk.TOKENS.get(token_type, "any"))
            command += ["--token", token, "--token-type", token_type]
            command += ["--mac", argument["mac"]] if "mac" in argument else []
        elif action == "send":
            payload = argument.get("payload", "")
            command += ["--raw", argument["name"], payload if isinstance(payload, str) else json.dumps(payload)]
        if action != "send":
            command.append("--json")
        command += ["--no-reply"] if argument.get("no_reply") else []
        command += ["--timeout", argument["timeout"]] if "timeout" in argument else []
        return self._desk.start(self._desk.cvex_command(*command))

    def _check_answer(self, line, step, name, again):
        """`again` repeats the command while it is refused because a registration is in progress: a failed one is
        answered a moment before it is over."""
        expected = step.get("reply")
        for _ in range(1000):
            client = self._clients.pop(name)
            code = client.wait()
            text = "\n".join(client.lines)
            is_refused = code == 3 and matches_text({"result": IN_PROGRESS, "reason": "/.*/"}, text)
            if not again or not is_refused or IN_PROGRESS in str(expected):
                break
            self._clients[name] = again()
        self._say("  exit", f"{code} {text}")
        if "reply" in step:
            # The reply is the one line that goes to the standard output; problems are told to the standard error.
            if len(client.lines) != 1 or not matches_text(expected, text):
                self.scenario.fail(line, f"the reply must be {json.dumps(expected)} and is {text or 'missing'}")
            if code == 0:
                self._successes.append(text)
        if code != step["exit"]:
            self.scenario.fail(line, f"cvex must end with exit code {step['exit']} and ended with {code}: {text}")

    def _wait(self, line, program, pattern, count):
        try:
            program.wait_for_line(pattern, count)
        except desk.DeskError as error:
            self.scenario.fail(line, error)

    def _wait_for_published(self, count, line):
        before = sum(1 for listener in self._listeners[:-1] for text in listener.lines if DONE_LINE in text)
        if count > before:
            self._wait(line, self._listeners[-1], DONE_LINE, count - before)

    def _check_published(self):
        published = [payload for record in self._records for payload in published_in(record)]
        expected = self.scenario.published
        for line, value, text in zip(getattr(expected, "lines", ()), expected, published):
            if not matches_text(value, text):
                self.scenario.fail(line, f"{json.dumps(value)} must be published and {text} was")
        if len(published) != len(expected):
            self.scenario.fail(expected.line or 1, f"{len(expected)} messages must be published and there were "
                                                   f"{len(published)}: {published}")
        heard = [json.loads(line)["payload"] for listener in self._listeners for line in listener.lines
                 if DONE_LINE in line]
        if heard != published:
            self.scenario.fail(expected.line or 1, f"{published} was published and {heard} was heard")
        for reply in self._successes:
            if reply not in published:
                self.scenario.fail(expected.line or 1, f"the reply {reply} was not published")

    def _check_requests(self):
        seen = [request["method"] for request in self._requests]
        before = None
        for number, (line, method, params, pause) in enumerate(self.scenario.requests):
            if number >= len(seen) or seen[number] != method:
                self.scenario.fail(line, f"request {number + 1} must be {method}; the cloud has seen {seen}")
            request = self._requests[number]
            if params is not None and not matches(params, request["params"]):
                self.scenario.fail(line, f"the params must be {json.dumps(params)} and were "
                                         f"{json.dumps(request['params'])}")
            if pause is not None and request["time"] - before < pause:
                self.scenario.fail(line, f"the request must come {pause} s after the one before and came after "
                                         f"{request['time'] - before:.3f} s")
            before = request["time"]
        if len(seen) > len(self.scenario.requests):
            line = self.scenario.requests[-1][0] if self.scenario.requests else 1
            self.scenario.fail(line, f"no further request must come; the cloud has seen {seen}")


class Narrator:
    """Prints what happens, a line each, from any thread."""

    def __init__(self):
        self._lock = threading.Lock()

    def __call__(self, head, text):
        with self._lock:
            print(f"{head:<18} {desk.printable(str(text))}", flush=True)


def print_list():
    width = max(len(path.stem) for path in files())
    for path in files():
        print(f"{path.stem:<{width}}  {Scenario(path).summary}")


def play(name, make_desk, narrator, record_directory, on_line):
    """Plays the scenario of this name, or of this file when there is a / in it, and tells what happens; raises
    DeskError."""
    scenario = Scenario(name) if "/" in name else find(name)
    narrator("scenario", f"{scenario.name}: {scenario.summary}")
    Player(scenario, make_desk, narrator, on_line, record_directory).play()
    narrator("passed", f"{len(scenario.requests)} requests, {len(scenario.published)} messages published")
