"""The Debian package: installed, upgraded, removed and purged on a private machine, its service file,
and its init script with the shells and tools of a small system."""

import re
import shutil
import subprocess
import time
from pathlib import Path

import pytest

TOP = Path(__file__).resolve().parents[2]
from tests.lib.private_machine import PrivateMachine, wait_for

SERVICE = "/lib/systemd/system/kestcrond.service"
JOBS = "/usr/local/etc/kestcron.d/test"
SCRIPT = "/etc/init.d/kestcrond"
MOUNT = "/usr/lib/kestcrond/mount-programs"
PROGRAMS = "/tmp/kestcrond"
# Two jobs of one minute: the second waits.
TWO_JOBS = """[
    {"name": "a", "user": "root", "period": "crontab", "crontab": "* * * * *", "cmd": "/bin/count"},
    {"name": "b", "user": "root", "period": "crontab", "crontab": "* * * * *", "cmd": "/bin/count"}
]"""
# The second of them waits half an hour at most, which is half a minute here.
SLOW = """{"config": {"name": "scheduleTemplate", "user": "root", "cmd": "true", "period": "crontab",
                      "crontab": "~ ~ ~ ~ ~"}, "maxDelay": 1800}"""


# The clock of the machine, for a daemon that gets nothing of its starter's environment.
CLOCK = """KESTCROND_OPTIONS=
KESTCROND_ENVIRONMENT='LD_PRELOAD=/usr/$LIB/faketime/libfaketime.so.1 NO_FAKE_STAT=1
FAKETIME_TIMESTAMP_FILE=/run/clock'
"""


@pytest.fixture(name="package", scope="session")
def built_package():
    """The package as `cpack` made it."""
    packages = sorted(TOP.glob("build/deb/kestcrond_*_amd64.deb"))
    assert len(packages) == 1, "made by: cmake --build --preset deb, and cpack in build/deb"
    return packages[0]


@pytest.fixture
def machine():
    """A machine without the daemon. It has sysvinit's idea of services, and starts them."""
    with PrivateMachine(TOP / "build/deb/kestcrond") as fresh:
        for path in ("/usr/sbin/kestcrond", "/usr/bin/kestcronctl", "/usr/sbin/policy-rc.d"):
            fresh.path(path).unlink(missing_ok=True)
        fresh.write("/usr/sbin/runlevel", "#!/bin/sh\necho N 2\n", 0o755)
        fresh.write("/bin/count", '#!/bin/sh\necho $$ >> "/run/ran.${0##*/}"\n', 0o755)
        fresh.clock("2026-06-02 02:10:10")
        fresh.write("/run/clock", fresh.environment["FAKETIME"] + "\n")
        fresh.write("/etc/default/kestcrond", CLOCK)
        yield fresh


def install(machine, package):
    shutil.copy(package, machine.path("/root/kestcrond.deb"))
    done = machine.run(
        "/usr/bin/dpkg", "--force-confold", "-i", "/root/kestcrond.deb", env={"DEBIAN_FRONTEND": "noninteractive"}
    )
    assert done.returncode == 0, done.stdout + done.stderr
    return done


def runs(machine, job):
    """The process ids of its runs."""
    return machine.read(f"/run/ran.pkg-test-{job}").splitlines()


def files(machine):
    """Every path on the machine but those of dpkg itself and the caches of others."""
    found = machine.run("find", "/", "/tmp", "/run", "/var/log", "-xdev", env={"LD_PRELOAD": ""}).stdout
    others = (
        "/etc/default/kestcrond",
        "/proc/",
        "/sys/",
        "/dev/",
        "/root/",
        "/var/lib/dpkg/",
        "/var/cache/",
        "/usr/share/",
        "/var/log/dpkg.log",
        "/etc/ld.so.cache",
    )
    return {path for path in found.splitlines() if not path.startswith(others)}


