// The capture's text form: every datagram comes back byte for byte, bad input
// names its line, a cut file reads up to its cut. hotplug_capture as a program:
// its messages and exit codes, its limits, its signals during a backlog and a
// full disk. (The board captures real kernel uevents and replays them.)
#include "capture/CaptureReader.h"
#include "capture/CaptureWriter.h"
#include "sandbox/Namespaces.h"
#include "sandbox/SimulatedDevice.h"
#include "tests/capture/ToolRun.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <sys/mount.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace {

using Capture::CaptureReader;
template <typename... Columns>
using Rows = std::initializer_list<std::tuple<Columns...>>;

std::string nul(std::string text) // '|' stands for the NUL that ends each string
{
    std::replace(text.begin(), text.end(), '|', '\0');
    return text;
}

const std::string keys = "ACTION=add|DEVPATH=/d|SUBSYSTEM=block|";

TEST(CaptureText, DatagramsComeBackByteForByte)
{
    for (const std::string& bytes : // kernel-shaped ones, then RAW ones
         {nul("add@/my disk|" + keys + "X=a\nb\\x41 \xc3\xa9=c |\\=\x7f|SEQNUM=7|"),
          nul("add@/d|" + keys + "KERNEL[1.0] a (b)=x|UDEV [1]=y|SEQNUM=7|"),
          nul("add@/d|" + keys +
              "SEQNUM=7|DEVNAME=/dev/sda1|MAJOR=8|"), // as udevadm would print it
          nul("no header|" + keys + "SEQNUM=7|"), nul("add@/d|" + keys + "junk|SEQNUM=7|"),
          nul("add@/d|" + keys + "SEQNUM=7"), nul("add@/d|" + keys), nul("add@|" + keys + "|")}) {
        const auto text = Capture::CaptureWriter::format(
            {Capture::CaptureRecord::Kind::Datagram, 12000345, bytes});
        const auto read = CaptureReader::read(text);
        ASSERT_EQ(read.size(), 1U) << text;
        EXPECT_EQ(read[0].data + std::to_string(read[0].timeUs), bytes + "12000345") << text;
    }
}

TEST(CaptureText, BadInputIsRefusedWithItsLine)
{
    for (const auto& [text, message] : Rows<const char*, const char*>{
             {"KERNEL[1.5] add /d (b)\nACTION=add\nDEVPATH=/d\nSUBSYSTEM=b\n\n",
              "line 1: truncated record"},
             {"# note\nKERNEL[1.5] add /d (b)\nACTION=add\nDEVPATH /d\n\n",
              "line 4: entry without \"=\""},
             {"\nKERNEL[1.5] add /d\nACTION=add\n\n# more\n", "line 2: header does not parse"},
             {"SYSFS file /sys/../etc/passwd x\n",
              "line 1: sysfs path is not a plain path below /sys/"}}) {
        try {
            CaptureReader::read(text);
            ADD_FAILURE() << "accepted: " << text;
        } catch (const Capture::CaptureFormatError& error) {
            EXPECT_EQ(std::string(error.what()).rfind(message, 0), 0U) << error.what();
        }
    }
}

TEST(CaptureText, PastesQuotedTrimmedOrCutShortReadAsTheyWere)
{
    const std::string paste = "KERNEL[12.5] add      /d/sda1 (block)\nACTION=add\n"
                              "DEVPATH=/d/sda1\nSUBSYSTEM=block\nDEVNAME=/dev/sda1\n"
                              "DEVTYPE=partition\nSEQNUM=7\nMAJOR=8\nMINOR=1\n\n";
    // Each line with a prefix, and with blanks before its end (empty lines as mail leaves them).
    const auto edited = [&](const std::string& mark, const std::string& tail) {
        std::string out;
        for (size_t start = 0; start < paste.size();) {
            const size_t end = paste.find('\n', start);
            const std::string line = paste.substr(start, end - start);
            out += (line.empty() ? mark.substr(0, 1) : mark + line + tail) + "\n";
            start = end + 1;
        }
        return out;
    };
    std::string own = "# hotplug_capture 1.0\n" + paste; // a value may end in a blank there
    own.insert(own.find("\nSUBSYSTEM"), " ");
    for (const auto& [text, devpath, note] : Rows<std::string, const char*, const char*>{
             {edited("> ", ""), "/d/sda1", "quoted with \"> \": the quote marks were removed"},
             {edited(">> ", "  "), "/d/sda1", "blanks at the end of 9 lines were removed"},
             {own, "/d/sda1 ", ""},
             // Cut off in the middle of the next record, as by a power loss.
             {own + "KERNEL[13.0] remove /d/sda1 (block)\nACTION=remove\nDEVPA", "/d/sda1 ",
              "ends in the middle of a record (line 14: entry without"}}) {
        std::vector<std::string> notes;
        const auto records = CaptureReader::read(text, &notes);
        ASSERT_FALSE(records.empty()) << text;
        EXPECT_EQ(records.back().value("DEVPATH"), devpath) << text;
        const std::string said = notes.empty() ? "" : notes[0];
        EXPECT_TRUE(*note == '\0' ? said.empty() : said.find(note) != std::string::npos)
            << said << "\n"
            << text;
    }
}

