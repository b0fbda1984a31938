// The decoder's accept/drop table: each row is one datagram as the kernel
// would send it and the record it must (or must not) become.
#include "daemon/HotplugNetlink.h"
#include "tests/support/HotplugTestAccess.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::string datagram(const std::vector<std::string>& strings)
{
    std::string bytes;
    for (const auto& text : strings) {
        bytes += text;
        bytes.push_back('\0');
    }
    return bytes;
}

struct Decoded {
    bool queued;
    HotplugAction action;
    HotplugDeviceType type;
    std::string name;
    std::string devPath;
};

Decoded decode(std::string bytes, bool dropLastNul = false)
{
    if (dropLastNul && !bytes.empty()) {
        bytes.pop_back();
    }
    HotplugNetlink listener;
    std::vector<char> buffer(bytes.begin(), bytes.end());
    buffer.push_back('\0'); // the listener stores a NUL behind every datagram
    listener.parseKernelEvent(buffer.data(), bytes.size());
    auto events = HotplugHandlerThreadTestAccess::takeQueued(
        HotplugNetlinkTestAccess::handlerThread(listener));
    if (events.empty()) {
        return {false, HotplugAction::None, HotplugDeviceType::None, "", ""};
    }
    EXPECT_EQ(events.size(), 1U);
    const auto& event = *events.front();
    return {true, event.action, event.deviceType, event.deviceName, event.devPath};
}

const std::string stickPath = "/devices/pci0000:00/usb1/1-1/1-1.2/1-1.2:1.0/host0/block/sda";

struct Row {
    const char* what;
    std::vector<std::string> strings;
    bool queued;
    HotplugAction action;
    HotplugDeviceType type;
    std::string name;
};

const Row rows[] = {
    {"partition add",
     {"add@" + stickPath + "/sda1", "ACTION=add", "DEVPATH=" + stickPath + "/sda1",
      "SUBSYSTEM=block", "DEVNAME=sda1", "DEVTYPE=partition", "SEQNUM=1234"},
     true,
     HotplugAction::Add,
     HotplugDeviceType::DiscPartition,
     "sda1"},
    {"partition remove",
     {"ACTION=remove", "DEVPATH=/p", "SUBSYSTEM=block", "DEVNAME=sdb2", "DEVTYPE=partition"},
     true,
     HotplugAction::Remove,
     HotplugDeviceType::DiscPartition,
     "sdb2"},
    {"whole disc",
     {"ACTION=add", "DEVPATH=/p", "SUBSYSTEM=block", "DEVNAME=sda", "DEVTYPE=disk"},
     false,
     HotplugAction::None,
     HotplugDeviceType::None,
     ""},
    {"usb interface",
     {"ACTION=add", "DEVPATH=/p", "SUBSYSTEM=usb", "DEVNAME=bus/usb/001/004",
      "DEVTYPE=usb_interface"},
     false,
     HotplugAction::None,
     HotplugDeviceType::None,
     ""},
    {"usb device",
     {"ACTION=add", "DEVPATH=/p/1-1.3", "SUBSYSTEM=usb", "DEVNAME=bus/usb/001/004",
      "DEVTYPE=usb_device"},
     true,
     HotplugAction::Add,
     HotplugDeviceType::UsbDevice,
     "bus/usb/001/004"},
    {"usb without devtype",
     {"ACTION=add", "DEVPATH=/p", "SUBSYSTEM=usb", "DEVNAME=bus/usb/001/004"},
     false,
     HotplugAction::None,
     HotplugDeviceType::None,
     ""},
    {"ttyUSB",
     {"ACTION=add", "DEVPATH=/p/ttyUSB0/tty/ttyUSB0", "SUBSYSTEM=tty", "DEVNAME=ttyUSB0"},
     true,
     HotplugAction::Add,
     HotplugDeviceType::UsbTty,
     "ttyUSB0"},
    {"other tty",
     {"ACTION=add", "DEVPATH=/p", "SUBSYSTEM=tty", "DEVNAME=ttyS0"},
     false,
     HotplugAction::None,
     HotplugDeviceType::None,
     ""},
    {"eth by INTERFACE",
     {"ACTION=add", "DEVPATH=/p/net/eth1", "SUBSYSTEM=net", "INTERFACE=eth1"},
     true,
     HotplugAction::Add,
     HotplugDeviceType::UsbEthernet,
     "eth1"},
    {"wlan",
     {"ACTION=add", "DEVPATH=/p", "SUBSYSTEM=net", "INTERFACE=wlan0"},
     false,
     HotplugAction::None,
     HotplugDeviceType::None,
     ""},
    {"change",
     {"ACTION=change", "DEVPATH=/p", "SUBSYSTEM=tty", "DEVNAME=ttyUSB0"},
     false,
     HotplugAction::None,
     HotplugDeviceType::None,
     ""},
    {"bind",
     {"ACTION=bind", "DEVPATH=/p", "SUBSYSTEM=usb", "DEVNAME=x", "DEVTYPE=usb_device"},
     false,
     HotplugAction::None,
     HotplugDeviceType::None,
     ""},
    {"no DEVPATH",
     {"ACTION=add", "SUBSYSTEM=tty", "DEVNAME=ttyUSB0"},
     false,
     HotplugAction::None,
     HotplugDeviceType::None,
     ""},
    {"no SUBSYSTEM",
     {"ACTION=add", "DEVPATH=/p", "DEVNAME=ttyUSB0"},
     false,
     HotplugAction::None,
     HotplugDeviceType::None,
     ""},
    {"no ACTION",
     {"DEVPATH=/p", "SUBSYSTEM=tty", "DEVNAME=ttyUSB0"},
     false,
     HotplugAction::None,
     HotplugDeviceType::None,
     ""},
    {"no name",
     {"ACTION=add", "DEVPATH=/p", "SUBSYSTEM=tty"},
     false,
     HotplugAction::None,
     HotplugDeviceType::None,
     ""},
    {"value with =",
     {"ACTION=add", "DEVPATH=/p", "SUBSYSTEM=tty", "DEVNAME=ttyUSB0=b"},
     true,
     HotplugAction::Add,
     HotplugDeviceType::UsbTty,
     "ttyUSB0=b"},
    {"DEVNAME then INTERFACE",
     {"ACTION=add", "DEVPATH=/p", "SUBSYSTEM=net", "DEVNAME=x", "INTERFACE=eth2"},
     true,
     HotplugAction::Add,
     HotplugDeviceType::UsbEthernet,
     "eth2"},
    {"INTERFACE then DEVNAME",
     {"ACTION=add", "DEVPATH=/p", "SUBSYSTEM=net", "INTERFACE=eth2", "DEVNAME=wlan0"},
     false,
     HotplugAction::None,
     HotplugDeviceType::None,
     ""},
    {"repeated key overwrites",
     {"ACTION=remove", "DEVPATH=/p", "SUBSYSTEM=tty", "DEVNAME=ttyUSB0", "ACTION=add"},
     true,
     HotplugAction::Add,
     HotplugDeviceType::UsbTty,
     "ttyUSB0"},
    {"keys are case-sensitive",
     {"action=add", "DEVPATH=/p", "SUBSYSTEM=tty", "DEVNAME=ttyUSB0"},
     false,
     HotplugAction::None,
     HotplugDeviceType::None,
     ""},
};

