#!/usr/bin/env python3
"""Keeps the results of a play on the controller, and sums them up.

    evidence.py order LOGS [--undo]                    <{"all": [HOST...]}
    evidence.py open LOGS [--play DIRECTORY] [--undo] [--check] [--limited] [--owner PID]
                       <{"all": [HOST...], "batch": [HOST...], "inventory": [HOST...],
                        "paths": [PATH...], "last"}
    evidence.py collect DIRECTORY [--diff] [--max-failed LIMITS --max-failed-total LIMIT]
                                                       <{HOST: {"found"} or {"outcome", "reason"}}
    evidence.py settle DIRECTORY [--max-failed LIMITS --max-failed-total LIMIT]
                                                       <{HOST: why the site tasks after it failed}
    evidence.py report LOGS [--play DIRECTORY] [--undo] [--check] [--owner PID]

LOGS holds one directory for each play, which no later one touches, and a link to the latest. A
directory has "journal", to which every call appends its results, "again" with the hosts that are
not done, the files of each host, and, after the play, summary.json and summary.txt. Text from a
host is never evaluated, and is printed as ASCII only.
"""

import argparse
import fcntl
import json
import os
import re
import sys
import tarfile
import time

FILES = ("before.json", "before.err", "after.json", "after.err", "stdout", "stderr", "log",
         "status", "steps", "saved", "runs")
# More from one host would only fill the controller's disk.
MOST_BYTES = 64 << 20
MOST_REASONS = 40  # on the screen
GOOD = ("done", "undone", "shared", "kept", "clean")
# The outcomes of the inspector, and those that only the controller knows.
OUTCOMES = ("failed", "nothing-done", "unfinished", "unknown", "lost", "busy", "blocked",
            "unreachable", "not-started") + GOOD
# The outcomes that count for the failure limit.
FAILED = OUTCOMES[:5]
CUT_SHORT = "the play ended before the result of this host was known"
ADVICE = {
    **dict.fromkeys(FAILED, "fix the reason, then resume"),
    "busy": "stop what uses the driver",
    "unreachable": "check the connection",
}
RECORD = {"outcome": "unknown", "status": None, "reason": "", "blocks": [], "keeps": [],
          "stays": [], "changed": False, "tries": 0, "evidence": None, "version": None,
          # The directory on the host with what the run removed.
          "saved": None,
          # Whether the record is that of an earlier play.
          "carried": False,
          # The outcome in the last play that reached the host.
          "earlier": None,
          # Whether the host may have a run whose end no play has seen.
          "out": False}


def plain(value):
    text = value if isinstance(value, str) else ""
    return "".join(c if " " <= c <= "~" else "?" for c in text.strip())[:400]


def sentence(finding):
    """The finding in a line, with its place if the text does not name it."""
    text, where, do = (plain(finding.get(key)) for key in ("text", "where", "do"))
    return ": ".join(filter(None, (text.rstrip(".: "), "" if where in text else where, do)))


def reason_of(message):
    """The line of Ansible's message that says why, without the words of ssh around it."""
    prefix = r"^(Failed to connect to the host via|Data could not be .* reached over) ssh: "
    lines = [re.sub(prefix, "", line).strip() for line in message.splitlines()]
    noise = r"Warning: Permanently added|(Shared c|C)onnection to \S+ closed|#|\*|$"
    # When ssh ends before Ansible has written to it, Ansible knows no better.
    lines = [re.sub(r"^\[Errno \d+\] (.+?)\. .*", r"no connection: \1", line) for line in lines]
    return plain(([line for line in lines if not re.match(noise, line)] or lines or [""])[-1])


def read(*path):
    try:
        with open(os.path.join(*path), encoding="utf-8", errors="replace") as file:
            return file.read()
    except OSError:
        return ""


def write(text, *path):
    path = os.path.join(*path)
    with open(path + ".new", "w", encoding="utf-8") as file:
        file.write(text)
    os.replace(path + ".new", path)


def now(seconds=None):
    return time.strftime("%Y-%m-%dT%H:%M:%S%z", time.localtime(seconds))


