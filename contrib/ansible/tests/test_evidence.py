"""What evidence.py keeps and says, without Ansible: a play here is its calls alone."""

import contextlib
import importlib
import io
import json
import os
import re
import signal
import subprocess
import sys
import tarfile
from pathlib import Path
from types import SimpleNamespace

import pytest

PROGRAM = Path(__file__).parents[1] / "roles/valta_uninstall/files/evidence.py"
sys.path.insert(0, str(PROGRAM.parent))
evidence = importlib.import_module("evidence")


def results(outcome="done", **more):
    """What a run leaves that ended with this outcome."""
    answer = {"outcome": outcome, "reason": "", "status": 0, "version": "4.1.0", "findings": [],
              "kept": [], "removed": [{"path": "/a"}, {"path": "/b"}], **more}
    return {"before.json": answer, "after.json": answer, "status": "0", "log": "text"}


DONE = results()
FAILED = {**results("failed", reason="depmod failed", removed=[]), "status": "5"}
BUSY = {**results("busy", reason="module zephanor is in use", removed=[]), "status": "43"}
AWAY = {"outcome": "unreachable", "reason": "no route"}
LOST = {"outcome": "lost", "reason": "cut"}
BROKEN = {"outcome": "failed", "reason": "no space left"}


def pack(archive, files):
    """An archive as a host makes it, of what `files` has."""
    with tarfile.open(archive, "w") as tar:
        for name, content in files.items():
            content = content if isinstance(content, str) else json.dumps(content)
            member = tarfile.TarInfo(name)
            member.size = len(content)
            tar.addfile(member, io.BytesIO(content.encode()))


class Controller:
    """The directory of the results, and one call of Ansible after the other."""

    def __init__(self, logs):
        self.logs, self.options, self.directory = logs, [], None
        self.inventory, self.paths = list("abcdefgh"), []

    def call(self, *arguments, given=None):
        output, sys.stdin = io.StringIO(), io.StringIO(json.dumps(given))
        sys.argv = ["evidence.py", *map(str, arguments)]
        with contextlib.redirect_stdout(output):
            evidence.main()
        return json.loads(output.getvalue())

    def start(self, *options):
        self.options, self.directory = list(options), None

    def open(self, everyone, batch):
        play = ["--play", self.directory] if self.directory else []
        given = {"all": everyone, "batch": batch, "last": False, "inventory": self.inventory,
                 "paths": self.paths}
        opened = self.call("open", self.logs, *self.options, *play, given=given)
        self.directory = Path(opened["play"])
        return opened

    def collect(self, hosts, limits="", total="100%", after=()):
        """The results of `hosts` by name: what was fetched, or what Ansible reported."""
        (self.directory / "fetched").mkdir(exist_ok=True)
        for name, files in hosts.items():
            if "outcome" not in files:
                pack(self.directory / "fetched" / name, files)
        given = {n: files if "outcome" in files else {} for n, files in hosts.items()}
        limit = ["--max-failed", limits, "--max-failed-total", total] if limits else []
        collected = self.call("collect", self.directory, *limit, given=given)
        if after:
            collected.update(self.call("settle", self.directory, *limit, given=after))
        return SimpleNamespace(**collected)

    def play(self, *batches, limits="100%", total="100%", everyone=None, options=()):
        """Plays these batches of hosts until the failure limit; returns how many were started."""
        everyone = everyone or [name for batch in batches for name in batch]
        self.start(*options)
        for count, batch in enumerate(batches, 1):
            self.open(everyone, list(batch))
            if self.collect(batch, limits, total).stop:
                break
        return count

    def report(self):
        report = self.call("report", self.logs, *self.options, "--play", self.directory)
        return SimpleNamespace(**report, text="\n".join(report["lines"]), all=(
            self.directory / "summary.txt").read_text(), again=(
            self.directory / "again").read_text().split(), **json.loads(
                (self.directory / "summary.json").read_text()))


@pytest.fixture
def controller(tmp_path):
    return Controller(tmp_path)


