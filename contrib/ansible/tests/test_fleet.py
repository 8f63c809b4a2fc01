"""Runs the role on a fleet of throwaway hosts: in check mode, for real, and again once they are
mended. With "-k NAME" the fleet is that host alone."""

import fnmatch
import json
import os
import re
import shutil
import subprocess
import sys
import sysconfig
from dataclasses import dataclass, field
from pathlib import Path
from types import SimpleNamespace

import pytest

TOP = Path(__file__).parents[3]
ANSIBLE = TOP / "contrib/ansible"
BUILD = TOP / "build/release"
UNDO = ANSIBLE / "undo.yml"
PROGRAMS = ("valta-driver-uninstaller", "valta-driver-inspect")
VERSION = subprocess.check_output(TOP / "scripts/version", text=True).strip()
OWN = f"usr/local/valta-{VERSION}/bin"
LOG = "/var/log/zephanorvalta/driver_uninstaller.log"
MANIFEST = "var/log/zephanorvalta/uninstall/.driver_uninstall_manifests"
# What may be left, as patterns of what was there: all of it, what no run removes, and what the role
# adds for the next run.
ALL = {"*"}
REST = {path for path in (TOP / "tests/host/sample.left").read_text().split()
        if not path.endswith(("site.conf", ".log"))} | {"/usr/local/"}
PLACE = "root/valta-uninstall"
RECORDS = "/var/lib/valta-driver-remove"
ASIDE = {f"/{PLACE}/{program}" for program in PROGRAMS}
# These copies of the programs predict changes of modules on a kernel that has none.
MODULES = {"valta_uninstall_program": f"{BUILD}/faulty-uninstaller",
           "valta_uninstall_inspect": f"{BUILD}/faulty-inspect"}


@dataclass
class Host:
    run: tuple  # outcome and exit status
    prepare: str = ""  # commands of the shell, in the host's root
    check: str = ""  # the outcome in check mode, where it is another
    then: str = ""  # the outcome once /mended is there, the driver free, the connection back
    left: set = field(default_factory=lambda: REST)  # after the run
    own: bool = False  # runs its own programs
    cuts: int = 0  # how many commands fail after the run has started
    reason: str = ""
    variables: dict = field(default_factory=dict)


def wrap(tool, lines):
    """Puts lines in front of what a scripted tool does."""
    return f"""printf '%s\\n' '#!/bin/real/sh' '{lines}
exec /bin/real/{Path(tool).name} "$@"' >{tool}\n"""


# A tar that cannot keep extended attributes.
BARE_TAR = "mv usr/bin/tar bin/real\n" + wrap(
    "usr/bin/tar", '[ "$1" != --help ] || exit 0') + "chmod +x usr/bin/tar\n"