TEST(CaptureTool, ReportsBadOptionsAndEndsOnItsLimit)
{
    for (const auto& [arguments, status, message] : Rows<const char*, int, const char*>{
             {"--count 0", 2, "--count needs a whole number above 0, not \"0\""},
             {"--bogus", 2, "unknown option \"--bogus\""},
             {"-o /nonexistent/capture", 1, "cannot open /nonexistent/capture"},
             {"--duration=1 -o /dev/null", 0, "written to /dev/null (time limit)"},
             {"-t1 -o/dev/null -- extra", 2, "unexpected argument \"extra\""},
             {"-s 15K", 2, "-s needs at least 16K"},
             {"-t5 --sysfs -s 16K -o /tmp/dhh-capture-limit", 0,
              "(the size limit (16384 bytes))"}}) {
        const ToolRun run = ToolRun::shell(std::string(DHH_CAPTURE_PATH " ") + arguments);
        EXPECT_EQ(run.status, status) << arguments;
        EXPECT_NE(run.output.find(message), std::string::npos) << arguments << ": " << run.output;
    }
    struct stat limited {};
    EXPECT_EQ(stat("/tmp/dhh-capture-limit", &limited), 0);
    EXPECT_LE(limited.st_size, 16384) << "the capture grew past its limit";
    unlink("/tmp/dhh-capture-limit");
}

// hotplug_capture in a sandbox of its own, where only injected datagrams arrive.
class CaptureSandbox : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string why;
        if (!Sandbox::Namespaces::canRun(why)) {
            GTEST_SKIP() << "needs root and namespaces: " << why;
        }
    }
    void start(const std::vector<std::string>& arguments)
    {
        Sandbox::SimulatedDevice::Options options;
        options.daemonPath = DHH_CAPTURE_PATH;
        options.arguments = arguments;
        device = std::make_unique<Sandbox::SimulatedDevice>(options);
        ASSERT_EQ(mkdir(device->path("/small").c_str(), 0755), 0);
        ASSERT_EQ(mount("small", device->path("/small").c_str(), "tmpfs", 0, "size=64k"), 0);
        device->start();
        ASSERT_TRUE(device->waitUntilListening(10000)) << device->output();
    }
    std::vector<Capture::CaptureRecord> datagrams(const std::string& file) const
    {
        auto records = CaptureReader::read(device->readFile(file));
        records.erase(std::remove_if(records.begin(), records.end(),
                                     [](const auto& record) {
                                         return record.kind !=
                                                Capture::CaptureRecord::Kind::Datagram;
                                     }),
                      records.end());
        return records;
    }

    std::unique_ptr<Sandbox::SimulatedDevice> device;
};

// A backlog queued while the tool stood still: a signal ends it after a
// batch, not after the whole backlog; a count ends it exactly there.
TEST_F(CaptureSandbox, EndsOnASignalOrItsCountWhileABacklogWaits)
{
    const std::vector<std::string> backlog(
        5000, Sandbox::Uevent::usbDevice("add", "/devices/u/usb1/1-1/1-1.2", "bus/usb/001/002")
                  .datagram());
    for (const auto& [arguments, signal, reason] :
         std::initializer_list<std::tuple<std::vector<std::string>, int, std::string>>{
             {{"-o", "/tmp/capture"}, SIGTERM, "SIGTERM"},
             {{"-s", "64M", "-o", "/tmp/capture"}, SIGINT, "SIGINT"},
             {{"-n", "20", "-o", "/tmp/capture"}, 0, "count reached"}}) {
        start(arguments);
        device->signal(SIGSTOP);
        device->injectRawBurst(backlog.data(), backlog.size());
        if (signal != 0) {
            device->signal(signal);
        }
        device->signal(SIGCONT);
        EXPECT_EQ(device->waitExit(30000), 0) << device->output();
        const auto taken = datagrams("/tmp/capture").size();
        EXPECT_NE(device->readFile("/tmp/capture").find("# ended by " + reason), std::string::npos);
        EXPECT_TRUE(signal != 0 ? taken < backlog.size() : taken == 20U) << taken << " datagrams";
    }
}

// A full disk: the file ends on its last whole record and says why, and reads back.
TEST_F(CaptureSandbox, EndsOnAFullDiskWithItsLastWholeRecord)
{
    start({"-o", "/small/capture"});
    const std::string datagram =
        Sandbox::Uevent::usbDevice("add", "/devices/u/usb1/1-1/1-1.2/" + std::string(400, 'x'),
                                   "bus/usb/001/002")
            .datagram();
    for (int burst = 0; burst < 100 && device->isAlive(); ++burst) {
        device->injectRaw(datagram);
        Sandbox::SimulatedDevice::waitUntil([&] { return !device->isAlive(); }, 5);
    }
    EXPECT_EQ(device->waitExit(10000), 1);
    EXPECT_NE(device->output().find("No space left on device"), std::string::npos);
    const std::string text = device->readFile("/small/capture");
    const auto taken = datagrams("/small/capture").size();
    EXPECT_GT(taken, 0U);
    const std::string lastLine = text.substr(text.rfind('\n', text.size() - 2) + 1);
    EXPECT_EQ(lastLine, "# ended by a write error (No space left on device) after " +
                            std::to_string(taken) + " datagrams, 0 overflows\n");
}

} // namespace
