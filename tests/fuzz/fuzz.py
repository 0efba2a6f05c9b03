"""Runs the fuzzers of the preset fuzz, two at a time, and sums up what each did.

    fuzz.py [--seconds N] [--build FOLDER] [NAME...]

An input that ends a fuzzer is kept below the build folder, and the command that repeats it is
printed. What a run learns stays there, too: the next one starts with it.
"""

import argparse
import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

HERE = Path(__file__).resolve().parent
AT_A_TIME = 2
LONGEST_INPUT = 20000  # a few messages beyond the buffers of 4 KiB and 16 KiB
LONGEST_RUN_S = 60  # of one input, on a busy machine
FIRST_LINES = 24  # of a report: what went wrong, and where


# What the names of fuzzers begin with, and the dictionary that helps them.
DICTIONARIES = {
    "bus_": "bus", "relay_request": "http", "relay_answer": "http", "relay_admin": "http",
    "relay_": "json", "hello_": "json", "device_": "json", "uci_": "uci", "supervisor_": "uci",
}


@dataclass
class Outcome:
    """What came of one fuzzer."""
    name: str
    summary: str
    report: str = ""  # of a failure


def names_of_all(build):
    return sorted(path.name.removeprefix("fuzz_") for path in (build / "bin").glob("fuzz_*"))


def command_of(name, build, seconds):
    corpus = build / "corpus" / name
    crashes = build / "crashes"
    for folder in (corpus, crashes):
        folder.mkdir(parents=True, exist_ok=True)
    command = [build / "bin" / f"fuzz_{name}", f"-max_total_time={seconds}",
               f"-max_len={LONGEST_INPUT}", f"-timeout={LONGEST_RUN_S}",
               f"-artifact_prefix={crashes}/{name}-", "-print_final_stats=1"]
    dictionary = next((words for start, words in DICTIONARIES.items() if name.startswith(start)),
                      None)
    if dictionary:
        command.append(f"-dict={HERE / dictionary}.dict")
    return [*command, corpus, HERE / "seeds" / name]


def last_number(pattern, text):
    found = re.findall(pattern, text)
    return int(found[-1]) if found else 0


def failure_report(name, build, log, text):
    """The beginning of what libFuzzer and the sanitizers said, and how to see it again."""
    lines = text.splitlines()
    first = next((i for i, line in enumerate(lines)
                  if re.search("does not hold|runtime error:|ERROR:", line)), 0)
    report = [*lines[first:first + FIRST_LINES], f"all of it: {log}"]
    saved = re.findall(r"Test unit written to (\S+)", text)
    report += [f"replay: {build / 'bin' / f'fuzz_{name}'} {path}" for path in saved]
    return "\n".join(report)


def run(name, build, seconds):
    log = build / f"fuzz_{name}.log"
    with log.open("wb") as output:
        status = subprocess.run(command_of(name, build, seconds), check=False, stdout=output,
                                stderr=subprocess.STDOUT).returncode
    text = log.read_text(errors="replace")
    executions = last_number(r"stat::number_of_executed_units:\s+(\d+)", text)
    edges = last_number(r"cov: (\d+)", text)
    summary = f"{name:16} {executions:9} executions, {edges:5} edges reached"
    if status == 0 and executions > 0 and edges > 0:
        return Outcome(name, summary)
    return Outcome(name, f"{summary}: FAILED", failure_report(name, build, log, text))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=int, default=600)
    parser.add_argument("--build", type=Path, default=Path("build/fuzz"))
    parser.add_argument("names", nargs="*")
    options = parser.parse_args()
    names = options.names or names_of_all(options.build)
    failed = False
    with ThreadPoolExecutor(AT_A_TIME) as pool:
        for outcome in pool.map(lambda name: run(name, options.build, options.seconds), names):
            print(outcome.summary, flush=True)
            if outcome.report:
                print(outcome.report, flush=True)
                failed = True
    return 1 if failed or not names else 0


if __name__ == "__main__":
    sys.exit(main())