HOLD = "sed -i 's/^zephanor 8126464 2/zephanor 8126464 3/' proc/modules\n"
HOSTS = {  # the first one is a batch of its own
    "away": Host(("unreachable", None), left=ALL, reason="127.0.0.1|no connection", variables={
        "ansible_connection": "ssh", "ansible_port": 1, "ansible_host": "127.0.0.1"}),
    "empty": Host(("failed", None), f"rm -r {OWN}", own=True, left=ALL,
                  reason="host has no valta-driver-uninstaller in /usr"),
    "twice": Host(("failed", None), f"mkdir -p usr/local/valta-9/bin; cp {OWN}/* usr/local/valta-9/bin",
                  own=True, left=ALL, reason="valta-9/bin; set valta_uninstall_own"),
    "done": Host(("done", 0)),
    "own": Host(("done", 0), own=True),
    "kept": Host(("kept", 0), f"""echo changed >'etc/{{{{7*7}}}}'
sed -i '2i FILE /etc/{{{{7*7}}}} 0' {MANIFEST}""",
                 left=REST | {"/etc/{{7*7}}"}),
    "tooled": Host(("kept", 0), f"echo 'FILE /sbin/depmod 0' >>{MANIFEST}", check="blocked"),
    # With no modules of this kernel the inspector forgives depmod.
    "failed": Host(("failed", 5), "mkdir -p lib/modules/$(uname -r)\n" + wrap(
        "sbin/depmod", "exit 1"), left=REST | ASIDE | {"/lib/modules/*"}, variables=MODULES),
    "clean": Host(("clean", 0), f"{TOP}/tests/host/enter . /valta-driver-uninstaller"),
    # The run has deleted the host's own programs when it fails; the next one has nothing to unload
    # and no file to log.
    "halted": Host(("failed", 140), wrap("usr/sbin/dkms", "[ -e /mended ] || exit 4"), own=True,
                   then="clean", left=ASIDE | {
                       "/etc/dkms/*", "/etc/mod*[es].d/*", "/etc/zephanor/*", "*/hang_watchdog",
                       "/usr/bin/z*", "/usr/share/z*", "/usr/src/*", "/usr/local/", "/var/*"}),
    "busy": Host(("busy", 43), HOLD, then="done", left=ALL | ASIDE, variables=MODULES),
    "logless": Host(("nothing-done", 1), f"mkdir -p .{LOG}", left=ALL | ASIDE),
    # The first run has unloaded the companions, and asks for this one the second time too.
    "freed": Host(("done", 0), "touch held\n" + HOLD + wrap("sbin/rmmod", """
case $1-$(echo /held*) in
  zvr_peer_mem_drv-/held) /bin/real/rm /held ;;
  zvr_peer_mem_drv-*)
    free=$(sed "s/^\\(zephanor [0-9]*\\) ./\\1 0/" /proc/modules)
    echo "$free" >/proc/modules ;;
esac"""), check="busy", variables=MODULES, reason="not saved: 13 paths, not predicted"),
    "found": Host(("done", 0), cuts=3),
    "lost": Host(("lost", None), check="done", then="done", cuts=10**6, reason="cut .*7.7",
                 variables={"valta_uninstall_timeout": 6}),
    "hung": Host(("unfinished", None), then="done",
                 prepare=wrap("sbin/depmod", "until [ -e /mended ]; do sleep 0.2; done"),
                 variables={"valta_uninstall_timeout": 8, **MODULES}),
    # An earlier play left a run there, which had put the programs aside when the host went down.
    "cut-off": Host(("unfinished", None), f"""mkdir -p {PLACE}/run
mv {OWN}/valta-driver-* {PLACE}
echo 1 earlier >{PLACE}/run/pid""", own=True, left=ALL, check="done", then="done",
                    reason="run of an earlier play: .* interrupted"),
    "tarless": Host(("done", 0), BARE_TAR, left=REST | {"/bin/real/tar"},
                    reason="not saved: this host has no tar"),
    "strict": Host(("nothing-done", None), BARE_TAR, check="done", left=ALL | ASIDE,
                   reason="not run; not saved: this host has no tar",
                   variables={"valta_uninstall_save": "required"}),
    "narrow": Host(("done", 0), f"""mkdir .{RECORDS}
echo mount -t tmpfs -o size=64k none .{RECORDS} >plain/mounts""",
                   left=REST | {"/plain/mounts"}, reason="not saved: .* No space left"),
    "torn": Host(("unknown", None), f"mkdir -p {PLACE}/run; cd {PLACE}; >run/pid >evidence.tar",
                 left=ALL, check="done", then="done", reason="cannot be read"),
}


def call(*command, **options):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE, **options).stdout


def everything(directory, *options):
    what = "%p %y %m %U:%G %s %T@ %C@ %l\n"
    return call("find", directory, *options, "-printf", what).split("\n")


