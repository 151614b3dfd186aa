// Programs the simulator's end-to-end tests start: obd-sim, obd-box, the browser.
#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

extern char** environ;

namespace obdsim {

// Starts `cmd` through /bin/sh (which execs it); -1 when it cannot start.
inline pid_t SpawnShell(const std::string& cmd) {
    const std::string line = "exec " + cmd;
    const char* argv[] = {"sh", "-c", line.c_str(), nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
        return -1;
    }
    return pid;
}

// Its exit code; -1 when it did not end by itself within `seconds` (it is killed then).
inline int WaitExit(pid_t pid, int seconds) {
    if (pid < 0) return -1;
    int status = 0;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (waitpid(pid, &status, WNOHANG) != pid) {
        if (std::chrono::steady_clock::now() > limit) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline int RunShell(const std::string& cmd, int seconds = 100) {
    return WaitExit(SpawnShell(cmd), seconds);
}

// A test that runs a program with its files in a fresh directory of its own, removed afterwards.
class RunDirTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(mkdtemp(&dir[0]), nullptr); }
    void TearDown() override { std::system(("rm -rf " + dir).c_str()); }
    // The file `name` ("/out") of the directory, empty when there is none.
    std::string Slurp(const std::string& name) const {
        std::stringstream s;
        s << std::ifstream(dir + name).rdbuf();
        return s.str();
    }
    std::string dir = "/tmp/obdsimXXXXXX";
};

}  // namespace obdsim
