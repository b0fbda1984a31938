// Stateless file-system helpers: temporary files, a move that retries while
// the target is busy, directory sync, whole-file copy and compare, and two
// pure path-string helpers. Failures are thrown as RavoException ("FileUtil").
#pragma once

#include <string>

class FileUtil {
public:
    FileUtil() = delete;

    // Creates an empty file (mode 0600) named path + ".tmp.XXXXXX", or
    // "/tmp/tmpfile.XXXXXX" for an empty path, and returns its name in path.
    static void createTmpFile(std::string& path);
    // Tries rename() up to five times while it fails with EBUSY, sleeping
    // 100 ms after every attempt, the successful one included.
    static void moveFile(const std::string& source, const std::string& destination);
    static void syncDirectory(const std::string& directory);
    // Creates or truncates the destination and syncs it; no-op for equal paths.
    static void copyFile(const std::string& source, const std::string& destination);
    // False also when either file cannot be opened or read.
    static bool compareFiles(const std::string& first, const std::string& second);

    // "." without a slash, "/" for names directly under the root.
    static std::string getDirectoryName(const std::string& path);
    // The text after the last slash (empty for a trailing slash), or the path itself.
    static std::string getFileName(const std::string& path);
};
