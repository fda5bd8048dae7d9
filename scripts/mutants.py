#!/usr/bin/env python3
"""Breaks the product on purpose, one small change at a time, and counts what the tests notice.

usage: scripts/mutants.py [--seed N] [--count N] [--seconds S] [--rooms "engine util"] [--jobs N]

Picks lines of src/ and host/ at random, changes one operator, constant, condition or statement in each, builds
the test programs of that room (then those of the rooms above it) and runs them. The work happens on a copy under
build/mutants: the sources themselves are never touched, and an interrupted run leaves nothing behind. The same
seed on the same sources gives the same changes. Survivors end up in build/mutants/survivors.txt.

A mutant may do anything to files, so the tests run as user "nobody" when this runs as root. Otherwise the few
sources that delete files or folders are left out.
"""

import argparse
import os
import pwd
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import time
from collections import Counter, defaultdict
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(subprocess.check_output(["git", "rev-parse", "--show-toplevel"], text=True).strip())
WORK = ROOT / "build" / "mutants"
TREE, BUILD, TEMP = WORK / "tree", WORK / "build", WORK / "tmp"

# Where a line belongs, and the programs that try it, the nearest first.
ROOMS = [
    ("platform", "src/platform/", ["platform_tests", "util_tests", "pooled_tests", "engine_tests"]),
    ("util", "src/util/", ["util_tests", "pooled_tests", "server_tests", "engine_tests"]),
    ("ktserver", "src/shared_ktserver/", ["server_tests", "amf_replay", "engine_tests"]),
    ("server", "src/server/", ["server_tests", "amf_replay", "composite_replay", "engine_tests", "host_tests"]),
    ("contract", "src/modules/streams/contract/", ["engine_tests", "host_tests"]),
    ("engine", "src/modules/streams/flv/", ["engine_tests", "file_replay", "contexts_replay", "host_tests"]),
    ("host", "host/", ["host_tests"]),
]
# What tries random moments would say something else each time. What fails as it is, for want of root's rights for
# one, joins the list.
LEFT_OUT = ["RecordKillTest.*"]
DELETES = re.compile(r"\b(rmdir|unlink|remove|remove_all|rename)\s*\(")


@dataclass(frozen=True)
class Mutant:
    path: str
    line: int  # From 1.
    old: str
    new: str
    what: str


# --- which changes a line allows


def code_of(line):
    """The line with texts and comments blanked out, at the same columns."""
    line = re.sub(r'"(\\.|[^"\\])*"|\'(\\.|[^\'\\])+\'', lambda m: '"' * len(m.group()), line)
    return re.sub(r"//.*", lambda m: " " * len(m.group()), line)


SWAPS = {
    " < ": [" <= ", " >= "], " <= ": [" < ", " > "], " > ": [" >= ", " <= "], " >= ": [" > ", " < "],
    " == ": [" != "], " != ": [" == "], " && ": [" || "], " || ": [" && "],
    " + ": [" - "], " - ": [" + "], " * ": [" / "], " / ": [" * "], " % ": [" / "],
    " << ": [" >> "], " >> ": [" << "], " & ": [" | "], " | ": [" & "], " ^ ": [" | "],
    " += ": [" -= "], " -= ": [" += "], " |= ": [" &= "], " &= ": [" |= "],
    "++": ["--"], "--": ["++"],
}
TOKEN = re.compile("|".join(re.escape(t) for t in sorted(SWAPS, key=len, reverse=True)))
NUMBER = re.compile(r"(?<![\w.])(0x[0-9A-Fa-f']+|\d[\d']*)(?=[uUlL]*\b)(?![\w.]*\.)")
STATEMENT = re.compile(r"^\s+(?!return|break|continue|using|static|const|friend|throw|delete|goto|case|default|if"
                       r"|else|for|while|do|struct|class|enum|typedef|public|private|protected|virtual|explicit|template"
                       r"|operator)"
                       r"[*(]?[A-Za-z_][\w.:>*\[\]()-]*(\s[-+|&^*/%]?=\s|\(|\+\+|--|\s(<<|>>)=\s).*;\s*$")
DECLARES = re.compile(r"^\s+[A-Za-z_][\w:]*(<.*>)?[*&]*\s+[*&]?\w+(\(| = |\{).*;\s*$")


