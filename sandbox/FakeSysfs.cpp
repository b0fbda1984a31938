#include "sandbox/FakeSysfs.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/sysmacros.h>

namespace Sandbox {

namespace fs = std::filesystem;

namespace {

std::string majorMinor(dev_t device)
{
    return std::to_string(major(device)) + ":" + std::to_string(minor(device));
}

std::string ueventText(dev_t device, const std::string& devname, const std::string& devtype)
{
    std::string text = "MAJOR=" + std::to_string(major(device)) +
                       "\nMINOR=" + std::to_string(minor(device)) + "\nDEVNAME=" + devname + "\n";
    if (!devtype.empty()) {
        text += "DEVTYPE=" + devtype + "\n";
    }
    return text;
}

void checkDevpath(const std::string& devpath)
{
    if (devpath.empty() || devpath[0] != '/') {
        throw std::invalid_argument("FakeSysfs: a devpath starts with '/': \"" + devpath + "\"");
    }
}

} // namespace

FakeSysfs::FakeSysfs(const std::string& sysDirectory) : root(sysDirectory)
{
    for (const char* directory : {"devices", "dev/block", "dev/char", "class/net"}) {
        addDirectory(directory);
    }
}

std::string FakeSysfs::linkTarget(const std::string& devpath)
{
    return "../.." + devpath;
}

std::string FakeSysfs::under(const std::string& relativePath) const
{
    if (!relativePath.empty() && relativePath[0] == '/') {
        return root + relativePath;
    }
    return root + "/" + relativePath;
}

void FakeSysfs::addBlockDevice(const std::string& devpath, const std::string& devname, dev_t device,
                               const std::string& devtype)
{
    addDevice(devpath, ueventText(device, devname, devtype));
    addLink("dev/block/" + majorMinor(device), linkTarget(devpath));
}

void FakeSysfs::addCharDevice(const std::string& devpath, const std::string& devname, dev_t device,
                              const std::string& devtype)
{
    addDevice(devpath, ueventText(device, devname, devtype));
    addLink("dev/char/" + majorMinor(device), linkTarget(devpath));
}

void FakeSysfs::addNetInterface(const std::string& name, const std::string& devpath,
                                const std::string& mac)
{
    addDevice(devpath,
              "INTERFACE=" + name + "\nIFINDEX=" + std::to_string(nextInterfaceIndex++) + "\n");
    addFile(devpath + "/address", mac + "\n");
    addLink("class/net/" + name, linkTarget(devpath));
}

void FakeSysfs::addDevice(const std::string& devpath, const std::string& ueventText)
{
    checkDevpath(devpath);
    addDirectory(devpath);
    addFile(devpath + "/uevent", ueventText);
}

void FakeSysfs::addLink(const std::string& relativePath, const std::string& target)
{
    const fs::path link = under(relativePath);
    fs::create_directories(link.parent_path());
    fs::create_symlink(target, link);
}

void FakeSysfs::addFile(const std::string& relativePath, const std::string& content)
{
    const fs::path file = under(relativePath);
    fs::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary | std::ios::trunc);
    stream << content;
    stream.close();
    if (!stream) {
        throw std::runtime_error("FakeSysfs::addFile: cannot write " + file.string());
    }
}

void FakeSysfs::addDirectory(const std::string& relativePath)
{
    fs::create_directories(under(relativePath));
}

void FakeSysfs::remove(const std::string& relativePath)
{
    fs::remove_all(under(relativePath));
}

} // namespace Sandbox
