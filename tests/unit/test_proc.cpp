// Tests of the process runner with real children: splitting, waiting, statuses and reading.
#include "lib/proc.h"
#include "lib/proc_internal.h"
#include "tests/helpers/scratch.h"

using namespace std::chrono_literals;
using namespace std::string_literals;

// The status that a wait without a limit reaps, polling to the child's end; the record freed.
int finish(ktprocess *p) {
    int status = -1;
    EXPECT_EQ(proc_wait_exittm(p, 0, nullptr, &status), p->pid);
    EXPECT_EQ(proc_free_ktprocess(p), 0);
    return status;
}

TEST(Proc, CommandLineSplittingThroughExecAndBlockReads) {
    // A quote pairs with the next unescaped twin, ending the word; opened mid-word it drops a byte.
    const std::string x200(200, 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"prog a\\ b", "prog|a\\|b|"}, {" a\tb \n\n c \n", "a\tb|c|"},
        {"'a b'c d 'e'", "a b|d|e|"},  {"xy'a b' z", "y'a b|z|"},
        {"'' a \"\"", "a|"},           {"'a\\'b' c", "a\\'b|c|"},
        {"\"a 'b\" c'", "a 'b|c'|"},   {x200, x200 + "|"}};
    for (const auto &[text, lines] : cases) {
        // printf prints each argument on a line: the host's, which runs in the cross build too.
        ktprocess *p = proc_create(PROC_STDOUT_PIPE, "printf %%s\\n %s", text.c_str());
        std::string buf(256, '#');
        int n = proc_readd_stdout_tm(p, buf.data(), 1, nullptr, nullptr);
        n += proc_readd_stdout_tm(p, buf.data() + 1, 254, nullptr, nullptr);
        std::replace(buf.begin(), buf.end(), '\n', '|');
        EXPECT_EQ(buf.substr(0, n > 0 ? n + 1 : 0), lines + "#") << text;
        EXPECT_TRUE(proc_readd_stdout_tm(p, buf.data(), 4, nullptr, nullptr) == -1 && !finish(p));
    }
}

TEST(Proc, RefusalsInputAndExitStatuses) {
    // Bad flags are refused before formatting (`bad` would crash); children report by exit code.
    const char *bad = reinterpret_cast<const char *>(1);
    EXPECT_TRUE(!proc_create(PROC_STDOUT_PIPE | PROC_STDOUT_NULL, "%s", bad) &&
                !proc_create(0, nullptr) && proc_wait_exittm(nullptr, 0, nullptr, nullptr) == -1 &&
                proc_free_ktprocess(nullptr) == 0 && proc_write_stdin(nullptr, "x") == -1 &&
                !proc_split_words(nullptr));
    const std::tuple<int, const char *, int> cases[] = {
        {PROC_STDOUT_NULL, "sh -c 'test \"$(readlink /proc/$$/fd/1)\" = /dev/null'", 0},
        {PROC_STDERR_NULL, "sh -c 'test \"$(readlink /proc/$$/fd/2)\" = /dev/null'", 0},
        {PROC_STDIN_PIPE, "sh -c 'read l; exit ${#l}'", 4},
        {0, "sh -c 'exit 3'", 3},
        {0, "sh -c 'kill -9 $$'", SIGKILL},
        {PROC_STDERR_NULL, "/nonexistent/program", 255},
        {0, "", 255}};
    for (auto [flags, command, status] : cases) {
        ktprocess *p = proc_create(flags, "%s", command);
        EXPECT_EQ(proc_write_stdin(p, "%s\n", "four"), flags == PROC_STDIN_PIPE ? 5 : -1);
        EXPECT_EQ(finish(p), status) << command;
    }
}

TEST(Proc, WaitAndTimedReadKeepTheirLimits) {
    // Counted 100 ms sleeps, an uncounted remainder, no signal; the read then waits what it got.
    ktprocess *p = proc_create(PROC_STDOUT_PIPE, "sleep 30");
    ASSERT_TRUE(p && p->pid > 0) << "kill(0) would signal the whole process group";
    unsigned int value = 250;
    int status = -7; // a child still running has no status to give
    char buf[4];
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(proc_wait_exittm(p, 0, &value, &status) == 0 && value == 200 && status == -7);
    EXPECT_EQ(proc_readd_stdout_tm(p, buf, sizeof buf, "\n", &value), 0);
    // A broken descriptor is a failure, not "nothing yet": the caller would wait on it forever.
    EXPECT_TRUE(close(fileno(p->out)) == 0 && proc_readd_stdout_tm(p, buf, 4, "\n", &value) == -1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 450ms);
    kill(p->pid, SIGTERM);
    EXPECT_EQ(finish(p), SIGTERM) << "the child was left alone";
    p = proc_create(0, "sleep 0.3");
    value = 5000;
    EXPECT_EQ(proc_wait_exittm(p, 0, &value, nullptr), p->pid);
    EXPECT_TRUE(value % 100 == 0 && value >= 200 && value < 5000) << value << " ms slept first";
    proc_free_ktprocess(p);
    // Past 32 bits of microseconds the limit is folded into seconds, to the same wait.
    timeval a = proc_read_limit(1500), b = proc_read_limit(3000500);
    EXPECT_TRUE(a.tv_sec == 1 && a.tv_usec == 1500000 && b.tv_sec == 6000 && b.tv_usec == 500000);
}

TEST(Proc, DelimitedReads) {
    // A full buffer gets no terminator; the next read finds the rest and eats the delimiter.
    const std::tuple<const char *, const char *, std::vector<std::pair<int, std::string>>> cases[] =
        {{"printf abcdef\\n", "\n", {{4, "abcd#"}, {2, "ef\0"s}, {-1, ""}}},
         {"printf a\\nb\\0cd", "", {{3, "a\nb\0"s}, {2, "cd\0"s}, {-1, ""}}},
         {"printf x,y;;z", ",;", {{1, "x\0"s}, {1, "y\0"s}, {0, "\0"s}, {1, "z\0"s}, {-1, ""}}}};
    for (const auto &[command, delims, reads] : cases) {
        ktprocess *p = proc_create(PROC_STDOUT_PIPE, "%s", command);
        char buf[5];
        unsigned int limit = 5000;
        EXPECT_TRUE(proc_readd_stdout(p, buf, 0, delims) == -1 &&
                    proc_readd_stdout_tm(p, buf, 0, nullptr, nullptr) == -1 &&
                    proc_readd_stdout(nullptr, buf, 4, delims) == -1 &&
                    proc_readd_stdout_tm(nullptr, buf, 4, delims, nullptr) == -1);
        for (const auto &[result, text] : reads) {
            std::memset(buf, '#', sizeof buf);
            EXPECT_EQ(proc_readd_stdout_tm(p, buf, 4, delims, &limit), result) << command;
            EXPECT_EQ(std::string(buf, result < 0 ? 0 : result + 1), text) << command;
        }
        EXPECT_EQ(finish(p), 0);
    }
}