TEST(UeventDecoder, AcceptsAndDropsAsTheTableSays)
{
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const auto decoded = decode(datagram(row.strings));
        EXPECT_EQ(decoded.queued, row.queued);
        if (row.queued) {
            EXPECT_EQ(decoded.action, row.action);
            EXPECT_EQ(decoded.type, row.type);
            EXPECT_EQ(decoded.name, row.name);
        }
    }
}

TEST(UeventDecoder, KeepsTheWholeDevpath)
{
    const auto decoded = decode(datagram({"ACTION=add", "DEVPATH=" + stickPath + "/sda1",
                                          "SUBSYSTEM=block", "DEVNAME=sda1", "DEVTYPE=partition"}));
    EXPECT_EQ(decoded.devPath, stickPath + "/sda1");
}

TEST(UeventDecoder, LastStringWithoutItsOwnNulEndsAtTheBuffer)
{
    const auto decoded =
        decode(datagram({"ACTION=add", "DEVPATH=/p", "SUBSYSTEM=tty", "DEVNAME=ttyUSB7"}), true);
    ASSERT_TRUE(decoded.queued);
    EXPECT_EQ(decoded.name, "ttyUSB7");
}

TEST(UeventDecoder, EqualsSignAtTheLastByteIsNoSeparator)
{
    // "DEVNAME=" as the buffer's last bytes: no separator, so no name, no record.
    const auto decoded =
        decode(datagram({"ACTION=add", "DEVPATH=/p", "SUBSYSTEM=tty", "DEVNAME="}), true);
    EXPECT_FALSE(decoded.queued);
}

TEST(UeventDecoder, GarbageIsDroppedWithoutHarm)
{
    const std::vector<std::string> garbage = {
        std::string(), std::string("\0\0\0", 3), "no separators at all",
        "====",        std::string(70000, 'A'),  std::string("\xff\xfe=\x01\0=\0ACTION\0", 14),
    };
    for (const auto& bytes : garbage) {
        EXPECT_FALSE(decode(bytes).queued);
    }
}

TEST(UeventDecoder, BurstIsQueuedInOrderWithOneWakeUp)
{
    HotplugNetlink listener;
    auto& thread = HotplugNetlinkTestAccess::handlerThread(listener);
    for (const char* name : {"ttyUSB0", "ttyUSB1", "ttyUSB2"}) {
        std::string bytes =
            datagram({"ACTION=add", "DEVPATH=/p", "SUBSYSTEM=tty", std::string("DEVNAME=") + name});
        bytes.push_back('\0');
        listener.parseKernelEvent(bytes.data(), bytes.size() - 1);
    }
    const auto events = HotplugHandlerThreadTestAccess::takeQueued(thread);
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(events[0]->deviceName, "ttyUSB0");
    EXPECT_EQ(events[1]->deviceName, "ttyUSB1");
    EXPECT_EQ(events[2]->deviceName, "ttyUSB2");
    EXPECT_TRUE(HotplugHandlerThreadTestAccess::takeWakeUp(thread));
    EXPECT_FALSE(HotplugHandlerThreadTestAccess::takeWakeUp(thread));
}

} // namespace
