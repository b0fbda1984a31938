"""The emulated ARM board: QEMU with an xHCI controller and a hub, the board's
console as a framed shell, and QMP to plug and unplug USB devices."""

import ctypes
import json
import os
import signal
import queue
import socket
import subprocess
import threading
import time

DEADLINE = 30.0


def _die_with_parent():
    """QEMU goes when the test goes, however it ends."""
    PR_SET_PDEATHSIG = 1
    ctypes.CDLL(None, use_errno=True).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


class BoardError(Exception):
    pass


class Board:
    def __init__(self, kernel, initramfs, workdir, blockdevs=(), cold_devices=(), disc=None,
                 append=""):
        self.workdir = workdir
        self.qmp_path = os.path.join(workdir, "qmp.sock")
        if os.path.exists(self.qmp_path):
            os.unlink(self.qmp_path)
        if disc:
            append += " root=/dev/vda"
        command = [
            "qemu-system-arm", "-M", "virt,highmem=off", "-cpu", "cortex-a15", "-m", "256",
            "-nodefaults", "-display", "none", "-no-reboot", "-serial", "stdio",
            "-kernel", kernel, "-initrd", initramfs,
            "-append", f"console=ttyAMA0 quiet loglevel=1 panic=-1 {append}",
            "-qmp", f"unix:{self.qmp_path},server=on,wait=off",
            "-device", "qemu-xhci,id=xhci",
            "-device", "usb-hub,bus=xhci.0,port=1,id=hub",
            "-chardev", "null,id=serialnull",
        ]
        for name, path in blockdevs:
            command += ["-blockdev",
                        f"driver=raw,node-name={name},file.driver=file,file.filename={path}"]
        for driver, properties in cold_devices:
            command += ["-device", ",".join([driver] + [f"{k}={v}" for k, v in properties.items()])]
        if disc:
            # snapshot: every boot starts from the disc as it was built.
            command += ["-drive", f"if=none,id=root,format=raw,snapshot=on,file={disc}",
                        "-device", "virtio-blk-device,drive=root"]
        self.console_log = []
        self.lines = queue.Queue()
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, preexec_fn=_die_with_parent)
        threading.Thread(target=self._read_console, daemon=True).start()
        try:
            self._expect("@@READY", 120.0)
            self.qmp = self._connect_qmp()
        except BaseException:
            self.close()
            raise

    def _read_console(self):
        for raw in self.process.stdout:
            line = raw.decode("utf-8", "replace").rstrip("\r\n").lstrip("\r")
            self.console_log.append(line)
            self.lines.put(line)
        self.lines.put(None)

    def _expect(self, marker, timeout):
        end = time.monotonic() + timeout
        collected = []
        while True:
            try:
                line = self.lines.get(timeout=max(0.0, end - time.monotonic()))
            except queue.Empty:
                raise BoardError(f"no '{marker}' from the board within {timeout:.0f} s: "
                                 + " | ".join(self.console_log[-20:]))
            if line is None:
                raise BoardError("the board stopped: " + " | ".join(self.console_log[-20:]))
            if marker in line:  # init may have begun a message of its own on the line
                return collected, line[line.index(marker):]
            collected.append(line)

    def _connect_qmp(self):
        qmp = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        qmp.connect(self.qmp_path)
        self.qmp_file = qmp.makefile("rw")
        json.loads(self.qmp_file.readline())  # greeting
        self.command("qmp_capabilities")
        return qmp

    def command(self, name, **arguments):
        self.qmp_file.write(json.dumps({"execute": name, "arguments": arguments}) + "\n")
        self.qmp_file.flush()
        while True:
            reply = json.loads(self.qmp_file.readline())
            if "return" in reply:
                return reply["return"]
            if "error" in reply:
                raise BoardError(f"QMP {name} {arguments}: {reply['error']['desc']}")

    def plug(self, device_id, driver, port, **properties):
        # QEMU lets go of a drive a moment after the device that used it.
        self.wait_for(lambda: self._try_plug(device_id, driver, port, properties),
                      f"{properties.get('drive', device_id)} free to plug again")

    def _try_plug(self, device_id, driver, port, properties):
        try:
            self.command("device_add", driver=driver, id=device_id, bus="xhci.0", port=port,
                         **properties)
            return True
        except BoardError as error:
            if "Permission conflict" not in str(error):
                raise
            return False

    def unplug(self, device_id):
        self.command("device_del", id=device_id)
        # QEMU frees the id only once the guest let the device go.
        self.wait_for(lambda: device_id not in self._qom_children(), f"{device_id} released")

    def _qom_children(self):
        return [child["name"] for child in self.command("qom-list", path="/machine/peripheral")]

    def shell(self, line, timeout=DEADLINE):
        self.process.stdin.write((line + "\n").encode())
        self.process.stdin.flush()
        self._expect("@@BEGIN", timeout)
        output, done = self._expect("@@DONE", timeout)
        return int(done.split()[1]), "\n".join(output)

    def run(self, line):
        status, output = self.shell(line)
        if status != 0:
            raise BoardError(f"'{line}' failed ({status}): {output}")
        return output

    def wait_for(self, condition, what, timeout=DEADLINE):
        end = time.monotonic() + timeout
        while not condition():
            if time.monotonic() > end:
                raise BoardError(f"timed out waiting for {what}")
            time.sleep(0.1)

    def stays(self, condition, seconds, broken):
        """What must not come about has no event to wait for: watch it a while."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if not condition():
                raise BoardError(broken)
            time.sleep(0.1)

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