def newer(package, tmp_path):
    """The same package as one of a later version."""
    tree = tmp_path / "tree"
    subprocess.run(["dpkg-deb", "-R", package, tree], check=True)
    control = tree / "DEBIAN/control"
    control.write_text(re.sub(r"(?m)^Version: .*$", "Version: 999.0-1", control.read_text()))
    subprocess.run(
        ["dpkg-deb", "--root-owner-group", "-b", tree, tmp_path / "newer.deb"], check=True, stdout=subprocess.DEVNULL
    )
    return tmp_path / "newer.deb"


def owner_and_mode(machine, path):
    status = machine.path(path).stat()
    return status.st_uid, status.st_gid, status.st_mode & 0o7777


def test_lintian_finds_no_fault(package):
    done = subprocess.run(
        ["lintian", "--fail-on", "error,warning", package], capture_output=True, text=True, check=False
    )
    assert (done.returncode, done.stdout) == (0, "")


def test_it_has_one_version(package):
    version = re.search(r"project\(kestcrond VERSION (\S+)", (TOP / "CMakeLists.txt").read_text())[1]
    stated = subprocess.run(
        ["dpkg-deb", "-f", package, "Version"], capture_output=True, text=True, check=True
    ).stdout.strip()
    assert stated == version + "-1"
    headings = re.findall(r"(?m)^## \[(.*?)\]", (TOP / "CHANGELOG.md").read_text())
    assert headings[0] == "Unreleased" or headings[0] == version
    for page in ("kestcrond.8", "kestcron.job.5", "kestcronctl.1"):
        text = (TOP / "build/deb/man" / page).read_text()
        assert f"\n.Os kestcrond {version}\n" in text, page


def test_it_needs_no_more_than_it_uses(package):
    depends = subprocess.run(["dpkg-deb", "-f", package, "Depends"], capture_output=True, text=True, check=True).stdout
    names = {entry.split()[0] for entry in depends.split(",")}
    assert names == {"libc6", "libgcc-s1", "libjsoncpp25", "libstdc++6"}


def test_a_whole_life(machine, package, tmp_path):
    upgrade = newer(package, tmp_path)  # takes longer than a job may wait
    before = files(machine)
    machine.write("/usr/kest/etc/kestcrond.st.config", SLOW)
    install(machine, package)
    pid = wait_for(machine.daemon_pid)
    machine.write(JOBS, TWO_JOBS)
    assert machine.run("/usr/bin/kestcronctl", "check").returncode == 0
    assert machine.run(SCRIPT, "reload").returncode == 0
    wait_for(lambda: runs(machine, "a"), 60, "a run of the job that does not wait")

    # An upgrade exchanges the scheduler while a job waits, and what was changed by hand stays.
    machine.write("/etc/default/kestcrond", "# mine\n" + CLOCK)
    waiting = wait_for(lambda: [child for child in machine.daemons() if child != pid], 60, "a job that waits")
    install(machine, upgrade)
    assert wait_for(machine.daemon_pid) != pid
    assert "# mine" in machine.read("/etc/default/kestcrond")
    assert waiting[0] in machine.daemons(), "a waiting job was ended"
    wait_for(lambda: str(waiting[0]) in runs(machine, "a") + runs(machine, "b"), 120, "the run of the waiting job")

    # Removed, it is silent; what it knew stays.
    done = machine.run("/usr/bin/dpkg", "-r", "kestcrond")
    assert done.returncode == 0, done.stderr
    wait_for(lambda: not machine.daemons(), 120, "the end of the daemon and its children")
    assert machine.exists("/usr/kest/etc/kestcrond.config") and machine.exists(SCRIPT)
    assert machine.exists(JOBS)

    # Purged, nothing of it is left but the job files, which are not its own.
    done = machine.run("/usr/bin/dpkg", "-P", "kestcrond")
    assert done.returncode == 0, done.stderr
    left = files(machine) - before
    assert {path for path in left if "ran.pkg" not in path} == {JOBS, str(Path(JOBS).parent)}