@pytest.mark.parametrize("given, outcome, status, reason", [
    (DONE, "done", 0, "2 paths removed"),
    (results(removed=[{"path": "/a"}]), "done", 0, "1 path removed"),
    ({"outcome": "unreachable", "reason": "Failed to connect to the host via ssh: Warning: "
      "Permanently added 'h' to the list of known hosts.\r\n### private ###\r\nh: refused\r\n"
      "Connection to h closed."}, "unreachable", None, "^h: refused$"),
    ({"outcome": "unreachable", "reason": 'Data could not be sent to remote host "h". Make sure this '
      "host can be reached over ssh: h: refused\r\n"}, "unreachable", None, "^h: refused$"),
    ({"outcome": "unreachable", "reason": "[Errno 32] Broken pipe. [Errno 32] Broken pipe"},
     "unreachable", None, "^no connection: Broken pipe$"),
    (FAILED, "failed", 5, "depmod failed"),
    (AWAY, "unreachable", None, "no route"),
    ({**DONE, "after.json": ""}, "unknown", 0, "printed no report$"),
    ({**DONE, "after.json": "", "after.err": "a\nb"}, "unknown", 0, "printed no report: b$"),
    ({**DONE, "after.json": results("splendid")["after.json"]}, "unknown", 0, ""),
    ({"status": "0"}, "unknown", 0, "the run wrote no log"),
    ({"before.json": {}}, "unfinished", None, "the run was interrupted"),
    ({**DONE, "status": "none"}, "unknown", None, "cannot be read"),
    ({**DONE, "steps": "save run", "saved": "nothing"}, "done", 0,
     "^2 paths removed; not saved: the prediction did not end$"),
    ({**DONE, "steps": "list undo"}, "unknown", None, "earlier undo; resume"),
])
def test_outcome(controller, given, outcome, status, reason):
    controller.play({"h": given})
    record = controller.report().hosts["h"]
    assert (record["outcome"], record["status"]) == (outcome, status)
    assert re.search(reason, record["reason"])


RUNS = "20261122-101010  failed, saved\n20261122-111111  done, saved\n"


@pytest.mark.parametrize("left, outcome, changed, reason", [
    ({"status": "0"}, "undone", True, "run 20261122-111111 done, saved"),
    ({"status": "0", "runs": RUNS.replace("ed\n", "ed, undone\n")}, "undone", False, "undone$"),
    ({"status": "1", "stdout": "Putting back /a:\n  depmod 6.1\nNot as it was before the run:\n"
      "  /b is not as it was.\nPutting back /c:\n  depmod 6.1\n"}, "failed", True,
     "^/b is not as it was.$"),
    ({"status": "137", "stdout": "Putting back /a:\n", "stderr": "Killed"}, "failed", True,
     "Killed"),
    ({"status": "2", "stdout": "Nothing was put back, for these reasons:\n  /b is newer.\n  It runs.\n"},
     "nothing-done", False, "^/b is newer.; It runs.$"),
    ({"status": "2", "stderr": "valta-driver-remove: locked"}, "nothing-done", False, ": locked$"),
    ({"status": "2", "runs": "20261122-101010  done\n"}, "nothing-done", False, "has an archive"),
    ({"status": "2", "runs": ""}, "clean", False, "no run to undo"),
    ({"status": "2", "runs": "", "stderr": "not found"}, "unknown", False, "not found"),
    ({}, "unfinished", False, "the undo was interrupted"),
    ({"steps": "save run", **DONE}, "unknown", False, "earlier run; resume"),
])
def test_result_of_an_undo(controller, left, outcome, changed, reason):
    controller.play({"h": {"steps": "list undo", "runs": RUNS, **left}}, options=["--undo"])
    record = controller.report().hosts["h"]
    assert (record["outcome"], record["changed"]) == (outcome, changed)
    assert re.search(reason, record["reason"])
    assert not (controller.logs / "latest").exists()


FINDING = {"severity": "blocks", "text": "The log is a link.", "where": "/a", "do": "rm /a"}


@pytest.mark.parametrize("left, outcome, changed, words", [
    (results(), "done", True, "All hosts are ready for a run. Nothing was done."),
    (results(findings=[FINDING]), "blocked", True, "1 host is not ready for a run"),
    (results("clean", removed=[]), "clean", False, "All hosts are ready"),
    (results("busy", removed=[], unloaded=["zvrfs"]), "busy", True, "1 host is not ready"),
    (results("nothing-done"), "nothing-done", False, "1 host is not ready"),
])
def test_check_mode(controller, left, outcome, changed, words):
    controller.play({"h": {"before.json": left["before.json"]}}, options=["--check"])
    play = controller.report()
    assert (play.hosts["h"]["outcome"], play.hosts["h"]["changed"]) == (outcome, changed)
    assert words in play.text
    assert "All hosts are done" not in play.text
    # A run changes the same.
    controller.play({"h": left}, options=[])
    assert controller.report().hosts["h"]["changed"] == changed


