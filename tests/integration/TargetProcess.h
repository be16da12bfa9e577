// The tools as a user runs them, as child processes, and what the programs
// that test them share. Linux only, like the tools.
#pragma once

#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "TempFolder.h"

// A program running on until stop() (SIGTERM); ready once a line of its
// output holds `readyText`. By default velmora-target, ready once it says
// where its first sink listens.
class TargetProcess {
  public:
    // `options` behind every port of the target where the system chooses: no
    // lock on the fixed ones.
    static std::vector<std::string> anyPorts(std::initializer_list<std::string> options) {
        std::vector<std::string> all = {"--control-port", "0", "--registration-port", "0",
                                        "--log-port",     "0", "--syslog-port",       "0"};
        all.insert(all.end(), options);
        return all;
    }

    // With `withLog` its stderr lands in `printed` too.
    TargetProcess(const std::string& tool, std::vector<std::string> options, bool withLog = false,
                  const char* readyText = "sink ") {
        int out[2];
        if (pipe(out) != 0) return;
        options.insert(options.begin(), tool);
        pid = fork();
        if (pid == 0) {
            dup2(out[1], STDOUT_FILENO);
            if (withLog) dup2(out[1], STDERR_FILENO);
            close(out[0]);
            close(out[1]);
            std::vector<char*> argv;
            for (std::string& option : options) argv.push_back(option.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);
        output = pid > 0 ? fdopen(out[0], "r") : (close(out[0]), nullptr);
        char line[512];
        while (output != nullptr && fgets(line, sizeof line, output) != nullptr) {
            printed += line;
            if (std::strstr(line, readyText) == nullptr) continue;
            readyLine = line;
            unsigned port = 0;
            if (std::sscanf(line, "sink %*u: port %u", &port) == 1) sinkPort = std::uint16_t(port);
            break;
        }
    }
    ~TargetProcess() { stop(); }
    TargetProcess(const TargetProcess&) = delete;
    TargetProcess& operator=(const TargetProcess&) = delete;

    std::uint16_t sinkPort = 0;  // the first sink's; 0 if it said nothing of it
    std::string readyLine;
    bool ready() const { return !readyLine.empty(); }
    std::string printed;  // from the start on; all of it after stop()

    // Ends the program; its exit status, -1 if it never ran.
    int stop() {
        if (pid <= 0) return exitStatus;
        kill(pid, SIGTERM);
        char line[512];
        while (output != nullptr && fgets(line, sizeof line, output) != nullptr) printed += line;
        int status = 0;
        waitpid(pid, &status, 0);
        pid = -1;
        if (output != nullptr) fclose(output);
        output = nullptr;
        exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return exitStatus;
    }

  private:
    pid_t pid = -1;
    FILE* output = nullptr;
    int exitStatus = -1;
};

// A test program's arguments behind gtest's, into `values` in order; false,
// with a usage line, if their number differs.
inline bool takeArguments(int argc, char** argv, std::initializer_list<std::string*> values,
                          const char* usage) {
    if (argc != int(values.size()) + 1) {
        std::fprintf(stderr, "usage: %s %s\n", argv[0], usage);
        return false;
    }
    for (std::string* value : values) *value = *++argv;
    return true;
}

// All a file holds; "" if it can't be read.
inline std::string readFile(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// A shell command run to its end: its exit code (-1 if killed) and all it printed.
inline std::pair<int, std::string> runCommand(const std::string& command) {
    FILE* pipe = popen((command + " 2>&1 </dev/null").c_str(), "r");
    std::string printed;
    char buffer[4096];
    std::size_t got = 0;
    while (pipe != nullptr && (got = fread(buffer, 1, sizeof buffer, pipe)) > 0) printed.append(buffer, got);
    int status = pipe != nullptr ? pclose(pipe) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, printed};
}
