// velmora-target as a child process, as a user runs it: started with the
// caller's options, ready once it has said where its first sink listens, and
// ended with SIGTERM. Linux only, like the program.
#pragma once

#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

class TargetProcess {
  public:
    // The options that put every port of the target where the system
    // chooses, so that tests need no lock on the fixed ones.
    static std::vector<std::string> anyPorts() {
        return {"--control-port", "0", "--registration-port", "0", "--log-port", "0", "--syslog-port", "0"};
    }

    // With `withLog` its log (on stderr) lands in `printed` too.
    TargetProcess(const std::string& tool, std::vector<std::string> options, bool withLog = false) {
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
        if (pid < 0) {
            close(out[0]);
            return;
        }
        output = fdopen(out[0], "r");
        readUntilSink();
    }
    ~TargetProcess() { stop(); }
    TargetProcess(const TargetProcess&) = delete;
    TargetProcess& operator=(const TargetProcess&) = delete;

    // The first sink's port; 0 if the program ended or said nothing of it.
    std::uint16_t sinkPort = 0;
    std::uint16_t controlPort = 0;
    bool ready() const { return sinkPort != 0; }

    // Ends the program and returns its exit status (-1 if it never ran);
    // what it printed from the start on is in `printed`.
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

    std::string printed;

  private:
    void readUntilSink() {
        char line[512];
        while (output != nullptr && fgets(line, sizeof line, output) != nullptr) {
            printed += line;
            unsigned port = 0, second = 0;
            if (std::sscanf(line, "velmora-target: control port %u, registration port %u", &port, &second) ==
                2) {
                controlPort = std::uint16_t(port);
            } else if (std::sscanf(line, "sink %*u: port %u", &port) == 1) {
                sinkPort = std::uint16_t(port);
                return;
            }
        }
    }

    pid_t pid = -1;
    FILE* output = nullptr;
    int exitStatus = -1;
};
