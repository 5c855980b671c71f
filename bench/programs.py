# SPDX-License-Identifier: Apache-2.0

"""Starts the daemon and asks it, for the measurements of the answers."""

import contextlib
import pathlib
import subprocess
import tempfile
import time

BUILD = pathlib.Path("build/bench")
DAEMON = BUILD / "bin/l2fibd"
CLIENT = BUILD / "bin/l2fibctl"
TABLE_BENCH = BUILD / "bench/table_bench"
MAC_TABLE = "l2fib-mac:mac-table/mac-entry"
START_SECONDS = 300


class Failure(Exception):
    """Ends the benchmark with a message for the operator."""


def generated(count):
    """The daemon's options for a generated table of about `count` entries on 10 bridges of 32 ports."""
    return ["--plane", "generated", "--generate", f"bridges=10,ports=32,macs={count},vteps=8,seed=1",
            "--group", "bench"]


def ask(socket, path, output="/dev/null", *options):
    """Returns curl's command line for a resource of the API."""
    return ["curl", "--silent", "--show-error", "--fail", "--unix-socket", str(socket), "--output", str(output),
            *options, f"http://l2fibd/restconf/data/{path}"]


def client(socket, *arguments):
    return [str(CLIENT), "--socket", str(socket), *arguments]


def is_ready(socket):
    """Whether the daemon serves and has read its forwarding plane."""
    answer = subprocess.run(ask(socket, "l2fib-mac:mac-count", "-", "--include"), capture_output=True, text=True)
    return answer.returncode == 0 and "degraded" not in answer.stdout


@contextlib.contextmanager
def running_daemon(options, prefix=()):
    """Runs the daemon, below the command `prefix` if there is one. Yields its process and its socket."""
    with tempfile.TemporaryDirectory(prefix="l2fib-bench-") as directory:
        socket = pathlib.Path(directory) / "socket"
        log = pathlib.Path(directory) / "log"
        with log.open("w") as to:
            daemon = subprocess.Popen([*prefix, str(DAEMON), "--socket", str(socket), *options], stderr=to)
        try:
            wait_until_ready(daemon, socket, log)
            yield daemon, socket
        finally:
            daemon.terminate()
            daemon.wait()


def wait_until_ready(daemon, socket, log):
    end = time.monotonic() + START_SECONDS
    while not (socket.exists() and is_ready(socket)):
        if daemon.poll() is not None or time.monotonic() > end:
            raise Failure(f"l2fibd did not become ready; its log:\n{log.read_text()}")
        time.sleep(0.02)


def run(command, **options):
    """Runs a command to its end and returns the result. Fails if the command fails."""
    result = subprocess.run(command, text=True, capture_output=True, **options)
    if result.returncode != 0:
        raise Failure(f"{' '.join(map(str, command))} ended with status {result.returncode}:\n"
                      f"{result.stdout[-2000:]}{result.stderr[-2000:]}")
    return result
