// The capture's text form on arbitrary input: any bytes written as a datagram
// read back the same, and any text either reads or is refused with
// CaptureFormatError, its datagrams again surviving a second round.
#include "capture/CaptureReader.h"
#include "capture/CaptureWriter.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace {

void roundTrip(const Capture::CaptureRecord& record)
{
    const auto read = Capture::CaptureReader::read(Capture::CaptureWriter::format(record));
    if (read.size() != 1 || read[0].data != record.data || read[0].timeUs != record.timeUs) {
        __builtin_trap();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
    if ((data[0] & 1U) != 0) {
        Capture::CaptureRecord record;
        record.kind = Capture::CaptureRecord::Kind::Datagram;
        record.timeUs = data[0] * 1000003ULL;
        record.data = input;
        if (!input.empty()) { // the kernel sends no empty datagrams
            roundTrip(record);
        }
        return 0;
    }
    try {
        for (const auto& record : Capture::CaptureReader::read(input)) {
            if (record.kind == Capture::CaptureRecord::Kind::Datagram && !record.data.empty()) {
                roundTrip(record);
            }
        }
    } catch (const Capture::CaptureFormatError&) {
    }
    return 0;
}