@pytest.mark.parametrize("limits, total, batches, started", [
    ("0", "100%", [{"a": DONE}, {"b": FAILED}, {"c": DONE}], 2),
    ("1", "100%", [{"a": FAILED}, {"b": FAILED}, {"c": DONE}], 3),
    ("50%", "100%", [{"a": FAILED, "b": DONE}, {"c": DONE}], 2),
    ("49%", "100%", [{"a": FAILED, "b": DONE}, {"c": DONE}], 1),
    ("[0, '50%']", "100%", [{"a": DONE}, {"b": FAILED, "c": DONE}, {"d": FAILED, "e": FAILED},
                            {"f": DONE}], 3),
    # A batch that came to no host has shown nothing, and these are no failures.
    ("0, 100%", "100%", [{"a": AWAY}, {"b": BUSY}, {"c": FAILED}, {"d": DONE}], 3),
    ("0", "100%", [{"a": LOST}, {"b": DONE}], 1),
    # Of all hosts of the play, in all of its batches.
    ("100%", "1", [{"a": FAILED}, {"b": DONE}, {"c": FAILED}, {"d": DONE}], 3),
    ("100%", "50%", [{"a": FAILED}, {"b": FAILED}, {"c": FAILED}, {"d": DONE}], 3),
])
def test_failure_limit(controller, limits, total, batches, started):
    assert controller.play(*batches, limits=limits, total=total) == started
    assert controller.play(*batches, limits="0", options=["--check"]) == len(batches)


def test_what_no_batch_came_to_is_not_done_and_keeps_what_was_known_of_it(controller):
    controller.play({"a": DONE, "b": FAILED, "c": LOST})
    controller.play({"a": FAILED}, everyone=["a", "b", "c", "d"])
    play = controller.report()
    assert play.again == sorted(play.failures) == ["a", "b", "c", "d"]
    assert {record["outcome"] for record in play.hosts.values()} == {"failed", "not-started"}
    assert play.hosts["b"]["reason"].endswith("before: failed: depmod failed")
    assert play.hosts["c"]["out"]
    assert play.hosts["d"]["reason"] == "its batch did not start"


def test_resumed_play_takes_over_what_it_does_not_run(controller):
    controller.play({"a": DONE, "b": FAILED, "c": DONE})
    controller.play({"c": DONE}, options=["--limited"])
    assert (controller.report().failures, controller.report().again) == ({}, ["b"])
    controller.play({"b": DONE}, options=["--limited"])
    play = controller.report()
    assert (play.failures, play.again, sorted(play.hosts)) == ({}, ["!all"], ["a", "b", "c"])
    controller.play({"b": DONE})
    assert sorted(controller.report().hosts) == ["b"]


def test_host_that_left_the_inventory_leaves_the_summary(controller):
    controller.play({"a": DONE, "b": FAILED, "c": DONE})
    controller.inventory.remove("b")
    controller.play({"c": DONE}, options=["--limited"])
    assert sorted(controller.report().hosts) == ["a", "c"]


def test_resumed_play_comes_past_who_failed_before(controller):
    """The one that failed stops neither this play nor, after a play that came to nobody, a later
    one; who fails for the first time still does, and then the limit is that of the first batch."""
    assert controller.play({"a": DONE}, {"b": FAILED}, {"c": DONE}, {"d": DONE}, limits="0") == 2
    assert controller.call("order", controller.logs, given={"all": ["a", "b", "c", "e"]}) == {
        "first": ["a", "c", "e"]}
    controller.play({"b": AWAY, "c": AWAY, "d": AWAY}, options=["--limited"])
    assert controller.play({"b": FAILED}, {"c": FAILED}, {"d": DONE}, limits="0, 9",
                           options=["--limited"]) == 2
    assert controller.play({"b": FAILED, "c": FAILED, "d": DONE}, {"a": FAILED, "e": DONE},
                           limits="0, 50%", total="30%", options=["--limited"]) == 2
    assert "1 of 3 hosts in all failed" in controller.report().text
    controller.play({"b": DONE, "c": DONE, "a": DONE})
    assert controller.call("order", controller.logs, given={"all": ["a", "b"]}) == {"first": []}


def test_directory_is_locked_while_another_play_uses_it(controller):
    def child():
        return subprocess.Popen(["sh", "-c", "sleep 60 & echo $!; wait"], stdout=subprocess.PIPE,
                                text=True, start_new_session=True)
    plays = [child(), child()]
    first, second = (["--owner", play.stdout.readline().strip()] for play in plays)
    try:
        controller.play({"a": DONE}, options=first)
        controller.play({"a": DONE}, options=[*second, "--check"])
        with pytest.raises(SystemExit, match="another play uses .*: process [0-9]+ on .*, since 2"):
            controller.play({"a": DONE}, options=second)
        controller.play({"a": DONE}, options=first)
        controller.report()
        controller.play({"a": DONE}, options=second)
        os.killpg(plays[1].pid, signal.SIGKILL)
        plays[1].wait()
        controller.play({"a": DONE}, options=first)
    finally:
        for play in plays:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(play.pid, signal.SIGKILL)


