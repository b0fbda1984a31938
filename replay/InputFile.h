// Reads the files a replay is given, a capture or a state listing, whole: a
// regular file or standard input, never more than a bound, so that neither
// /dev/zero nor a FIFO without a writer holds the replay up.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

namespace Replay {

class InputFile {
public:
    // Bad input, said once: nothing is replayed.
    class Refused : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    // "-" reads standard input. Throws Refused naming the file and `what` it is.
    static std::string read(const std::string& path, const std::string& what, size_t limitBytes);
};

} // namespace Replay