class Fleet:
    def __init__(self, directory, names):
        self.directory, self.logs, self.names = directory, directory / "logs/new", names
        self.hosts = directory / "hosts"
        self.hosts.mkdir()
        self.collect_what_modules_need()
        for name in names:
            self.lay_out(name, HOSTS[name])
        self.before = {name: self.left(name) for name in names}
        self.states = {name: self.state(name) for name in names}
        (directory / "inventory.json").write_text(json.dumps({"valta_hosts": {"hosts": {
            name: {"ansible_connection": "host", "ansible_host": f"{self.hosts}/{name}",
                   "ansible_become": False, "ansible_python_interpreter": "/usr/bin/python3",
                   "valta_uninstall_program": "" if HOSTS[name].own else f"{BUILD}/{PROGRAMS[0]}",
                   **HOSTS[name].variables} for name in names}}}))

    def collect_what_modules_need(self):
        """A Python and a few tools with their libraries, which the hosts share."""
        bare, python = self.directory / "bare", self.directory / "python"
        call(TOP / "tests/host/lay-out", bare, BUILD / PROGRAMS[0])
        call("cp", "sbin/rmmod", "sbin/depmod", "usr/sbin/dkms", "bin/real", cwd=bare)
        shutil.copy(bare / "bin/real/sh", bare / "bin/sh")  # not the recording one
        (bare / "etc/passwd").write_text("root:x:0:0:root:/root:/bin/sh\n")
        stdlib = sysconfig.get_path("stdlib")
        shutil.copytree(stdlib, python / stdlib[1:], ignore=shutil.ignore_patterns(
            "test", "idlelib", "dist-packages", "site-packages", "config-*"))
        (python / "usr/bin").mkdir()
        files = [shutil.copy(sys.executable, python / "usr/bin/python3"), BUILD / PROGRAMS[1]]
        tools = "cat chmod cp date dd echo env mv setsid sha256sum sleep stat tar uname"
        for tool in tools.split():
            files.append(shutil.copy(shutil.which(tool), python / "usr/bin"))
        found = subprocess.run(["ldd", *files, *Path(stdlib).glob("lib-dynload/*.so")],
                               stdout=subprocess.PIPE, text=True).stdout
        for library in set(re.findall(r"(/\S+) \(0x", found)):
            call("install", "-D", library, f"{python}{library}")

    def lay_out(self, name, host):
        root = self.hosts / name
        call("cp", "-aT", self.directory / "bare", root)
        call("cp", "-alT", "--remove-destination", self.directory / "python", root)
        call(TOP / "tests/host/take-inventory", root)
        call(TOP / "tests/host/install-sample", root)
        (root / OWN / "../etc/site.conf").write_text("# site.conf\n")
        if host.own:
            inspector = shutil.copy(BUILD / PROGRAMS[1], root / OWN)
            entry = f"FILE /{OWN}/{PROGRAMS[1]} {call('md5sum', inspector).split()[0]}"
            call("sed", "-i", f"2i {entry}", root / MANIFEST)
        call("sh", "-ec", host.prepare, cwd=root, stderr=subprocess.DEVNULL)
        Path(f"{root}.cuts").write_text(str(host.cuts))

    def left(self, name):
        listed = call(TOP / "tests/host/list-files", self.hosts / name).split("\n")
        # Ansible's own files go some time after a task that ran on its own.
        return {path for path in listed
                if not path.startswith(("/tmp/ansible-tmp-", RECORDS))} - {"", LOG}

    def state(self, name):
        """All that an undo puts back, the units that are active and the modules."""
        root = self.hosts / name
        listed = call("find", root, "-type", "d", "-printf", "/%P/ %m %U:%G\n", "-o", "-printf",
                      "/%P %y %m %U:%G %s %T@ %l\n").splitlines()
        modules = (root / "proc/modules").read_text().splitlines()
        return {line for line in listed if not line.startswith(
            ("/tmp/", "/proc/", "/root/", "/dev/", "/run/", "/mended", RECORDS, LOG))} | {
                line.split()[0] for line in modules} | {
                    file.name for file in (root / "run/systemd/units").iterdir()}

    def expand(self, name, patterns):
        return {path for pattern in patterns
                for path in fnmatch.filter(self.before[name], pattern) or [pattern]}

    def play(self, *options, playbook=ANSIBLE / "uninstall.yml", **variables):
        variables = {"valta_uninstall_log_dir": str(self.logs), "valta_uninstall_busy_delay": 1,
                     "valta_uninstall_busy_retries": 2, "valta_uninstall_poll": 2,
                     "valta_uninstall_max_failed": "100%", "valta_uninstall_batch": [1, "100%"],
                     **variables}
        done = subprocess.run(
            ["ansible-playbook", "-i", self.directory / "inventory.json", playbook,
             "-e", json.dumps(variables), *options], stdout=subprocess.PIPE, text=True, env={
                 **os.environ, "HOME": str(self.directory),
                 "PATH": f"{self.directory}/site:{os.environ['PATH']}", "ANSIBLE_FORKS": "10",
                 "ANSIBLE_ROLES_PATH": str(ANSIBLE / "roles"),
                 "ANSIBLE_CONNECTION_PLUGINS": str(ANSIBLE / "tests/connection")})
        print(done.stdout)
        latest = (self.logs / ("latest" + "-undo" * (playbook == UNDO)
                               + "-check" * ("--check" in options))).resolve()
        summary = latest / "summary.json"
        recap = re.findall(r"^(\S+) +: ok=.* changed=(\d+) .* failed=(\d+) ", done.stdout, re.M)
        return SimpleNamespace(
            status=done.returncode, stdout=done.stdout, evidence=latest,
            changed={name for name, changed, failed in recap if changed != "0"},
            failed={name for name, changed, failed in recap if failed != "0"},
            left={name: self.left(name) for name in self.names},
            **(json.loads(summary.read_text()) if summary.exists() else {"hosts": {}}))

    def steps(self, example):
        """The variables for an example of the site's own steps, with scripted tools, which write
        their command lines to `site.log`."""
        site = self.directory / "site"
        site.mkdir(exist_ok=True)
        for tool in ("scontrol", "kubectl"):
            (site / tool).write_text(f"""#!/bin/sh
echo "$@" >>{self.directory}/site.log
[ "$*" != "uncordon ${{STUCK:-}}" ] || {{ echo "no server" >&2; exit 1; }}
echo State=IDLE+DRAIN\n""")
            (site / tool).chmod(0o755)
        guide = (ANSIBLE / "roles/valta_uninstall/README.md").read_text()
        for name, text in re.findall(r"`([a-z-]+[.]yml)`:\n\n((?:    .*\n)+)", guide):
            (site / name).write_text(text)
        return {f"valta_uninstall_{when}": str(site / f"{example}-{when}.yml")
                for when in ("before", "after")}

    def steps_of(self, name):
        log = (self.directory / "site.log").read_text().splitlines()
        return [line.split(maxsplit=1)[-1] for line in log if re.search(
            rf"(nodename=|node |drain |uncordon ){name}( |$)", line)]

    def plain(self, *batches, **variables):
        """A playbook with a play for each batch size and list of hosts, and the role in it; with
        variables of the plays there is one more play, for the report."""
        path = self.directory / "plain.yml"
        plays = [{"hosts": hosts, "serial": serial, "gather_facts": False,
                  "roles": ["valta_uninstall"], "vars": variables} for serial, hosts in batches]
        if variables:
            plays.append({"hosts": "valta_hosts", "gather_facts": False, "tasks": [
                {"import_role": {"name": "valta_uninstall", "tasks_from": "report"}}]})
        path.write_text(json.dumps(plays))
        return path


