"""Registers the box once: starts a desk, runs cvex start, shows the steps and stops everything again."""

import shlex

import desk


def register(programs_file, token, token_type, mac, record_directory, on_line):
    """Returns the exit code of cvex start. Without `token` it is one that the cloud accepts, without `mac` the MAC
    address is that of the simulated interface; `on_line` is called with each line of the logs, which are then
    detailed."""
    token = token or desk.TOKENS[token_type]
    record = record_directory / "record.jsonl" if record_directory else None
    with desk.Desk(programs_file, on_line) as appliance:
        appliance.start_cloud(tokens={token_type: token})
        print(f"cloud              listening on {appliance.cloud_url}", flush=True)
        appliance.start_daemon("--log-level", "3" if on_line or record else "2",
                               *(["--record", record, "--record-title", "One registration"] if record else []))
        print(f"cvcloudd           ready in {appliance.run_directory}", flush=True)
        command = appliance.cvex_command("start", f"--token={token}", "--token-type", token_type)
        if mac:
            command.append(f"--mac={mac}")
        exit_code = appliance.start(command, watched=False).process.wait()
    # The daemon has ended, so the record is whole.
    if record:
        print(f"record             {shlex.join([appliance.programs['cvex'], 'timeline', str(record)])}")
    return exit_code
