#include "capture/CaptureWriter.h"

#include "capture/CaptureReader.h"
#include "capture/TextEscape.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <vector>

namespace Capture {

namespace {

// The strings of a datagram that has the kernel's shape: "ACTION@DEVPATH",
// then KEY=VALUE strings that include the four keys every uevent carries,
// each ended by a NUL. Empty for anything else.
std::vector<std::string> kernelStrings(const std::string& bytes)
{
    std::vector<std::string> strings;
    if (bytes.empty() || bytes.back() != '\0') {
        return {};
    }
    for (size_t start = 0; start < bytes.size();) {
        const size_t end = bytes.find('\0', start);
        strings.push_back(bytes.substr(start, end - start));
        start = end + 1;
    }
    const size_t at = strings[0].find('@');
    if (at == std::string::npos || at == 0 || at + 1 == strings[0].size()) {
        return {};
    }
    unsigned required = 0;
    for (size_t index = 1; index < strings.size(); ++index) {
        const size_t equals = strings[index].find('=');
        if (equals == std::string::npos || equals == 0) {
            return {};
        }
        const std::string key = strings[index].substr(0, equals);
        for (const auto& [name, bit] : {std::pair<const char*, unsigned>{"ACTION", 1U},
                                        {"DEVPATH", 2U},
                                        {"SUBSYSTEM", 4U},
                                        {"SEQNUM", 8U}}) {
            if (key == name) {
                required |= bit;
            }
        }
    }
    return required == 15U ? strings : std::vector<std::string>{};
}

std::string header(const CaptureRecord& record, const std::vector<std::string>& strings)
{
    const size_t at = strings[0].find('@');
    std::string action = TextEscape::field(strings[0].substr(0, at));
    if (action.size() < 8) {
        action.resize(8, ' '); // udevadm's column
    }
    return "KERNEL[" + CaptureWriter::timeText(record.timeUs) + "] " + action + " " +
           TextEscape::field(strings[0].substr(at + 1)) + " (" +
           TextEscape::field(record.value("SUBSYSTEM")) + ")";
}

std::string rawLine(const CaptureRecord& record)
{
    return "RAW[" + CaptureWriter::timeText(record.timeUs) + "] " + TextEscape::field(record.data);
}

} // namespace

std::string CaptureWriter::timeText(uint64_t timeUs)
{
    char text[48];
    static_cast<void>(std::snprintf(text, sizeof(text), "%" PRIu64 ".%06" PRIu64, timeUs / 1000000U,
                                    timeUs % 1000000U));
    return text;
}

namespace {

// Whether the reader would take the strings for udevadm's rearranged output
// and put them back: a DEVNAME below /dev/, or MAJOR or MINOR behind SEQNUM.
bool readsAsUdevadm(const std::vector<std::string>& strings)
{
    bool afterSequence = false;
    for (size_t index = 1; index < strings.size(); ++index) {
        const std::string& text = strings[index];
        if (text.rfind("DEVNAME=/dev/", 0) == 0 ||
            (afterSequence && (text.rfind("MAJOR=", 0) == 0 || text.rfind("MINOR=", 0) == 0))) {
            return true;
        }
        afterSequence = afterSequence || text.rfind("SEQNUM=", 0) == 0;
    }
    return false;
}

// One KEY=VALUE line that reads back as the same string, also from a paste.
std::string entryLine(const std::string& string)
{
    std::string line = TextEscape::value(string);
    if (CaptureReader::startsRecord(line)) {
        // A key that reads like a header still belongs to this record.
        line = TextEscape::byte(line[0]) + line.substr(1);
    }
    if (line.back() == ' ') {
        // A paste loses blanks at line ends; the reader drops them outside our own files.
        line.replace(line.size() - 1, 1, TextEscape::byte(' '));
    }
    return line + "\n";
}

// The KERNEL record of a datagram, or "" when it has to be a RAW line: the
// kernel would not send it, or reading it back would not give the same bytes.
std::string kernelRecord(const CaptureRecord& record)
{
    const auto strings = kernelStrings(record.data);
    if (strings.empty() || readsAsUdevadm(strings)) {
        return "";
    }
    std::string text = header(record, strings) + "\n";
    for (size_t index = 1; index < strings.size(); ++index) {
        text += entryLine(strings[index]);
    }
    return text + "\n";
}

} // namespace

std::string CaptureWriter::headline(const CaptureRecord& record)
{
    const std::string text = kernelRecord(record);
    return text.empty() ? rawLine(record) : text.substr(0, text.find('\n'));
}

std::string CaptureWriter::format(const CaptureRecord& record)
{
    switch (record.kind) {
    case CaptureRecord::Kind::Datagram: {
        const std::string text = kernelRecord(record);
        return text.empty() ? rawLine(record) + "\n" : text;
    }
    case CaptureRecord::Kind::Lost:
        return "LOST[" + timeText(record.timeUs) + "] " + TextEscape::value(record.data) + "\n";
    case CaptureRecord::Kind::SysfsLink:
        return "SYSFS link " + TextEscape::field(record.path) + " " +
               TextEscape::field(record.data) + "\n";
    case CaptureRecord::Kind::SysfsFile:
        return "SYSFS file " + TextEscape::field(record.path) +
               (record.data.empty() ? "" : " " + TextEscape::field(record.data)) + "\n";
    case CaptureRecord::Kind::Filesystems:
        return "FILESYSTEMS " + TextEscape::field(record.data) + "\n";
    case CaptureRecord::Kind::Comment: {
        // Free text for people: kept readable, only held on its line.
        std::string text = record.data;
        std::replace(text.begin(), text.end(), '\n', ' ');
        return "# " + text + "\n";
    }
    }
    return "";
}

} // namespace Capture
