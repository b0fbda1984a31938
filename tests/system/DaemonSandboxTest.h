// Fixture of the daemon's system tests: the real daemon binary in a sandbox,
// records read from its /dev/log, uevents injected into its network namespace.
#pragma once

#include "sandbox/LoopDisk.h"
#include "sandbox/Namespaces.h"
#include "sandbox/SimulatedDevice.h"

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

class DaemonSandboxTest : public testing::Test {
protected:
    static constexpr int deadlineMs = 10000;
    static const std::string handler; // "[Debug] HotplugHandlerThread: "

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
            std::string records;
            for (const auto& record : sandbox->syslog().history()) {
                records += "  " + record.text + "\n";
            }
            std::cerr << "daemon records:\n" << records;
        }
    }

    // Builds the sandbox; the test may still add to its tree before start().
    Sandbox::SimulatedDevice& prepare(Sandbox::SimulatedDevice::Options options = {})
    {
        options.daemonPath = DHH_DAEMON_PATH;
        sandbox = std::make_unique<Sandbox::SimulatedDevice>(options);
        return *sandbox;
    }

    // Starts the daemon and waits until it has finished its start-up scan.
    void start()
    {
        sandbox->start();
        ASSERT_TRUE(sandbox->waitUntilListening(deadlineMs)) << "daemon output:\n"
                                                             << sandbox->output();
        ASSERT_TRUE(sawRecordWhere([](const std::string& text) {
            return text.rfind("[Debug] HotplugHandlerThread: Mount supports", 0) == 0 ||
                   text.rfind(
                       "[Error] HotplugHandlerThread: Exception: \"HotplugHandlerThread::init",
                       0) == 0;
        }));
    }

    // Stops the daemon the way an operator would and expects the orderly end.
    void stop(int signalNumber = SIGTERM)
    {
        sandbox->signal(signalNumber);
        EXPECT_EQ(sandbox->waitExit(deadlineMs), 0) << "daemon output:\n" << sandbox->output();
        sandbox->syslog().drain(50); // the records of the way out
    }

    bool sawRecordWhere(const std::function<bool(const std::string&)>& matches,
                        int timeoutMs = deadlineMs)
    {
        auto& reader = sandbox->syslog();
        for (const auto& record : reader.history()) {
            if (matches(record.text)) {
                return true;
            }
        }
        return reader.waitFor(
            [&](const Sandbox::SyslogRecord& record) { return matches(record.text); }, timeoutMs);
    }

    bool sawRecord(const std::string& text, int timeoutMs = deadlineMs)
    {
        return sawRecordWhere([&text](const std::string& candidate) { return candidate == text; },
                              timeoutMs);
    }

    // Every record text so far that starts with the prefix, in arrival order.
    std::vector<std::string> recordsStartingWith(const std::string& prefix)
    {
        std::vector<std::string> texts;
        for (const auto& record : sandbox->syslog().history()) {
            if (record.text.rfind(prefix, 0) == 0) {
                texts.push_back(record.text);
            }
        }
        return texts;
    }

    // Sends a marker the daemon logs, and waits for it: everything injected
    // before has been handled once it shows (events are handled in order).
    void settle()
    {
        static int marker = 0;
        const std::string name = "settle" + std::to_string(++marker);
        sandbox->inject(Sandbox::Uevent::usbDevice("add", "/devices/marker/usb9", name));
        ASSERT_TRUE(sawRecord("[Info ] HotplugHandlerThread: USB device is not a device connected "
                              "to one of the hubs: " +
                              name + " @ /devices/marker/usb9"));
    }

    // A loop disk outlives the sandbox, whose tear-down unmounts what the
    // daemon mounted from it.
    Sandbox::LoopDisk& makeDisk(const std::vector<Sandbox::LoopDisk::Partition>& partitions)
    {
        disk = std::make_unique<Sandbox::LoopDisk>(partitions);
        return *disk;
    }

    std::unique_ptr<Sandbox::LoopDisk> disk;
    std::unique_ptr<Sandbox::SimulatedDevice> sandbox;
};

inline const std::string DaemonSandboxTest::handler = "[Debug] HotplugHandlerThread: ";
