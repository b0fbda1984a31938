// The daemon at work, as on the device: it runs unchanged in the sandbox while
// a USB stick with a real ext4 partition, a two-port USB serial adapter and
// the cascading Ethernet adapter are plugged in and out again. Prints the
// daemon's syslog records as they arrive and what it leaves on the device.
#include "sandbox/LoopDisk.h"
#include "sandbox/MountTable.h"
#include "sandbox/Namespaces.h"
#include "sandbox/SimulatedDevice.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <sys/sysmacros.h>
#include <vector>

namespace {

using Sandbox::Uevent;

const std::string hub = "/devices/platform/soc/ehci-platform/usb1/1-1";
const std::string stick = hub + "/1-1.2";
const std::string stickDisc = stick + "/1-1.2:1.0/host0/target0:0:0/0:0:0:0/block/sda";
const std::string serial = hub + "/1-1.3";
const std::string ethernet = hub + "/1-1.6";

class Demo {
public:
    explicit Demo(Sandbox::SimulatedDevice& sandbox) : box(sandbox) {}

    void say(const std::string& text)
    {
        showRecords();
        std::printf("\n== %s\n", text.c_str());
        std::fflush(stdout);
    }

    // Sends the events a real plug or unplug would make the kernel send, then
    // waits until the daemon has handled them.
    void kernelSends(const std::vector<Uevent>& events)
    {
        for (const auto& event : events) {
            box.inject(event);
        }
        settle();
        showRecords();
    }

    void showDevice()
    {
        showRecords();
        std::printf("   mounts under /mnt/usb:\n");
        for (const auto& entry : Sandbox::MountTable::read()) {
            const auto inside = entry.mountPoint.find("/mnt/usb/");
            if (inside != std::string::npos && entry.mountPoint.rfind(box.path("/"), 0) == 0) {
                std::printf("     %s  %s (%s)\n", entry.mountPoint.substr(inside).c_str(),
                            entry.fsType.c_str(), entry.options.c_str());
            }
        }
        std::printf("   links under /ravo500/devs:\n");
        for (const auto& port : box.list("/ravo500/devs")) {
            if (port == "cascade") {
                continue;
            }
            for (const auto& link : box.list("/ravo500/devs/" + port)) {
                const std::string path = "/ravo500/devs/" + port + "/" + link;
                std::printf("     %s -> %s\n", path.c_str(), box.readLink(path).c_str());
            }
        }
        const std::string info = "/ravo500/devs/cascade/ravo-casc-info";
        std::string content = "(none)";
        if (box.exists(info)) {
            content = box.readFile(info);
            const auto lineFeed = content.find('\n');
            if (lineFeed != std::string::npos) {
                content.replace(lineFeed, 1, "\\n");
            }
            content = "\"" + content + "\"";
        }
        std::printf("   %s: %s\n", info.c_str(), content.c_str());
        std::fflush(stdout);
    }

    void showRecords()
    {
        auto& reader = box.syslog();
        reader.drain(0);
        const auto& records = reader.history();
        for (; shown < records.size(); ++shown) {
            std::printf("   syslog: %s: %s\n", records[shown].identity.c_str(),
                        records[shown].text.c_str());
        }
        std::fflush(stdout);
    }

private:
    void settle()
    {
        const std::string marker = "demo-marker-" + std::to_string(++markers);
        box.inject(Uevent::usbDevice("add", "/devices/demo/usb9", marker));
        box.syslog().waitFor(
            [&marker](const Sandbox::SyslogRecord& record) {
                return record.text.find(marker) != std::string::npos;
            },
            10000);
        // The marker's own record is no news to the reader of the demo.
        auto& records = box.syslog().history();
        while (shown < records.size() && records[shown].text.find(marker) == std::string::npos) {
            std::printf("   syslog: %s: %s\n", records[shown].identity.c_str(),
                        records[shown].text.c_str());
            ++shown;
        }
        ++shown;
    }

    Sandbox::SimulatedDevice& box;
    size_t shown = 0;
    int markers = 0;
};

int runDemo(const std::string& daemonPath)
{
    std::printf("== Preparing: a USB stick image with one ext4 partition on a loop device\n");
    Sandbox::LoopDisk disk({{16, "ext4"}});
    Sandbox::SimulatedDevice::Options options;
    options.daemonPath = daemonPath;
    Sandbox::SimulatedDevice sandbox(options);
    sandbox.addDeviceNode("sda1", disk.partitionDevice(1));
    Demo demo(sandbox);

    demo.say("Starting " + daemonPath + " (no options; syslog only)");
    sandbox.start();
    sandbox.waitUntilListening(10000);
    demo.showDevice();

    demo.say("Plugging a USB stick into hub 1 port 2");
    demo.kernelSends({Uevent::usbDevice("add", stick, "bus/usb/001/004"),
                      Uevent::disk("add", stickDisc, "sda"),
                      Uevent::partition("add", stickDisc + "/sda1", "sda1")});
    demo.say("Plugging a two-port USB serial adapter into hub 1 port 3");
    demo.kernelSends({Uevent::usbDevice("add", serial, "bus/usb/001/005"),
                      Uevent::ttyUsb("add", serial + "/1-1.3:1.0/ttyUSB0/tty/ttyUSB0", "ttyUSB0"),
                      Uevent::ttyUsb("add", serial + "/1-1.3:1.1/ttyUSB1/tty/ttyUSB1", "ttyUSB1")});
    demo.say("Plugging the USB Ethernet adapter into the cascading port (hub 1 port 6)");
    sandbox.sysfs().addNetInterface("eth1", ethernet + "/1-1.6:1.0/net/eth1", "00:1e:c0:8a:3f:12");
    demo.kernelSends({Uevent::usbDevice("add", ethernet, "bus/usb/001/006"),
                      Uevent::net("add", ethernet + "/1-1.6:1.0/net/eth1", "eth1")});
    demo.say("What the device's other software now finds");
    demo.showDevice();

    demo.say("Unplugging everything");
    demo.kernelSends(
        {Uevent::net("remove", ethernet + "/1-1.6:1.0/net/eth1", "eth1"),
         Uevent::usbDevice("remove", ethernet, "bus/usb/001/006"),
         Uevent::ttyUsb("remove", serial + "/1-1.3:1.0/ttyUSB0/tty/ttyUSB0", "ttyUSB0"),
         Uevent::ttyUsb("remove", serial + "/1-1.3:1.1/ttyUSB1/tty/ttyUSB1", "ttyUSB1"),
         Uevent::usbDevice("remove", serial, "bus/usb/001/005"),
         Uevent::partition("remove", stickDisc + "/sda1", "sda1"),
         Uevent::disk("remove", stickDisc, "sda"),
         Uevent::usbDevice("remove", stick, "bus/usb/001/004")});
    demo.showDevice();

    demo.say("Stopping the daemon with SIGTERM");
    sandbox.signal(SIGTERM);
    const int status = sandbox.waitExit(10000);
    demo.showRecords();
    std::printf("   exit status: %d\n\n== Cleaning up the sandbox and the loop device\n", status);
    return status == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s PATH-OF-device_hotplug_handler\n", argv[0]);
        return 2;
    }
    std::string why;
    if (!Sandbox::Namespaces::canRun(why)) {
        std::fprintf(stderr, "the demonstration needs root: %s\n", why.c_str());
        return 1;
    }
    try {
        return runDemo(argv[1]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "demonstration failed: %s\n", error.what());
        return 1;
    }
}
