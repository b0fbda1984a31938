// Costs of the steps on an event's way through the daemon, one at a time:
// decoding a datagram, parsing a USB path, sending one log record, and the
// hand-over from the listener to the handler thread. Records go to a private
// /dev/log that a thread empties.
#include "common/logging/Logger.h"
#include "daemon/UeventDecoder.h"
#include "handler/HotplugHandlerThread.h"
#include "handler/UsbPortName.h"
#include "sandbox/DevLogSink.h"
#include "sandbox/Uevent.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

using Sandbox::Uevent;

const std::string stick = "/devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1.2/1-1.2:1.0/host0/"
                          "target0:0:0/0:0:0:0/block/sda";
const std::string serial = "/devices/platform/ehci/usb1/1-1/1-1.3";

void decode(benchmark::State& state, const std::string& datagram)
{
    std::vector<char> buffer(datagram.size() + 1);
    for (auto _ : state) {
        // The decoder writes into its buffer, as the listener's receive buffer allows.
        std::copy(datagram.begin(), datagram.end(), buffer.begin());
        benchmark::DoNotOptimize(decodeUevent(buffer.data(), datagram.size()));
    }
}

void BM_DecodePartitionAdd(benchmark::State& state)
{
    decode(state, Uevent::partition("add", stick + "/sda1", "sda1").datagram());
}
void BM_DecodeTtyUsbAdd(benchmark::State& state)
{
    decode(state,
           Uevent::ttyUsb("add", serial + "/1-1.3:1.0/ttyUSB0/tty/ttyUSB0", "ttyUSB0").datagram());
}
void BM_DecodeUsbDeviceAdd(benchmark::State& state)
{
    decode(state, Uevent::usbDevice("add", serial, "bus/usb/001/005").datagram());
}
void BM_DecodeDroppedUsbInterface(benchmark::State& state)
{
    decode(state, Uevent("add", serial + "/1-1.3:1.0")
                      .set("SUBSYSTEM", "usb")
                      .set("DEVTYPE", "usb_interface")
                      .datagram());
}

void BM_ParseTtyInterface(benchmark::State& state)
{
    const char* const component = "1-1.3:1.0";
    uint32_t uart = 0;
    for (auto _ : state) {
        const HubAndPort parsed = parseHubAndPortName(component);
        benchmark::DoNotOptimize(parseInterfaceSuffix(parsed.end + 1, uart));
    }
}

void BM_LoggerRecord(benchmark::State& state)
{
    Common::Logging::Logger logger("HotplugHandlerThread");
    for (auto _ : state) {
        logger.debug() << "Create link: /ravo500/devs/usb1-3/uart0 -> /dev/ttyUSB0" << std::endl;
    }
}

// The listener's push and the handler thread's turn for one event; the event
// (a device on a root port) costs the handler only its Info record. The
// wake-up it leaves is taken by the next push's.
void BM_PushAndProcessEvent(benchmark::State& state)
{
    HotplugHandlerThread thread;
    for (auto _ : state) {
        auto* event = new HotplugEvent();
        event->action = HotplugAction::Add;
        event->deviceType = HotplugDeviceType::UsbDevice;
        event->devPath = "/devices/platform/ehci/usb1/1-1";
        event->deviceName = "bus/usb/001/002";
        thread.pushEvent(event);
        benchmark::DoNotOptimize(thread.processNextEvent());
    }
}

} // namespace

BENCHMARK(BM_DecodePartitionAdd);
BENCHMARK(BM_DecodeTtyUsbAdd);
BENCHMARK(BM_DecodeUsbDeviceAdd);
BENCHMARK(BM_DecodeDroppedUsbInterface);
BENCHMARK(BM_ParseTtyInterface);
BENCHMARK(BM_LoggerRecord);
BENCHMARK(BM_PushAndProcessEvent);

int main(int argc, char** argv)
{
    Sandbox::DevLogSink::enter();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
