// The decoder's accept/drop table, one datagram per row as the kernel would
// send it ("|" stands for the NUL that ends each string), and the reading of
// a socket dry, whatever the datagrams' lengths.
#include "daemon/UeventDecoder.h"
#include "common/exceptions/RavoException.h"
#include "daemon/DatagramDrain.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// "Add UsbTty ttyUSB0 /p", or "dropped".
std::string decode(std::string text, bool lastNul = true)
{
    std::replace(text.begin(), text.end(), '|', '\0');
    if (!lastNul) {
        text.pop_back();
    }
    std::vector<char> buffer(text.begin(), text.end());
    buffer.push_back('\0'); // the listener stores a NUL behind every datagram
    const auto event = decodeUevent(buffer.data(), text.size());
    if (!event) {
        return "dropped";
    }
    static const char* const actions[] = {"Add", "Remove", "None"};
    static const char* const types[] = {"UsbDevice", "UsbTty", "DiscPartition", "UsbEthernet",
                                        "None"};
    return std::string(actions[static_cast<int>(event->action)]) + " " +
           types[static_cast<int>(event->deviceType)] + " " + event->deviceName + " " +
           event->devPath;
}

TEST(UeventDecoder, AcceptsAndDropsAsTheTableSays)
{
    const struct {
        const char* datagram;
        const char* decoded;
    } rows[] = {
        // clang-format off
        {"add@/p/sda1|ACTION=add|DEVPATH=/p/sda1|SUBSYSTEM=block|DEVNAME=sda1|DEVTYPE=partition|SEQNUM=1|", "Add DiscPartition sda1 /p/sda1"},
        {"ACTION=remove|DEVPATH=/p|SUBSYSTEM=block|DEVNAME=sdb2|DEVTYPE=partition|", "Remove DiscPartition sdb2 /p"},
        {"ACTION=add|DEVPATH=/p|SUBSYSTEM=block|DEVNAME=sda|DEVTYPE=disk|", "dropped"},
        {"ACTION=add|DEVPATH=/p|SUBSYSTEM=usb|DEVNAME=bus/usb/001/004|DEVTYPE=usb_interface|", "dropped"},
        {"ACTION=add|DEVPATH=/p|SUBSYSTEM=usb|DEVNAME=bus/usb/001/004|DEVTYPE=usb_device|", "Add UsbDevice bus/usb/001/004 /p"},
        {"ACTION=add|DEVPATH=/p|SUBSYSTEM=usb|DEVNAME=bus/usb/001/004|", "dropped"},
        {"ACTION=add|DEVPATH=/p|SUBSYSTEM=tty|DEVNAME=ttyUSB0|", "Add UsbTty ttyUSB0 /p"},
        {"ACTION=add|DEVPATH=/p|SUBSYSTEM=tty|DEVNAME=ttyS0|", "dropped"},
        {"ACTION=add|DEVPATH=/p|SUBSYSTEM=net|INTERFACE=eth1|", "Add UsbEthernet eth1 /p"},
        {"ACTION=add|DEVPATH=/p|SUBSYSTEM=net|INTERFACE=wlan0|", "dropped"},
        {"ACTION=change|DEVPATH=/p|SUBSYSTEM=tty|DEVNAME=ttyUSB0|", "dropped"},
        {"ACTION=bind|DEVPATH=/p|SUBSYSTEM=usb|DEVNAME=x|DEVTYPE=usb_device|", "dropped"},
        {"ACTION=add|SUBSYSTEM=tty|DEVNAME=ttyUSB0|", "dropped"},
        {"ACTION=add|DEVPATH=/p|DEVNAME=ttyUSB0|", "dropped"},
        {"DEVPATH=/p|SUBSYSTEM=tty|DEVNAME=ttyUSB0|", "dropped"},
        {"ACTION=add|DEVPATH=/p|SUBSYSTEM=tty|", "dropped"},
        {"ACTION=add|DEVPATH=/p|SUBSYSTEM=tty|DEVNAME=ttyUSB0=b|", "Add UsbTty ttyUSB0=b /p"},
        {"ACTION=add|DEVPATH=/p|SUBSYSTEM=net|DEVNAME=x|INTERFACE=eth2|", "Add UsbEthernet eth2 /p"},
        {"ACTION=add|DEVPATH=/p|SUBSYSTEM=net|INTERFACE=eth2|DEVNAME=wlan0|", "dropped"},
        {"ACTION=remove|DEVPATH=/p|SUBSYSTEM=tty|DEVNAME=ttyUSB0|ACTION=add|", "Add UsbTty ttyUSB0 /p"},
        {"action=add|DEVPATH=/p|SUBSYSTEM=tty|DEVNAME=ttyUSB0|", "dropped"},
        {"", "dropped"},
        {"====|\xff=\x01|=|ACTION|", "dropped"},
        // clang-format on
    };
    for (const auto& row : rows) {
        EXPECT_EQ(decode(row.datagram), row.decoded) << row.datagram;
    }
    // Without its own NUL the last string ends at the buffer; an "=" as the
    // very last byte is no separator.
    EXPECT_EQ(decode("ACTION=add|DEVPATH=/p|SUBSYSTEM=tty|DEVNAME=ttyUSB7|", false),
              "Add UsbTty ttyUSB7 /p");
    EXPECT_EQ(decode("ACTION=add|DEVPATH=/p|SUBSYSTEM=usb|DEVTYPE=usb_device|DEVNAME=|", false),
              "dropped");
}

TEST(DatagramDrain, ReadsEveryDatagramWholeUntilTheSocketIsEmpty)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    // An empty one must be consumed, or poll would report it forever.
    const std::vector<std::string> sent = {"first", "", std::string(100000, 'x'), "last"};
    for (const auto& datagram : sent) {
        ASSERT_EQ(send(ends[0], datagram.data(), datagram.size(), 0),
                  static_cast<ssize_t>(datagram.size()));
    }
    Common::Container::ByteArray buffer;
    std::vector<std::string> received;
    const auto keep = [&](char* datagram, size_t length) {
        EXPECT_EQ(datagram[length], '\0');
        received.emplace_back(datagram, length);
    };
    EXPECT_EQ(drainDatagrams(ends[1], buffer, keep), 3u);
    EXPECT_EQ(received, (std::vector<std::string>{"first", sent[2], "last"}));
    close(ends[0]);
    close(ends[1]);
    EXPECT_THROW(drainDatagrams(ends[1], buffer, keep), Common::Exceptions::RavoException);
}

} // namespace
