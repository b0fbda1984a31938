#include "tests/capture/ToolRun.h"

#include "sandbox/SimulatedDevice.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

ToolRun ToolRun::shell(const std::string& command)
{
    ToolRun run;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        throw std::runtime_error("popen " + command);
    }
    char buffer[4096];
    for (size_t length; (length = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
        run.output.append(buffer, length);
    }
    const int raw = pclose(pipe);
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return run;
}

BackgroundTool::BackgroundTool(const std::vector<std::string>& arguments,
                               const std::vector<std::string>& environment,
                               const std::string& outputPath)
    : outputFile(outputPath)
{
    std::vector<char*> argv;
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<char*> envp(environment.size());
    for (size_t index = 0; index < environment.size(); ++index) {
        envp[index] = const_cast<char*>(environment[index].c_str());
    }
    for (char** entry = environ; *entry != nullptr; ++entry) {
        envp.push_back(*entry);
    }
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    const int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::runtime_error("posix_spawn " + arguments[0]);
    }
}

BackgroundTool::~BackgroundTool()
{
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

void BackgroundTool::signal(int number) const
{
    kill(pid, number);
}

std::string BackgroundTool::output() const
{
    std::ostringstream text;
    text << std::ifstream(outputFile).rdbuf();
    return text.str();
}

bool BackgroundTool::waitForOutput(const std::string& text, int timeoutMs) const
{
    return Sandbox::SimulatedDevice::waitUntil(
        [&] { return output().find(text) != std::string::npos; }, timeoutMs);
}

int BackgroundTool::waitExit(int timeoutMs)
{
    int raw = 0;
    const bool ended = Sandbox::SimulatedDevice::waitUntil(
        [&] { return waitpid(pid, &raw, WNOHANG) == pid; }, timeoutMs);
    if (!ended) {
        return -1;
    }
    pid = -1;
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
}