def counted(number, noun):
    return "%d %s%s" % (number, noun, "" if number == 1 else "s")


def parse_object(text):
    try:
        found = json.loads(text)
    except ValueError:
        return {}
    return found if isinstance(found, dict) else {}


def objects(found, key):
    items = found.get(key)
    return [item for item in items if isinstance(item, dict)] if isinstance(items, list) else []


def findings(found, severity):
    return [item for item in objects(found, "findings") if item.get("severity") == severity]


def not_saved(files, prediction, found):
    """In words what a run removed but did not save, although it had to."""
    if "save" not in files["steps"].split():
        return ""
    listed = [item for item in objects(prediction, "removed") if item.get("listed")]
    more = len(objects(found, "removed")) - len(listed)
    errors = files["before.err"].splitlines() if files["saved"] else []
    words = ", ".join(line.partition("saved: ")[2] for line in errors)
    if not words and files["saved"].startswith("nothing"):
        words = "the prediction did not end"
    elif not words and more > 0:
        words = "%s, not predicted" % counted(more, "path")
    return "; not saved: " + plain(words) if words else ""


def not_started(former):
    """The record of a host whose batch has not started, with its result in an earlier play."""
    reason = "its batch did not start"
    if former and former["outcome"] == "not-started":
        reason = former["reason"]
    elif former:
        reason += "; before: %(outcome)s: %(reason)s" % former
    out = former and (former["out"] or former["outcome"] == "unknown" and not former["evidence"])
    return {**RECORD, "outcome": "not-started", "reason": reason, "out": bool(out),
            "earlier": last_seen(former)}


def last_seen(former):
    if not former or former["outcome"] in ("not-started", "unreachable"):
        return former and former["earlier"]
    return former["outcome"]


def is_known(record):
    """Whether the host has failed in an earlier play. If the failure limit counted it again, a
    resumed play would never reach later batches."""
    return record["earlier"] in FAILED


class Record(dict):
    """The values of a host that differ from RECORD: filling in thousands of records takes time."""

    def __missing__(self, key):
        return RECORD[key]


