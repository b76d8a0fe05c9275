#!/usr/bin/env python3
"""Checks the tests: makes one mistake at a time in a copy of the library and looks whether a test notices.

The mistakes stand in mutants.toml, beside this file. Everything happens in the build folder: `pristine` is the
checkout as it was at the start, `source` the copy that gets the mistakes, and there is one build tree for the plain
build and one for each sanitizer that a mistake asks for. Interrupted, the next run goes on where this one was, as
long as the checkout is the same (or with --resume).

Exit code: 0 if every mistake was noticed or has its reason for surviving, 1 if one survived, 2 if the check couldn't
be made: a list that doesn't fit the sources, a mistake that doesn't compile, tests that fail without any mistake.
"""

import argparse
import collections
import hashlib
import json
import os
import queue
import re
import shutil
import signal
import subprocess
import sys
import threading
import time
import tomllib
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
LIST = Path(__file__).resolve().parent / "mutants.toml"
SOURCES = ("core/app-specific/src/", "core/externals/Util/src/")
TREES = ("plain", "asan", "tsan")
TEXTS = ("name", "file", "why", "old", "new")
OPTIONS = ("first", "tree", "survives")

# Quick to build. A mistake in the locking is for the thread sanitizer to find, not for its compiler.
FLAGS = {"plain": "-O0", "asan": "-O1 -g1", "tsan": "-O1 -g1 -Wno-error=thread-safety -Wno-error=thread-safety-beta"}

# A test that takes longer than this many seconds, or this many times its time without a mistake, hangs.
LEAST_TIMEOUT_S = {"plain": 15, "asan": 60, "tsan": 90}
TIMEOUT_FACTOR = 8

TESTS_PER_JOB = 2  # most of a test's time is waiting

# A test that nobody expected to notice must fail twice: one that fails now and then notices nothing.
TWICE = ["--repeat", "until-pass:2"]


class CannotCheck(Exception):
    """The check can't be made; says why."""


class DoesNotCompile(CannotCheck):
    """One mistake can't be tried; the others can."""


# --- The list ---

def load_mutants(root):
    """The list, in the order of the files; every entry is checked against the sources under `root`."""
    with open(LIST, "rb") as stream:
        mutants = tomllib.load(stream)["mutant"]
    problems = [problem for mutant in mutants for problem in problems_of(mutant, root)]
    counts = collections.Counter(mutant.get("name") for mutant in mutants)
    problems += [f"{name}: stands in the list {count} times" for name, count in counts.items() if count > 1]
    if problems:
        raise CannotCheck("the list of mutants doesn't fit:\n  " + "\n  ".join(problems))
    return sorted(mutants, key=lambda mutant: (TREES.index(tree_of(mutant)), mutant["file"]))


def problems_of(mutant, root):
    name = mutant.get("name", "(no name)")
    missing = [key for key in TEXTS if not isinstance(mutant.get(key), str)]
    if missing:
        return [f"{name}: no {', '.join(missing)}"]
    unknown = [key for key in mutant if key not in TEXTS + OPTIONS]
    if unknown or tree_of(mutant) not in TREES:
        return [f"{name}: unknown {', '.join(unknown) or 'tree'}"]
    path = root / mutant["file"]
    if not mutant["file"].startswith(SOURCES) or not path.is_file():
        return [f"{name}: {mutant['file']} is no source of the library"]
    count = path.read_text().count(mutant["old"])
    if count != 1 or mutant["old"] == mutant["new"]:
        return [f"{name}: its old text stands {count} times in {mutant['file']}: {mutant['old']!r}"]
    return []


def tree_of(mutant):
    return mutant.get("tree", "plain")


def print_list(mutants):
    for mutant in mutants:
        mark = "" if tree_of(mutant) == "plain" else f" [{tree_of(mutant)}]"
        print(f"{mutant['name']}{mark}: {mutant['file']}\n    {mutant['why']}")
    print(f"{len(mutants)} mutants")


# --- The copies ---

def checkout_files():
    """What git knows of the checkout, and what is new in it."""
    command = ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"]
    output = subprocess.run(command, cwd=ROOT, check=True, stdout=subprocess.PIPE).stdout.decode()
    return sorted(name for name in set(output.split("\0")) if name and (ROOT / name).is_file())


def tree_files(root):
    return sorted(str(path.relative_to(root)) for path in root.rglob("*") if path.is_file())


