// The obd-sim command line as tests and field engineers use it.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fstream>
#include <sstream>

#include "HostTestUtil.h"

extern char** environ;

namespace {

using hosttest::WaitUntil;

struct RunResult {
    int exitCode = -1;
    std::string out;
    std::string err;
    double realSeconds = 0;
};

std::string Slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::stringstream s(text);
    std::string line;
    while (std::getline(s, line)) lines.push_back(line);
    return lines;
}

class RunnerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/obdsimXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
    }
    void TearDown() override {
        for (const char* f : {"/out", "/err", "/in"}) unlink((dir + f).c_str());
        rmdir(dir.c_str());
    }

    // Starts obd-sim with `args`; stdin from `input` (empty: /dev/null).
    pid_t Spawn(const std::vector<std::string>& args, const std::string& input = "") {
        std::ofstream(dir + "/in") << input;
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 0, (dir + "/in").c_str(), O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&fa, 1, (dir + "/out").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&fa, 2, (dir + "/err").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        std::vector<std::string> all = {OBD_SIM};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& a : all) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        pid_t pid = -1;
        EXPECT_EQ(posix_spawn(&pid, OBD_SIM, &fa, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&fa);
        return pid;
    }

    RunResult Finish(pid_t pid, std::chrono::steady_clock::time_point start) {
        RunResult r;
        int status = 0;
        // A hung runner must fail the test, not hang it.
        const bool ended = WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 8000);
        if (!ended) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
        r.exitCode = ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        r.realSeconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        r.out = Slurp(dir + "/out");
        r.err = Slurp(dir + "/err");
        return r;
    }

    RunResult Execute(const std::vector<std::string>& args, const std::string& input = "") {
        const auto start = std::chrono::steady_clock::now();
        return Finish(Spawn(args, input), start);
    }

    std::string dir;
};

const std::string kTestPlugin = HOST_TEST_PLUGIN;

TEST_F(RunnerTest, MissingTtyGivesOneLineAndFailure) {
    const RunResult r = Execute({"--serial", "/nonexistent"});
    EXPECT_NE(r.exitCode, 0);
    ASSERT_EQ(Lines(r.err).size(), 1u) << r.err;
    EXPECT_NE(r.err.find("/nonexistent"), std::string::npos);
    EXPECT_EQ(r.out, "");
}

TEST_F(RunnerTest, BadArgumentsGiveOneLineAndFailure) {
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--baud", "1234"}, {"--time-scale", "0"}, {"--duration", "-1"}, {"--frobnicate"}}) {
        const RunResult r = Execute(args);
        EXPECT_NE(r.exitCode, 0) << args[0];
        EXPECT_EQ(Lines(r.err).size(), 1u) << r.err;
    }
}

TEST_F(RunnerTest, RealPluginRunsForItsHostDurationAndExitsCleanly) {
    const RunResult r = Execute({"--duration", "3", "--time-scale", "20"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_LT(r.realSeconds, 2.0);  // 3 host seconds at 20x
    EXPECT_NE(r.err.find("is destruct"), std::string::npos) << r.err;
}

TEST_F(RunnerTest, JsonReportsBusAndWireAndInjectsAtHostTimes) {
    const std::string script =
        "# inbound messages\n"
        "@200 100 616263\n"
        "@x 100\n"
        "\n"
        "100 0a0B\n";
    std::ofstream(dir + "/script") << script;
    const RunResult r = Execute({"--plugin", kTestPlugin, "--json", "--duration", "4",
                                 "--time-scale", "20", "--inject", dir + "/script"});
    unlink((dir + "/script").c_str());
    EXPECT_EQ(r.exitCode, 0) << r.err;
    const auto out = Lines(r.out);
    // Only JSON on stdout, one object a line, keys in the documented order.
    for (const auto& line : out) EXPECT_EQ(line.rfind("{\"t_ms\":", 0), 0u) << line;
    bool init = false, wire = false, early = false, timed = false;
    for (const auto& line : out) {
        if (line.find("\"kind\":\"send\",\"id\":500,\"len\":4,\"hex\":\"696e6974\"}") !=
            std::string::npos)
            init = true;
        if (line.find("\"kind\":\"wire\",\"dir\":\"to_box\",\"hex\":\"48454c4c4f\"}") !=
            std::string::npos)
            wire = true;
        if (line.find("\"kind\":\"response\",\"id\":100,\"len\":2,\"hex\":\"0b0a\"}") !=
            std::string::npos)
            early = true;
        if (line.find("\"kind\":\"response\",\"id\":100,\"len\":3,\"hex\":\"636261\"}") !=
            std::string::npos) {
            timed = true;
            EXPECT_GE(std::stoll(line.substr(8)), 200) << line;
        }
    }
    EXPECT_TRUE(init) << r.out;
    EXPECT_TRUE(wire) << r.out;
    EXPECT_TRUE(timed) << r.out;
    // Lines run in order: the untimed line waits behind the timed one before it.
    EXPECT_TRUE(early) << r.out;
    EXPECT_NE(r.err.find("inject line 3"), std::string::npos) << r.err;
}

TEST_F(RunnerTest, ConversesOverStdinAndStopsCleanlyOnSigterm) {
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = Spawn({"--plugin", kTestPlugin, "--inject", "-"}, "100 0102\n100 zz\n");
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(
        WaitUntil([&] { return Slurp(dir + "/out").find("response") != std::string::npos; }, 3000));
    kill(pid, SIGTERM);
    const RunResult r = Finish(pid, start);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.out.find("response id=100 len=2 02 01"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("wire to_box 48 45 4c 4c 4f"), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("inject line 2: bad hex payload"), std::string::npos) << r.err;
}

}  // namespace
