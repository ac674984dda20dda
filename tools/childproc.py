"""Stopping helper processes of tests, benchmarks and the demo."""

import subprocess


def stop(proc, timeout=5):
    """Terminates `proc` if it still runs, then kills it if it does not exit in time."""
    if proc and proc.poll() is None:
        proc.terminate()
        try:
            proc.wait(timeout)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait(timeout)
