#!/usr/bin/env python3
"""The daemon on an emulated ARM board, under BusyBox init, meeting the real
kernel's USB stack: sticks, serial and Ethernet adapters plugged and unplugged
through QMP, cold plug, a restart by init, and a capture replayed on the host.
Usage: board_test.py KERNEL INITRAMFS WORKDIR [REPLAY-TOOL]"""

import collections
import os
import re
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from board import Board, BoardError  # noqa: E402

State = collections.namedtuple("State", "mounts links info")
GLOBAL_MAC = "00:1b:21:0a:0b:0c"
SECTOR = 512


def make_stick(path, partitions):
    """A disc image with an MBR: partitions is a list of (file system, MiB)."""
    start = 2048
    layout, filesystems = [], []
    for filesystem, mebibytes in partitions:
        sectors = mebibytes * 2048
        layout.append(f"start={start}, size={sectors}, type={'c' if filesystem == 'fat' else '83'}")
        filesystems.append((filesystem, start, sectors))
        start += sectors
    with open(path, "wb") as image:
        image.truncate(start * SECTOR)
    subprocess.run(["sfdisk", "-q", path], input="\n".join(layout) + "\n", text=True, check=True)
    for filesystem, first, sectors in filesystems:
        if filesystem == "fat":
            command = ["mkfs.fat", "-F", "16", "--offset", str(first), path, str(sectors // 2)]
        else:
            command = ["mke2fs", "-q", "-t", "ext4", "-E", f"offset={first * SECTOR}", path,
                       f"{sectors // 2}k"]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


class Scenarios:
    def __init__(self, board, replay_tool):
        self.board = board
        self.replay_tool = replay_tool

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
        self.board.wait_for(lambda: predicate(self.state()), what)

    # --- scenarios
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

    def stick_unplug(self):
        self.board.unplug("stick")
        self.wait_state("the stick released", lambda s: not s.mounts and
                        "/ravo500/devs/usb1-2/usbdev" not in s.links)
        self.board.run("test ! -e /mnt/usb/sda1")

    def two_partitions(self):
        self.board.plug("two", "usb-storage", "1.2", drive="two")
        self.wait_state("both partitions mounted", lambda s: len(s.mounts) == 2)
        kinds = sorted(kind for kind, _ in self.mounts().values())
        assert kinds == ["ext4", "vfat"], kinds
        assert all(options.startswith("ro,") for _, options in self.mounts().values())
        self.board.unplug("two")
        self.wait_state("both partitions released", lambda s: not s.mounts and not s.links)
        self.board.run("test -z \"$(ls /mnt/usb)\"")

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
        announced = self.board.records().count("Create cascading info file")
        self.board.plug("local6", "usb-net", "1.6")
        self.wait_state("usb1-6/usbdev", lambda s: "/ravo500/devs/usb1-6/usbdev" in s.links)
        self.board.wait_for(lambda: "usb0" in self.board.run("ls /sys/class/net"), "usb0")
        self.board.unplug("local6")
        self.wait_state("usb1-6 released", lambda s: not s.links)
        assert self.board.records().count("Create cascading info file") == announced, \
            "an info file for a usbN interface"

    def plug_serial_adapter(self):
        self.board.plug("ftdi", "usb-serial", "1.3", chardev="serialnull",
                        **{"always-plugged": True})

    def wait_record(self, pattern):
        self.board.wait_for(lambda: re.search(pattern, self.board.records()),
                            f"a record /{pattern}/")

    def restart_by_init(self):
        """SIGKILL the daemon: init starts it again; a stick plugged while it was
        down is mounted by the scan of the next start."""
        board = self.board
        first = self.kill_daemon()
        killed = time.monotonic()
        self.wait_restart(first)
        print(f"board: init restarted the daemon {time.monotonic() - killed:.1f} s after SIGKILL")

        # Hold init's respawn in its one-second pause until the stick is in.
        second = self.kill_daemon()
        board.wait_for(lambda: board.shell("pidof sleep")[0] == 0, "the respawn's pause")
        sleeper = board.run("pidof sleep").strip()
        board.run(f"kill -STOP {sleeper}")
        board.plug("stick", "usb-storage", "1.2", drive="stick")
        board.wait_for(lambda: board.shell("test -e /sys/class/block/sda1")[0] == 0,
                       "sda1 in sysfs")
        assert "/mnt/usb/sda1" not in self.mounts(), "mounted while the daemon was down"
        board.run(f"kill -CONT {sleeper}")
        self.wait_restart(second)
        self.wait_state("the stick mounted by the scan", lambda s: "/mnt/usb/sda1" in s.mounts)

    def kill_daemon(self):
        pid = self.board.run("pidof device_hotplug_handler").strip()
        self.board.run(f"kill -9 {pid}")
        return pid

    def wait_restart(self, old):
        self.board.wait_for(lambda: self.board.run("pidof device_hotplug_handler || true").strip()
                            not in ("", old), "the daemon started again by init")

    def capture_replayed(self):
        """A capture taken on the board replays on the host with the same handler records."""
        if not self.replay_tool:
            print("board: capture replay skipped (no hotplug_replay given)")
            return
        board = self.board
        board.run("hotplug_capture --sysfs -o /tmp/board.capture >/tmp/capture.log 2>&1 &")
        board.wait_for(lambda: board.shell("grep -q 'capturing' /tmp/capture.log")[0] == 0,
                       "the capture started")
        before = len(board.records().splitlines())
        board.unplug("stick")
        self.wait_state("the stick released", lambda s: not s.mounts)
        self.plug_serial_adapter()
        self.wait_state("uart0", lambda s: "/ravo500/devs/usb1-3/uart0" in s.links)
        board.run("kill -INT $(pidof hotplug_capture); "
                  "while pidof hotplug_capture; do sleep 0.1; done")
        on_board = handler_records(board.records().splitlines()[before:])
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


def main():
    kernel, initramfs, workdir = sys.argv[1:4]
    replay_tool = sys.argv[4] if len(sys.argv) > 4 else None
    os.makedirs(workdir, exist_ok=True)
    stick, two = os.path.join(workdir, "stick.img"), os.path.join(workdir, "two.img")
    make_stick(stick, [("fat", 16)])
    make_stick(two, [("fat", 16), ("ext4", 16)])

    started = time.monotonic()
    board = Board(kernel, initramfs, workdir, blockdevs=[("stick", stick), ("two", two)],
                  cold_devices=[("usb-storage", {"id": "stick", "bus": "xhci.0", "port": "1.2",
                                                 "drive": "stick"})])
    print(f"board: booted in {time.monotonic() - started:.1f} s")
    scenarios = Scenarios(board, replay_tool)
    failed, passed = [], 0
    try:
        for name in ("cold_plug", "stick_unplug", "two_partitions", "serial_adapter",
                     "ethernet_adapters", "restart_by_init", "capture_replayed"):
            began = time.monotonic()
            try:
                getattr(scenarios, name)()
                passed += 1
                print(f"board: {name} passed ({time.monotonic() - began:.1f} s)")
            except (AssertionError, BoardError) as error:
                failed.append(name)
                print(f"board: {name} FAILED: {error}")
                print("board: the daemon's records so far:")
                print(board.records())
                break  # later scenarios start from the state this one leaves
    finally:
        board.close()
    print(f"{passed} passed, {len(failed)} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