class Play:
    """The journal of a directory: the `state` of the play, and `hosts` with a record each."""

    def __init__(self, directory):
        self.directory = directory
        self.state, self.hosts = {
            "check": False, "undo": False, "batches": [], "stopped": None}, {}
        for line in read(directory, "journal").split("\n"):
            line = parse_object(line)  # one that a full disk cut short says nothing
            self.state.update(line.get("state", {}))
            self.hosts.update(line.get("hosts", {}))
        self.hosts = {name: Record(record) for name, record in self.hosts.items()}

    def add(self, hosts=(), **state):
        """Appends to the journal: records of hosts, without values of RECORD, and the state."""
        hosts = {name: Record((key, value) for key, value in record.items()
                              if value != RECORD[key]) for name, record in dict(hosts).items()}
        self.state.update(state)
        self.hosts.update(hosts)
        line = {"state": state, "hosts": hosts}
        with open(os.path.join(self.directory, "journal"), "ab+") as journal:
            if journal.tell() and os.pread(journal.fileno(), 1, journal.tell() - 1) != b"\n":
                journal.write(b"\n")
            journal.write(json.dumps(line).encode() + b"\n")

    def write_again(self):
        # An empty file would limit a play to nothing, which Ansible takes for all hosts.
        write("\n".join(self.not_done() or ["!all"]) + "\n", self.directory, "again")

    def record_of(self, name, given):
        """The record of a host after a try. `given` says whether the run was "found" there, or has
        the outcome and the reason if Ansible failed."""
        former = self.hosts[name]
        outcome = given.get("outcome")
        tries = former["tries"] + 1
        if outcome == "unreachable" and tries > 1:
            return former
        if outcome == "unreachable" and former["out"]:
            outcome = "lost"
        if outcome:
            return {**RECORD, "outcome": outcome, "reason": reason_of(given["reason"]),
                    "tries": tries, "out": former["out"] or outcome in ("lost", "unfinished")}
        place = os.path.join(self.directory, name, *(["try-%d" % tries] if tries > 1 else []))
        files = self.unpack(name, place)
        if {"list", "undo"}.isdisjoint(files["steps"].split()) == self.state["undo"]:
            raise ValueError("they belong to an earlier %s; resume" % (
                "run" if self.state["undo"] else "undo"))
        record = {**(self.record_of_undo if self.state["undo"] else self.record_of_run)(files),
                  "evidence": place}
        if given.get("found") and tries == 1:
            record["reason"] = "run of an earlier play: " + record["reason"]
        return {**record, "tries": tries, "changed": record["changed"] or former["changed"]}

    def record_of_run(self, files):
        prediction = parse_object(files["before.json"])
        found = prediction if self.state["check"] else parse_object(files["after.json"])
        ended = files["status"]
        outcome, reason = found.get("outcome"), plain(found.get("reason"))
        if not found:
            outcome, reason = self.explain(files)
        status = ended or found.get("status")
        blocks = findings(found, "blocks")
        if self.state["check"] and outcome in GOOD and blocks:
            outcome, reason = "blocked", "a run would end as %s; fix this first" % outcome
        if outcome not in GOOD:
            blocks = blocks or findings(prediction, "blocks")
        kept = objects(found, "kept")
        paths = [item.get("path") for item in kept]
        return {
            **RECORD,
            "outcome": outcome if outcome in OUTCOMES else "unknown",
            "reason": (reason or counted(len(objects(found, "removed")), "path") + (
                " to remove" if self.state["check"] else " removed")) + (
                    not_saved(files, prediction, found)),
            "status": None if status is None else int(status),
            "blocks": [sentence(item) for item in blocks],
            "keeps": [sentence(item) for item in findings(found, "keeps")
                      if item.get("where") not in paths],
            "stays": ["%s (%s)" % (plain(item.get("path")), plain(item.get("reason")))
                      for item in kept],
            # The log names neither configuration nor companion modules: the prediction does.
            "changed": bool(ended or self.state["check"]) and outcome != "nothing-done" and any(
                source.get(key) for source in (found, prediction)
                for key in ("removed", "unloaded")),
            "version": plain(found.get("version")) or None,
            "saved": plain(files["saved"]) if files["saved"].startswith("/") else None}

    def record_of_undo(self, files):
        check, runs = self.state["check"], files["runs"].splitlines()
        status = files["status"].strip()
        saved = [" ".join(line.split()) for line in runs
                 if ", saved" in line and "  not run" not in line]
        # The paths that are not put back, and the reasons.
        words = "".join(re.findall(r"^Not.*:\n((?:  .*\n)+)", files["stdout"], re.M)).splitlines()
        words = "; ".join(map(str.strip, words or files["stderr"].splitlines()[-1:]))
        if not status and not check:
            outcome, reason = self.explain(files)
        elif files["stderr"] and not runs:
            outcome, reason = "unknown", words
        elif not saved and (check or status == "2"):
            outcome, reason = ("nothing-done", "no run has an archive") if runs else (
                "clean", "there is no run to undo")
        elif check or status == "0":
            outcome, reason = "undone", "run " + saved[-1]
        else:
            outcome = "failed" if "Putting back" in files["stdout"] else "nothing-done"
            reason = words
        return {**RECORD, "outcome": outcome, "reason": plain(reason),
                "status": int(status) if status and saved else None,
                "changed": outcome in ("undone", "failed") and ", undone" not in saved[-1]}

    def explain(self, files):
        """Why there is no result."""
        if files["saved"].startswith("refused"):
            return "nothing-done", "not run"
        if not files["status"] and not self.state["check"]:
            return "unfinished", "the %s was interrupted: it was killed, or the host restarted" % (
                "undo" if self.state["undo"] else "run")
        if files["status"] and not files["log"]:
            return "unknown", "the run wrote no log"
        errors = files["before.err" if self.state["check"] else "after.err"].splitlines()
        return "unknown", plain(": ".join(["valta-driver-inspect printed no report", *errors[-1:]]))

    def unpack(self, name, place):
        """Extracts only the known files from the archive of a host, and no more bytes than it has.
        Returns their texts by name."""
        files = dict.fromkeys(FILES, "")
        archive = os.path.join(self.directory, "fetched", name)
        os.makedirs(place)
        if os.path.getsize(archive) > MOST_BYTES:
            os.remove(archive)
            raise ValueError("they have more than %d MB" % (MOST_BYTES >> 20))
        with tarfile.open(archive, "r:") as tar:
            for member in tar:
                if member.issparse():
                    raise ValueError("%s is sparse" % plain(member.name))
                if member.isfile() and member.name in FILES:
                    content = tar.extractfile(member).read()
                    files[member.name] = content.decode("utf-8", "replace")
                    with open(os.path.join(place, member.name), "wb") as file:
                        file.write(content)
        os.remove(archive)
        return files

    def not_done(self):
        return [name for name, record in self.hosts.items() if record["outcome"] not in GOOD]

    def failures(self, names):
        """The hosts that are not done, each with its message."""
        return {name: "%s: %s" % (self.hosts[name]["outcome"], " -> ".join(
            [self.hosts[name]["reason"], *self.next_steps(self.hosts[name])]))
            for name in names if self.hosts[name]["outcome"] not in GOOD}

    def enter(self, names, earlier):
        """The first records of the hosts of this play."""
        formers = {name: self.hosts.get(name) for name in names}
        return {name: not_started(former or earlier.get(name))
                for name, former in formers.items() if not former or former["carried"]}

    def sum_up(self):
        """Writes the summary."""
        hosts = ",\n".join("%s: %s" % (json.dumps(n), json.dumps({**RECORD, **r}))
                           for n, r in self.hosts.items())
        state = {"schema": 2, **self.state, "versions": sorted(
            {record["version"] for record in self.hosts.values()} - {None}),
            "end": now(os.path.getmtime(os.path.join(self.directory, "journal")))}
        write('{%s,\n"hosts": {\n%s\n}}\n' % (
            ",\n".join("%s: %s" % (json.dumps(k), json.dumps(v)) for k, v in state.items()),
            hosts), self.directory, "summary.json")
        write("".join(line + "\n" for line in self.lines()), self.directory, "summary.txt")
        self.write_again()

    def totals(self):
        outcomes = [record["outcome"] for record in self.hosts.values()]
        return "%s%s: %s" % (
            counted(len(outcomes), "host"),
            " in check mode, where nothing was done" if self.state["check"] else "",
            ", ".join("%d %s" % (outcomes.count(o), o) for o in OUTCOMES[::-1] if o in outcomes))

    def resume(self):
        count = len(self.not_done())
        hosts = "%s %s" % (counted(count, "host"), "is" if count == 1 else "are")
        if self.state["check"]:
            return "%s not ready for a run. Fix the reasons, then check with: --limit @%s" % (
                hosts, os.path.join(self.directory, "again")) if count else (
                    "Nothing was done." if self.state["undo"] else
                    "All hosts are ready for a run. Nothing was done.")
        return "%s not done. Fix the reasons, then resume with: --limit @%s" % (
            hosts, os.path.join(self.directory, "again")) if count else "All hosts are done."

    def stop(self):
        stopped = self.state["stopped"]
        return ["The failure limit ended the play after batch %(batch)d, at %(time)s: %(reason)s"
                % stopped] if stopped else []

    def head(self):
        return [self.totals(), *self.stop(), self.resume(), "Results: " + self.directory]

    def line(self, record):
        """The result of a host in a line of the summary, and what to do in more lines."""
        status = "-" if record["status"] is None else str(record["status"])
        stays = [] if record["outcome"] == "busy" else record["stays"]
        kept = "; kept: " + ", ".join(stays[:3]) if stays else ""
        more = " and %d more" % (len(stays) - 3) if stays[3:] else ""
        return ["%-12s %4s  %s%s%s" % (record["outcome"], status, record["reason"], kept, more),
                *("  -> " + text for text in self.next_steps(record))]

    def groups(self):
        """The hosts with the same outcome and the same words, except for numbers and the name. The
        most serious outcome comes first, and of one outcome the largest group."""
        groups = {}
        for name, record in self.hosts.items():
            own = re.compile(r"(?<![\w.-])%s(?![\w-])" % re.escape(name))
            lines = self.line(record)
            shape = tuple(re.sub(r"\d+", "N", own.sub("HOST", line)) for line in lines[1:])
            reason = re.sub(r"\d+", "N", own.sub("HOST", lines[0][18:]))
            groups.setdefault((lines[0][:18], reason, *shape), []).append((name, lines))
        return sorted(groups.values(), key=lambda group: (
            OUTCOMES.index(self.hosts[group[0][0]]["outcome"]), -len(group)))

    def screen(self):
        """One line for each outcome and reason, with the first hosts."""
        yield from self.head()
        groups = self.groups()
        width = len(str(len(self.hosts)))
        for group in groups[:MOST_REASONS]:
            (first, (line, *steps)), names = group[0], [name for name, lines in group[:3]]
            more = " and %d more" % (len(group) - 3) if group[3:] else ""
            others = [lines for name, lines in group if lines != group[0][1]]
            such = " (or similar)" if others else ""
            yield ""
            yield "%*d  %s%s" % (width, len(group), line, such)
            yield "%*s  %s%s" % (width, "", ", ".join(names), more)
            yield from ("%*s%s" % (width, "", step) for step in steps)
        if groups[MOST_REASONS:]:
            yield ""
            yield "%s: see summary.txt" % counted(len(groups) - MOST_REASONS, "more reason")

    def lines(self):
        """All hosts."""
        yield from self.head()
        width = max(map(len, self.hosts), default=0)
        for outcome in OUTCOMES:
            group = [(n, r) for n, r in self.hosts.items() if r["outcome"] == outcome]
            if group:
                yield ""
            for name, record in group:
                line, *steps = self.line(record)
                yield "%-*s  %s" % (width, name, line)
                yield from ("%*s%s" % (width, "", step) for step in steps)

    def next_steps(self, record):
        """What to do for a host, or in check mode what to know of it."""
        if record["out"]:
            return ["the run may still be active: the next play finds and checks it"]
        if record["reason"] == CUT_SHORT:
            return ["resume"]
        steps = record["blocks"]
        if self.state["check"] or record["outcome"] not in GOOD and not steps:
            steps = steps + record["keeps"][:3]
        return steps or filter(None, [ADVICE.get(record["outcome"])])