def test_run_that_may_go_on_is_looked_for_until_it_is_found(controller):
    controller.start()
    controller.open(["a"], ["a"])
    assert controller.collect({"a": LOST}).again == ["a"]
    assert controller.collect({"a": AWAY}).again == ["a"]
    assert controller.collect({"a": BROKEN}).again == ["a"]
    assert "the run may still be active" in controller.report().text
    controller.start()
    controller.open(["a"], ["a"])
    assert controller.collect({"a": AWAY}).hosts["a"]["outcome"] == "lost"
    controller.start()
    controller.open(["a"], ["a"])
    (controller.directory / "fetched").mkdir()
    pack(controller.directory / "fetched/a", DONE)
    controller.call("collect", controller.directory, given={"a": {"found": True}})
    assert controller.report().hosts["a"]["reason"] == (
        "run of an earlier play: 2 paths removed")


@pytest.mark.parametrize("limit", ["10 %%", "few", "-1"])
def test_limit_that_makes_no_sense_is_refused_in_a_line(controller, limit):
    with pytest.raises(SystemExit, match="^argument --max-failed: [^\n]*$"):
        controller.call("collect", controller.logs, "--max-failed=" + limit, given={})


def test_failure_limit_holds_for_later_plays_of_the_call(controller):
    controller.play({"a": DONE, "b": FAILED, "c": FAILED}, limits="1",
                    everyone=["a", "b", "c", "d"])
    assert controller.open(["e", "f"], ["e"])["stop"]
    play = controller.report()
    assert sorted(play.failures) == ["b", "c", "d", "e", "f"]
    assert play.failures["b"].startswith("failed: depmod failed -> ")
    assert {play.hosts[name]["outcome"] for name in "def"} == {"not-started"}
    assert (play.stopped["batch"], play.stopped["hosts"]) == (1, ["b", "c"])
    assert re.search("ended the play after batch 1, at 20.*: 2 of 3 hosts in the batch failed, "
                     "the limit is 1", play.text)
    assert play.batches[0]["failed"] == 2
    assert play.versions == ["4.1.0"]
    assert play.start <= play.stopped["time"] <= play.end


def test_summary_has_what_to_do(controller):
    finding = {"severity": "blocks", "text": "A process uses it.", "where": "42", "do": "kill 42"}
    named = {**BUSY, "after.json": {**BUSY["after.json"], "findings": [finding]}}
    kept = [{"path": "/etc/\033[31mx", "reason": "changed"}] * 4
    controller.play({"a": named, "b": FAILED, "c": AWAY, "d": results("kept", kept=kept),
                     "e": BUSY})
    text = controller.report().text
    assert "5 hosts: 1 kept, 1 unreachable, 2 busy, 1 failed" in text
    assert f"--limit @{controller.directory}/again" in text
    for line in ("-> A process uses it: 42: kill 42", "-> fix the reason, then resume",
                 "-> stop what uses the driver", "-> check the connection", "/etc/?[31mx (changed) and 1 more"):
        assert line in text


def test_host_whose_own_steps_fail_is_not_done(controller):
    controller.start()
    controller.open(["a", "b"], ["a", "b"])
    after = {"a": "scontrol: no slurmctld", "b": "no slurmctld"}
    assert controller.collect({"a": DONE, "b": BUSY}, "0", after=after).stop
    hosts = controller.report().hosts
    assert (hosts["a"]["outcome"], hosts["b"]["outcome"]) == ("failed", "busy")
    assert hosts["a"]["reason"] == "done; the site tasks after it failed: scontrol: no slurmctld"


def test_paths_are_checked_before_anything_happens(controller, tmp_path):
    program = tmp_path / "program"
    for machine, name in ((62, "x86_64"), (183, "aarch64"), (243, "machine 243")):
        program.write_bytes(b"\x7fELF\2\1" + bytes(12) + machine.to_bytes(2, "little"))
        controller.paths = [str(program), str(PROGRAM)]
        controller.start()
        assert controller.open(["a"], ["a"])["machines"] == {str(program): name, str(PROGRAM): None}
    controller.logs = tmp_path / "none"
    for path, words in (("build/program", "is not an absolute path"), ("/no/program", "No such file")):
        controller.paths = [path]
        with pytest.raises(SystemExit, match=f"{path}.*{words}"):
            controller.open(["a"], ["a"])
    assert not controller.logs.exists()


