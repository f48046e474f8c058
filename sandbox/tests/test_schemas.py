"""What crosses the handler's boundary is held against docs/schemas, and what differs is told with its place."""

import json

import jsonschema
import pytest

import traffic

START = {"event": "command", "request_id": 1, "name": "start_cloud_registration", "type": 2}
GOOD_PAYLOAD = '{"token": "t", "token_type": "partner"}'
BOX = '"macs": ["02:00:00:C0:FF:EE"], "box_detected_name": "", "setup_type": "", "device_model": ""'
SUCCESS = '{"result": "ok", "user_token": "", "device_id": ""}'


def error(result, reason=""):
    return f'{{"result": "{result}", "reason": "{reason}"}}'


def build(method, params):
    return {"event": "build", "request": 1, "method": method, "params": params}


def publish(payload, name="cloud_registration_done"):
    return {"event": "publish", "name": name, "payload": payload}


def reply(payload):
    return {"event": "reply", "request_id": 1, "payload": payload}


def write_record(path, events):
    lines = [{"record": "cvcloudd 1"}, *events]
    path.write_text("".join(json.dumps(line) + "\n" for line in lines), encoding="utf-8")
    return path


@pytest.mark.parametrize("name", traffic.VALIDATORS)
def test_a_schema_is_one(name):
    jsonschema.Draft202012Validator.check_schema(traffic.VALIDATORS[name].schema)


@pytest.mark.parametrize("events", [
    [build("connect", '{"partner_user_token": "t", "partner_id": ""}')],
    [build("get_device_token", "")],
    [build("register_box", f"{{{BOX}}}")],
    [publish(SUCCESS)],
    [reply("")],
    [reply(error("error_cvnc", 'say "no"'))],
    [{**START, "payload": "no JSON"}, reply(error("error_invalid_arguments"))],
    [{**START, "payload": "no JSON"}, reply(error("error_in_progress"))],
    [{**START, "payload": GOOD_PAYLOAD}, reply(error("error_internal"))],
    [{**START, "payload": GOOD_PAYLOAD[:-1] + ', "colour": "red"}'}, reply(SUCCESS)],
])
def test_good_traffic_passes(tmp_path, events):
    traffic.check(write_record(tmp_path / "record.jsonl", events))


@pytest.mark.parametrize("events, line, problem", [
    ([build("connect", '{"partner_user_token": "", "partner_id": ""}')], 2,
     "connect_params.json: $.partner_user_token: "),
    ([build("get_device_token", "{}")], 2, "its parameters are not empty"),
    ([build("register_box", f'{{{BOX}, "colour": "red"}}')], 2, "register_box_params.json: $: Additional properties"),
    ([build("register_box", f"{{{BOX}}}".replace("C0", "c0"))], 2, "register_box_params.json: $.macs[0]: "),
    ([build("dance", "{}")], 2, "the handler has no such request"),
    ([publish('{"result": "ok", "user_token": 5, "device_id": ""}')], 2,
     "cloud_registration_done.json: $.user_token: "),
    ([publish('{"result": "ok", "user_token": "u"}')], 2, "'device_id' is a required property"),
    ([publish("{}", "cloud_registration_failed")], 2, "the handler publishes no such message"),
    ([reply("no JSON")], 2, "it is no JSON"),
    ([reply(error("error_unheard_of"))], 2, "error_reply.json: $.result: "),
    ([reply(error("error_internal", 'say "no"'))], 2, "it is no JSON"),
    ([reply('{"result": "error_other"}')], 2, "'reason' is a required property"),
    ([build("get_device_token", ""), build("get_device_token", "")], 3, "its number 1 comes after 1"),
    ([{**START, "payload": "{}"}, reply(error("error_cvnc"))], 3, "it was accepted, but docs/schemas/start_cloud_"),
    ([{**START, "payload": GOOD_PAYLOAD}, reply(error("error_invalid_arguments"))], 3, "it was refused with "),
])
def test_bad_traffic_is_told_with_its_place(tmp_path, events, line, problem):
    path = write_record(tmp_path / "record.jsonl", events)
    with pytest.raises(traffic.TrafficError) as caught:
        traffic.check(path)
    assert str(caught.value).startswith(f"{path}:{line}: ")
    assert problem in str(caught.value)


def test_a_record_of_nothing_is_told(tmp_path):
    (tmp_path / "record.jsonl").write_text("", encoding="utf-8")
    with pytest.raises(traffic.TrafficError, match="it does not begin as a record does"):
        traffic.check_all(tmp_path)


def test_every_daemon_of_a_test_keeps_a_record(ready_desk, record_directory):
    ready_desk.register()
    ready_desk.daemon.stop()
    ready_desk.start_daemon()
    ready_desk.register("temporary")
    ready_desk.daemon.stop()
    for path, methods in zip(sorted(record_directory.iterdir()),
                             [["connect", "register_box"], ["get_device_token", "register_box"]], strict=True):
        events = [json.loads(line) for line in path.read_text(encoding="utf-8").splitlines()]
        assert [event["method"] for event in events if event.get("event") == "build"] == methods
        assert [event["event"] for event in events if event.get("event") in ("command", "publish", "reply")] == [
            "command", "publish", "reply"]