def changes_of(line):
    code = code_of(line)
    stripped = code.strip()
    declares = ("using ", "namespace ", "static_assert", "template")
    if not stripped or stripped[0] in "#}" or stripped.startswith(declares):
        return
    if "KT_ASSERT(" in code or re.search(r"= (default|delete)|^virtual .*= 0;", stripped):
        return

    def at(start, end, text):
        return line[:start] + text + line[end:]

    generic = re.search(r"\btemplate\b|\boperator\b", code)
    for m in TOKEN.finditer(code):
        if generic and m.group().strip() in "<<>>":
            continue
        for new in SWAPS[m.group()]:
            yield at(m.start(), m.end(), new), f"{m.group().strip()} to {new.strip()}"
    for m in re.finditer(r"\b(true|false)\b", code):
        new = "false" if m.group() == "true" else "true"
        yield at(m.start(), m.end(), new), f"{m.group()} to {new}"
    for m in NUMBER.finditer(code):
        yield at(m.start(), m.end(), f"({m.group()} + 1)"), f"{m.group()} plus 1"
        if m.group().strip("0'x"):
            yield at(m.start(), m.end(), f"({m.group()} - 1)"), f"{m.group()} less 1"
    condition = re.match(r"(\s*(?:\} )?(?:else )?(?:if|while) \()(.*)(\)(?: \{| [^()]*;)?\s*)$", code)
    if condition and ";" not in condition.group(2) and balanced(condition.group(2)):
        start, end = condition.span(2)
        yield at(start, end, f"!({line[start:end]})"), "condition turned"
        if " if (" in " " + condition.group(1):
            yield at(start, end, "true"), "condition always"
            yield at(start, end, "false"), "condition never"
    if STATEMENT.match(code) and not DECLARES.match(code) and balanced(code):
        yield line[:len(line) - len(line.lstrip())] + ";", "statement removed"
    back = re.match(r"(\s*(?:if \(.*\) )?return )([^;{}]+);\s*$", code)
    if back and back.group(2) not in ("true", "false", "*this") and balanced(back.group(2)):
        yield at(back.start(2), back.end(2), "{}"), "empty result"


def balanced(text):
    depth = 0
    for c in text:
        depth += (c == "(") - (c == ")")
        if depth < 0:
            return False
    return depth == 0


def room_of(path):
    return next((room for room in ROOMS if path.startswith(room[1])), None)


def candidates(rooms, sandboxed):
    """All changes of each line that allows any, by path, line number and line."""
    found = {}
    for path in sorted(sources()):
        room = room_of(path)
        if not room or not path.endswith((".h", ".cpp")) or (rooms and room[0] not in rooms):
            continue
        text = (TREE / path).read_text()
        if not sandboxed and DELETES.search(text):
            print(f"left out, since it deletes files: {path}")
            continue
        for number, line in enumerate(text.split("\n"), 1):
            changes = [c for c in dict.fromkeys(changes_of(line)) if c[0] != line]
            if changes:
                found[path, number, line] = changes
    return found


def pick(found, seed):
    """Lines in random order, each with one of its changes."""
    chance = random.Random(seed)
    lines = list(found)
    chance.shuffle(lines)
    for path, number, line in lines:
        new, what = chance.choice(found[path, number, line])
        yield Mutant(path, number, line, new, what)


# --- the copy, built and run


def sources():
    listed = subprocess.check_output(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=ROOT)
    return [p for p in listed.decode().split("\0") if p and (ROOT / p).is_file()]


def copy_tree():
    wanted = set(sources())
    for path in wanted:
        source, target = ROOT / path, TREE / path
        if target.exists() and target.read_bytes() == source.read_bytes():
            continue
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(source, target)
    for old in (p for p in TREE.rglob("*") if p.is_file() and str(p.relative_to(TREE)) not in wanted):
        old.unlink()


def configure():
    # No mutant runs while it is built: the tests are listed by nobody.
    subprocess.run(["cmake", "-S", TREE, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=", "-DBUILD_TESTING=ON",
                    "-DCMAKE_CXX_FLAGS=-O1 -w", "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"], check=True, stdout=subprocess.DEVNULL)


def known_programs():
    listed = subprocess.check_output(["ninja", "-C", BUILD, "-t", "targets", "all"], text=True)
    return {line.split(":")[0] for line in listed.splitlines()}


def build(target, jobs, of_mutant):
    # A mutant's objects are of no use to anybody later: the cache is read only.
    environment = dict(os.environ, **({"CCACHE_READONLY": "1"} if of_mutant else {}))
    done = subprocess.run(["ninja", "-C", BUILD, f"-j{jobs}", target], env=environment, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace")
    return done.returncode == 0, done.stdout


def command_of(program):
    if program.endswith("_replay"):
        name = program[:-len("_replay")]
        return [BUILD / "fuzz" / program, BUILD / "fuzz" / "corpus" / name, TREE / "fuzz" / "findings" / name]
    return [BUILD / "tests" / program, "--gtest_brief=1", "--gtest_filter=-" + ":".join(LEFT_OUT)]


def confined():
    os.setsid()
    resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 35, 1 << 35))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_AS, (1 << 34, 1 << 34))
    if os.geteuid() == 0:
        os.setgid(NOBODY.pw_gid)
        os.setuid(NOBODY.pw_uid)


