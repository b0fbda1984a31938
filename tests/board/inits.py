"""What differs between the inits the boards run: who starts, restarts and
stops the daemon, where its records go, and how its exit status shows."""

import collections
import json
import re
import struct

Record = collections.namedtuple("Record", "priority text")
DAEMON = "device_hotplug_handler"
PRIORITIES = {"emerg": 0, "alert": 1, "crit": 2, "err": 3, "warn": 4, "warning": 4,
              "notice": 5, "info": 6, "debug": 7}


class BusyBox:
    """BusyBox init's respawn line, BusyBox syslogd writing a file."""
    name = "busybox"
    disc = False
    append = ""
    parent = "init"  # the daemon's parent process
    supervised = True
    # BusyBox init pauses a second of its own before a respawn, and the line's
    # shell another.
    restart_limit = 3.0

    def __init__(self, board):
        self.board = board

    def log(self):
        lines = self.board.run(f"grep ' {DAEMON}: ' /var/log/messages || true").splitlines()
        found = (re.search(r" \w+\.(\w+) " + DAEMON + r": (.*)", line) for line in lines)
        return [Record(PRIORITIES[m[1]], m[2]) for m in found if m]

    def check_started(self, pid):
        pass

    def status(self):
        return ""

    # Process accounting (accton from Debian's acct) sees the exit status of a
    # daemon that init or start-stop-daemon reaps without a word.
    def stop(self, pid):
        self.board.run("touch /var/log/pacct && accton /var/log/pacct")
        self.board.run(self.stop_command)

    def exit_status(self, pid):
        self.board.run("accton off")
        dump = bytes.fromhex("".join(self.board.run("od -An -v -tx1 /var/log/pacct").split()))
        for offset in range(0, len(dump) - 63, 64):  # struct acct_v3
            _, version, _, code, _, _, record_pid = struct.unpack_from("<BBHIIII", dump, offset)
            if version == 3 and str(record_pid) == pid:
                return f"status {code >> 8}" if code & 0x7f == 0 else f"signal {code & 0x7f}"
        return "not accounted"

    def check_stopped(self):
        pass


class Sysvinit(BusyBox):
    """Debian's sysvinit with the respawn line; the init script leaves it to init."""
    name = "sysvinit"
    disc = True
    restart_limit = 2.0
    # init's console messages on the reload come before the daemon's end.
    stop_command = ("sed -i 's/^dhh:/#&/' /etc/inittab && telinit q && "
                    "while pidof device_hotplug_handler; do sleep 0.1; done")

    def check_started(self, pid):
        status, output = self.board.shell("/etc/init.d/device-hotplug-handler status")
        assert status == 0, f"the init script's status: {output}"


class SysvinitScript(BusyBox):
    """Debian's sysvinit running the init script from its runlevel link."""
    name = "sysvinit-script"
    disc = True
    supervised = False
    stop_command = "/etc/init.d/device-hotplug-handler stop"

    def check_started(self, pid):
        recorded = self.board.run("cat /var/run/device_hotplug_handler.pid").strip()
        assert recorded == pid, f"pid file {recorded}, daemon {pid}"


class OpenRC(BusyBox):
    """Debian's OpenRC, the service in the default runlevel under supervise-daemon."""
    name = "openrc"
    disc = True
    parent = "supervise-daemon"
    restart_limit = 2.0
    stop_command = "rc-service device-hotplug-handler stop"

    def status(self):
        return self.board.shell("rc-service device-hotplug-handler status")[1]

    def check_stopped(self):
        status, output = self.board.shell("rc-service device-hotplug-handler status")
        assert status == 3 and "stopped" in output, f"rc-service status ({status}): {output}"


class Systemd(BusyBox):
    """Debian's systemd, the unit enabled; journald is the system's log."""
    name = "systemd"
    disc = True
    append = "systemd.show_status=0"
    parent = "systemd"
    restart_limit = 2.0
    unit = "device-hotplug-handler.service"

    def log(self):
        lines = self.board.run(f"journalctl -t {DAEMON} -o json --output-fields="
                               "PRIORITY,MESSAGE").splitlines()
        entries = (json.loads(line) for line in lines if line.startswith("{"))
        return [Record(int(e["PRIORITY"]), e["MESSAGE"]) for e in entries]

    def check_started(self, pid):
        main = self.board.run(f"systemctl show -p MainPID --value {self.unit}").strip()
        assert main == pid, f"MainPID {main}, daemon {pid}"

    def status(self):
        return self.board.shell(f"systemctl status --no-pager -l {self.unit}")[1]

    def stop(self, pid):
        self.board.run(f"systemctl stop {self.unit}")

    def exit_status(self, pid):
        shown = self.board.run(f"systemctl show -p ExecMainCode -p ExecMainStatus {self.unit}")
        code, status = (line.split("=")[1] for line in sorted(shown.split()))
        return f"status {status}" if code == "1" else f"code {code} status {status}"

    def check_stopped(self):
        # One restart: the SIGKILL's; a crash, a SIGSYS say, would be another.
        state = self.board.run(f"systemctl show -p ActiveState -p Result -p NRestarts {self.unit}")
        assert sorted(state.split()) == ["ActiveState=inactive", "NRestarts=1", "Result=success"], \
            state


INITS = {init.name: init for init in (BusyBox, Systemd, Sysvinit, SysvinitScript, OpenRC)}