def mirror(source, names, target):
    """Makes `target` hold just these files; one that is right already keeps its time, so nothing builds anew."""
    for stale in set(tree_files(target)) - set(names):
        (target / stale).unlink()
    for name in names:
        old, new = target / name, source / name
        if not old.is_file() or old.read_bytes() != new.read_bytes():
            old.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(new, old)
            shutil.copymode(new, old)


def digest_of(root):
    """One word for all files but this tool's own: its list may grow without a new start."""
    digest = hashlib.sha256()
    for name in tree_files(root):
        if not name.startswith("tools/mutate/"):
            digest.update(name.encode() + b"\0" + (root / name).read_bytes())
    return digest.hexdigest()


# --- Building and testing ---

class Tree:
    """One incremental build of `source`, plain or with a sanitizer, and its tests."""

    def __init__(self, name, folder, jobs):
        self.name = name
        self.source = folder / "source"
        self.build_folder = folder / name
        self.jobs = str(jobs)
        self.tests_at_once = str(TESTS_PER_JOB * jobs)
        self.durations = {}  # of the tests without a mistake, in seconds
        self.programs = {}  # of the tests: what of the build they need, as far as their command tells
        self.environment = dict(os.environ)
        self.ready = False

    def configure(self, log):
        presets = json.loads((self.source / "CMakePresets.json").read_text())
        preset = "dev" if self.name == "plain" else self.name
        variables = dict(of_preset(presets, "configurePresets", preset)["cacheVariables"])
        variables["CMAKE_BUILD_TYPE"] = ""
        variables["CMAKE_CXX_FLAGS"] = FLAGS[self.name]
        self.environment.update(of_preset(presets, "testPresets", preset).get("environment", {}))
        command = ["cmake", "-S", self.source, "-B", self.build_folder, "-G", "Ninja"]
        command += [f"-D{key}={value}" for key, value in variables.items()]
        if not self.run(command, log):
            raise CannotCheck(f"the {self.name} tree can't be configured: {log}")

    def build(self, log, targets=()):
        """Builds all, or just these; False if something doesn't compile."""
        command = ["cmake", "--build", self.build_folder, "-j", self.jobs]
        return self.run(command + (["--target", *targets] if targets else []), log)

    def targets_of(self, selection):
        """What the tests that match need built; empty, which means all, if that can't be told of one of them."""
        needed = [programs for test, programs in self.programs.items() if re.search(selection, test)]
        return sorted(set().union(*needed)) if needed and all(needed) else []

    def run(self, command, log):
        with open(log, "ab") as stream:
            return subprocess.run(command, stdout=stream, stderr=stream, env=self.environment).returncode == 0

    def measure(self, log):
        """Builds without a mistake and runs all tests, which must pass; their times are the measure of a hang."""
        self.configure(log)
        if not self.build(log):
            raise CannotCheck(f"the {self.name} tree doesn't build: {log}")
        failure = self.test(TWICE, log)
        if failure is not None:
            raise CannotCheck(f"{failure} without any mistake, in the {self.name} tree: {log}")
        self.programs = self.programs_of_tests()
        self.ready = True

    def programs_of_tests(self):
        command = ["ctest", "--test-dir", self.build_folder, "--show-only=json-v1"]
        output = subprocess.run(command, check=True, stdout=subprocess.PIPE, env=self.environment).stdout
        built = str(self.build_folder) + "/"
        return {test_name(test["name"]): [word[len(built):] for word in test.get("command", [])
                                          if word.startswith(built) and Path(word).is_file()]
                for test in json.loads(output)["tests"]}

    def test(self, selection, log):
        """Runs the selected tests up to the first failure: "test" or "test (hangs)". None if all pass."""
        command = ["ctest", "--test-dir", self.build_folder, "--stop-on-failure", "--output-on-failure", "-j",
                   self.tests_at_once, "-LE", "bench", "--no-tests=ignore", *selection]
        process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                   errors="replace", env=self.environment, start_new_session=True)
        try:
            with open(log, "a") as stream:
                failure = self.watch(lines_of(process), stream)
            if failure is None and process.wait() != 0:
                failure = "ctest"
            return failure
        finally:
            stop_group(process)

    def watch(self, lines, log):
        running = {}  # test: the moment of its start
        while True:
            try:
                line = lines.get(timeout=1)
            except queue.Empty:
                late = [test for test, start in running.items() if time.monotonic() - start > self.limit(test)]
                if late:
                    return f"{late[0]} (hangs)"
                continue
            if line is None:
                return None
            log.write(line)
            started = re.match(r"\s+Start\s+\d+: (.+)", line)
            ended = re.match(r"\s*\d+/\d+ Test\s+#\d+: (.+?) \.+\s*(Passed|.*\*\*\*.*?)\s+([\d.]+) sec", line)
            if started:
                running[test_name(started[1])] = time.monotonic()
            elif ended:
                test = test_name(ended[1])
                running.pop(test, None)
                if ended[2] not in ("Passed", "***Skipped"):  # too slow in a tree, or no memory for it
                    copy_rest(lines, log)
                    return test + (" (hangs)" if "Timeout" in ended[2] else "")
                if not self.ready:
                    self.durations[test] = float(ended[3])

    def limit(self, test):
        if not self.ready:
            return 3600
        return max(LEAST_TIMEOUT_S[self.name], TIMEOUT_FACTOR * self.durations.get(test, 0))