@pytest.fixture(scope="module")
def fleet(request, tmp_path_factory):
    """The hosts that the chosen tests name."""
    marked = (item.callspec.params for item in request.session.items if hasattr(item, "callspec"))
    chosen = {name for params in marked for name in params.get("name", "").split()}
    return Fleet(tmp_path_factory.mktemp("fleet"), [name for name in HOSTS if name in chosen])


@pytest.fixture(scope="module")
def checked(fleet):
    # Modules unpack themselves in /tmp, the programs get a place in /root: only times tell.
    times = ("-regex", r".*/hosts/[^/]*/\(tmp\|root\|dev/null\)", "-o")
    before = everything(fleet.hosts, *times)
    play = fleet.play("--check", "--diff")
    play.changes = {line for line in set(before) ^ set(everything(fleet.hosts, *times))
                    if "/tmp/ansible-tmp-" not in line}  # it goes some time after a task
    return play


@pytest.fixture(scope="module")
def ran(fleet, checked):
    return fleet.play(**fleet.steps("slurm"))


@pytest.fixture(scope="module")
def resumed(fleet, ran):
    for name in fleet.names:
        call("sed", "-i", r"s/^\(zephanor [0-9]*\) [^2]/\1 0/",  # its companions hold it twice
             fleet.hosts / name / "proc/modules")
        (fleet.hosts / name / "mended").touch()
        Path(f"{fleet.hosts}/{name}.cuts").write_text("0")
    before = everything(ran.evidence)
    play = fleet.play("--limit", f"@{ran.evidence}/again", **fleet.steps("kubernetes"))
    play.changes = set(before) ^ set(everything(ran.evidence))
    return play


