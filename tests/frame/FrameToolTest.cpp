// obd-frame as a program, fed through a pipe: the same output as from the file, and memory that
// does not grow with the input.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

extern char** environ;

namespace {

struct Ran {
    int code = -1;
    long maxRssKb = 0;
};

// Runs obd-frame with `args`, its stdout to `out`, writing its input through a pipe with `feed`
// (which gets the write end).
Ran RunPiped(const std::string& args, const std::string& out,
             const std::function<void(int fd)>& feed) {
    signal(SIGPIPE, SIG_IGN);  // a dead child shows in its exit code, not as our death
    int fds[2];
    if (pipe(fds) != 0) return {};
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, fds[0], 0);
    posix_spawn_file_actions_addclose(&fa, fds[0]);
    posix_spawn_file_actions_addclose(&fa, fds[1]);
    posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const std::string line = "exec " OBD_FRAME_LAUNCHER " " OBD_FRAME " " + args;
    const char* argv[] = {"sh", "-c", line.c_str(), nullptr};
    pid_t pid = -1;
    const int spawned =
        posix_spawn(&pid, "/bin/sh", &fa, nullptr, const_cast<char**>(argv), environ);
    posix_spawn_file_actions_destroy(&fa);
    close(fds[0]);
    if (spawned != 0) {
        close(fds[1]);
        return {};
    }
    feed(fds[1]);
    close(fds[1]);
    int status = 0;
    rusage ru{};
    Ran r;
    if (wait4(pid, &status, 0, &ru) != pid) return r;
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.maxRssKb = ru.ru_maxrss;
    return r;
}

void WriteAll(int fd, const char* p, size_t n) {
    while (n > 0) {
        const ssize_t w = write(fd, p, n);
        if (w <= 0) return;
        p += w;
        n -= static_cast<size_t>(w);
    }
}

std::string Slurp(const std::string& path) {
    std::stringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

uint32_t Next(uint32_t& x) {  // xorshift: the same bytes on every run
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    return x;
}

class FrameTool : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(mkdtemp(&dir[0]), nullptr); }
    void TearDown() override { std::system(("rm -rf " + dir).c_str()); }
    std::string dir = "/tmp/obdframetoolXXXXXX";
};

TEST_F(FrameTool, PipeInSmallRandomWritesGivesTheFilesOutput) {
    const std::string data = OBD_FRAME_DATA_DIR;
    for (const char* c : {"builtin-box.log", "serial-escape-garbage.log --json --bytes",
                          "serial-escape-garbage.log --source frame", "builtin-box.log --bin"}) {
        const std::string args = c;
        const std::string file = data + "/" + args.substr(0, args.find(' '));
        const std::string opts =
            args.find(' ') == std::string::npos ? "" : args.substr(args.find(' '));
        const Ran whole = RunPiped(file + opts, dir + "/whole", [](int) {});
        ASSERT_EQ(whole.code, 0) << args;
        const std::string content = Slurp(file);
        uint32_t x = 12345;
        const Ran piped = RunPiped(opts, dir + "/piped", [&](int fd) {
            for (size_t at = 0; at < content.size();) {
                const size_t n = std::min<size_t>(1 + Next(x) % 97, content.size() - at);
                WriteAll(fd, content.data() + at, n);
                at += n;
            }
        });
        ASSERT_EQ(piped.code, 0) << args;
        const std::string expected = Slurp(dir + "/whole");
        EXPECT_GT(expected.size(), 200u) << args;
        EXPECT_EQ(Slurp(dir + "/piped"), expected) << args;
    }
}

TEST_F(FrameTool, MemoryDoesNotGrowWithTheInput) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's own memory hides the program's";
#endif
    if (std::string(OBD_FRAME_LAUNCHER).size() > 1)
        GTEST_SKIP() << "the emulator's memory hides the program's";
    // Runs of random bytes (a line far too long, garbage with no head) between runs of newlines
    // (millions of empty lines), as text and as binary.
    std::string block(1 << 20, '\n');
    uint32_t x = 99;
    for (size_t i = 0; i < block.size() / 2; ++i) block[i] = static_cast<char>(Next(x));
    for (const char* opts : {"--format log", "--bin"}) {
        long peak[2] = {0, 0};
        for (int big = 0; big < 2; ++big) {
            const int megabytes = big ? 64 : 4;
            const Ran r = RunPiped(opts, "/dev/null", [&](int fd) {
                for (int m = 0; m < megabytes; ++m) WriteAll(fd, block.data(), block.size());
            });
            ASSERT_EQ(r.code, 0) << opts;
            peak[big] = r.maxRssKb;
        }
        std::printf("%s: peak %ld kB for 4 MB, %ld kB for 64 MB\n", opts, peak[0], peak[1]);
        EXPECT_LT(peak[1], 100 * 1024) << opts;
        EXPECT_LT(peak[1] - peak[0], 4 * 1024) << opts;
    }
}

}  // namespace
