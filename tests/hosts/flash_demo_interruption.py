#!/usr/bin/env python3
"""Ends scripts/flash-demo by Ctrl+C in the middle of a flash and looks at its exit status.

usage: flash_demo_interruption.py SCRIPT
"""
import os
import signal
import subprocess
import sys

ENDED_BY_CTRL_C = 130
LONGEST_END_SECONDS = 60

demo = subprocess.Popen(
    [sys.argv[1], "--speed", "1"],
    stdin=subprocess.DEVNULL,
    stdout=subprocess.PIPE,
    text=True,
    start_new_session=True,
)
heard = []
for line in demo.stdout:
    heard.append(line)
    if "attempt 1" in line:
        break
else:
    sys.exit("The demo did not begin to flash:\n" + "".join(heard))
os.killpg(demo.pid, signal.SIGINT)
try:
    status = demo.wait(LONGEST_END_SECONDS)
except subprocess.TimeoutExpired:
    os.killpg(demo.pid, signal.SIGKILL)
    sys.exit("The demo did not end.")
if status != ENDED_BY_CTRL_C:
    sys.exit(f"The demo ended with {status}, not with {ENDED_BY_CTRL_C}.")