def of_preset(presets, kind, name):
    return next(preset for preset in presets[kind] if preset["name"] == name)


def test_name(text):
    return text.split("  #")[0].strip()


def lines_of(process):
    """The output as it comes, and None behind the last line."""
    lines = queue.Queue()

    def read():
        for line in process.stdout:
            lines.put(line)
        lines.put(None)

    threading.Thread(target=read, daemon=True).start()
    return lines


def copy_rest(lines, log):
    """What ctest has to show of a failure, before it waits for other tests."""
    try:
        while (line := lines.get(timeout=0.5)) is not None:
            log.write(line)
    except queue.Empty:
        pass


def stop_group(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


# --- The check ---

class Check:
    """The results so far, and what it takes to get the next one."""

    def __init__(self, folder, jobs):
        self.folder = folder
        self.jobs = jobs
        self.trees = {}
        self.results = {}
        self.digest = ""

    def prepare(self, resume, fresh):
        pristine, source = self.folder / "pristine", self.folder / "source"
        (self.folder / "logs").mkdir(parents=True, exist_ok=True)
        if not resume or not pristine.is_dir():
            mirror(ROOT, checkout_files(), pristine)
        mirror(pristine, tree_files(pristine), source)
        self.digest = digest_of(pristine)
        kept = self.read("results.json")
        if not fresh and kept.get("digest") == self.digest:
            self.results = kept["mutants"]

    def read(self, name):
        path = self.folder / name
        return json.loads(path.read_text()) if path.is_file() else {}

    def write(self, name, value):
        new = self.folder / (name + ".new")
        new.write_text(json.dumps(value, indent=1))
        new.replace(self.folder / name)

    def log_of(self, name):
        path = self.folder / "logs" / f"{name}.log"
        path.unlink(missing_ok=True)
        return path

    def tree(self, name):
        """A tree that is ready; what was measured of one for these sources isn't measured again."""
        if name not in self.trees:
            tree = Tree(name, self.folder, self.jobs)
            kept = self.read(f"{name}.json")
            if kept.get("digest") == self.digest:
                tree.durations, tree.programs = kept["durations"], kept["programs"]
                tree.configure(self.log_of(f"{name}-tree"))
                tree.ready = True
            else:
                print(f"building and testing without any mistake: {name}", flush=True)
                tree.measure(self.log_of(f"{name}-tree"))
                self.write(f"{name}.json", {"digest": self.digest, "durations": tree.durations,
                                            "programs": tree.programs})
            self.trees[name] = tree
        return self.trees[name]

    def result_of(self, mutant):
        """The kept result of just this mistake, or None."""
        kept = self.results.get(mutant["name"])
        return kept if kept is not None and kept["mutant"] == identity(mutant) else None

    def try_out(self, mutant):
        tree = self.tree(tree_of(mutant))
        log = self.log_of(mutant["name"])
        path = self.folder / "source" / mutant["file"]
        text = (self.folder / "pristine" / mutant["file"]).read_text()
        start = time.monotonic()
        try:
            path.write_text(text.replace(mutant["old"], mutant["new"]))
            killer = self.killer_of(tree, mutant, log)
        finally:
            path.write_text(text)  # builds with the next mistake
        result = {"mutant": identity(mutant), "killer": killer, "seconds": round(time.monotonic() - start, 1)}
        self.results[mutant["name"]] = result
        self.write("results.json", {"digest": self.digest, "mutants": self.results})
        return result

    @staticmethod
    def killer_of(tree, mutant, log):
        """The first test to notice, or None. The one that is likely to comes first, the rest only after that."""
        first = mutant.get("first")
        phases = [(["-R", first], tree.targets_of(first))] if first else []
        phases.append((TWICE + (["-E", first] if first else []), []))
        for selection, targets in phases:
            if not tree.build(log, targets):
                raise DoesNotCompile(f"{mutant['name']} doesn't compile: {log}")
            killer = tree.test(selection, log)
            if killer is not None:
                return killer
        return None


def identity(mutant):
    return [mutant["file"], mutant["old"], mutant["new"], tree_of(mutant)]


# --- The report ---

def verdict(mutant, result):
    if result["killer"] is not None:
        return f"killed by {result['killer']}"
    return f"survived: {mutant['survives']}" if "survives" in mutant else "SURVIVED"


def suite_of(killer):
    """The program or fixture of a test, without the prefix of its parameters."""
    return re.sub(r"^\w+/", "", killer).split(".")[0].split("/")[0]


def table(mutants, results):
    """One row a file, as Markdown; the killers with the number of mistakes that each was the first to notice."""
    rows = ["| File | Mutants | Killed | Survived | First killers |", "|---|---:|---:|---:|---|"]
    for file in sorted({mutant["file"] for mutant in mutants}):
        killers = [results[mutant["name"]]["killer"] for mutant in mutants if mutant["file"] == file]
        rows.append(row(file, killers))
    return "\n".join(rows + [row("all", [results[mutant["name"]]["killer"] for mutant in mutants], False)])


def row(label, killers, named=True):
    killed = [killer for killer in killers if killer is not None]
    suites = collections.Counter(suite_of(killer) for killer in killed).most_common() if named else []
    names = ", ".join(f"{suite} {count}" for suite, count in suites)
    return f"| {label} | {len(killers)} | {len(killed)} | {len(killers) - len(killed)} | {names} |"


def check_all(check, mutants):
    """Tries all of them that have no result yet; the exit code."""
    tried = []
    for number, mutant in enumerate(mutants, 1):
        print(f"{number}/{len(mutants)} {mutant['name']}: ", end="", flush=True)
        try:
            kept = check.result_of(mutant) is not None
            result = check.result_of(mutant) or check.try_out(mutant)
            print(f"{verdict(mutant, result)} ({'kept' if kept else str(result['seconds']) + ' s'})", flush=True)
            tried.append(mutant)
        except DoesNotCompile as reason:
            print(reason, flush=True)
    results = {mutant["name"]: check.result_of(mutant) for mutant in tried}
    print("\n" + table(tried, results))
    survivors = [m["name"] for m in tried if results[m["name"]]["killer"] is None and "survives" not in m]
    if survivors:
        print(f"\nNot noticed: {', '.join(survivors)}")
    return 2 if len(tried) < len(mutants) else 1 if survivors else 0


def parse_arguments():
    parser = argparse.ArgumentParser(prog="./dev mutate", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--only", metavar="NAME", action="append", help="just this one (again for more)")
    parser.add_argument("--list", action="store_true", help="check the list against the sources and show it")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 1, metavar="N",
                        help="compilers and tests at once (default: one a core)")
    parser.add_argument("--build", type=Path, default=ROOT / "build/mutate", metavar="FOLDER",
                        help="the folder for the copies, the builds, the logs and the results")
    parser.add_argument("--resume", action="store_true",
                        help="go on with the interrupted run's copy, even if the checkout has changed")
    parser.add_argument("--fresh", action="store_true", help="forget all earlier results")
    return parser.parse_args()


def selected(mutants, names):
    unknown = set(names or []) - {mutant["name"] for mutant in mutants}
    if unknown:
        raise CannotCheck(f"there is no mutant {', '.join(sorted(unknown))}")
    return [mutant for mutant in mutants if not names or mutant["name"] in names]


def main():
    arguments = parse_arguments()
    signal.signal(signal.SIGTERM, signal.default_int_handler)  # so that what runs is stopped too
    if arguments.list:
        print_list(selected(load_mutants(ROOT), arguments.only))
        return 0
    check = Check(arguments.build.resolve(), arguments.jobs)
    check.prepare(arguments.resume, arguments.fresh)
    mutants = selected(load_mutants(check.folder / "pristine"), arguments.only)
    return check_all(check, mutants)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except CannotCheck as reason:
        print(f"mutate: {reason}", file=sys.stderr)
        sys.exit(2)
    except KeyboardInterrupt:
        sys.exit(130)