def test_screen_has_a_line_for_each_reason(controller):
    hosts = {f"r1-n{n}": DONE if n else results(removed=[]) for n in range(50)}
    hosts.update({f"r2-n{n}": {"outcome": "unreachable", "reason": f"connect to r2-n{n} (10.0.0.{n}) "
                               "port 22: refused"} for n in range(40)})
    hosts.update({"r3": AWAY, "r4": FAILED, "r5": {**FAILED, "status": "140"}})
    controller.play(hosts)
    play = controller.report()
    assert play.lines[3:] == [
        "", " 1  failed          5  depmod failed", "    r4", "    -> fix the reason, then resume",
        "", " 1  failed        140  depmod failed", "    r5", "    -> fix the reason, then resume",
        "", "40  unreachable     -  connect to r2-n0 (10.0.0.0) port 22: refused (or similar)",
        "    r2-n0, r2-n1, r2-n2 and 37 more", "    -> check the connection",
        "", " 1  unreachable     -  no route", "    r3", "    -> check the connection",
        "", "50  done            0  0 paths removed (or similar)",
        "    r1-n0, r1-n1, r1-n2 and 47 more"]
    assert all(f"\n{name} " in play.all for name in hosts)


def test_play_that_was_interrupted_is_resumed(controller):
    controller.start()
    controller.open(["a"], ["a"])
    assert controller.report().lines[0] == "1 host: 1 unknown"
    assert controller.report().lines[-1].strip() == "-> resume"


@pytest.mark.parametrize("refused", ["sparse", "large"])
def test_host_cannot_fill_the_disk(controller, monkeypatch, refused):
    controller.start()
    controller.open(["a"], ["a"])
    archive = controller.directory / "fetched/a"
    archive.parent.mkdir()
    pack(archive, DONE)
    if refused == "large":
        monkeypatch.setattr(evidence, "MOST_BYTES", 1000)
    else:
        with tarfile.open(archive, "w", format=tarfile.GNU_FORMAT) as tar:
            member = tarfile.TarInfo("log")
            header = bytearray(member.tobuf(tarfile.GNU_FORMAT))
            header[156:157] = tarfile.GNUTYPE_SPARSE
            header[386:410] = b"%011o\0" % (3 << 20) + b"%011o\0" % 0  # a hole up to there
            header[483:495] = b"%011o\0" % (3 << 20)
            header[148:156] = b"        "
            header[148:156] = b"%06o\0 " % sum(header)
            tar.fileobj.write(header)
    collected = controller.call("collect", controller.directory, given={"a": {}})
    assert collected["hosts"]["a"]["outcome"] == "unknown"
    assert refused[:5] in controller.report().hosts["a"]["reason"] or refused == "large"
    assert sum(f.stat().st_size for f in controller.directory.rglob("log")) == 0
    assert refused == "sparse" or not archive.exists()


def test_batch_appends(controller):
    """What a play has written is not written again, and what a full disk cut short is skipped."""
    controller.start()
    controller.open(["a", "b"], ["a"])
    controller.collect({"a": DONE})
    journal = controller.directory / "journal"
    before = journal.read_bytes() + b'{"hosts": {"a'
    journal.write_bytes(before)
    controller.open(["a", "b"], ["b"])
    controller.collect({"b": DONE})
    assert journal.read_bytes().startswith(before)
    assert not (controller.directory / "summary.json").exists()
    play = controller.report()
    assert (play.failures, len(play.batches)) == ({}, 2)


def test_only_the_known_files_of_a_host_are_kept(controller):
    controller.start()
    controller.open(["a"], ["a"])
    archive = controller.directory / "fetched/a"
    archive.parent.mkdir()
    pack(archive, {**DONE, "../journal": "{", "pid": "1"})
    with tarfile.open(archive, "a") as tar:
        link = tarfile.TarInfo("stderr")
        link.type, link.linkname = tarfile.SYMTYPE, "/etc/passwd"
        tar.addfile(link)
    controller.call("collect", controller.directory, given={"a": {}})
    assert controller.report().hosts["a"]["outcome"] == "done"
    assert {file.name for file in (controller.directory / "a").iterdir()} == set(DONE)


def test_host_that_its_first_try_changed_is_changed(controller):
    controller.start()
    controller.open(["a"], ["a"])
    controller.collect({"a": results("busy", removed=[], unloaded=["zvrfs"])})
    assert controller.collect({"a": results("clean", removed=[])}).hosts["a"]["changed"]
