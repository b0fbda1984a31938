#include "capture/CaptureReader.h"

#include "capture/TextEscape.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace Capture {

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

struct Line {
    size_t number;
    std::string text;
};

std::vector<Line> splitLines(const std::string& text)
{
    std::vector<Line> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') { // pasted with CRLF
            line.pop_back();
        }
        lines.push_back({lines.size() + 1, line});
        start = end + 1;
    }
    return lines;
}

bool startsWith(const std::string& text, const char* prefix)
{
    return text.rfind(prefix, 0) == 0;
}

bool isUdevHeader(const std::string& line)
{
    if (!startsWith(line, "UDEV")) {
        return false;
    }
    const size_t bracket = line.find_first_not_of(' ', 4);
    return bracket != std::string::npos && line[bracket] == '[';
}

std::vector<std::string> tokens(const std::string& text)
{
    std::vector<std::string> found;
    size_t start = text.find_first_not_of(' ');
    while (start != std::string::npos) {
        const size_t end = text.find(' ', start);
        found.push_back(text.substr(start, end == std::string::npos ? end : end - start));
        start = text.find_first_not_of(' ', end);
    }
    return found;
}

// "NAME[SECONDS.FRACTION] REST": the time in microseconds and REST.
bool splitStamped(const std::string& line, const std::string& name, uint64_t& timeUs,
                  std::string& rest)
{
    const size_t open = name.size();
    const size_t close = line.find(']', open);
    if (line.compare(0, open + 1, name + "[") != 0 || close == std::string::npos ||
        close + 1 >= line.size() || line[close + 1] != ' ') {
        return false;
    }
    const std::string stamp = line.substr(open + 1, close - open - 1);
    const size_t dot = stamp.find('.');
    if (dot == 0 || dot == std::string::npos || dot + 1 == stamp.size() || dot > 12 ||
        stamp.size() - dot - 1 > 9 ||
        stamp.find_first_not_of("0123456789", dot + 1) != std::string::npos ||
        stamp.find_first_not_of("0123456789") != dot) {
        return false;
    }
    std::string micro = stamp.substr(dot + 1);
    micro.resize(6, '0');
    timeUs = std::stoull(stamp.substr(0, dot)) * 1000000U + std::stoull(micro);
    rest = line.substr(close + 2);
    return true;
}

bool isSysfsPath(const std::string& path)
{
    return startsWith(path, "/sys/") && isPlainPath(path);
}

Entries::iterator findKey(Entries& entries, const std::string& key)
{
    return std::find_if(entries.begin(), entries.end(),
                        [&key](const auto& entry) { return entry.first == key; });
}

// udevadm prints DEVNAME as a path below /dev and MAJOR and MINOR behind
// SEQNUM; the kernel sends the name alone and the numbers before DEVNAME.
bool undoUdevadm(Entries& entries)
{
    bool changed = false;
    for (auto& [key, value] : entries) {
        if (key == "DEVNAME" && startsWith(value, "/dev/")) {
            value.erase(0, 5);
            changed = true;
        }
    }
    const auto sequence = static_cast<size_t>(findKey(entries, "SEQNUM") - entries.begin());
    Entries moved;
    for (size_t index = sequence + 1; index < entries.size();) {
        if (entries[index].first == "MAJOR" || entries[index].first == "MINOR") {
            moved.push_back(entries[index]);
            entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(index));
        } else {
            ++index;
        }
    }
    if (!moved.empty()) {
        auto where = findKey(entries, "DEVNAME");
        if (where == entries.end()) {
            where = findKey(entries, "SEQNUM");
        }
        entries.insert(where, moved.begin(), moved.end());
        changed = true;
    }
    return changed;
}

const char* const kernelHeaderForm = "expected KERNEL[SECONDS.MICROSECONDS] ACTION DEVPATH "
                                     "(SUBSYSTEM)";

