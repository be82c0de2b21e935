"""What was measured, in files and documents, and where it was measured."""

import datetime
import json
import os
import platform
import re
import subprocess

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
RESULTS = os.path.join(ROOT, "bench", "results")


def first_line(command):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                          text=True, cwd=ROOT).stdout.partition("\n")[0]


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = re.search(r"model name\s*: (.*)", file.read())
    return (f"{os.cpu_count()} processors ({model.group(1) if model else platform.machine()}), "
            f"Linux {platform.release()}, g++ {first_line(['g++', '-dumpfullversion'])}")


def origin():
    """Revision, day and machine, which belong to every figure."""
    return {"revision": first_line(["git", "describe", "--always", "--dirty"]),
            "date": datetime.date.today().isoformat(), "machine": machine()}


def read_json(path, otherwise):
    if not os.path.exists(path):
        return otherwise
    with open(path, encoding="utf-8") as file:
        return json.load(file)


def write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def put_into_document(name, markdown):
    """Between the two marks of a document stands what was measured last."""
    path = os.path.join(ROOT, "docs", name)
    if not os.path.exists(path):
        return
    with open(path, encoding="utf-8") as file:
        before, begin, rest = file.read().partition("<!-- measured -->\n")
    _, end, after = rest.partition("<!-- end -->\n")
    if begin and end:
        write(path, before + begin + "\n" + markdown + "\n" + end + after)
