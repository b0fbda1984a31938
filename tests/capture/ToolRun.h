// The field tools run as a user runs them: a shell command line to its end,
// or a program in the background with its output in a file, for signals.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

struct ToolRun {
    int status = -1;
    std::string output; // stdout and stderr

    static ToolRun shell(const std::string& command);
};

class BackgroundTool {
public:
    // Starts arguments[0] with the environment entries added to this one's.
    BackgroundTool(const std::vector<std::string>& arguments,
                   const std::vector<std::string>& environment, const std::string& outputPath);
    ~BackgroundTool(); // SIGKILL when still running

    BackgroundTool(const BackgroundTool&) = delete;
    BackgroundTool& operator=(const BackgroundTool&) = delete;

    void signal(int number) const;
    // Until the output holds the text; false at the deadline.
    bool waitForOutput(const std::string& text, int timeoutMs) const;
    // The exit status, 128 + signal, or -1 at the deadline.
    int waitExit(int timeoutMs);
    std::string output() const;

private:
    pid_t pid = -1;
    std::string outputFile;
};
