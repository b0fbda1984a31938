// Fixture of the daemon's system tests: the real daemon binary in a simulated
// device, records read from its /dev/log, uevents injected into its network
// namespace.
#pragma once

#include "sandbox/LoopDisk.h"
#include "sandbox/Namespaces.h"
#include "sandbox/SimulatedDevice.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

class DaemonSandboxTest : public testing::Test {
protected:
    static constexpr int deadlineMs = 10000;
    static inline const std::string handler = "[Debug] HotplugHandlerThread: ";

    // This build's daemon, or the 32-bit one that DHH_SYSTEM_TEST_DAEMON names.
    static std::string daemonUnderTest()
    {
        const char* chosen = std::getenv("DHH_SYSTEM_TEST_DAEMON");
        return chosen != nullptr && *chosen != '\0' ? chosen : DHH_DAEMON_PATH;
    }

    void SetUp() override
    {
        std::string why;
        if (!Sandbox::Namespaces::canRun(why)) {
            GTEST_SKIP() << "system tests need root and namespaces: " << why;
        }
    }

    void TearDown() override
    {
        if (sandbox && HasFailure()) {
            std::cerr << "daemon records:\n";
            for (const auto& text : sandbox->syslog().texts()) {
                std::cerr << "  " << text << "\n";
            }
        }
    }

    // Builds the sandbox; the test may still add to its tree before start().
    Sandbox::SimulatedDevice& prepare(Sandbox::SimulatedDevice::Options options = {})
    {
        options.daemonPath = daemonUnderTest();
        sandbox = std::make_unique<Sandbox::SimulatedDevice>(options);
        return *sandbox;
    }

    // Starts the daemon and waits until init is done (the scan follows).
    void start()
    {
        sandbox->start();
        ASSERT_TRUE(sandbox->waitUntilListening(deadlineMs)) << sandbox->output();
        ASSERT_TRUE(sandbox->syslog().waitFor(
            [](const Sandbox::SyslogRecord& record) {
                return record.text.rfind(handler + "Mount supports", 0) == 0 ||
                       record.text.find("HotplugHandlerThread::init(): ") != std::string::npos;
            },
            deadlineMs));
    }

    void stop(int signalNumber = SIGTERM)
    {
        sandbox->signal(signalNumber);
        EXPECT_EQ(sandbox->waitExit(deadlineMs), 0) << sandbox->output();
        sandbox->syslog().drain(50); // the records of the way out
    }

    // A record with this text (or starting with it) came, or comes in time.
    bool sawRecord(const std::string& text, bool prefix = false)
    {
        const auto matches = [&](const Sandbox::SyslogRecord& record) {
            return prefix ? record.text.rfind(text, 0) == 0 : record.text == text;
        };
        const auto& history = sandbox->syslog().history();
        return std::any_of(history.begin(), history.end(), matches) ||
               sandbox->syslog().waitFor(matches, deadlineMs);
    }

    std::vector<std::string> recordsStartingWith(const std::string& prefix)
    {
        std::vector<std::string> texts;
        for (const auto& text : sandbox->syslog().texts()) {
            if (text.rfind(prefix, 0) == 0) {
                texts.push_back(text);
            }
        }
        return texts;
    }

    // Everything injected before has been handled once the marker's record
    // shows: events are handled in order.
    void settle()
    {
        static int marker = 0;
        const std::string name = "settle" + std::to_string(++marker);
        sandbox->inject(Sandbox::Uevent::usbDevice("add", "/devices/marker/usb9", name));
        ASSERT_TRUE(sawRecord("[Info ] HotplugHandlerThread: USB device is not a device connected "
                              "to one of the hubs: " +
                              name + " @ /devices/marker/usb9"));
    }

    // A real disc; null, with the test skipped, where loop devices are missing.
    Sandbox::LoopDisk* makeDisk(const std::vector<Sandbox::LoopDisk::Partition>& partitions)
    {
        std::string why;
        if (!Sandbox::LoopDisk::available(why)) {
            [&why] { GTEST_SKIP() << "needs loop devices: " << why; }();
            return nullptr;
        }
        disk = std::make_unique<Sandbox::LoopDisk>(partitions);
        return disk.get();
    }

    // Declared before the sandbox: its tear-down unmounts what the daemon mounted from it.
    std::unique_ptr<Sandbox::LoopDisk> disk;
    std::unique_ptr<Sandbox::SimulatedDevice> sandbox;
};
