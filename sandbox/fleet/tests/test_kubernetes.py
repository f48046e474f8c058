"""The manifests: what their containers are told is what the programs take."""

import json
import os
import subprocess
import sys
from pathlib import Path

import yaml

import desk

FLEET = Path(__file__).parents[1]
BUILD_DIRECTORY = Path(os.environ["CV_BUILD_DIR"])
TIMEOUT = 60


def container(file, kind):
    documents = yaml.safe_load_all((FLEET / "kubernetes" / file).read_text(encoding="utf-8"))
    document = next(document for document in documents if document["kind"] == kind)
    return document["spec"], document["spec"]["template"]["spec"]["containers"][0]


def test_yaml_is_sound():
    subprocess.run(["yamllint", "--strict", "-d", "{extends: default, rules: {line-length: {max: 120}}}",
                    FLEET / "kubernetes"], check=True, timeout=TIMEOUT)


def test_the_last_part_of_the_job_registers_with_the_cloud_as_it_is_deployed():
    job, boxes = container("job.yaml", "Job")
    _, cloud = container("cloud.yaml", "Deployment")
    environment = {entry["name"]: entry["value"] for entry in boxes["env"]}
    arguments = [environment["START_AT"] if text == "$(START_AT)" else text for text in boxes["args"]]
    # As many parts, but of the smallest fleet that gives each a box, and without a wait.
    for option, value in (("--jobs", None), ("--spread", "0"), ("--cloud-url", None)):
        assert option in arguments
        if value is not None:
            arguments[arguments.index(option) + 1] = value
    assert arguments[arguments.index("--jobs") + 1] == str(job["completions"])
    arguments[0] = str(job["completions"])

    with desk.Desk(desk.programs_file_of(BUILD_DIRECTORY)) as appliance:
        options = list(cloud["args"])
        assert appliance.programs["cvcloud-sim"].endswith(cloud["command"][0].rsplit("/", 1)[1])
        for option in ("--port", "--admin-port"):
            del options[options.index(option):options.index(option) + 2]
        appliance.start_cloud(options=options)
        assert appliance.cloud_url.startswith("http://0.0.0.0:")
        arguments[arguments.index("--cloud-url") + 1] = appliance.cloud_url.replace("0.0.0.0", "127.0.0.1")
        result = subprocess.run(
            [sys.executable, "-B", FLEET / "cvfleet", "--build-dir", BUILD_DIRECTORY, *arguments],
            capture_output=True, encoding="utf-8", check=False, timeout=TIMEOUT,
            env={**os.environ, "JOB_COMPLETION_INDEX": str(job["completions"] - 1)})
    assert result.returncode == 0, result.stderr
    report = json.loads(result.stdout)
    assert (report["boxes"], report["registered"], report["index"]) == (1, 1, job["completions"] - 1)