def run(program, limit, fail_fast=True):
    """0 if the tests pass, else a word for how they noticed."""
    environment = dict(os.environ, CI="true", GTEST_FAIL_FAST=str(int(fail_fast)), HOME=str(TEMP), TMPDIR=str(TEMP),
                       TEST_TMPDIR=f"{TEMP}/")
    LOG.truncate(0)
    started = subprocess.Popen([str(word) for word in command_of(program)], cwd=TEMP, env=environment,
                               preexec_fn=confined, stdin=subprocess.DEVNULL, stdout=LOG, stderr=LOG)
    try:
        status = started.wait(limit)
        return "" if status == 0 else "failed" if status > 0 else f"signal {-status}"
    except subprocess.TimeoutExpired:
        return "endless"
    finally:
        try:
            os.killpg(started.pid, signal.SIGKILL)  # With all that it started.
        except ProcessLookupError:
            pass
        started.wait()


def clear_temp():
    shutil.rmtree(TEMP, ignore_errors=True)
    TEMP.mkdir(parents=True)
    if os.geteuid() == 0:
        os.chown(TEMP, NOBODY.pw_uid, NOBODY.pw_gid)


def baseline(programs, jobs):
    """Seconds that each program takes unbroken. All must pass."""
    took = {}
    for program in programs:
        good, output = build(program, jobs, False)
        if not good:
            sys.exit(output + f"{program} doesn't build as it is")
        for last_try in (False, True):
            start = time.monotonic()
            clear_temp()
            noticed = run(program, 600, fail_fast=False)
            took[program] = time.monotonic() - start
            failed = re.findall(r"^\[  FAILED  \] ([\w/]+\.[\w/]+)", Path(LOG.name).read_text(errors="replace"), re.M)
            if not noticed:
                break
            if last_try or not failed:
                sys.exit(f"{program} doesn't pass as it is ({noticed}): see {LOG.name}")
            LEFT_OUT.extend(dict.fromkeys(failed))
            print(f"left out, since they fail as they are: {' '.join(dict.fromkeys(failed))}", flush=True)
    return took


def needed_by(program):
    # Loaded, not linked: ninja knows them as plain dependencies of the test programs, except for these.
    return ["flvadaptor", "flvhost"] if program == "host_tests" else []


def judge(mutant, took, jobs):
    """caught, survived or not built; and by what."""
    path = TREE / mutant.path
    original = path.read_text()
    lines = original.split("\n")
    lines[mutant.line - 1] = mutant.new
    path.write_text("\n".join(lines))
    try:
        for program in (p for p in room_of(mutant.path)[2] if p in took):
            for target in [*needed_by(program), program]:
                if not build(target, jobs, True)[0]:
                    return "not built", ""
            clear_temp()
            if noticed := run(program, 20 + 8 * took[program]):
                return "caught", f"{program} ({noticed})"
        return "survived", ""
    finally:
        path.write_text(original)


# --- the sample


def figure(counts):
    caught, survived = counts["caught"], counts["survived"]
    share = f"{100 * caught / (caught + survived):5.1f} %" if caught + survived else "    -  "
    return f"{caught:5d} caught {survived:5d} survived {counts['not built']:5d} not built  {share}"


def main():
    parser = argparse.ArgumentParser(description="Counts what the tests notice of small changes to the product.")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=100, help="mutants that build (default 100)")
    parser.add_argument("--seconds", type=float, default=0, help="stop after so long; 0: no limit")
    parser.add_argument("--rooms", default="", help="of: " + " ".join(room[0] for room in ROOMS))
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    options = parser.parse_args()
    sandboxed = os.geteuid() == 0

    copy_tree()
    configure()
    rooms = set(options.rooms.split())
    programs = dict.fromkeys(p for room in ROOMS if not rooms or room[0] in rooms for p in room[2])
    took = baseline([p for p in programs if p in known_programs()], options.jobs)
    found = candidates(rooms, sandboxed)
    print(f"seed {options.seed}; {len(found)} lines, {sum(map(len, found.values()))} possible changes", flush=True)

    end = time.monotonic() + options.seconds if options.seconds else float("inf")
    by_room, total, survivors = defaultdict(Counter), Counter(), []
    for mutant in pick(found, options.seed):
        if total["caught"] + total["survived"] >= options.count or time.monotonic() > end:
            break
        start = time.monotonic()
        verdict, by = judge(mutant, took, options.jobs)
        total[verdict] += 1
        by_room[room_of(mutant.path)[0]][verdict] += 1
        print(f"{time.monotonic() - start:5.0f} s  {verdict:9s}  {mutant.path}:{mutant.line}  {mutant.what}  {by}",
              flush=True)
        if verdict == "survived":
            survivors.append(f"{mutant.path}:{mutant.line}: {mutant.what}\n- {mutant.old}\n+ {mutant.new}\n")

    (WORK / "survivors.txt").write_text("\n".join(survivors))
    print("\n" + "\n".join(survivors))
    for room, counts in sorted(by_room.items()):
        print(f"{room:10s} {figure(counts)}")
    print(f"{'all':10s} {figure(total)}   (seed {options.seed})")


if __name__ == "__main__":
    NOBODY = pwd.getpwnam("nobody")
    WORK.mkdir(parents=True, exist_ok=True)
    with open(WORK / "tests.log", "a") as LOG:
        main()
