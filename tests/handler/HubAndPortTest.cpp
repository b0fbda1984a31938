// Hub-and-port parsing and the USB device/serial paths that must not lead to a
// link: every malformed shape with the records it must leave.
#include "tests/handler/HandlerTestSupport.h"

#include <cstring>

namespace {

struct ParseRow {
    const char* text;
    bool ok;
    uint32_t hub;
    uint32_t port;
    size_t endOffset;
    const char* warning; // the record when the parse fails
};

const ParseRow parseRows[] = {
    {"1-1.2", true, 1, 2, 5, nullptr},
    {"1-1.3:1.0", true, 1, 3, 5, nullptr},
    {"2-1.4", true, 2, 4, 5, nullptr},
    {"01-1.007", true, 1, 7, 8, nullptr},
    {"4294967297-1.2", true, 1, 2, 14, nullptr}, // wraps, as unsigned arithmetic does
    {"usb1", false, 0, 0, 0,
     "[Warn ] HotplugHandlerThread: Unable to parse the hub number (string = usb1)"},
    {"1.2", false, 0, 0, 1,
     "[Warn ] HotplugHandlerThread: Unable to parse the hub number (string = 1.2)"},
    {"", false, 0, 0, 0,
     "[Warn ] HotplugHandlerThread: Unable to parse the hub number (string = )"},
    {"1-", false, 0, 0, 2,
     "[Warn ] HotplugHandlerThread: Unable to parse the second number (string = 1-)"},
    {"1-1", false, 0, 0, 3,
     "[Warn ] HotplugHandlerThread: Unable to parse the second number (string = 1-1)"},
    {"1-1.", false, 0, 0, 4,
     "[Warn ] HotplugHandlerThread: Unable to parse the port number (string = 1-1.)"},
    {"1-1.2.3", false, 0, 0, 5,
     "[Warn ] HotplugHandlerThread: Unable to parse the port number (string = 1-1.2.3)"},
    {"1-1.2x", false, 0, 0, 5,
     "[Warn ] HotplugHandlerThread: Unable to parse the port number (string = 1-1.2x)"},
};

TEST_F(HandlerTest, ParseHubAndPortFollowsTheGrammar)
{
    for (const auto& row : parseRows) {
        SCOPED_TRACE(row.text);
        uint32_t hub = 0;
        uint32_t port = 0;
        const char* end = nullptr;
        EXPECT_EQ(thread.parseHubAndPort(row.text, hub, port, &end), row.ok);
        EXPECT_EQ(static_cast<size_t>(end - row.text), row.endOffset);
        if (row.ok) {
            EXPECT_EQ(hub, row.hub);
            EXPECT_EQ(port, row.port);
            EXPECT_TRUE(records().empty());
        } else {
            EXPECT_EQ(records(), std::vector<std::string>{row.warning});
        }
    }
}

struct PathRow {
    HotplugDeviceType type;
    const char* devPath;
    std::vector<std::string> expected;
    const char* pathAfter; // the tty handler shortens the path in place
};

const std::string prefix = "[Debug] HotplugHandlerThread: ";

const PathRow pathRows[] = {
    {HotplugDeviceType::UsbDevice,
     "/devices/ehci/usb1",
     {"[Info ] HotplugHandlerThread: USB device is not a device connected to one of the hubs: dev "
      "@ /devices/ehci/usb1"},
     "/devices/ehci/usb1"},
    {HotplugDeviceType::UsbDevice,
     "/devices/ehci/usb1/1-1",
     {"[Info ] HotplugHandlerThread: USB device is not a device connected to one of the hubs: dev "
      "@ /devices/ehci/usb1/1-1"},
     "/devices/ehci/usb1/1-1"},
    {HotplugDeviceType::UsbDevice,
     "/d/usb1/1-1/1-1.2/1-1.2.4",
     {"[Warn ] HotplugHandlerThread: Unable to parse the port number (string = 1-1.2.4)",
      prefix + "usbdevice: Parsing error with DEVPATH = /d/usb1/1-1/1-1.2/1-1.2.4"},
     "/d/usb1/1-1/1-1.2/1-1.2.4"},
    {HotplugDeviceType::UsbTty,
     "/d/usb1/1-1/1-1.3/1-1.3:1.0/tty/ttyS0",
     {"[Warn ] HotplugHandlerThread: tty: Unexpected device path: "
      "/d/usb1/1-1/1-1.3/1-1.3:1.0/tty/ttyS0"},
     "/d/usb1/1-1/1-1.3/1-1.3:1.0/tty/ttyS0"},
    {HotplugDeviceType::UsbTty,
     "/d/usb1/1-1/1-1:1.0/ttyUSB0/tty/ttyUSB0",
     {"[Warn ] HotplugHandlerThread: Unable to parse the second number (string = 1-1:1.0)",
      prefix + "tty: Parsing error with DEVPATH = /d/usb1/1-1/1-1:1.0"},
     "/d/usb1/1-1/1-1:1.0"},
    {HotplugDeviceType::UsbTty,
     "/d/usb1/1-1/1-1.3/ttyUSB0/tty/ttyUSB0",
     {prefix + "tty: Parsing error with DEVPATH = /d/usb1/1-1/1-1.3"},
     "/d/usb1/1-1/1-1.3"},
    {HotplugDeviceType::UsbTty,
     "/d/1-1.3/1-1.3:x.0/ttyUSB0",
     {prefix +
      "tty: Parsing the 4th number failed (string = 1-1.3:x.0 DEVPATH = /d/1-1.3/1-1.3:x.0)"},
     "/d/1-1.3/1-1.3:x.0"},
    {HotplugDeviceType::UsbTty,
     "/d/1-1.3/1-1.3:1/ttyUSB0",
     {prefix + "tty: Parsing the 4th number failed (string = 1-1.3:1 DEVPATH = /d/1-1.3/1-1.3:1)"},
     "/d/1-1.3/1-1.3:1"},
    {HotplugDeviceType::UsbTty,
     "/d/1-1.3/1-1.3:1./ttyUSB0",
     {prefix +
      "tty: Parsing the UART number failed (string = 1-1.3:1. DEVPATH = /d/1-1.3/1-1.3:1.)"},
     "/d/1-1.3/1-1.3:1."},
    {HotplugDeviceType::UsbTty,
     "/d/1-1.3/1-1.3:1.0a/ttyUSB0",
     {prefix +
      "tty: Parsing the UART number failed (string = 1-1.3:1.0a DEVPATH = /d/1-1.3/1-1.3:1.0a)"},
     "/d/1-1.3/1-1.3:1.0a"},
};

TEST_F(HandlerTest, MalformedUsbPathsAreLoggedAndDropped)
{
    for (const auto& row : pathRows) {
        SCOPED_TRACE(row.devPath);
        HotplugEvent event;
        event.action = HotplugAction::Add;
        event.deviceType = row.type;
        event.deviceName = "dev";
        event.devPath = row.devPath;
        if (row.type == HotplugDeviceType::UsbDevice) {
            thread.handleUsbDeviceEvent(event);
        } else {
            thread.handleUsbTtyEvent(event);
        }
        EXPECT_EQ(records(), row.expected);
        EXPECT_EQ(event.devPath, row.pathAfter);
    }
}

} // namespace
