// Builds one uevent datagram as the kernel puts it on the netlink group:
// "ACTION@DEVPATH", then NUL-terminated KEY=VALUE strings in order, SEQNUM
// last. Keys can be replaced, repeated or dropped to make odd datagrams;
// bytes no builder can make go through Sandbox::injectRaw instead.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace Sandbox {

class Uevent {
public:
    // Starts with ACTION and DEVPATH; each event gets the next SEQNUM.
    Uevent(const std::string& action, const std::string& devpath);

    // The kinds the daemon cares about, with the keys the kernel sends for them.
    static Uevent partition(const std::string& action, const std::string& devpath,
                            const std::string& devname);
    static Uevent disk(const std::string& action, const std::string& devpath,
                       const std::string& devname);
    static Uevent usbDevice(const std::string& action, const std::string& devpath,
                            const std::string& devname);
    static Uevent ttyUsb(const std::string& action, const std::string& devpath,
                         const std::string& devname);
    static Uevent net(const std::string& action, const std::string& devpath,
                      const std::string& interface);

    // Replaces the value of the key where it stands, or appends the key.
    Uevent& set(const std::string& key, const std::string& value);
    // Appends the key even when it is there already.
    Uevent& append(const std::string& key, const std::string& value);
    // Drops every occurrence of the key (SEQNUM included).
    Uevent& erase(const std::string& key);

    std::string datagram() const;

private:
    std::string header;
    std::vector<std::pair<std::string, std::string>> pairs;
    std::string sequenceNumber;
};

} // namespace Sandbox
