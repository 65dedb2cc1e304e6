#!/usr/bin/env python3
"""Runs a command (its output discarded) and prints the wall seconds it took."""
import subprocess
import sys
import time

start = time.monotonic()
subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
print(f"{time.monotonic() - start:.3f}")
