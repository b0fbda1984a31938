#!/usr/bin/env python3
"""The daemon on an emulated ARM board meeting the real kernel's USB stack,
under each init an image may use: BusyBox init, systemd, sysvinit (the respawn
line, and the init script alone) and OpenRC. Under BusyBox: sticks, serial and
Ethernet adapters plugged and unplugged through QMP, cold plug, and a capture
replayed on the host. Under every init: who started the daemon, cold plug, a
plugged stick read from outside the service, a restart after SIGKILL whose scan
mounts what came meanwhile, an orderly stop, and the records in the system log.
Usage: board_test.py IMAGES WORKDIR REPLAY-TOOL|- [INIT...]   (default: all)"""

import collections
import json
import os
import re
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from board import Board, BoardError  # noqa: E402
from inits import INITS  # noqa: E402

State = collections.namedtuple("State", "mounts links info")
GLOBAL_MAC = "00:1b:21:0a:0b:0c"
SECTOR = 512
STICK_FILE = ("board.txt", "written on the host\n")
MKFS = {"fat": ["mkfs.fat", "-F", "16"], "fat32": ["mkfs.fat", "-F", "32", "-s", "1"],
        "exfat": ["mkfs.exfat"], "ext4": ["mke2fs", "-q", "-t", "ext4"]}
GPT_DATA, GPT_LINUX = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "0FC63DAF-8483-4772-8E79-3D69D8477DE4"
# What a field engineer plugs in: the medium, its disc's layout, what the daemon
# must make of each partition (a file system type, or None: refused with the
# Warn, no directory left), and what the image's kernel needs for it. The
# daemon's man page has the same table (MEDIA).
MEDIA = [
    ("FAT32", "dos", [("fat32", 48, "c")], {"sda1": "vfat"},
     "vfat with its default codepage and iocharset (nls_cp437, nls_ascii)"),
    ("exFAT", "dos", [("exfat", 16, "7")], {"sda1": "exfat"}, "CONFIG_EXFAT_FS, nls_utf8"),
    ("GPT, FAT and ext4", "gpt", [("fat", 16, GPT_DATA), ("ext4", 16, GPT_LINUX)],
     {"sda1": "vfat", "sda2": "ext4"}, "CONFIG_EFI_PARTITION, vfat, ext4"),
    ("MBR, extended with logical FAT and ext4", "dos",
     [("fat", 16, "c"), (None, 36, "5"), ("fat", 16, "c"), ("ext4", 16, "83")],
     {"sda1": "vfat", "sda2": None, "sda5": "vfat", "sda6": "ext4"},
     "CONFIG_MSDOS_PARTITION, vfat, ext4"),
    ("no partition table (superfloppy)", None, [("fat", 16, None)], {}, "-"),
    ("unformatted partition", "dos", [(None, 16, "83")], {"sda1": None}, "-"),
]
USB2, USB4 = "/ravo500/devs/usb1-2/usbdev", "/ravo500/devs/usb1-4/usbdev"
LEVELS = {"Debug": 7, "Info": 6, "Warn": 4, "Error": 3, "Fatal": 2}
HANDLER_END = "[Debug] HotplugHandlerThread: Thread terminated"
LAST_RECORD = "[Debug] HotplugNetlink: Process terminated"
SCENARIOS = {
    "busybox": ("started_by_init", "cold_plug", "stick_unplug", "serial_adapter",
                "ethernet_adapters", "hot_plug", "restart_and_scan", "capture_replayed", "media",
                "two_sticks", "second_hub", "pulled_while_used", "storm", "hub_pulled",
                "system_log"),
    "systemd": ("started_by_init", "cold_plug", "stick_unplug", "hot_plug", "restart_and_scan",
                "security", "orderly_stop", "system_log"),
    "sysvinit": ("started_by_init", "cold_plug", "stick_unplug", "hot_plug", "restart_and_scan",
                 "orderly_stop", "system_log"),
    "sysvinit-script": ("started_by_init", "cold_plug", "stick_unplug", "hot_plug",
                        "restart_and_scan", "script_actions", "orderly_stop", "system_log"),
    "openrc": ("started_by_init", "cold_plug", "stick_unplug", "hot_plug", "restart_and_scan",
               "orderly_stop", "system_log"),
}