def test_an_empty_machine_is_empty_again(machine, package):
    before = files(machine)
    install(machine, package)
    wait_for(machine.daemon_pid)
    for place, mode in [
        ("/usr/kest/share/kestcron.d", 0o750),
        ("/usr/kest/etc/kestcron.d", 0o750),
        ("/usr/local/etc/kestcron.d", 0o750),
        ("/usr/kest", 0o755),
        ("/usr/kest/etc", 0o755),
        ("/usr/local/etc", 0o755),
        ("/usr/local/etc/kestcron_nonroot.d", 0o755),
    ]:
        assert owner_and_mode(machine, place) == (0, 0, mode), place

    assert machine.run("/usr/bin/dpkg", "-P", "kestcrond").returncode == 0
    assert files(machine) - before == set()


def test_the_service_is_sound(machine, package):
    install(machine, package)
    done = machine.run("systemd-analyze", "verify", "--man=yes", SERVICE, env={"LD_PRELOAD": ""})
    said = [line for line in done.stderr.splitlines() if "kestcrond" in line]
    assert (done.returncode, said) == (0, [])


def test_the_service_leaves_jobs_their_rights(package, tmp_path):
    # Whatever takes a right from the service takes it from all jobs.
    subprocess.run(["dpkg-deb", "-x", package, tmp_path], check=True)
    text = (tmp_path / ("usr" + SERVICE)).read_text()
    settings = dict(line.split("=", 1) for line in text.splitlines() if "=" in line and not line.startswith("#"))
    assert settings["Type"] == "forking" and settings["PIDFile"] == "/run/kestcrond.pid"
    assert settings["KillMode"] == "process" and settings["OOMPolicy"] == "continue"
    assert settings["Restart"] == "always"
    assert settings["ExecStartPre"] == "-" + MOUNT
    assert settings["ExecReload"] == "/bin/kill -HUP $MAINPID"
    assert not {name for name in settings if name.startswith(("Protect", "Private", "NoNew"))}


def test_no_cleaner_takes_the_programs_away(machine, package):
    install(machine, package)
    wait_for(machine.daemon_pid)
    rules = machine.read("/usr/lib/tmpfiles.d/kestcrond.conf").splitlines()
    assert "x " + PROGRAMS in rules and "x /tmp/kestcrond.log" in rules
    machine.write("/usr/lib/tmpfiles.d/aged.conf", "d /tmp/other 0755 root root 1s\nq /tmp 1777 root root 1s\n")
    machine.write(PROGRAMS + "/old", "x")
    machine.write("/tmp/else", "x")
    wait_for(
        lambda: machine.run("systemd-tmpfiles", "--clean", env={"LD_PRELOAD": ""}) and not machine.exists("/tmp/else"),
        what="the cleaner",
    )
    assert machine.exists(PROGRAMS + "/old")


@pytest.mark.parametrize(
    "saved,slept",
    [
        ("1780366200", "15"),
        ("1780366244", "15"),
        ("1780366199", ""),
        ("1780366300", "15"),
        ("0", ""),
        ("99999999999999999999", ""),
        ("-1", ""),
        (None, ""),
    ],
)
def test_an_upgrade_waits_out_the_minute_of_launches(machine, saved, slept):
    text = (TOP / "packaging/debian/postinst").read_text()
    function = re.search(r"^wait_out_launches\(\) \{.*?^\}$", text, re.M | re.S)[0]
    if saved is not None:
        machine.write(
            "/usr/kest/etc/kestcrond.config",
            '{\n\t"jobs" : \n\t{\n\t\t"lastExecution" : 5,\n\t\t"x" : \n'
            f'\t\t"lastExecution" : {saved},\n\t\t"lastExecution" : 7\n',
        )
    else:
        machine.path("/usr/kest/etc/kestcrond.config").unlink(missing_ok=True)
    done = machine.run(
        "/bin/dash",
        "-ec",
        "sleep() { printf %s $1; }\n" f"date() {{ echo 1780366245; }}\n{function}\nwait_out_launches",
    )
    assert (done.returncode, done.stdout, done.stderr) == (0, slept, "")