def latest_of(options):
    return os.path.join(options.path, "latest" + suffix_of(options))


def suffix_of(options):
    return ("-undo" if options.undo else "") + ("-check" if options.check else "")


def new_play(options, given):
    latest = latest_of(options)
    earlier = Play(latest).hosts
    name = time.strftime("%Y-%m-%dT%H-%M-%S") + suffix_of(options)
    for suffix in range(1, 100):
        try:
            again = "-%d" % suffix if suffix > 1 else ""
            directory = os.path.join(options.path, name + again)
            os.mkdir(directory)
            break
        except FileExistsError:
            pass
    play = Play(directory)
    hosts = {name: {**record, "carried": True} for name, record in earlier.items()}
    # Only a play with --limit takes over the records of other hosts.
    hosts = {name: record for name, record in hosts.items()
             if options.limited and name in set(given["inventory"])}
    play.add(hosts, check=options.check, undo=options.undo, start=now(),
             earlier=os.path.realpath(latest))
    if os.path.lexists(latest + ".new"):
        os.remove(latest + ".new")
    os.symlink(os.path.basename(directory), latest + ".new")
    os.replace(latest + ".new", latest)
    return play


def order(options, given):
    """Prints the hosts that have not failed before, if others have: they come first."""
    hosts = Play(latest_of(options)).hosts
    known = {name for name in given["all"] if last_seen(hosts.get(name)) in FAILED}
    print(json.dumps({"first": [name for name in given["all"] if known and name not in known]}))