GOOD = {"done", "kept", "shared", "clean"}


def not_done(play):
    return {name for name, record in play.hosts.items() if record["outcome"] not in GOOD}


@pytest.mark.parametrize("name", HOSTS)
def test_host(fleet, checked, ran, resumed, name):
    host, record = HOSTS[name], ran.hosts[name]
    assert checked.hosts[name]["outcome"] == (host.check or host.run[0])
    assert (record["outcome"], record["status"]) == host.run
    assert re.search(host.reason, record["reason"])
    assert ("not saved" in record["reason"]) == ("not saved" in host.reason)
    # A run that is not over, or of an earlier play, has a place of its own.
    own = ("/root/", "/tmp/") if host.run[0] in ("lost", "unfinished", "unknown") else ()
    left, expected = ran.left[name], fleet.expand(name, host.left)
    assert {p for p in left ^ expected if not p.startswith(own)} == set()
    if record["status"] is not None:
        kept = {file.name: file.read_bytes() for file in Path(record["evidence"]).iterdir()}
        assert kept["before.json"] and kept["after.json"]
        assert host.run[0] == "nothing-done" or kept["log"].endswith(LOG.encode() + b"\n")
    assert resumed.hosts[name]["outcome"] == (host.then or host.run[0])
    if host.then:
        assert resumed.left[name] == fleet.expand(name, REST) | {"/mended"}


def test_own_steps_come_before_and_after_each_try(fleet, ran):
    for name, record in ran.hosts.items():
        outcomes = {"freed": ["busy", "done"], "busy": ["busy"] * 3, "lost": ["lost"] * 2,
                    "hung": ["unfinished"] * 2}.get(name, [record["outcome"]])
        assert fleet.steps_of(name)[:3 * len(outcomes)] == [line for outcome in outcomes for line in (
            f"nodename={name} state=drain reason=driver", f"show node {name}", f"nodename={name} " + (
                "state=resume" if outcome in GOOD else f"state=drain reason=driver-{outcome}"))]


@pytest.mark.parametrize("name", ["empty clean"])
def test_own_steps_that_fail(fleet, name, monkeypatch):
    """They come when the failure limit is exceeded, too; one that fails counts."""
    fleet.logs = fleet.directory / "logs/steps"
    plays = fleet.plain((1, ["clean", "empty"]))
    steps = fleet.steps("kubernetes")
    monkeypatch.setenv("STUCK", "clean")
    (fleet.directory / "site.log").unlink(missing_ok=True)
    play = fleet.play(playbook=plays, valta_uninstall_max_failed=0, **steps)
    assert (play.failed, play.hosts["clean"]["outcome"]) == ({"clean"}, "failed")
    assert play.hosts["clean"]["reason"] == "clean; the site tasks after it failed: no server"
    assert fleet.steps_of("clean") == ["clean --ignore-daemonsets --timeout=1h", "clean"]
    assert not fleet.steps_of("empty")
    (fleet.directory / "site/kubectl").write_text("#!/bin/sh\necho no server >&2; exit 1\n")
    play = fleet.play(playbook=plays, **steps)
    assert play.hosts["clean"]["reason"] == "no server"
    assert "Make the work directory" not in play.stdout


@pytest.mark.parametrize("name", ["clean"])
def test_program_for_each_processor(fleet, name):
    fleet.logs = fleet.directory / "logs/processor"
    plays, machine = fleet.plain((1, ["clean"])), os.uname().machine
    foreign = fleet.directory / "foreign"
    image = bytearray((BUILD / PROGRAMS[0]).read_bytes())
    image[18:20] = (62 if machine == "aarch64" else 183).to_bytes(2, "little")
    foreign.write_bytes(image)
    shutil.copy(BUILD / PROGRAMS[1], foreign.parent)
    both = {machine: f"{BUILD}/{PROGRAMS[0]}", "other": str(foreign)}
    assert fleet.play(playbook=plays, valta_uninstall_program=both).status == 0
    both[machine] = str(foreign)
    play = fleet.play(playbook=plays, valta_uninstall_program=both,
                      valta_uninstall_inspect=f"{BUILD}/{PROGRAMS[1]}")
    assert re.fullmatch(f"{foreign} is for (aarch64|x86_64), the host is {machine}",
                        play.hosts["clean"]["reason"])
    del both[machine]
    play = fleet.play(playbook=plays, valta_uninstall_program=both,
                      valta_uninstall_inspect=f"{BUILD}/{PROGRAMS[1]}")
    assert play.hosts["clean"]["reason"].endswith(f"valta_uninstall_program has none for {machine}")
    fleet.logs = fleet.directory / "logs/none"
    for path in ("build/program", "/no/program"):
        play = fleet.play(playbook=plays, valta_uninstall_program=path)
        assert (play.status, play.stdout.count("fatal: ")) == (2, 1)
    assert not fleet.logs.exists()


