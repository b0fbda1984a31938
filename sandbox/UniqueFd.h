// The one owner of a file descriptor: closes it when it goes, moves but never
// copies. Not a wrapper for I/O; callers use get() with the plain calls.
#pragma once

namespace Sandbox {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int descriptor) : fd(descriptor) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd; }
    bool valid() const { return fd >= 0; }
    // Gives up ownership without closing.
    int release();
    void reset(int descriptor = -1);

private:
    int fd = -1;
};

} // namespace Sandbox