// The KERNEL record that starts at lines[index]; returns the index after it.
size_t readKernelRecord(const std::vector<Line>& lines, size_t index,
                        std::vector<CaptureRecord>& records)
{
    const Line& header = lines[index];
    CaptureRecord record;
    record.kind = CaptureRecord::Kind::Datagram;
    record.line = header.number;
    std::string rest;
    const auto fields = splitStamped(header.text, "KERNEL", record.timeUs, rest)
                            ? tokens(rest)
                            : std::vector<std::string>{};
    if (fields.size() != 3 || fields[2].size() < 2 || fields[2].front() != '(' ||
        fields[2].back() != ')') {
        throw CaptureFormatError(header.number, header.text,
                                 std::string("header does not parse: ") + kernelHeaderForm);
    }
    Entries entries;
    for (++index; index < lines.size() && !lines[index].text.empty() &&
                  !CaptureReader::startsRecord(lines[index].text);
         ++index) {
        const Line& line = lines[index];
        const size_t equals = line.text.find('=');
        if (equals == std::string::npos || equals == 0) {
            throw CaptureFormatError(line.number, line.text,
                                     equals == 0 ? "entry without a key before \"=\""
                                                 : "entry without \"=\"");
        }
        entries.emplace_back(TextEscape::decode(line.text.substr(0, equals)),
                             TextEscape::decode(line.text.substr(equals + 1)));
    }
    static const char* const required[] = {"ACTION", "DEVPATH", "SUBSYSTEM", "SEQNUM"};
    const auto* const missing =
        std::find_if(std::begin(required), std::end(required), [&entries](const char* key) {
            return findKey(entries, key) == entries.end();
        });
    if (missing != std::end(required)) {
        throw CaptureFormatError(header.number, header.text,
                                 std::string("truncated record: it has no ") + *missing +
                                     " (every kernel uevent has ACTION, DEVPATH, SUBSYSTEM and, "
                                     "last, SEQNUM)");
    }
    record.fromUdevadm = undoUdevadm(entries);
    record.data = TextEscape::decode(fields[0]) + "@" + TextEscape::decode(fields[1]);
    record.data += '\0';
    for (const auto& [key, value] : entries) {
        record.data.append(key).append(1, '=').append(value).append(1, '\0');
    }
    records.push_back(std::move(record));
    return index;
}

void readRawLine(const Line& line, CaptureRecord& record)
{
    std::string rest;
    record.kind = CaptureRecord::Kind::Datagram;
    if (!splitStamped(line.text, "RAW", record.timeUs, rest) || tokens(rest).size() != 1) {
        throw CaptureFormatError(line.number, line.text,
                                 "RAW line does not parse: expected RAW[SECONDS.MICROSECONDS] "
                                 "ESCAPED-BYTES");
    }
    record.data = TextEscape::decode(tokens(rest)[0]);
}

void readLostLine(const Line& line, CaptureRecord& record)
{
    std::string rest;
    record.kind = CaptureRecord::Kind::Lost;
    if (!splitStamped(line.text, "LOST", record.timeUs, rest)) {
        throw CaptureFormatError(line.number, line.text,
                                 "LOST line does not parse: expected LOST[SECONDS.MICROSECONDS] "
                                 "TEXT");
    }
    record.data = TextEscape::decode(rest);
}

void readSysfsLine(const Line& line, CaptureRecord& record)
{
    const auto fields = tokens(line.text.substr(6));
    const bool link = !fields.empty() && fields[0] == "link" && fields.size() == 3;
    const bool file =
        !fields.empty() && fields[0] == "file" && (fields.size() == 2 || fields.size() == 3);
    if (!link && !file) {
        throw CaptureFormatError(line.number, line.text,
                                 "SYSFS line does not parse: expected SYSFS link PATH TARGET "
                                 "or SYSFS file PATH [CONTENT]");
    }
    record.kind = link ? CaptureRecord::Kind::SysfsLink : CaptureRecord::Kind::SysfsFile;
    record.path = TextEscape::decode(fields[1]);
    record.data = fields.size() == 3 ? TextEscape::decode(fields[2]) : "";
    if (!isSysfsPath(record.path)) {
        throw CaptureFormatError(line.number, line.text,
                                 "sysfs path is not a plain path below /sys/: " + record.path);
    }
}

void readFilesystemsLine(const Line& line, CaptureRecord& record)
{
    const auto fields = tokens(line.text.substr(12));
    if (fields.size() != 1) {
        throw CaptureFormatError(line.number, line.text,
                                 "FILESYSTEMS line does not parse: expected FILESYSTEMS CONTENT");
    }
    record.kind = CaptureRecord::Kind::Filesystems;
    record.data = TextEscape::decode(fields[0]);
}

void readComment(const Line& line, CaptureRecord& record)
{
    record.kind = CaptureRecord::Kind::Comment;
    record.data = line.text.substr(startsWith(line.text, "# ") ? 2 : 1);
}

// One of the single-line records, or noise; false for noise.
bool readLineRecord(const Line& line, CaptureRecord& record)
{
    static const std::pair<const char*, void (*)(const Line&, CaptureRecord&)> kinds[] = {
        {"RAW[", readRawLine},
        {"LOST[", readLostLine},
        {"SYSFS ", readSysfsLine},
        {"FILESYSTEMS ", readFilesystemsLine},
        {"#", readComment}};
    record.line = line.number;
    for (const auto& [prefix, read] : kinds) {
        if (startsWith(line.text, prefix)) {
            read(line, record);
            return true;
        }
    }
    return false;
}