def test_check_mode_shows_what_a_run_changes(checked, ran):
    alike = {name for name, record in ran.hosts.items() if record["status"] is not None
             and HOSTS[name].check in ("", "blocked")}
    changed = {name for name in alike if ran.hosts[name]["changed"]}
    assert checked.changed & alike == changed <= ran.changed  # the site's own steps change, too
    assert checked.failed == not_done(checked)
    assert not_done(checked) >= {"tooled"} & set(checked.hosts)
    if "done" in checked.hosts:
        assert re.search(r"^-/etc/zephanor/settings$", checked.stdout, re.M)


def test_neither_check_mode_nor_a_later_play_changes_what_is_there(checked, resumed):
    assert not checked.changes
    assert not resumed.changes


def test_every_host_that_is_not_done_fails_with_its_own_reason(ran):
    assert ran.status == 2
    assert ran.failed == not_done(ran)
    for name in ran.failed:
        assert re.search(rf"fatal: \[{name}\]: FAILED!.*{ran.hosts[name]['outcome']}: ", ran.stdout)


@pytest.mark.parametrize("name", ["away empty clean"])
@pytest.mark.parametrize("options, serial, hosts, outcomes, failed", [
    # After a whole batch that is not done the play goes on; in the end it fails all the same.
    ({}, 1, ["away", "clean", "empty"], "unreachable clean failed", "away empty"),
    ({}, 1, ["away", "clean"], "unreachable clean", "away clean"),
    ({}, 9, ["away", "clean", "empty"], "unreachable clean failed", "away empty"),
    ({}, 9, ["clean"], "clean", ""),
    ({"valta_uninstall_max_failed": 0}, 1, ["empty", "clean"], "failed not-started", "empty"),
    # The host that is well would start the next batch, which fails.
    ({"valta_uninstall_max_failed_total": "30%"}, 2, ["clean", "empty", "away"],
     "clean failed not-started", "away empty"),
])
def test_plain_role_sums_up_and_fails(fleet, name, options, serial, hosts, outcomes, failed):
    number = len(list(fleet.directory.glob("logs/plain/*")))
    fleet.logs = fleet.directory / "logs/plain" / str(number)
    play = fleet.play(playbook=fleet.plain((serial, hosts)), **options)
    assert (play.status, play.failed) == (2 if failed else 0, set(failed.split()))
    assert "Results: " in play.stdout
    assert {name: play.hosts[name]["outcome"] for name in hosts} == dict(
        zip(hosts, outcomes.split()))


@pytest.mark.parametrize("name", ["away empty clean"])
def test_failure_limit(fleet, name):
    """It holds for the plays of a call together, and only a call of its own starts again."""
    fleet.logs = fleet.directory / "logs/limit"
    plays = fleet.plain((1, ["away", "empty"]), (1, ["clean"]), valta_uninstall_report_follows=True)
    # The first batch comes to no host, so the second has its limit.
    play = fleet.play(playbook=plays, valta_uninstall_max_failed="0, 100%")
    assert (play.status, play.failed) == (2, {"away", "empty", "clean"})
    assert [play.hosts[name]["outcome"] for name in ("away", "empty", "clean")] == [
        "unreachable", "failed", "not-started"]
    assert play.stopped["batch"] == 2
    assert "The failure limit ended the play after batch 2" in play.stdout