# --- The file system of the programs ------------------------------------------------------------


def mounted(machine):
    """The options of what is mounted there, the newest last."""
    return [
        line.split()[3].split(",")
        for line in machine.run("cat", "/proc/mounts").stdout.splitlines()
        if line.split()[1] == PROGRAMS
    ]


def test_programs_have_a_file_system_of_their_own(machine, package):
    install(machine, package)
    wait_for(machine.daemon_pid)
    [options] = mounted(machine)
    assert {"rw", "nosuid", "nodev"} <= set(options) and "noexec" not in options
    assert owner_and_mode(machine, PROGRAMS) == (0, 0, 0o755)
    # It stays over a restart and an upgrade, and nothing is mounted over it.
    assert machine.run(SCRIPT, "restart").returncode == 0
    assert len(mounted(machine)) == 1
    machine.write(JOBS, TWO_JOBS)
    assert machine.run(SCRIPT, "reload").returncode == 0
    wait_for(lambda: runs(machine, "a") and runs(machine, "b"), 60, "runs of the jobs")
    # Nobody who fills "/tmp" keeps them from being staged.
    machine.run("mount", "-o", "remount,size=1m", "/tmp", check=True, env={"LD_PRELOAD": ""})
    machine.run("dd", "if=/dev/zero", "of=/tmp/full", "bs=4096", env={"LD_PRELOAD": ""})
    machine.path(PROGRAMS + "/pkg-test-a").unlink()
    assert machine.run(SCRIPT, "reload").returncode == 0
    wait_for(lambda: machine.exists(PROGRAMS + "/pkg-test-a"), what="the copy")
    assert machine.run("/usr/bin/dpkg", "-P", "kestcrond").returncode == 0
    assert mounted(machine) == [] and not machine.exists(PROGRAMS)


@pytest.mark.parametrize("size,expected", [("5m", "size=5120k"), ("", None)])
def test_the_size_of_the_file_system_can_be_set(machine, package, size, expected):
    machine.write("/etc/default/kestcrond", CLOCK + f'KESTCROND_PROGRAMS_SIZE="{size}"\n')
    install(machine, package)
    wait_for(machine.daemon_pid)
    assert [option for options in mounted(machine) for option in options if option.startswith("size=")] == (
        [expected] if expected else []
    )


@pytest.mark.parametrize("plant", ["link", "directory", "file"])
def test_an_existing_object_is_not_mounted_over(machine, plant):
    path = machine.path(PROGRAMS)
    if plant == "link":
        path.symlink_to("/etc")
    elif plant == "directory":
        path.mkdir()
    else:
        path.write_text("x")
    machine.run("chown", "-h", "2999:2999", PROGRAMS, check=True)
    shutil.copy(TOP / "packaging/lib/mount-programs", machine.path("/usr/local/bin/mount-programs"))
    for shell in (["/bin/dash"], ["/bin/busybox", "sh"]):
        assert machine.run(*shell, "/usr/local/bin/mount-programs").returncode == 0
        assert len(mounted(machine)) == 1
    assert owner_and_mode(machine, PROGRAMS) == (0, 0, 0o755)
    assert machine.exists("/etc/passwd"), "the link was followed"
    [aside] = machine.path("/tmp").glob("kestcrond.*")
    assert aside.stat().st_mode & 0o7777 == 0o700 and list(aside.iterdir())


