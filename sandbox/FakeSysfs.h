// A small generator of the sysfs shapes the daemon reads at start: device
// directories with "uevent" files as the kernel writes them, and the relative
// links of /sys/dev/block, /sys/dev/char and /sys/class/net that lead to them.
// It writes plain files and links only; no attribute behaves like the kernel's.
#pragma once

#include <string>
#include <sys/types.h>

namespace Sandbox {

class FakeSysfs {
public:
    // Creates sysDirectory (it plays /sys) with devices, dev/block, dev/char, class/net.
    explicit FakeSysfs(const std::string& sysDirectory);

    const std::string& path() const { return root; }

    // devpath is a DEVPATH as in a uevent: "/devices/...", without "/sys".
    // A disc (devtype "disk") or partition and its link /sys/dev/block/MAJOR:MINOR.
    void addBlockDevice(const std::string& devpath, const std::string& devname, dev_t device,
                        const std::string& devtype = "partition");
    // A character device and its link /sys/dev/char/MAJOR:MINOR; devtype
    // "usb_device" for a whole USB device, "" for none (a tty).
    void addCharDevice(const std::string& devpath, const std::string& devname, dev_t device,
                       const std::string& devtype = "");
    // An interface whose devpath ends in "/net/" + name, its "address" file
    // (mac and a line feed) and the link /sys/class/net/name.
    void addNetInterface(const std::string& name, const std::string& devpath,
                         const std::string& mac);

    // Escape hatches for shapes the helpers do not make; paths are relative
    // to the sys directory ("dev/block/8:9").
    void addDevice(const std::string& devpath, const std::string& ueventText);
    void addLink(const std::string& relativePath, const std::string& target);
    void addFile(const std::string& relativePath, const std::string& content);
    void addDirectory(const std::string& relativePath);
    // Removes a file, a link or a whole directory tree; absent is fine.
    void remove(const std::string& relativePath);

    // What the kernel's links hold for a devpath: "../.." + devpath.
    static std::string linkTarget(const std::string& devpath);

private:
    std::string root;
    int nextInterfaceIndex = 2;

    std::string under(const std::string& relativePath) const;
};

} // namespace Sandbox