// Mail and issue trackers quote a paste with "> " and leave blanks at line
// ends; both can be undone without guessing. hotplug_capture's own files are
// taken as they stand: a value there may end in a blank.
std::string repairPaste(std::vector<Line>& lines)
{
    const auto quoted = [&] {
        bool any = false;
        for (const auto& line : lines) {
            if (!line.text.empty() && line.text[0] != '>') {
                return false;
            }
            any = any || !line.text.empty();
        }
        return any;
    };
    int quoteLevels = 0;
    for (; quoted(); ++quoteLevels) {
        for (auto& line : lines) {
            line.text.erase(0, startsWith(line.text, "> ") ? 2 : line.text.empty() ? 0 : 1);
        }
    }
    size_t trimmed = 0;
    if (lines.empty() || !startsWith(lines[0].text, "# hotplug_capture ")) {
        for (auto& line : lines) {
            const size_t end = line.text.find_last_not_of(" \t");
            const size_t keep = end == std::string::npos ? 0 : end + 1;
            if (keep < line.text.size()) {
                line.text.erase(keep);
                ++trimmed;
            }
        }
    }
    std::string note;
    if (quoteLevels > 0) {
        note = "the paste was quoted with \"> \": the quote marks were removed";
    }
    if (trimmed > 0) {
        note += (note.empty() ? "" : "; ") + std::string("blanks at the end of ") +
                std::to_string(trimmed) + " lines were removed";
    }
    return note;
}

} // namespace

CaptureFormatError::CaptureFormatError(size_t line, std::string lineText,
                                       const std::string& message)
    : std::runtime_error("line " + std::to_string(line) + ": " + message), number(line),
      text(std::move(lineText))
{
}

bool CaptureReader::startsRecord(const std::string& line)
{
    return startsWith(line, "KERNEL[") || isUdevHeader(line);
}

namespace {

// Whether the record that starts at lines[index] runs to the end of a text
// that stops short: a KERNEL record without its closing empty line, or a
// last line without its line feed.
bool runsIntoTheEnd(const std::vector<Line>& lines, size_t index, bool lastLineCut)
{
    if (CaptureReader::startsRecord(lines[index].text)) {
        for (++index; index < lines.size(); ++index) {
            if (lines[index].text.empty() || CaptureReader::startsRecord(lines[index].text)) {
                return false;
            }
        }
        return true;
    }
    return lastLineCut && index + 1 == lines.size();
}

} // namespace

std::vector<CaptureRecord> CaptureReader::read(const std::string& text,
                                               std::vector<std::string>* notes)
{
    auto lines = splitLines(text);
    const std::string note = repairPaste(lines);
    if (!note.empty() && notes != nullptr) {
        notes->push_back(note);
    }
    const bool lastLineCut = !text.empty() && text.back() != '\n';
    std::vector<CaptureRecord> records;
    size_t index = 0;
    while (index < lines.size()) {
        const std::string& line = lines[index].text;
        try {
            if (startsWith(line, "KERNEL[")) {
                index = readKernelRecord(lines, index, records);
            } else if (isUdevHeader(line)) {
                // What udev made of an event after its rules: not the kernel's.
                for (++index; index < lines.size() && !lines[index].text.empty() &&
                              !startsRecord(lines[index].text);
                     ++index) {
                }
            } else {
                CaptureRecord record;
                if (readLineRecord(lines[index], record)) {
                    records.push_back(std::move(record));
                }
                ++index;
            }
        } catch (const CaptureFormatError& error) {
            // A capture cut off by a power loss or a copy that stopped: what came before counts.
            if (!runsIntoTheEnd(lines, index, lastLineCut)) {
                throw;
            }
            if (notes != nullptr) {
                notes->push_back("the capture ends in the middle of a record (" +
                                 std::string(error.what()) + "): that record was left out");
            }
            break;
        }
    }
    return records;
}

bool isPlainPath(const std::string& path)
{
    if (path.size() < 2 || path[0] != '/') {
        return false;
    }
    for (size_t start = 1; start <= path.size();) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) {
            end = path.size();
        }
        const std::string part = path.substr(start, end - start);
        if (part.empty() || part == "." || part == "..") {
            return false;
        }
        start = end + 1;
    }
    return true;
}

} // namespace Capture
