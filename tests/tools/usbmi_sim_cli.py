#!/usr/bin/env python3
"""usbmi-sim as a user runs it: exit codes, one error line for bad input, valid JSON."""
import json
import subprocess
import sys

tool, devices = sys.argv[1], sys.argv[2]
failures = []


def run(*args):
    return subprocess.run([tool, *args], capture_output=True, text=True, timeout=300)


def check(condition, what):
    if not condition:
        failures.append(what)


demo = run()
check(demo.returncode == 0 and "children  3" in demo.stdout, "demo run: exit %d" % demo.returncode)

out = run("--json", "--hub", "self", "--set", "HighPowerCfg=1")
try:
    report = json.loads(out.stdout)
    check(report["device"]["configuration_index"] == 1, "--json: configuration_index")
    check(report["device"]["hub"] == "self", "--json: hub")
    check(isinstance(report["device"]["vid"], int), "--json: vid is a number")
    check(report["notification_interface"] == 2, "--json: notification interface")
    child = report["children"][0]
    check(child["class"] == "02" and child["protocol"] == "01", "--json: class codes as hex strings")
    check(child["configuration_descriptor"].startswith("09 02 "), "--json: configuration descriptor")
except (ValueError, KeyError, IndexError) as error:
    failures.append("--json output unusable: %s" % error)

for args, wanted in [
    (["--device", devices + "/malformed_truncated.bin"], "malformed_truncated.bin: byte "),
    (["--device", devices + "/malformed_unknown_line.hex"], "malformed_unknown_line.hex:"),
    (["--device", devices + "/no_such_file.hex"], "no_such_file.hex"),
    (["--hub", "usb3"], "--hub usb3"),
]:
    bad = run(*args)
    lines = bad.stderr.splitlines()
    check(bad.returncode == 2, "%s: exit %d, expected 2" % (args, bad.returncode))
    check(len(lines) == 1 and wanted in lines[0], "%s: stderr %r" % (args, bad.stderr))
    check(bad.stdout == "", "%s: printed a report" % args)

for failure in failures:
    print("FAIL:", failure)
sys.exit(1 if failures else 0)
