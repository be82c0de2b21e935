"""Runs measured programs with their servers: for times, counts and instructions."""

import glob
import json
import os
import re
import shlex
import shutil
import socket
import subprocess
import sys
import tempfile
import time

PINNED = ["taskset", "-c", "0"]  # the number is an option of bench/run
# Source files whose lines are tracing, deadlines and the table of system calls.
SEAM_FILES = ("kruTrace.", "kruDeadline.", "kruClock.", "kruSystemCalls.", "kruWaiting.")


def fail(text):
    sys.exit(f"bench: {text}")


class Progress:
    """One line on a terminal, nothing anywhere else."""

    def __init__(self):
        self.shown = sys.stderr.isatty()

    def say(self, text):
        if self.shown:
            columns = shutil.get_terminal_size().columns
            sys.stderr.write("\r\033[K" + text[:columns - 1])
            sys.stderr.flush()


def run(command, environment=None):
    done = subprocess.run(command, env=environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True)
    if done.returncode != 0:
        fail(f"{' '.join(command)}\n{done.stdout}{done.stderr}")
    return done


class Postgres:
    """A database in a temporary folder, gone with this object. It refuses to be run by root."""

    def __init__(self, pinned):
        binaries = sorted(glob.glob("/usr/lib/postgresql/*/bin"))
        if not binaries:
            fail("PostgreSQL is not installed")
        # Not in the folder of this user's own, which another user may not enter.
        self.folder = tempfile.mkdtemp(prefix="krucomm-bench-")
        self.other = {}
        if os.geteuid() == 0:
            self.other = {"user": "nobody", "group": "nogroup", "extra_groups": []}
            shutil.chown(self.folder, "nobody", "nogroup")
        data = os.path.join(self.folder, "data")
        subprocess.run([f"{binaries[-1]}/initdb", "-D", data, "-U", "bench", "-A", "trust",
                        "--no-sync"], check=True, cwd="/", stdout=subprocess.DEVNULL, **self.other)
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        self.process = subprocess.Popen(
            [*(PINNED if pinned else []), f"{binaries[-1]}/postgres", "-D", data,
             "-p", str(self.port), "-c", "listen_addresses=127.0.0.1",
             "-c", f"unix_socket_directories={self.folder}", "-c", "fsync=off"],
            cwd="/", stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **self.other)
        self.await_start()

    def await_start(self):
        for _ in range(300):
            try:
                socket.create_connection(("127.0.0.1", self.port), 1).close()
                return
            except OSError:
                time.sleep(0.1)
        fail("PostgreSQL does not start")

    def stop(self):
        self.process.terminate()
        self.process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)


class CannedServer:
    def __init__(self, program, protocol, pinned):
        self.process = subprocess.Popen([*(PINNED if pinned else []), program, protocol],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.port = int(self.process.stdout.readline())

    def stop(self):
        self.process.stdin.close()
        self.process.stdout.close()
        self.process.wait()


class Bench:
    """The programs of a build, and the servers that they need, each started when it is needed."""

    def __init__(self, build):
        self.folder = os.path.join(build, "bench")
        self.servers = {}
        self.counting = dict(os.environ, LD_PRELOAD=os.path.abspath(
            os.path.join(self.folder, "libcountingPreload.so")))

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        for server in self.servers.values():
            server.stop()

    def port(self, protocol, pinned):
        key = (protocol, pinned)
        if key not in self.servers:
            if protocol == "postgres":
                self.servers[key] = Postgres(pinned)
            else:
                program = os.path.join(self.folder, "cannedServer")
                self.servers[key] = CannedServer(program, protocol, pinned)
        return self.servers[key].port

    def command(self, words, protocol, pinned=True):
        """The command line of a measured program, or of a work of the library's client."""
        words = shlex.split(words)
        program = os.path.join(self.folder, "libraryClient")
        if os.path.exists(os.path.join(self.folder, "peers", words[0])):
            program = os.path.join(self.folder, "peers", words.pop(0))
        return [program, *words, f"--port={self.port(protocol, pinned)}"]

    def timed(self, words, protocol, pinned=True):
        return json.loads(run([*(PINNED if pinned else []),
                               *self.command(words, protocol, pinned)]).stdout)

    def counted(self, words, protocol):
        """Allocations, system calls and memory of one operation."""
        return json.loads(run([*PINNED, *self.command(words, protocol)], self.counting).stdout)

    def profiled(self, words, protocol, path=None):
        """(instructions of one operation, share of them in the seams), seen by callgrind, which
        leaves its profile at the path."""
        with tempfile.TemporaryDirectory() as folder:
            path = path or os.path.join(folder, "callgrind.out")
            # Not pinned: under callgrind the client has no use for two processors.
            done = run(["valgrind", "--tool=callgrind", "--toggle-collect=benchMeasured",
                        f"--callgrind-out-file={path}", *self.command(words, protocol)],
                       dict(os.environ, LD_BIND_NOW="1"))
            seams, everything = seam_costs(path)
        return everything / json.loads(done.stdout)["operations"], seams / everything

    def overshoot(self, words):
        """The milliseconds by which all but one of a thousand operations overshoot at most."""
        done = run([os.path.join(self.folder, "deadlineOvershoot"), *shlex.split(words)])
        return float(re.search(r"^all +\d+ +\S+ +\S+ +(\S+)", done.stdout, re.MULTILINE).group(1))


def seam_costs(path):
    """(instructions on lines of the seam files, all instructions) of a callgrind profile."""
    names = {}
    seams = everything = 0
    inside = skip = False
    with open(path, encoding="utf-8") as profile:
        for line in profile:
            source = re.match(r"(c?)f[lie]=(\(\d+\))(?: (.*))?", line)
            if source:
                called, number, name = source.groups()
                if name is not None:
                    names[number] = os.path.basename(name)
                if not called:
                    inside = names[number].startswith(SEAM_FILES)
            elif line.startswith("calls="):
                skip = True  # the next line is what the called function cost
            elif re.match(r"[\d+*-]\S* \d+$", line):
                if not skip:
                    cost = int(line.split()[1])
                    everything += cost
                    seams += cost if inside else 0
                skip = False
    return seams, everything
