#!/usr/bin/env python3
"""Keeps the evidence of a play on the controller, and sums it up.

    evidence.py open LOGS [--play DIRECTORY] [--check] [--limited]   <{"all": [...], "batch": [...]}
    evidence.py judge DIRECTORY [--max-failed JSON]                  <{HOST: {"outcome", "reason"}}
    evidence.py report LOGS [--check]

LOGS holds one directory for each play, which no later one touches, and a link to the latest. A
directory holds summary.json, summary.txt, "again" with the hosts that are not done, and for each
host what its run left. Whatever a host says is text here, and reaches no terminal but as ASCII.
"""

import argparse
import json
import os
import shutil
import sys
import tarfile
import time

FILES = ("before.json", "before.err", "after.json", "after.err", "stdout", "stderr", "log",
         "status")
GOOD = ("done", "shared", "kept", "clean")
# What the inspector says, and what only the controller can know.
OUTCOMES = ("failed", "nothing-done", "unfinished", "unknown", "lost", "busy", "unreachable",
            "not-started") + GOOD
# These tell of a run gone wrong; the others that nothing happened, or that all is well.
FAILED = OUTCOMES[:5]
# Runs of these are tried, or looked for, once more in the same play.
AGAIN = ("busy", "lost", "unfinished")
ADVICE = {
    "busy": "stop what uses the driver",
    "lost": "the run may be going on: the next play finds it again and judges it",
    "unfinished": "look whether it is going on: the next play finds it again and judges it",
    "unreachable": "see to the connection",
}


def plain(value):
    text = value if isinstance(value, str) else ""
    return "".join(c if " " <= c <= "~" else "?" for c in text.strip())[:400]


def sentence(finding):
    """The finding in a line: the place is told if the text does not name it."""
    text, where, do = (plain(finding.get(key)) for key in ("text", "where", "do"))
    return ": ".join(filter(None, (text, "" if where in text else where, do)))


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


def read_object(*path):
    try:
        found = json.loads(read(*path))
    except ValueError:
        return {}
    return found if isinstance(found, dict) else {}


def objects(found, key):
    items = found.get(key)
    return [item for item in items if isinstance(item, dict)] if isinstance(items, list) else []


class Play:
    def __init__(self, directory):
        self.directory = directory
        self.state = read_object(directory, "summary.json")
        self.hosts = self.state.setdefault("hosts", {})

    def mark(self, names, outcome, reason):
        for name in names:
            self.hosts[name] = {"outcome": outcome, "status": None, "reason": reason,
                                "out": self.is_out(name)}

    def is_out(self, name):
        """Whether the host may have a run that no play has seen the end of."""
        record = self.hosts.get(name, {})
        return record.get("out", False) or record.get("outcome") in ("lost", "unfinished")

    def judge(self, name, trouble):
        """Takes over what was fetched of a host, and the trouble that Ansible had with it."""
        place = os.path.join(self.directory, name)
        tries = 1 + self.hosts.get(name, {}).get("tries", 0)
        if tries > 1:
            place = os.path.join(place, "try-%d" % tries)
        self.unpack(name, place)
        rehearsal = read_object(place, "before.json")
        found = rehearsal if self.state["check"] else read_object(place, "after.json")
        ended = read(place, "status").strip()
        status = int(ended) if ended.isdigit() else found.get("status")
        outcome, reason = found.get("outcome"), found.get("reason")
        if trouble:
            outcome, reason = trouble["outcome"], trouble["reason"]
            if outcome == "unreachable" and self.is_out(name):
                outcome = "lost"
        elif not found and ended and not read(place, "after.err"):
            reason = "the run wrote no log"
        elif not found:
            errors = read(place, "before.err" if self.state["check"] else "after.err").splitlines()
            reason = "valta-driver-inspect gave no answer: " + (errors[-1] if errors else "")
        removed = objects(found, "removed")
        record = {
            "outcome": outcome if outcome in OUTCOMES else "unknown",
            "status": status if isinstance(status, int) else None,
            "reason": plain(reason) or "%d paths removed" % len(removed),
            "blocks": [sentence(item)
                       for item in objects(found, "findings") or objects(rehearsal, "findings")
                       if item.get("severity") == "blocks"],
            "stays": ["%s (%s)" % (plain(item.get("path")), plain(item.get("reason")))
                      for item in objects(found, "kept")],
            "changed": bool(removed or found.get("unloaded")),
            "tries": tries,
            "evidence": place if os.path.isdir(place) else None,
        }
        self.hosts[name] = record
        return record

    def unpack(self, name, place):
        """Of an archive that a host made nothing but the known files is taken, by name."""
        archive = os.path.join(self.directory, "fetched", name)
        if not os.path.exists(archive):
            return
        os.makedirs(place)
        try:
            with tarfile.open(archive) as tar:
                for member in tar:
                    if member.isfile() and member.name in FILES:
                        with open(os.path.join(place, member.name), "wb") as file:
                            shutil.copyfileobj(tar.extractfile(member), file)
        except tarfile.TarError as error:
            write("the evidence cannot be read: %s\n" % error, place, "after.err")
        os.remove(archive)

    def keep(self):
        self.state["schema"] = 1
        write(json.dumps(self.state, indent=1), self.directory, "summary.json")
        write("".join(line + "\n" for line in self.lines()), self.directory, "summary.txt")
        write("".join(name + "\n" for name in self.not_done()), self.directory, "again")

    def not_done(self):
        return [name for name, record in self.hosts.items() if record["outcome"] not in GOOD]

    def totals(self):
        outcomes = [record["outcome"] for record in self.hosts.values()]
        return "%d hosts%s: %s" % (
            len(outcomes), " in check mode, where nothing was run" if self.state["check"] else "",
            ", ".join("%d %s" % (outcomes.count(o), o) for o in OUTCOMES[::-1] if o in outcomes))

    def resume(self):
        count = len(self.not_done())
        return "%d not done; once the reasons are gone, add to the command: --limit @%s" % (
            count, os.path.join(self.directory, "again")) if count else "All are done."

    def lines(self):
        yield from (self.totals(), self.resume(), "Evidence: " + self.directory)
        width = max(map(len, self.hosts), default=0)
        for outcome in OUTCOMES:
            group = [(n, r) for n, r in self.hosts.items() if r["outcome"] == outcome]
            if group:
                yield ""
            for name, record in group:
                status = "-" if record["status"] is None else str(record["status"])
                stays = [] if outcome == "busy" else record.get("stays", [])
                kept = "; stays: " + ", ".join(stays[:3]) if stays else ""
                more = " and %d more" % (len(stays) - 3) if stays[3:] else ""
                yield "%-*s  %-12s %4s  %s%s%s" % (
                    width, name, outcome, status, record["reason"], kept, more)
                if outcome not in GOOD:
                    for text in record.get("blocks") or filter(None, [ADVICE.get(outcome)]):
                        yield "%*s  -> %s" % (width, "", text)


