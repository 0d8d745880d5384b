# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""A fresh Debian in a folder, with namespaces of its own. As in a container, its first process is not systemd."""
import contextlib
import subprocess
import threading
import time
from pathlib import Path

PATIENCE = 60  # seconds; only there so that nothing hangs
APT_PATIENCE = 600
GROUP = {"kavrel": "audio", "nobody": "nogroup", "viewer": "viewer"}  # the primary group of each user but root

# Prints each signal of the interfaces that it is given, and "ready" before that.
LISTENER = """
import sys
from gi.repository import Gio, GLib

bus = Gio.bus_get_sync(Gio.BusType.SYSTEM, None)
for interface in sys.argv[1:]:
    bus.signal_subscribe(None, interface, None, None, None, Gio.DBusSignalFlags.NONE,
                         lambda _bus, _sender, _path, _interface, name, body: print(name, body.print_(False), flush=True))
bus.call_sync("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetId", None, None, 0, -1, None)
print("ready", flush=True)
GLib.MainLoop().run()
"""

# The first process says that it is up from inside the folder: what joins it before that would run on this machine.
BOOT = """
mount -t tmpfs -o mode=755 tmpfs "$1/run"
mkdir -p "$1/run/dbus"
exec chroot "$1" sh -c 'echo up; exec sleep infinity'
"""


def host(*command, **options):
    return subprocess.run(command, check=True, text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          timeout=APT_PATIENCE, **options).stdout


def configured_debian():
    """Returns the sources.list of the Debian that this machine installs from, without the other sources it may have."""
    def sources():
        return host("apt-get", "indextargets", "--format", "deb $(REPO_URI) $(CODENAME) $(COMPONENT)",
                    "Created-By: Packages", "Origin: Debian")
    if not sources():
        host("apt-get", "update")
    return sources()


def network_options():
    """Returns mmdebstrap's options for the network: the proxies of this machine's apt, and patience."""
    lines = host("apt-config", "dump", "--format", '%f "%v";%n', "Acquire::http", "Acquire::https").splitlines()
    return ['--aptopt=Acquire::Retries "5";', *(f"--aptopt={line}" for line in lines if not line.endswith(' "";'))]


class Machine:
    """Its user viewer is a member of the group audio."""

    def __init__(self, folder):
        self.root = folder / "root"
        self.log = folder / "kavreld.log"
        self._first = None  # unshare, whose child is the machine's first process
        self._running = {}

    def install_debian(self):
        sources = configured_debian()
        suite = sources.split()[2]
        subprocess.run(["mmdebstrap", "--quiet", "--mode=root", "--variant=apt", "--include=dbus", "--skip=cleanup/apt",
                        *network_options(), suite, self.root, "-"], input=sources, check=True, text=True, timeout=APT_PATIENCE)
        (self.root / "etc/resolv.conf").write_text(Path("/etc/resolv.conf").read_text())
        host("chroot", self.root, "useradd", "--create-home", "--groups=audio", "viewer")

    def boot(self):
        """Starts the machine and its bus; /run is empty then."""
        self._first = subprocess.Popen(["unshare", "--mount", "--pid", "--ipc", "--fork", "--kill-child",
                                        f"--mount-proc={self.root}/proc", "sh", "-ec", BOOT, "boot", self.root],
                                       stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        assert self._first.stdout.readline() == "up\n"
        self._start("bus", "dbus-daemon", "--system", "--nofork", "--nopidfile", "--nosyslog")
        wait_until(lambda: self.path("run/dbus/system_bus_socket").is_socket(), "the bus listens")

    def shut_down(self):
        self._first.kill()
        self._first.communicate()
        for process in self._running.values():
            process.wait(PATIENCE)
        self._running.clear()

    def path(self, name):
        """Returns where a file of the running machine is for this process."""
        return Path(f"/proc/{self._first_pid()}/root") / name

    def run(self, *command, user="root", patience=PATIENCE):
        return subprocess.run(self._inside(user, command), stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=patience, check=False)

    def must_run(self, *command, **options):
        done = self.run(*command, **options)
        assert done.returncode == 0, f"{command}: {done.stdout}{done.stderr}"
        return done.stdout

    def apt(self, *arguments):
        return self.must_run("env", "DEBIAN_FRONTEND=noninteractive", "apt-get", "-qy", "--no-install-recommends",
                             *arguments, patience=APT_PATIENCE)

    @contextlib.contextmanager
    def listener(self, user, *interfaces):
        """A program of this machine's Python, on the bus of the other one. Yields the lines that it prints."""
        uid = self.must_run("id", "--user", user).strip()
        program = subprocess.Popen(["nsenter", f"--target={self._first_pid()}", "--mount", "setpriv", f"--reuid={uid}",
                                    "--clear-groups", "/usr/bin/python3", "-B", "-c", LISTENER, *interfaces],
                                   env={"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self.root}/run/dbus/system_bus_socket"},
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        limit = threading.Timer(PATIENCE, program.kill)
        limit.start()
        try:
            assert program.stdout.readline() == "ready\n"
            yield (line.rstrip("\n") for line in program.stdout)
        finally:
            limit.cancel()
            program.kill()
            program.communicate()

    @contextlib.contextmanager
    def view(self, user, *command):
        """A program of this machine that stays. Yields the lines that it prints."""
        ends_with_us = ["setpriv", "--pdeathsig=TERM", "--", *command]
        program = subprocess.Popen(self._inside(user, ends_with_us), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   text=True)
        limit = threading.Timer(PATIENCE, program.kill)
        limit.start()
        try:
            yield (line.rstrip("\n") for line in program.stdout)
        finally:
            limit.cancel()
            program.kill()
            program.communicate()

    def start_daemon(self):
        """Starts kavreld as the unit does."""
        self._start("kavreld", "sh", "-c", "umask 0002; exec kavreld", user="kavrel")
        self.must_run("kavrelctl", "wait", "--timeout", "30")

    def end_daemon(self):
        self.must_run("sh", "-c", 'kill -TERM $(grep -lx kavreld /proc/[0-9]*/comm | cut -d/ -f3)')
        self._running.pop("kavreld").wait(PATIENCE)

    def _start(self, name, *command, user="root"):
        with open(self.log, "ab") as log:
            self._running[name] = subprocess.Popen(self._inside(user, command), stdin=subprocess.DEVNULL, stdout=log,
                                                   stderr=log)

    def _first_pid(self):
        return Path(f"/proc/{self._first.pid}/task/{self._first.pid}/children").read_text().split()[0]

    def _inside(self, user, command):
        as_user = [] if user == "root" else ["setpriv", f"--reuid={user}", f"--regid={GROUP[user]}", "--init-groups"]
        return ["nsenter", f"--target={self._first_pid()}", "--mount", "--pid", "--ipc", "--root", "--wd", "env", "-i",
                "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8", "HOME=/root",
                *as_user, *command]


def wait_until(condition, what):
    """Waits until condition() is true. It may be about processes and files of the machine, of which no event tells."""
    deadline = time.monotonic() + PATIENCE
    while not condition():
        assert time.monotonic() < deadline, f"not within {PATIENCE} s: {what}"
        time.sleep(0.02)
