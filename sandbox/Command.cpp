#include "sandbox/Command.h"

#include "sandbox/SystemError.h"
#include "sandbox/UniqueFd.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Sandbox {

namespace {

std::string joined(const std::vector<std::string>& arguments)
{
    std::string text;
    for (const auto& argument : arguments) {
        text += (text.empty() ? "" : " ") + argument;
    }
    return text;
}

// A memfd instead of pipes: the tool can write any amount without a reader.
UniqueFd memoryFile(const char* name)
{
    UniqueFd fd(memfd_create(name, MFD_CLOEXEC));
    if (!fd.valid()) {
        throw systemError(std::string("Command: memfd_create ") + name);
    }
    return fd;
}

std::string contents(const UniqueFd& fd)
{
    std::string text;
    char buffer[4096];
    off_t offset = 0;
    for (;;) {
        const ssize_t length = pread(fd.get(), buffer, sizeof(buffer), offset);
        if (length < 0) {
            throw systemError("Command: pread");
        }
        if (length == 0) {
            return text;
        }
        text.append(buffer, static_cast<size_t>(length));
        offset += length;
    }
}

} // namespace

std::string Command::find(const std::string& program)
{
    // The test runner's PATH may lack the sbin directories where these tools live.
    for (const char* directory : {"/usr/sbin", "/usr/bin", "/sbin", "/bin"}) {
        std::string candidate = std::string(directory) + "/" + program;
        if (access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return "";
}

namespace {

// "" when the child exited with 0, else how it ended.
std::string waitForSuccess(pid_t child, const std::string& program)
{
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            throw systemError("Command: waitpid for " + program);
        }
    }
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status) == 0 ? "" : "exit status " + std::to_string(WEXITSTATUS(status));
    }
    return "signal " + std::to_string(WTERMSIG(status));
}

} // namespace

std::string Command::run(const std::vector<std::string>& arguments, const std::string& input)
{
    if (arguments.empty()) {
        throw std::invalid_argument("Command::run: no program given");
    }
    const std::string program = find(arguments[0]);
    if (program.empty()) {
        throw std::runtime_error("Command::run: " + arguments[0] + " is not installed");
    }
    UniqueFd in = memoryFile("stdin");
    if (!input.empty() &&
        pwrite(in.get(), input.data(), input.size(), 0) != static_cast<ssize_t>(input.size())) {
        throw systemError("Command: pwrite stdin");
    }
    UniqueFd out = memoryFile("stdout");
    UniqueFd err = memoryFile("stderr");

    // Everything the child touches is prepared before fork: it may only make plain calls.
    std::vector<char*> argv(arguments.size() + 1, nullptr);
    std::transform(arguments.begin(), arguments.end(), argv.begin(),
                   [](const std::string& argument) { return const_cast<char*>(argument.c_str()); });
    char localeC[] = "LC_ALL=C";
    char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    // cppcheck-suppress variableScope ; made before fork, like everything the child uses
    char* environment[] = {localeC, path, nullptr};

    const pid_t child = fork();
    if (child < 0) {
        throw systemError("Command: fork for " + arguments[0]);
    }
    if (child == 0) {
        // Out of the terminal's reach: Ctrl-C is for the caller, which stops between two steps.
        setpgid(0, 0);
        if (dup2(in.get(), 0) < 0 || dup2(out.get(), 1) < 0 || dup2(err.get(), 2) < 0) {
            _exit(126);
        }
        execve(program.c_str(), argv.data(), environment);
        _exit(127);
    }
    const std::string failure = waitForSuccess(child, arguments[0]);
    if (!failure.empty()) {
        throw std::runtime_error("Command: " + joined(arguments) + " failed (" + failure +
                                 "): " + contents(err));
    }
    return contents(out);
}

} // namespace Sandbox