def open_play(options, told):
    if options.play:
        play = Play(options.play)
    else:
        latest = os.path.join(options.path, "latest-check" if options.check else "latest")
        earlier = read_object(latest, "summary.json").get("hosts", {}) if options.limited else {}
        name = time.strftime("%Y-%m-%dT%H-%M-%S") + ("-check" if options.check else "")
        os.makedirs(options.path, exist_ok=True)
        for suffix in range(1, 100):
            try:
                again = "-%d" % suffix if suffix > 1 else ""
                directory = os.path.join(options.path, name + again)
                os.mkdir(directory)
                break
            except FileExistsError:
                pass
        play = Play(directory)
        play.state.update(check=options.check, batches=0)
        play.hosts.update(earlier)
        play.mark(told["all"], "not-started", "its batch did not start")
        if os.path.lexists(latest + ".new"):
            os.remove(latest + ".new")
        os.symlink(os.path.basename(directory), latest + ".new")
        os.replace(latest + ".new", latest)
    play.mark(told["batch"], "unknown", "the play ended before the host was judged")
    play.keep()
    print(play.directory)


def is_beyond(limits, batch, failed, hosts):
    limits = limits if isinstance(limits, list) else [limits]
    limit = str(limits[min(batch, len(limits) - 1)])
    return failed > (hosts * float(limit[:-1]) / 100 if limit.endswith("%") else float(limit))


def judge(options, told):
    play = Play(options.path)
    judged = {name: play.judge(name, trouble) for name, trouble in told.items()}
    failed = sum(record["outcome"] in FAILED for record in judged.values())
    stop = False
    if options.max_failed is not None:
        stop = is_beyond(json.loads(options.max_failed), play.state["batches"], failed, len(told))
        play.state["batches"] += 1
    play.keep()
    print(json.dumps({
        "hosts": {n: {"outcome": r["outcome"], "changed": r["changed"]} for n, r in judged.items()},
        "again": [n for n, r in judged.items() if r["outcome"] in AGAIN],
        "stop": stop,
    }))


def report(options):
    play = Play(os.path.realpath(
        os.path.join(options.path, "latest-check" if options.check else "latest")))
    print(read(play.directory, "summary.txt"), end="")
    return 1 if play.not_done() else 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("verb", choices=("open", "judge", "report"))
    parser.add_argument("path")
    parser.add_argument("--play")
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--limited", action="store_true")
    parser.add_argument("--max-failed")
    options = parser.parse_args()
    if options.verb == "report":
        return report(options)
    {"open": open_play, "judge": judge}[options.verb](options, json.load(sys.stdin))
    return 0


if __name__ == "__main__":
    sys.exit(main())