def identify(pid):
    """The parent of a running process, and its number and start, which no later process shares."""
    try:
        with open("/proc/%d/stat" % pid) as file:
            fields = file.read().rpartition(")")[2].split()
        return int(fields[1]), "%d %s" % (pid, fields[19])
    except OSError:
        return 0, ""


def lock(options, taken):
    """Locks the directory for the process of Ansible, the parent of `options.owner`, or unlocks it.
    The lock of a play that was killed does not count."""
    path = os.path.join(options.path, "lock-check" if options.check else "lock")
    me = {"host": os.uname().nodename, "process": identify(identify(options.owner)[0])[1]}
    with open(path, "a+") as file:
        fcntl.flock(file, fcntl.LOCK_EX)
        file.seek(0)
        other = parse_object(file.read())
        same = (other.get("host"), other.get("process")) == (me["host"], me["process"])
        if other and not same:
            pid = int(other["process"].split()[0])
            if other["host"] != me["host"] or identify(pid)[1] == other["process"]:
                if not taken:
                    return
                sys.exit("another play uses %s: process %d on %s, since %s. If it has ended, remove "
                         "%s" % (options.path, pid, other["host"], other["since"], path))
        file.truncate(0)
        if taken:
            file.write(json.dumps({**me, "since": now()}))