def test_a_race_does_not_redirect_a_mount(machine):
    shutil.copy(TOP / "packaging/lib/mount-programs", machine.path("/usr/local/bin/mount-programs"))
    vandal = machine.popen(
        "setpriv",
        "--reuid=2999",
        "--regid=2999",
        "--clear-groups",
        "/bin/bash",
        "-c",
        f"cd /tmp; while :; do mkdir {PROGRAMS}; mv {PROGRAMS} d.$RANDOM; ln -s /etc {PROGRAMS}; "
        f"mv {PROGRAMS} l.$RANDOM; done 2>/dev/null",
        env={"LD_PRELOAD": ""},
    )
    for _ in range(20):
        machine.run("/bin/dash", "/usr/local/bin/mount-programs", env={"LD_PRELOAD": ""})
        points = machine.run("cat", "/proc/mounts", env={"LD_PRELOAD": ""}).stdout
        assert {line.split()[1] for line in points.splitlines() if line.startswith("kestcrond ")} <= {PROGRAMS}
        machine.run("umount", PROGRAMS, env={"LD_PRELOAD": ""})
        machine.run("rmdir", PROGRAMS, env={"LD_PRELOAD": ""})
    vandal.kill()
    vandal.wait()


# --- The init script ----------------------------------------------------------------------------


@pytest.fixture(name="service", params=["dash", "busybox"])
def init_script(request, machine):
    """Runs the script with an action, by dash and the usual tools or by BusyBox alone."""
    shutil.copy(TOP / "build/deb/kestcrond", machine.path("/usr/sbin/kestcrond"))
    text = (TOP / "packaging/init.d/kestcrond").read_text()
    shell = ["/bin/dash"]
    if request.param == "busybox":
        machine.path("/applets").mkdir()
        machine.run("/bin/busybox", "--install", "-s", "/applets", check=True, env={"LD_PRELOAD": ""})
        text = re.sub("(?m)^PATH=.*$", "PATH=/applets", text)
        shell = ["/bin/busybox", "sh"]
    machine.write(SCRIPT, text, 0o755)
    return lambda *action, **options: machine.run(*shell, SCRIPT, *action, **options)


def test_what_the_script_does(machine, service):
    assert service("status").returncode == 3
    assert service("reload").returncode == 7
    assert service("stop").returncode == 0, "stopping a stopped daemon succeeds"
    assert service("try-restart").returncode == 0 and not machine.daemon_pid()

    assert service("start").returncode == 0
    pid = machine.daemon_pid()
    assert pid and f"pid {pid}" in service("status").stdout and service("status").returncode == 0
    assert service("start").returncode == 0 and machine.daemon_pid() == pid

    machine.write(JOBS, TWO_JOBS)
    assert service("reload").returncode == 0
    wait_for(lambda: runs(machine, "a") + runs(machine, "b"), 60, "a run of the jobs")
    assert service("force-reload").returncode == 0 and machine.daemon_pid() == pid

    assert service("restart").returncode == 0
    assert machine.daemon_pid() not in (0, pid)
    pid = machine.daemon_pid()
    assert service("try-restart").returncode == 0
    assert machine.daemon_pid() not in (0, pid)
    assert service("stop").returncode == 0
    assert not machine.daemon_pid() and not machine.exists(machine.PID_FILE)


def test_running_and_waiting_jobs_outlive_a_stop(machine, service):
    machine.write("/bin/count", '#!/bin/sh\nsleep 600\necho $$ >> "/run/ran.${0##*/}"\n', 0o755)
    machine.write(JOBS, TWO_JOBS)
    assert service("start").returncode == 0
    pid = machine.daemon_pid()
    names = lambda: {process["name"] for process in machine.processes().values()}
    wait_for(
        lambda: any(name.startswith("pkg-test-") for name in names())
        and [child for child in machine.daemons() if child != pid],
        60,
        "a job that runs and one that waits",
    )
    assert service("stop").returncode == 0
    assert pid not in machine.processes()
    wait_for(lambda: {"pkg-test-a", "pkg-test-b"} <= names(), 60, "both jobs")
    wait_for(lambda: runs(machine, "a") and runs(machine, "b"), 60, "the end of both")


