// Lays a capture's sysfs records into the sandbox's fake sysfs, and the
// address file the daemon reads for an interface that is added. A capture
// comes from elsewhere and the replay runs as root: nothing it names may lead
// out of the fake tree, so a path through a link or a file is refused.
#pragma once

#include "capture/CaptureRecord.h"
#include "sandbox/FakeSysfs.h"

#include <map>
#include <string>

namespace Replay {

class CapturedSysfs {
public:
    // addresses: interface name -> MAC text that wins over the capture's.
    CapturedSysfs(Sandbox::FakeSysfs& sysfs, std::map<std::string, std::string> addresses);

    // A SYSFS link or file record; throws std::runtime_error naming its line.
    void apply(const Capture::CaptureRecord& record);
    // Before a net "add" is sent: makes sure the daemon finds an address file
    // for the interface, made up (locally administered) when the capture has
    // none. Returns what the user should know, or "".
    std::string prepareAddress(const Capture::CaptureRecord& event);

    // 02:00:00:00:00:01 for eth1: stable, so a replay's state can be expected.
    static std::string madeUpAddress(const std::string& interface);

private:
    Sandbox::FakeSysfs& tree;
    std::map<std::string, std::string> chosenAddresses;

    void checkInside(const std::string& relative, size_t line) const;
    void writeFile(const std::string& relative, const std::string& content, size_t line);
    void writeLink(const std::string& relative, const std::string& target, size_t line);
};

} // namespace Replay
