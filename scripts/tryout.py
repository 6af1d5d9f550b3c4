"""What try-nm and try-device share: programs under test whose lines are awaited, and a list of steps for a person."""

import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = pathlib.Path(os.environ.get("BUILD_DIR", ROOT / "build")).resolve()  # BUILD_DIR: built already, by a test


def build(*targets):
    if "BUILD_DIR" in os.environ:
        return
    for command in ([ROOT / "scripts/setup", "build"], ["cmake", "--preset", "release"],
                    ["cmake", "--build", "--preset", "release", "--target", *targets]):
        done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True)
        if done.returncode:
            sys.exit(done.stdout + done.stderr)


class Program:
    """A running program and what it prints."""

    def __init__(self, directory, name, *arguments):
        self.log = pathlib.Path(directory) / (name + ".log")
        with open(self.log, "w") as out:
            self.process = subprocess.Popen([BUILD / name, *map(str, arguments)], cwd=directory, stdin=subprocess.PIPE,
                                            stdout=out, stderr=subprocess.STDOUT, text=True)

    def text(self):
        """All it has printed, without colours, time and thread."""
        text = self.log.read_text(errors="replace")
        return re.sub(r"\x1b\[[0-9;]*m|\[\d{4}-\d\d-\d\d [^]]*\](?=\[)", "", text)

    def command(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def wait(self, pattern, seconds, start=0):
        """The first match of the pattern behind start; None when it does not come in time."""
        end = time.monotonic() + seconds
        while True:
            found = re.compile(pattern, re.M).search(self.text(), start)
            if found or time.monotonic() > end:
                return found
            time.sleep(0.1)

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait()


class Tryout:
    """The steps, and the programs that run meanwhile."""

    def __init__(self):
        self.directory = tempfile.TemporaryDirectory()
        self.path = pathlib.Path(self.directory.name)
        self.programs = []
        self.failures = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for program in self.programs:
            program.stop()
        self.directory.cleanup()

    def start(self, name, *arguments):
        self.programs.append(Program(self.path, name, *arguments))
        return self.programs[-1]

    def start_agent(self):
        (self.path / "config.ini").write_text(
            "[plugin_config]\nlog_std = 1\nlog_level = 7\n[device_info]\ninit_cfg = init\n")
        return self.start("proxy_plugin")

    def good(self, step, shown=""):
        print(f" ok    {step:<44} {one_line(shown)}", flush=True)

    def skipped(self, step, why):
        print(f" --    {step:<44} {why}", flush=True)

    def failed(self, step, why, expected):
        self.failures += 1
        print(f" FAIL  {step}\n         seen:     {one_line(why, 300)}\n         expected: {expected}", flush=True)

    def end(self, what):
        print(f"\n{what}: " + (f"{self.failures} of the steps failed" if self.failures else "all is well"))
        return 1 if self.failures else 0


def one_line(text, room=150):
    text = " ".join(text.split())
    return text if len(text) <= room else text[:room] + " ..."


def example(name):
    """The text of a message file, for people: its JSON without the HTTP head."""
    lines = re.findall(r'^"((?:\\.|[^"\\])*)"', (ROOT / f"docs/formats/{name}.txt").read_text(), re.M)
    text = re.sub(r"\\(.)", lambda found: {"r": "\r", "n": "\n", "t": "\t"}.get(found[1], found[1]), "".join(lines))
    return one_line(text.split("\r\n\r\n")[-1])