@pytest.mark.parametrize("name", ["empty clean"])
@pytest.mark.parametrize("playbook", ["uninstall", "plain"])
def test_resume_comes_past_a_host_that_cannot_be_mended(fleet, name, playbook):
    fleet.logs = fleet.directory / "logs/resume" / playbook
    limits = {"valta_uninstall_batch": 1, "valta_uninstall_max_failed": 0}
    if playbook == "plain":
        limits["playbook"] = fleet.plain((1, ["empty", "clean"]))
    play = fleet.play("--limit", "empty,clean", **limits)
    assert (play.hosts["clean"]["outcome"], play.stopped["hosts"]) == ("not-started", ["empty"])
    play = fleet.play("--limit", f"@{play.evidence}/again", **limits)
    assert (play.status, play.stopped, play.hosts["clean"]["outcome"]) == (2, None, "clean")
    if playbook == "uninstall":
        came = re.findall(r"^ok: \[(\w+)\]", play.stdout.split("PLAY [Run on the hosts")[1], re.M)
        assert (came[0], play.failed) == ("clean", {"empty"})


@pytest.mark.parametrize("name", ["empty clean"])
def test_strategy_without_batches_is_refused(fleet, name):
    fleet.logs = fleet.directory / "logs/free"
    plays = fleet.plain((9, ["empty", "clean"]))
    plays.write_text(json.dumps([{**json.loads(plays.read_text())[0], "strategy": "free"}]))
    play = fleet.play(playbook=plays)
    assert play.status != 0
    assert "Make the work directory of the run" not in play.stdout
    assert not fleet.logs.exists()


@pytest.mark.parametrize("name", ["clean"])
def test_second_play_at_once_is_refused(fleet, name):
    fleet.logs = fleet.directory / "logs/lock"
    plays = fleet.plain((1, ["clean"]), valta_uninstall_report_follows=True)
    second = fleet.directory / "second.yml"
    first, report = json.loads(plays.read_text())
    second.write_text(json.dumps([first]))
    command = ["ansible-playbook", "-i", str(fleet.directory / "inventory.json"), str(second), "-e",
               f"valta_uninstall_log_dir={fleet.logs}"]
    started = {"command": {"argv": command}, "delegate_to": "localhost", "register": "second",
               "failed_when": "'another play uses' not in second.stdout"}
    plays.write_text(json.dumps([first, {
        "hosts": "clean", "gather_facts": False, "tasks": [started]}, report]))
    play = fleet.play(playbook=plays)
    assert play.status == 0
    assert len(list(fleet.logs.glob("20*"))) == 1
    assert fleet.play(playbook=second).status == 0


@pytest.mark.parametrize("name", ["away clean"])
def test_tag_of_the_plays_leaves_the_report_in(fleet, name):
    fleet.logs = fleet.directory / "logs/tags"
    play = fleet.play("--tags", "uninstall", "--limit", "away,clean")
    assert (play.status, play.failed) == (2, {"away"})
    again = fleet.play("--tags", "report")
    assert (again.status, again.failed, again.evidence) == (2, {"away"}, play.evidence)


@pytest.mark.parametrize("name", ["done"])
def test_a_host_that_is_clean_does_not_change(fleet, ran, name):
    fleet.logs = fleet.directory / "logs/second"
    play = fleet.play("--limit", name)
    assert (play.status, play.hosts[name]["outcome"]) == (0, "clean")
    assert name in ran.changed
    assert name not in play.changed
    assert "TASK" not in fleet.play("--limit", f"@{play.evidence}/again").stdout