def test_a_daemon_that_died(machine, service):
    assert service("start").returncode == 0
    pid = machine.daemon_pid()
    machine.run("kill", "-KILL", pid, check=True, env={"LD_PRELOAD": ""})
    wait_for(lambda: pid not in machine.processes())
    assert service("status").returncode == 1
    # Somebody else has the pid now.
    other = machine.popen("sleep", "1000", env={"LD_PRELOAD": ""})
    stranger = wait_for(lambda: [pid for pid, process in machine.processes().items() if process["name"] == "sleep"])[0]
    machine.write(machine.PID_FILE, f"{stranger}\n")
    assert service("status").returncode == 1
    assert service("stop").returncode == 0
    assert other.poll() is None, "a stranger was ended"
    assert service("start").returncode == 0
    other.kill()
    other.wait()


def test_a_daemon_that_does_not_end_is_killed(machine, service):
    assert service("start").returncode == 0
    pid = machine.daemon_pid()
    machine.run("kill", "-STOP", pid, check=True, env={"LD_PRELOAD": ""})
    began = time.monotonic()
    assert service("stop", timeout=120).returncode == 0
    assert pid not in machine.processes() and not machine.exists(machine.PID_FILE)
    assert time.monotonic() - began < 100


def test_what_the_script_refuses(machine, service):
    assert service().returncode == 2 and "Usage" in service("fly").stderr
    machine.path("/usr/sbin/kestcrond").unlink()
    assert service("start").returncode == 5


def test_options_come_from_their_file(machine, service):
    machine.write("/etc/default/kestcrond", 'KESTCROND_OPTIONS="--passive-mode"\n')
    assert service("start").returncode == 0
    command = machine.proc(machine.daemon_pid(), "cmdline").read_bytes().split(b"\0")
    assert command[1] == b"--passive-mode"
    machine.write("/etc/default/kestcrond", 'KESTCROND_OPTIONS="--unknown"\n')
    assert service("restart").returncode == 1


def test_an_administrators_environment_stays_his(machine, service):
    machine.write(
        "/bin/count", "#!/bin/sh\nenv > /run/environment.new\n" "mv /run/environment.new /run/environment\n", 0o755
    )
    machine.write(JOBS, TWO_JOBS)
    machine.write("/etc/default/kestcrond", CLOCK + 'KESTCROND_ENVIRONMENT="$KESTCROND_ENVIRONMENT A=b"\n')
    assert service("start", env={"SECRET": "x", "HOME": "/root"}).returncode == 0
    names = {
        line.split("=")[0]
        for line in wait_for(lambda: machine.read("/run/environment"), 60, "the job's report").splitlines()
    }
    assert {"PATH", "A"} <= names
    assert names <= {
        "PATH",
        "A",
        "LD_PRELOAD",
        "NO_FAKE_STAT",
        "FAKETIME_TIMESTAMP_FILE",
        "FAKETIME_SHARED",
        "PWD",
        "SHLVL",
        "_",
        "OLDPWD",
    }


def test_a_process_of_an_account_is_not_the_daemon(machine, service):
    machine.write("/usr/local/bin/kestcrond", machine.path("/usr/bin/sleep").read_bytes(), 0o755)
    other = machine.popen(
        "setpriv",
        "--reuid=2999",
        "--regid=2999",
        "--clear-groups",
        "/usr/local/bin/kestcrond",
        "1000",
        env={"LD_PRELOAD": ""},
    )
    [stranger] = wait_for(machine.daemons, what="the account's process")
    machine.write(machine.PID_FILE, f"{stranger}\n")
    assert service("status").returncode == 1
    assert service("stop").returncode == 0
    assert other.poll() is None, "a stranger was ended"
    assert service("start").returncode == 0
    assert machine.daemon_pid() != stranger
    other.kill()
    other.wait()