def make_disc(path, label, partitions):
    """A disc image. label: "dos" or "gpt", or None for one file system on the
    whole disc (a superfloppy). partitions: (file system or None, MiB, type);
    after a type 5 (extended) partition the next ones are logical. The first
    FAT file system holds STICK_FILE."""
    with open(path, "wb") as image:
        image.truncate((sum(mebibytes for _, mebibytes, _ in partitions) + 4) << 20)
    starts = [0]
    if label:
        numbers, extended = [], False
        for _, _, kind in partitions:  # logical partitions count from 5
            numbers.append(max(numbers[-1] + 1 if numbers else 1, 5 if extended else 1))
            extended = extended or kind == "5"
        script = f"label: {label}\n" + "".join(
            f"{path}{number} : size={mebibytes}MiB, type={kind}\n"
            for number, (_, mebibytes, kind) in zip(numbers, partitions))
        subprocess.run(["sfdisk", "-q", path], input=script, text=True, check=True)
        table = json.loads(subprocess.run(["sfdisk", "-J", path], capture_output=True,
                                          text=True, check=True).stdout)
        starts = [entry["start"] for entry in table["partitiontable"]["partitions"]]
    with tempfile.TemporaryDirectory() as scratch:
        for (filesystem, mebibytes, _), start in zip(partitions, starts):
            if filesystem:
                part = os.path.join(scratch, "part")
                with open(part, "wb") as image:
                    image.truncate(mebibytes << 20)
                subprocess.run(MKFS[filesystem] + [part], check=True, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
                with open(part, "rb") as source, open(path, "r+b") as disc:
                    disc.seek(start * SECTOR)
                    disc.write(source.read())
    fat = next((start for (filesystem, _, _), start in zip(partitions, starts)
                if filesystem in ("fat", "fat32")), None)
    if fat is not None:
        name, text = STICK_FILE
        subprocess.run(["mcopy", "-i", f"{path}@@{fat * SECTOR}", "-", f"::{name}"],
                       input=text, text=True, check=True)


class Scenarios:
    def __init__(self, board, init, replay_tool):
        self.board = board
        self.init = init
        self.replay_tool = replay_tool

    def records(self):
        return "\n".join(f"<{r.priority}> {r.text}" for r in self.init.log())

    def daemon_pid(self):
        pids = self.board.run("pidof device_hotplug_handler || true").split()
        assert len(pids) == 1, f"daemons running: {pids or 'none'}"
        return pids[0]

    # --- the board's state
    def mounts(self):
        table = self.board.run("cat /proc/mounts")
        return {fields[1]: (fields[2], fields[3]) for fields in
                (line.split() for line in table.splitlines()) if fields[1].startswith("/mnt/usb/")}

    def links(self):
        listing = self.board.run(
            'for l in $(find /ravo500/devs -type l | sort); do echo "$l $(readlink "$l")"; done')
        return dict(line.split(" ", 1) for line in listing.splitlines() if line)

    def info_file(self):
        status, text = self.board.shell("cat /ravo500/devs/cascade/ravo-casc-info")
        return text if status == 0 else None

    def state(self):
        return State(self.mounts(), self.links(), self.info_file())

    def wait_state(self, what, predicate):
        try:
            self.board.wait_for(lambda: predicate(self.state()), what)
        except BoardError as error:
            complaints = [r.text for r in self.init.log() if r.priority <= LEVELS["Warn"]]
            raise BoardError(f"{error}; the daemon's last complaint: {complaints[-1]}"
                             if complaints else error) from None

    # --- scenarios
    def started_by_init(self):
        self.board.wait_for(lambda: self.board.shell("pidof device_hotplug_handler")[0] == 0,
                            "the daemon started")
        pid = self.daemon_pid()
        parent = self.board.run(f"cat /proc/$(cut -d' ' -f4 /proc/{pid}/stat)/comm").strip()
        # comm holds 15 characters.
        assert parent == self.init.parent[:15], f"started by {parent}, not by {self.init.parent}"
        spaces = self.board.run(f"readlink /proc/{pid}/ns/mnt; readlink /proc/$$/ns/mnt").split()
        assert spaces[0] == spaces[1], \
            f"the daemon's mount namespace {spaces[0]} is not the system's {spaces[1]}: " \
            "the rest of the system would not see its mounts"
        self.init.check_started(pid)

    def cold_plug(self):
        """A FAT stick present at boot, with msdos registered before vfat."""
        filesystems = self.board.run("cat /proc/filesystems").split()
        assert filesystems.index("msdos") < filesystems.index("vfat"), filesystems
        self.wait_state("the cold-plugged stick mounted", lambda s: "/mnt/usb/sda1" in s.mounts)
        kind, options = self.mounts()["/mnt/usb/sda1"]
        assert kind == "vfat", f"mounted as {kind}, not vfat"
        assert options.startswith("ro,") and "codepage=437" in options, options
        target = self.links().get("/ravo500/devs/usb1-2/usbdev", "")
        assert target.startswith("/dev/bus/usb/001/"), self.links()
        self.board.run(f"test -c {target}")

    def hot_plug(self):
        """A stick plugged in: mounted read-only, and its file read by the board's
        shell, which no mount namespace of the daemon's service would show it to."""
        self.board.plug("stick", "usb-storage", "1.2", drive="stick")
        self.wait_state("the plugged stick mounted", lambda s: "/mnt/usb/sda1" in s.mounts)
        assert self.mounts()["/mnt/usb/sda1"][1].startswith("ro,"), self.mounts()
        name, text = STICK_FILE
        read = self.board.run(f"cat /mnt/usb/sda1/{name}")
        assert read == text.rstrip("\n"), f"/mnt/usb/sda1/{name} reads {read!r}"

    def stick_unplug(self):
        self.board.unplug("stick")
        self.wait_state("the stick released", lambda s: not s.mounts and
                        "/ravo500/devs/usb1-2/usbdev" not in s.links)
        self.board.run("test ! -e /mnt/usb/sda1")

    def serial_adapter(self):
        self.plug_serial_adapter()
        self.wait_state("usb1-3/uart0", lambda s: s.links.get("/ravo500/devs/usb1-3/uart0") ==
                        "/dev/ttyUSB0")
        self.board.unplug("ftdi")
        self.wait_state("usb1-3 links gone", lambda s: not s.links)

    def ethernet_adapters(self):
        self.board.plug("net6", "usb-net", "1.6", mac=GLOBAL_MAC)
        self.wait_state("the info file", lambda s: s.info is not None)
        interface = self.board.run("ls /sys/class/net | grep -v '^lo$'").strip()
        assert re.fullmatch(r"eth[0-9]+", interface), interface
        assert self.info_file() == f"{GLOBAL_MAC}%{interface}", self.info_file()
        self.board.unplug("net6")
        self.wait_state("the info file deleted", lambda s: s.info is None and not s.links)

        # Anywhere but the cascading port: a device link, no info file.
        self.board.plug("net5", "usb-net", "1.5", mac=GLOBAL_MAC)
        self.wait_state("usb1-5/usbdev", lambda s: "/ravo500/devs/usb1-5/usbdev" in s.links)
        self.wait_record(r"Ethernet device eth[0-9]+ is not a USB ethernet device")
        assert self.info_file() is None
        self.board.unplug("net5")
        self.wait_state("usb1-5 released", lambda s: not s.links)

        # QEMU's default address is locally administered: the kernel names it usbN
        # and the daemon's pattern leaves it alone. Once the unplug is handled, the
        # plug's events are handled too.
        announced = self.records().count("Create cascading info file")
        self.board.plug("local6", "usb-net", "1.6")
        self.wait_state("usb1-6/usbdev", lambda s: "/ravo500/devs/usb1-6/usbdev" in s.links)
        self.board.wait_for(lambda: "usb0" in self.board.run("ls /sys/class/net"), "usb0")
        self.board.unplug("local6")
        self.wait_state("usb1-6 released", lambda s: not s.links)
        assert self.records().count("Create cascading info file") == announced, \
            "an info file for a usbN interface"

    def plug_serial_adapter(self):
        self.board.plug("ftdi", "usb-serial", "1.3", chardev="serialnull",
                        **{"always-plugged": True})

    def wait_record(self, pattern):
        self.board.wait_for(lambda: re.search(pattern, self.records()), f"a record /{pattern}/")

    def restart_and_scan(self):
        """The supervisor starts the daemon again soon after a SIGKILL, and its
        scan mounts a stick that came while no daemon handled events (it was
        stopped, and the events queued for it die with it). Without a
        supervisor nothing starts it, and the init script's start does."""
        board = self.board
        board.unplug("stick")
        self.wait_state("the stick released", lambda s: not s.mounts)
        pid = self.daemon_pid()
        board.run(f"kill -{'STOP' if self.init.supervised else 'KILL'} {pid}")
        board.plug("stick", "usb-storage", "1.2", drive="stick")
        board.wait_for(lambda: board.shell("test -e /sys/class/block/sda1")[0] == 0,
                       "sda1 in sysfs")
        assert "/mnt/usb/sda1" not in self.mounts(), "mounted while the daemon was down"
        if self.init.supervised:
            # The wait runs on the board at the lowest priority: polls over the
            # console would take time from the start they wait for.
            killed = float(board.run(
                f"read -r up _ </proc/uptime; kill -9 {pid}; echo $up; "
                "sh -c 'renice -n 19 $$ >/dev/null; "
                f"i=0; until p=$(pidof device_hotplug_handler) && [ $p != {pid} ] && "
                "[ $(ls /proc/$p/task | wc -l) -gt 1 ] || [ $i = 100 ]; do sleep 0.1; "
                "i=$((i + 1)); done'").split()[0])
            # Timed by the board's clock: the start of the new daemon's last
            # thread, which it makes once it runs (ticks of 1/100 s since boot).
            tasks = f"/proc/{self.daemon_pid()}/task"
            ticks = board.run(f"sed 's/.*) //' {tasks}/*/stat | cut -d' ' -f20").split()
            took = max(map(int, ticks)) / 100 - killed
            print(f"board: {self.init.name}: running again {took:.2f} s after SIGKILL")
            assert took < self.init.restart_limit, f"running again {took:.2f} s after SIGKILL"
        else:
            assert board.shell("pidof device_hotplug_handler")[0] != 0, "started again"
            status, output = board.shell("/etc/init.d/device-hotplug-handler status")
            assert status == 3, f"status after SIGKILL ({status}): {output}"
            board.run("/etc/init.d/device-hotplug-handler start")
        self.started_by_init()
        self.wait_state("the stick mounted by the scan", lambda s: "/mnt/usb/sda1" in s.mounts)

    def script_actions(self):
        """The init script: status, no second instance, restart and force-reload."""
        script = "/etc/init.d/device-hotplug-handler"
        status, output = self.board.shell(f"{script} status")
        assert status == 0 and "is running" in output, f"status ({status}): {output}"
        pid = self.daemon_pid()
        status, output = self.board.shell(f"{script} start")
        assert status != 0 and self.daemon_pid() == pid, f"start while running: {output}"
        for action in ("restart", "force-reload"):
            output = self.board.run(f"{script} {action}")
            assert self.daemon_pid() != pid, f"{action} kept pid {pid}: {output}"
            pid = self.daemon_pid()
            self.started_by_init()
        assert "/mnt/usb/sda1" in self.mounts(), "the stick lost across restarts"

    def orderly_stop(self):
        """Its last records are the handler thread's and "Process terminated", it
        exits with status 0, and nothing starts it again."""
        board = self.board
        pid = self.daemon_pid()
        self.init.stop(pid)
        board.wait_for(lambda: board.shell("pidof device_hotplug_handler")[0] != 0,
                       "the daemon stopped")
        last = lambda: [record.text for record in self.init.log()[-3:]]  # noqa: E731
        board.wait_for(lambda: last()[-1:] == [LAST_RECORD], f"'{LAST_RECORD}' last")
        assert HANDLER_END in last(), f"the last records: {last()}"
        assert self.init.exit_status(pid) == "status 0", self.init.exit_status(pid)
        self.init.check_stopped()
        board.stays(lambda: board.shell("pidof device_hotplug_handler")[0] != 0, 3.0,
                    "the daemon started again after the stop")

    def security(self):
        """systemd-analyze security of the unit as the board's systemd loaded it."""
        output = self.board.run("systemd-analyze security --no-pager " + self.init.unit)
        exposure = re.search(r"Overall exposure level for \S+: (\d+\.\d+)", output)
        assert exposure, output
        print(f"board: systemd-analyze security on the board: exposure {exposure[1]}")
        assert float(exposure[1]) <= 4.5, f"exposure {exposure[1]}, above the packaging's 4.5"

    def system_log(self):
        """Every record reached the system log under the daemon's identity at the
        priority its level names, and none is an Error or says the listener's
        real-time priority was refused: a refused system call or a missing
        capability would be one."""
        records = self.init.log()
        assert records, "no record under the identity device_hotplug_handler"
        for record in records:
            level = re.match(r"\[(\w+) *\]", record.text)
            assert level and LEVELS.get(level[1]) == record.priority, record
        refused = [record.text for record in records if record.priority <= LEVELS["Error"]
                   or record.priority == LEVELS["Warn"] and "priority" in record.text]
        assert not refused, "\n".join(refused)

    def media(self):
        """Each kind of stick of MEDIA plugged at port 2: what the daemon mounts
        (read-only, as which type) and refuses (the Warn, no directory left),
        nothing for a disc without partitions, and no Error; printed as measured."""
        table = ["| medium | what the daemon did | the kernel needs |", "|---|---|---|"]
        for index, (kind, _, _, expected, needs) in enumerate(MEDIA):
            before = len(self.init.log())
            self.board.plug(f"medium{index}", "usb-storage", "1.2", drive=f"medium{index}")
            wanted = {f"/mnt/usb/{name}" for name, filesystem in expected.items() if filesystem}
            self.wait_state(f"{kind}: usb1-2/usbdev and the mounts {sorted(wanted)}",
                            lambda s: USB2 in s.links and wanted <= set(s.mounts))
            for name in (name for name, filesystem in expected.items() if not filesystem):
                self.wait_record(f"Unable to mount {name}, filesystem not supported")
                self.board.run(f"test ! -e /mnt/usb/{name}")
            mounted = {path[len("/mnt/usb/"):]: entry for path, entry in self.mounts().items()}
            self.board.unplug(f"medium{index}")
            self.wait_state(f"{kind} released", lambda s: not s.mounts and USB2 not in s.links)
            window = [record.text for record in self.init.log()[before:]]
            found = [text.split(": ")[-1] for text in window if "New disc partition found" in text]
            assert sorted(found) == sorted(expected), f"{kind}: partitions handled: {found}"
            assert not [text for text in window if text.startswith("[Error]")], window
            for name, filesystem in expected.items():
                assert mounted.get(name, (None, "ro,"))[0] == filesystem, f"{kind}: {mounted}"
                assert mounted.get(name, (None, "ro,"))[1].startswith("ro,"), mounted
            did = "; ".join(f"{name}: mounted {mounted[name][0]}, read-only" if name in mounted
                            else f"{name}: the Warn, not mounted" for name in sorted(expected))
            table.append(f"| {kind} | {did or 'nothing mounted, no record about it'} | {needs} |")
        print("board: the media as measured (the man page's MEDIA):\n" + "\n".join(table))

    def two_sticks(self):
        """Two sticks at once on ports 2 and 4: both mounted and linked; pulling
        one leaves the other as it was."""
        self.board.plug("stick", "usb-storage", "1.2", drive="stick")
        self.board.plug("stick2", "usb-storage", "1.4", drive="stick2")
        self.wait_state("both sticks mounted and linked",
                        lambda s: len(s.mounts) == 2 and {USB2, USB4} <= set(s.links))
        both = self.state()
        self.board.unplug("stick")
        self.wait_state("the stick on port 2 released",
                        lambda s: USB2 not in s.links and len(s.mounts) == 1)
        left = self.state()
        assert left.links[USB4] == both.links[USB4], left.links
        assert all(both.mounts.get(path) == entry for path, entry in left.mounts.items()), left
        self.board.unplug("stick2")
        self.wait_state("the stick on port 4 released",
                        lambda s: not s.mounts and USB4 not in s.links)

    def second_hub(self):
        """A hub on port 4 with a stick on its port 1: the hub gets usb1-4/usbdev,
        the stick is mounted but gets no link (a Warn names its path component),
        and pulling the hub releases both. (The stick's drive stays with QEMU's
        orphaned device: it is not plugged again.)"""
        links = set(self.links())
        self.board.plug("hub2", "usb-hub", "1.4")
        self.board.plug("deep", "usb-storage", "1.4.1", drive="two")
        self.wait_state("the stick behind the second hub mounted",
                        lambda s: len(s.mounts) == 2 and USB4 in s.links)
        self.wait_record(r"\[Warn \] HotplugHandlerThread: .*\(string = 1-1\.4\.1\)")
        assert set(self.links()) == links | {USB4}, self.links()
        self.board.unplug("hub2")
        self.wait_state("the hub and the stick released",
                        lambda s: not s.mounts and USB4 not in s.links)

    def pulled_while_used(self):
        """A stick pulled while a program has its working directory on it: the
        mount is detached at once and its directory removed."""
        self.board.plug("stick", "usb-storage", "1.2", drive="stick")
        self.wait_state("the stick mounted", lambda s: "/mnt/usb/sda1" in s.mounts)
        pid = self.board.run("(cd /mnt/usb/sda1 && exec sleep 600) >/dev/null 2>&1 & echo $!")
        assert self.board.run(f"readlink /proc/{pid.strip()}/cwd") == "/mnt/usb/sda1"
        self.board.unplug("stick")
        self.wait_state("the busy stick detached", lambda s: not s.mounts)
        self.board.run("test ! -e /mnt/usb/sda1 && ! grep -q ' /mnt/usb' /proc/mounts")
        self.board.run(f"kill {pid.strip()}")

    def storm(self):
        """The same stick plugged and pulled 20 times as fast as QEMU takes it:
        the daemon keeps running, and once a stick plugged afterwards is mounted
        (events are handled in order) nothing of the storm is left."""
        pid = self.daemon_pid()
        for _ in range(20):
            self.board.plug("stick", "usb-storage", "1.2", drive="stick")
            self.board.unplug("stick")
        self.hot_plug()
        state = self.state()
        assert list(state.mounts) == ["/mnt/usb/sda1"], state.mounts
        assert self.board.run("ls /mnt/usb").split() == ["sda1"], "directories left by the storm"
        assert self.daemon_pid() == pid, "the daemon was restarted during the storm"
        self.stick_unplug()

    def hub_pulled(self):
        """The hub pulled with a stick, the serial adapter and the Ethernet adapter
        on the cascading port behind it: every mount, link and the info file go."""
        self.board.plug("stick", "usb-storage", "1.2", drive="stick")
        self.board.plug("net6", "usb-net", "1.6", mac=GLOBAL_MAC)
        self.wait_state("a stick, a serial and an Ethernet adapter behind the hub",
                        lambda s: s.mounts and "/ravo500/devs/usb1-3/uart0" in s.links and s.info)
        self.board.unplug("hub")
        self.wait_state("everything behind the hub released",
                        lambda s: not s.mounts and not s.links and s.info is None)
        self.board.run("test -z \"$(ls /mnt/usb)\"")

    def capture_replayed(self):
        """A capture taken on the board replays on the host with the same handler records."""
        if not self.replay_tool:
            print("board: capture replay skipped (no hotplug_replay given)")
            return
        board = self.board
        board.run("hotplug_capture --sysfs -o /tmp/board.capture >/tmp/capture.log 2>&1 &")
        board.wait_for(lambda: board.shell("grep -q 'capturing' /tmp/capture.log")[0] == 0,
                       "the capture started")
        before = len(self.records().splitlines())
        board.unplug("stick")
        self.wait_state("the stick released", lambda s: not s.mounts)
        self.plug_serial_adapter()
        self.wait_state("uart0", lambda s: "/ravo500/devs/usb1-3/uart0" in s.links)
        board.run("kill -INT $(pidof hotplug_capture); "
                  "while pidof hotplug_capture; do sleep 0.1; done")
        on_board = handler_records(self.records().splitlines()[before:])
        capture = board.run("cat /tmp/board.capture")
        with tempfile.NamedTemporaryFile("w", suffix=".capture", delete=False) as file:
            file.write(capture + "\n")
        replayed = subprocess.run([self.replay_tool, "--fast", file.name], capture_output=True,
                                  text=True)
        os.unlink(file.name)
        replayed_records = handler_records(replayed.stdout.splitlines())
        assert on_board, "no handler records on the board during the capture"
        # The replay's daemon scans the captured sysfs first and stops last; the
        # events' records stand between, in the board's order.
        found = any(replayed_records[start:start + len(on_board)] == on_board
                    for start in range(len(replayed_records)))
        assert replayed.returncode == 0 and found, \
            f"replay exit {replayed.returncode}; the board's records:\n" + "\n".join(on_board) + \
            f"\nthe replay's output:\n{replayed.stdout}{replayed.stderr}"


def handler_records(lines):
    """The handler thread's records, without time stamps, host names and pids."""
    records = []
    for line in lines:
        match = re.search(r"\[(Debug|Info|Warn|Error)\] HotplugHandlerThread: (.*)", line)
        if match:
            records.append(f"[{match.group(1)}] {match.group(2)}")
    return records


def run_board(init_class, images, workdir, replay_tool, sticks):
    """Boots one board with the stick at 1.2 present and runs the init's
    scenarios; returns the numbers passed and failed."""
    started = time.monotonic()
    disc = os.path.join(images, f"{init_class.name}.ext4") if init_class.disc else None
    try:
        board = Board(os.path.join(images, "vmlinuz"), os.path.join(images, "initramfs.gz"),
                      workdir, blockdevs=sticks, disc=disc, append=init_class.append,
                      cold_devices=[("usb-storage", {"id": "stick", "bus": "xhci.0",
                                                     "port": "1.2", "drive": "stick"})])
    except BoardError as error:
        print(f"board: {init_class.name}: boot FAILED: {error}")
        return 0, 1
    init = init_class(board)
    print(f"board: {init.name}: booted in {time.monotonic() - started:.1f} s")
    scenarios = Scenarios(board, init, replay_tool)
    passed = 0
    try:
        for name in SCENARIOS[init.name]:
            began = time.monotonic()
            try:
                getattr(scenarios, name)()
                passed += 1
                print(f"board: {init.name}: {name} passed ({time.monotonic() - began:.1f} s)")
            except (AssertionError, BoardError) as error:
                print(f"board: {init.name}: {name} FAILED: {error}")
                print(f"board: {init.name}: the daemon's records so far:")
                print(scenarios.records())
                print(init.status())
                return passed, 1  # later scenarios start from the state this one leaves
    finally:
        board.close()
        print(f"board: {init.name}: done in {time.monotonic() - started:.1f} s")
    return passed, 0


def main():
    images, workdir, replay_tool = sys.argv[1:4]
    chosen = sys.argv[4:] or list(SCENARIOS)
    os.makedirs(workdir, exist_ok=True)
    discs = [("stick", "dos", [("fat", 16, "c")]), ("stick2", "dos", [("fat", 16, "c")]),
             ("two", "dos", [("fat", 16, "c"), ("ext4", 16, "83")])]
    discs += [(f"medium{index}", label, layout)
              for index, (_, label, layout, _, _) in enumerate(MEDIA)]
    sticks = []
    for name, label, layout in discs:
        make_disc(os.path.join(workdir, f"{name}.img"), label, layout)
        sticks.append((name, os.path.join(workdir, f"{name}.img")))
    passed = failed = 0
    for name in chosen:
        board_passed, board_failed = run_board(INITS[name], images, workdir,
                                               None if replay_tool == "-" else replay_tool,
                                               sticks)
        passed, failed = passed + board_passed, failed + board_failed
    print(f"{passed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