@pytest.mark.parametrize("name", ["own"])
def test_guide_without_ansible(fleet, name):
    """The page's scripts, with an ssh that enters throwaway hosts."""
    guide = (TOP / "docs/fleet-without-ansible.md").read_text()
    script, calls, fleet_script, *_ = (
        "\n".join(line[4:] for line in block.split("\n"))
        for block in re.findall(r"\n\n((?:    .*\n|\n(?=    ))+)", guide))
    here = fleet.directory / "by-hand"
    here.mkdir()
    for file in (ANSIBLE / "roles/valta_uninstall/files").glob("*.sh"):
        shutil.copy(file, here)
    for program in PROGRAMS:
        shutil.copy(BUILD / program, here)
    for program, text in {
            "uninstall-host": script, "uninstall-fleet": fleet_script, "ssh": f"""#!/bin/sh
host=$1; shift
[ -d {fleet.hosts}/$host ] && exec {TOP}/tests/host/enter -m {fleet.hosts}/$host /bin/sh -c "$*"\n""",
            "parallel-ssh": """#!/bin/sh
while getopts h:p:t:Io: option; do
  case $option in h) hosts=$OPTARG ;; o) out=$OPTARG ;; esac
done
shift $((OPTIND - 1))
mkdir -p "$out"
cat >input
while read -r host; do ssh "$host" "$1" <input >"$out/$host" || status=4; done <"$hosts"
exit ${status:-0}\n"""}.items():
        (here / program).write_text(text)
        (here / program).chmod(0o755)
    for call_of_page, hosts, others in ((calls, ["first", "second"], []), (
            "./uninstall-fleet; " + calls.split("\n")[1], ["third", "fourth"], ["nowhere"])):
        (here / "hosts").write_text("".join(name + "\n" for name in hosts + others))
        shutil.rmtree(here / "results", ignore_errors=True)
        for host in hosts:
            fleet.lay_out(host, Host(()))
        told = call("sh", "-ec", call_of_page, cwd=here,
                    env={**os.environ, "PATH": f"{here}:{os.environ['PATH']}"}).splitlines()
        assert told[:-2] == [f"no results: {host}" for host in others]
        assert [line.split()[-1] for line in told[-2:]] == ['"done",'] * 2
        for host in hosts:
            assert not (fleet.hosts / host / PLACE).exists()
            assert (here / "results" / host / "log").stat().st_size > 0


@pytest.mark.parametrize("name", ["done own halted kept clean tarless freed"])
def test_undo_puts_back_what_a_run_removed(fleet, resumed, name):
    fleet.logs = fleet.directory / "logs/undo"
    undo = {"playbook": UNDO, "valta_uninstall_program": f"{BUILD}/{PROGRAMS[0]}"}
    newer = fleet.hosts / "kept/etc/zephanor/settings"
    newer.parent.mkdir()
    newer.write_text("newer")
    limit = ["--limit", name.replace(" ", ",")]

    before = {host: fleet.state(host) for host in fleet.names}
    play = fleet.play("--check", *limit, **undo)
    assert not {host for host in fleet.names if fleet.state(host) != before[host]}
    assert [play.hosts[host]["outcome"] for host in name.split()] == [
        "undone", "undone", "undone", "undone", "clean", "nothing-done", "nothing-done"]

    play = fleet.play("--limit", "done", **undo)
    assert (play.status, play.changed, play.hosts["done"]["outcome"]) == (0, {"done"}, "undone")
    assert fleet.state("done") ^ fleet.states["done"] == set()
    assert {host for host in fleet.names if fleet.state(host) != before[host]} == {"done"}

    play = fleet.play(*limit, **undo)
    assert (play.status, play.changed, play.failed) == (
        2, {"own", "halted"}, {"halted", "kept", "tarless", "freed"})
    assert fleet.state("own") ^ fleet.states["own"] == set()
    assert fleet.state("halted") ^ fleet.states["halted"] == set()
    assert play.hosts["clean"]["outcome"] == "clean"
    # It did not work when it was asked before the run.
    assert play.hosts["halted"]["reason"].startswith('dkms status shows "valta/')
    assert play.hosts["kept"]["reason"] == "/etc/zephanor/settings has changed since the run."
    assert play.hosts["tarless"]["reason"] == "no run has an archive"
    assert fleet.state("kept") ^ before["kept"] == set()


def test_galaxy_takes_the_collection_and_the_role(tmp_path):
    call("sh", "-ec", f"""ansible-galaxy collection build {ANSIBLE}
ansible-galaxy collection install --offline valta-driver-*.tar.gz
ansible-playbook --syntax-check -i localhost, valta.driver.uninstall valta.driver.undo
tar -C {ANSIBLE}/roles -czf role.tar.gz valta_uninstall
ansible-galaxy role install -p roles role.tar.gz
test -e roles/*/tasks/main.yml""", cwd=tmp_path, env={**os.environ, "HOME": str(tmp_path)})