def machine_of(path):
    """The processor of a program, as uname names it; nothing for a script."""
    if not os.path.isabs(path):
        sys.exit("%s is not an absolute path" % path)
    try:
        with open(path, "rb") as file:
            head = file.read(20)
    except OSError as error:
        sys.exit("%s: %s" % (path, error.strerror))
    order = {1: "little", 2: "big"}.get(head[5]) if head[:4] == b"\x7fELF" else None
    number = order and int.from_bytes(head[18:20], order)
    return number and {62: "x86_64", 183: "aarch64"}.get(number, "machine %d" % number)


def open_play(options, given):
    machines = {path: machine_of(path) for path in given["paths"]}
    os.makedirs(options.path, exist_ok=True)
    if options.owner:
        lock(options, taken=True)
    play = Play(options.play) if options.play else new_play(options, given)
    if any(name not in play.hosts or play.hosts[name]["carried"] for name in given["all"]):
        play.add(play.enter(given["all"], Play(play.state["earlier"]).hosts))
        play.write_again()
    if not play.state["stopped"]:
        play.add({name: {**RECORD, "reason": CUT_SHORT,
                         **{key: play.hosts[name][key] for key in ("tries", "out", "earlier")}}
                  for name in given["batch"]},
                 batches=play.state["batches"] + [{"start": now(), "hosts": len(given["batch"])}])
    print(json.dumps({"play": play.directory, "stop": bool(play.state["stopped"]),
                      "last": given["last"], "failures": play.failures(given["batch"]),
                      "machines": machines}))


def limits_of(text):
    """The limits by batch: a number, a percentage, or a list of them as Ansible prints it."""
    limits = re.sub(r"[][\s'\"]", "", text).split(",")
    if not all(re.fullmatch(r"\d+(\.\d+)?%?", limit) for limit in limits):
        raise argparse.ArgumentTypeError("%s is not a number, percentage or list of them" % text)
    return limits


def excess(limit, failed, hosts, where):
    """A message if more hosts have failed than the limit allows, otherwise nothing."""
    most = hosts * float(limit[:-1]) / 100 if limit.endswith("%") else float(limit)
    return "%d of %s%s failed, the limit is %s" % (
        failed, counted(hosts, "host"), where, limit) if failed > most else ""


def write_difference(place):
    """Writes what the run removes and unloads, and an empty file: a task shows the difference."""
    found = [parse_object(read(place, file)) for file in ("before.json", "after.json")]
    removed = {plain(item.get("path")) for answer in found for item in objects(answer, "removed")}
    removed |= {"module " + plain(module) for answer in found
                for module in answer.get("unloaded") or []}
    write("".join(path + "\n" for path in sorted(removed)), place, "paths")
    write("", place, "paths.after")


