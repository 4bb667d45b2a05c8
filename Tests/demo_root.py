"""A platform root with the demo product that runs, for tests in Python."""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time

SOURCES = pathlib.Path(__file__).resolve().parent.parent
CORE = ["configd", "agent", "scanner", "updater"]
# No answer takes longer, whatever hangs.
LONGEST_WAIT = 150


class DemoRoot:
    """With `with`: the services run in it, and at the end its job host ends them."""

    def __init__(self, built):
        self.scratch = tempfile.mkdtemp(prefix="vantor-", dir="/tmp")  # Names of sockets are short.
        self.path = self.scratch + "/root"
        self.built = pathlib.Path(built).resolve()
        self.tool = self.path + "/usr/bin/servicemanagerctl"
        self.environment = {"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8", "TZ": "UTC"}
        for name, value in os.environ.items():
            if name.endswith("SAN_OPTIONS"):
                self.environment[name] = value
        self.host = None

    def __enter__(self):
        try:
            subprocess.run([SOURCES / "Examples/DemoProduct/make-root", self.path, "--built", self.built],
                           check=True, stdout=subprocess.DEVNULL)
            self.start()
        except BaseException:
            self.__exit__()
            raise
        return self

    def start(self):
        with open(self.scratch + "/host.log", "ab") as log:
            self.host = subprocess.Popen([self.path + "/usr/bin/jobhost"], stdin=subprocess.DEVNULL, stdout=log,
                                         stderr=log, env=self.environment)
        await_that("the core services run", self.all_run)

    def all_run(self):
        listed = self.run("list", "--json")
        if listed.returncode != 0 or "still taking over" in listed.stderr:
            return False
        rows = json.loads(listed.stdout)
        if any(row.get("reason") == "notEvaluated" for row in rows):
            return False
        running = {row["label"] for row in rows if row["pid"]}
        return running >= {"com.vantor.demo." + name for name in CORE}

    def run(self, *arguments, **options):
        options = {"env": self.environment, "stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE,
                   "stderr": subprocess.PIPE, "text": True, "timeout": LONGEST_WAIT} | options
        return subprocess.run([self.tool, *arguments], check=False, **options)

    def follow(self, *arguments):
        """A command without an end, with its output and errors as one stream of lines."""
        return subprocess.Popen([self.tool, *arguments], env=self.environment, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def process_of(self, label):
        shown = self.run("jobs", "show", label, "--json")
        return json.loads(shown.stdout)["pid"] if shown.returncode == 0 else None

    def __exit__(self, *_):
        if self.host:
            self.host.send_signal(signal.SIGCONT)
            self.host.terminate()
            try:
                self.host.wait(60)
            except subprocess.TimeoutExpired:
                self.host.kill()
                self.host.wait()
        shutil.rmtree(self.scratch, ignore_errors=True)


def await_that(what, condition, seconds=90):
    """Fails if the condition does not come to hold."""
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"it took too long until {what}")
        time.sleep(0.1)


def leaves_of(tool, *names):
    """The commands of the tool that have no commands of their own, as tuples of words."""
    text = subprocess.run([tool, *names, "--help"], check=True, stdout=subprocess.PIPE, text=True).stdout
    if "Subcommands:" not in text:
        return {names: text}
    found = {}
    for line in text.split("Subcommands:\n")[1].splitlines():
        if line.startswith("  ") and line[2] != " ":
            found |= leaves_of(tool, *names, line.split()[0])
    return found
