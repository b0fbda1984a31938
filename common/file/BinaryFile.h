// Sole owner of one file descriptor bound to one path: opens with the caller's
// flags, reads and writes runs of bytes completely (retrying interrupted and
// short transfers), seeks, syncs, closes or removes. Failures are thrown as
// RavoException ("BinaryFile"). One thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>

class BinaryFile {
public:
    explicit BinaryFile(const std::string& path);
    // Closes the descriptor; never removes the file.
    ~BinaryFile();

    BinaryFile(const BinaryFile&) = delete;
    BinaryFile& operator=(const BinaryFile&) = delete;

    // Does nothing when already open, whatever the flags.
    void openFile(int flags, mode_t mode);
    void closeFile();
    bool isOpen() const { return descriptor != -1; }

    // Sizes and offsets are 64-bit (the build uses 64-bit file offsets also on
    // 32-bit targets), so files past 2 GiB are reported and sought correctly.
    int64_t getFileSize();
    // From the start of the file; returns the resulting offset.
    int64_t setFileOffset(int64_t offset);

    void writeData(const uint8_t* data, uint32_t length);
    // Fewer than length bytes only at the end of the file; 0 there.
    uint32_t readData(uint8_t* buffer, uint32_t length);
    // The file's data, then its directory entry.
    void syncFile();
    // Closes if open, then unlinks the path; failures are ignored.
    void removeFile();

private:
    const std::string path;
    int descriptor = -1;
};