def collect(options, given):
    play = Play(options.path)
    records = {}
    for name, of_host in given.items():
        try:
            records[name] = play.record_of(name, of_host)
        except Exception as error:  # the results of one host must not end the play
            fetched = os.path.join(play.directory, "fetched", name)
            records[name] = {
                **RECORD, "reason": plain("the results cannot be read: %s" % (
                    str(error) or type(error).__name__)),
                "evidence": fetched if os.path.exists(fetched) else play.directory}
        records[name] = Record({**records[name], "earlier": play.hosts[name]["earlier"]})
        if options.diff and records[name]["changed"]:
            write_difference(records[name]["evidence"])
    play.add(records)
    print(json.dumps({"hosts": {n: {key: r[key] for key in ("outcome", "changed", "evidence")}
                                for n, r in records.items()}, **settle(play, given, options)}))


def failed_of(hosts):
    """The hosts that have failed, and the number of all, without those that had failed before."""
    new = {name: record for name, record in hosts.items() if not is_known(record)}
    return [name for name, record in new.items() if record["outcome"] in FAILED], len(new)


def after_trouble(record, why):
    """The record of a host if a task of the site after the run failed: it may still be drained."""
    good = record["outcome"] in GOOD
    return {**record, "outcome": "failed" if good else record["outcome"], "reason": "%s; %s: %s" % (
        record["outcome"] if good else record["reason"], "the site tasks after it failed",
        reason_of(why))}


def settle(play, names, options):
    """Closes a batch, or without limits a try of busy hosts."""
    hosts = {name: play.hosts[name] for name in names}
    if options.max_failed:
        *earlier, batch = play.state["batches"]
        failed, of = failed_of(hosts)
        # A batch has shown nothing if it reached no host, or only hosts that had failed before.
        shown = any(r["outcome"] not in ("busy", "unreachable") and not (
            is_known(r) and r["outcome"] in FAILED) for r in hosts.values())
        number = min(sum(b["shown"] for b in earlier), len(options.max_failed) - 1)
        batch.update(end=now(), failed=len(failed), shown=shown, limit=options.max_failed[number])
        all_failed, all_of = failed_of(
            {name: record for name, record in play.hosts.items() if not record["carried"]})
        reason = excess(batch["limit"], len(failed), of, " in the batch") or excess(
            options.max_failed_total, len(all_failed), all_of, " in all")
        stopped = {"batch": len(earlier) + 1, "time": now(), "reason": reason, "hosts": failed}
        play.add(batches=[*earlier, batch],
                 stopped=stopped if reason and not play.state["check"] else None)
    play.write_again()
    return {"again": [n for n, r in hosts.items() if r["outcome"] == "busy" or r["out"]],
            "stop": bool(play.state["stopped"]), "failures": play.failures(hosts),
            "all_failed": len(play.failures(hosts)) == len(hosts)}


def settle_after(options, given):
    play = Play(options.path)
    play.add({name: after_trouble(play.hosts[name], why) for name, why in given.items() if why})
    print(json.dumps(settle(play, given, options)))


def report(options):
    play = Play(options.play or os.path.realpath(latest_of(options)))
    if not play.hosts:
        sys.exit("there is no summary in " + play.directory)
    play.sum_up()
    if options.owner:
        lock(options, taken=False)
    print(json.dumps({
        "lines": list(play.screen()),
        "failures": play.failures(n for n, r in play.hosts.items() if not r["carried"])}))


class Parser(argparse.ArgumentParser):
    def error(self, message):
        """Without the usage, since Ansible shows it as one long line."""
        sys.exit(message)


def main():
    parser = Parser()
    parser.add_argument("verb", choices=("order", "open", "collect", "settle", "report"))
    parser.add_argument("path")
    parser.add_argument("--play")
    parser.add_argument("--owner", type=int)
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--undo", action="store_true")
    parser.add_argument("--limited", action="store_true")
    parser.add_argument("--diff", action="store_true")
    parser.add_argument("--max-failed", type=limits_of)
    parser.add_argument("--max-failed-total", type=lambda text: limits_of(text)[0])
    options = parser.parse_args()
    if options.verb == "report":
        report(options)
    else:
        verbs = {"order": order, "open": open_play, "collect": collect, "settle": settle_after}
        verbs[options.verb](options, json.load(sys.stdin))


if __name__ == "__main__":
    main()
