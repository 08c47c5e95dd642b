#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the fuzzers that are built in build/fuzz, and fuzz_trace.py.

check.py run [SECONDS [TARGET]...]  replays each corpus, says how much of its object that reaches, and
                            goes on from it for so many seconds (10), as many at once as there are
                            processors
check.py planted [WORD]...  plants the faults of planted/ whose names have one of the words in a copy
                            of the tree: each must be found within a minute, from no corpus
                            (mqtt, which needs libmosquitto, is among the targets when it is named)
check.py corpus TARGET DIRECTORY  makes a target's corpus of the inputs found in a directory and those
                            that it has
"""
import concurrent.futures
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]
PATIENCE = 60  # s, for a planted fault
ENOUGH = 95.0  # % of the lines of a target's own object

# What each target is about.
OBJECTS = {
    "maps": ["src/maps/rbtree.cpp", "src/maps/rbapi.cpp", "src/maps/rbapi_kv.cpp"],
    "messages": ["src/records/qor_context_msg.cpp"],
    "time_que": ["src/queues/qor_time_que.cpp", "src/queues/time_index.cpp", "src/queues/key_tree.cpp"],
    "que": ["src/queues/qor_que.cpp", "src/queues/que_waits.cpp"],
    "topics": ["src/bus/qor_topic_core.cpp", "src/bus/qor_topic_epoch.cpp"],
    "strict": ["src/contract/contract_queue.cpp", "src/contract/contract.cpp", "src/contract/contract_terms.cpp"],
    "bus": ["src/bus/qor_sched_delegate.cpp", "src/bus/qor_sched_register.cpp", "src/bus/message_node.cpp"],
}

TARGETS = [*OBJECTS, "trace"]  # the last is no program of the library
BRIDGE = "mqtt"  # built where QOR_MQTT is on
OBJECTS_OF_ALL = {**OBJECTS, BRIDGE: [f"companions/mqtt/src/mqtt_{name}.cpp" for name in (
    "topic", "properties")]}


def target_of(place, name):
    return place / "build/fuzz/tests/fuzz" / f"fuzz_{name}"


def fuzz(place, name, *arguments, profile=os.devnull):
    """The status of a fuzzer and what it says."""
    surroundings = dict(os.environ, LLVM_PROFILE_FILE=str(profile),
                        ASAN_OPTIONS="detect_leaks=0:quarantine_size_mb=16", UBSAN_OPTIONS="print_stacktrace=1")
    command = [target_of(place, name), "-detect_leaks=0", "-max_len=1024", "-len_control=20", "-timeout=10", *arguments]
    done = subprocess.run(command, cwd=place / "build/fuzz", env=surroundings, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace")
    return done.returncode, done.stdout


def trace(place, *arguments):
    """The same of fuzz_trace.py."""
    done = subprocess.run([sys.executable, "-B", place / "tests/fuzz/fuzz_trace.py", *arguments], cwd=place,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    return done.returncode, done.stdout


def coverage(name, profile):
    """Prints how many lines of its object a target has run, and says whether they are enough."""
    data = profile.with_suffix(".profdata")
    subprocess.run(["llvm-profdata", "merge", "-sparse", profile, "-o", data], check=True)
    told = subprocess.run(["llvm-cov", "export", "-summary-only", target_of(ROOT, name), f"-instr-profile={data}"],
                          check=True, stdout=subprocess.PIPE, text=True)
    lines = [file["summary"]["lines"] for file in json.loads(told.stdout)["data"][0]["files"]
             if file["filename"].endswith(tuple(OBJECTS_OF_ALL[name]))]
    covered, count = sum(line["covered"] for line in lines), sum(line["count"] for line in lines)
    print(f"{name}: its corpus reaches {covered} of {count} lines, {100 * covered / count:.1f} %")
    return len(lines) == len(OBJECTS_OF_ALL[name]) and 100 * covered / count >= ENOUGH


def run_one(name, seconds):
    """Whether a target replays its corpus, reaches enough, and finds nothing for a while."""
    corpus = HERE / "corpus" / name
    profile = ROOT / "build/fuzz" / f"{name}.profraw"
    status, said = fuzz(ROOT, name, *sorted(str(file) for file in corpus.iterdir()), profile=profile)
    if status != 0:
        print(said)
        return False
    enough = coverage(name, profile)
    with tempfile.TemporaryDirectory() as found:
        status, said = fuzz(ROOT, name, f"-max_total_time={seconds}", "-print_final_stats=1",
                            f"-artifact_prefix={ROOT}/build/fuzz/{name}-", found, str(corpus))
    if status != 0:
        print(said[-8000:])
        return False
    print(f"{name}: {re.search(r'number_of_executed_units: ([0-9]+)', said)[1]} inputs, none fails", flush=True)
    return enough


def run_trace(_, seconds):
    good = True
    for arguments in (("replay",), ("run", str(seconds))):
        status, said = trace(ROOT, *arguments)
        print(said, end="", flush=True)
        good = good and status == 0
    return good


def run(seconds="10", *names):
    def one(name):
        return (run_trace if name == "trace" else run_one)(name, int(seconds))

    with concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        return [f"{name}: failed" for name, good in zip(names or TARGETS, pool.map(one, names or TARGETS)) if not good]


def quietly(place, *command):
    """Whether a command succeeds; what it says is shown if it does not."""
    done = subprocess.run(command, cwd=place, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if done.returncode != 0:
        print(done.stdout)
    return done.returncode == 0


def build(place, names):
    programs = [f"fuzz_{name}" for name in names if name in OBJECTS_OF_ALL]
    return not programs or quietly(place, "cmake", "--build", "--preset", "fuzz", "--target", *programs)


def plant(place, patch, *how):
    """The whole patch, or nothing of it."""
    command = ["patch", "-p1", "--fuzz=0", "--silent", "--no-backup-if-mismatch", "-r", "-", *how, "-i", str(patch)]
    return quietly(place, *command, "--dry-run") and quietly(place, *command)


def hunt(place, patch):
    """Plants one fault and looks for it; why it is to be complained of, or None."""
    name = patch.parent.name
    if not re.search(r"^# Breaks: \S", patch.read_text(), re.M) or not plant(place, patch):
        return "does not apply, or does not say what it breaks"
    try:
        if not build(place, [name]):
            return "does not build"
        with tempfile.TemporaryDirectory() as found:
            begun = time.monotonic()
            if name == "trace":
                status, said = trace(place, "hunt", str(PATIENCE))
            else:
                status, said = fuzz(place, name, f"-max_total_time={PATIENCE}", f"-artifact_prefix={found}/", found)
            took = time.monotonic() - begun
        if status == 0 or took > PATIENCE:
            return "NOT FOUND"
        how = re.search(r"not so: .*|ERROR: (?:AddressSanitizer|libFuzzer): .*|runtime error: .*", said)
        if not how:
            return f"ended with status {status}: {said[-2000:]}"
        print(f"{name}/{patch.stem}: found after {took:.1f} s: {how[0][:80]}", flush=True)
        return None
    finally:
        plant(place, patch, "--reverse")


def planted(*words):
    targets = [*TARGETS, *([BRIDGE] if BRIDGE in words else [])]
    patches = [patch for patch in sorted(HERE.glob("planted/*/*.patch")) if patch.parent.name in targets
               and (not words or any(word in f"{patch.parent.name}/{patch.stem}" for word in words))]
    complaints = [f"{name}: has not ten planted faults" for name in targets
                  if len(list((HERE / "planted" / name).glob("*.patch"))) < 10]
    with tempfile.TemporaryDirectory() as directory:
        place = Path(directory) / "tree"
        shutil.copytree(ROOT, place, symlinks=True, ignore=shutil.ignore_patterns("build", ".git", ".cache"))
        names = sorted({patch.parent.name for patch in patches})
        configured = names == ["trace"] or quietly(
            place, "cmake", "--preset", "fuzz", "-DQOR_WERROR=OFF", f"-DQOR_MQTT={'ON' if BRIDGE in names else 'OFF'}")
        if not configured or not build(place, names):
            return ["the tree does not build"]
        for patch in patches:
            complaint = hunt(place, patch)
            if complaint:
                complaints.append(f"{patch.parent.name}/{patch.stem}: {complaint}")
                print(complaints[-1], flush=True)
    print(f"{len(patches)} faults planted, {len(complaints)} complaints")
    return complaints


def corpus(name, directory):
    """Of inputs that reach the same, the smallest."""
    kept = HERE / "corpus" / name
    kept.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as fresh:
        status, said = fuzz(ROOT, name, "-merge=1", "-use_counters=0", fresh, directory, str(kept))
        if status != 0:
            return [said[-4000:]]
        shutil.rmtree(kept)
        shutil.copytree(fresh, kept)
    print(f"{name}: {len(list(kept.iterdir()))} inputs")
    return []


def main(command="run", *arguments):
    complaints = {"run": run, "planted": planted, "corpus": corpus}[command](*arguments)
    print("\n".join(complaints), end="\n" if complaints else "")
    return len(complaints) > 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
