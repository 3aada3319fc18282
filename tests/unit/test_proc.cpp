// Tests of the process runner with real children: sh, printf, sleep and the print_args helper.
#include "lib/proc.h"
#include "lib/proc_internal.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Words = std::vector<std::string>;

long ms_since(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// Everything left on the child's output pipe, up to its end.
std::string read_rest(ktprocess *p) {
    std::string text;
    for (int c; (c = std::fgetc(p->out)) != EOF;)
        text += static_cast<char>(c);
    return text;
}

// Waits for the child to end, reaps it through proc_wait_exittm, frees the record and returns
// the reported status. Waiting first without reaping spares each test the 100 ms polling steps.
int finish(ktprocess *p) {
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(p->pid), &info, WEXITED | WNOWAIT);
    unsigned int limit = 0;
    int status = -1;
    if (proc_wait_exittm(p, 0, &limit, &status) != p->pid) {
        kill(p->pid, SIGKILL);
        waitpid(p->pid, nullptr, 0);
        ADD_FAILURE() << "child " << p->pid << " did not end";
    }
    proc_free_ktprocess(p);
    return status;
}

// Kills and reaps a child the test left running on purpose.
void kill_and_reap(ktprocess *p) {
    kill(p->pid, SIGKILL);
    waitpid(p->pid, nullptr, 0);
    proc_free_ktprocess(p);
}

Words split(std::string text) {
    Words words;
    char **argv = proc_split_words(text.data());
    if (argv == nullptr) {
        ADD_FAILURE() << "out of memory";
        return words;
    }
    for (char **w = argv; *w != nullptr; ++w)
        words.emplace_back(*w);
    std::free(argv);
    return words;
}

// The arguments print_args received when started with this text after its name.
Words args_after_exec(const std::string &text) {
    ktprocess *p = proc_create(PROC_STDOUT_PIPE, "%s %s", PRINT_ARGS, text.c_str());
    if (p == nullptr) {
        ADD_FAILURE() << "proc_create failed";
        return {};
    }
    std::string out = read_rest(p);
    EXPECT_EQ(finish(p), 0);
    Words words;
    for (size_t start = 0, nl; (nl = out.find('\n', start)) != std::string::npos; start = nl + 1)
        words.push_back(out.substr(start, nl - start));
    return words;
}

struct ProcTest : ::testing::Test {
    void TearDown() override {
        errno = 0;
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left behind";
        EXPECT_EQ(errno, ECHILD);
    }
};

struct SplitCase {
    const char *text;
    Words words;
};

const SplitCase split_cases[] = {
    {"prog 'a b' c", {"prog", "a b", "c"}},
    {"prog a\\ b", {"prog", "a\\", "b"}},
    {"  a \n\n  b  \n", {"a", "b"}},
    {"a\tb c", {"a\tb", "c"}},
    {"\"x\ny\" z", {"x\ny", "z"}},
    {"'a b'c d", {"a b", "d"}},
    {"'a''b'", {"a", "b'"}},
    {"xy'a b' z", {"y'a b", "z"}},
    {"'' a \"\"", {"a"}},
    {"it's", {"it's"}},
    {"'a\\'b' c", {"a\\'b", "c"}},
    {"\"a 'b\" c'", {"a 'b", "c'"}},
    {"say 'x'", {"say", "x"}},
    {"", {}},
    {" \n ", {}},
};

TEST(SplitWords, FollowsTheSplittingRules) {
    for (const SplitCase &c : split_cases)
        EXPECT_EQ(split(c.text), c.words) << "text: " << c.text;
}

TEST(SplitWords, VectorGrowsPastEveryDoubling) {
    for (int n = 1; n <= 40; ++n) {
        std::string text;
        Words expected;
        for (int i = 0; i < n; ++i) {
            expected.push_back("w" + std::to_string(i));
            text += expected.back() + " ";
        }
        EXPECT_EQ(split(text), expected) << n << " words";
    }
}

TEST_F(ProcTest, ExecSeesTheSplitWords) {
    for (const SplitCase &c : split_cases) {
        // The printer's one-line-per-argument output cannot show a line feed inside a word.
        if (std::strchr(c.text, '\n') != nullptr || c.words.empty())
            continue;
        EXPECT_EQ(args_after_exec(c.text), c.words) << "text: " << c.text;
    }
}

TEST_F(ProcTest, CommandLineIsFormattedInFull) {
    // "printf " is 7 characters: lines just under, at and over the first 32-byte buffer, and
    // much longer ones.
    for (size_t total : {31u, 32u, 33u, 200u, 5000u}) {
        std::string word(total - 7, 'x');
        ktprocess *p = proc_create(PROC_STDOUT_PIPE, "printf %s", word.c_str());
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(read_rest(p), word) << total << " characters";
        EXPECT_EQ(finish(p), 0);
    }
    ktprocess *p = proc_create(PROC_STDOUT_PIPE, "printf %s-%d", "a", 42);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(read_rest(p), "a-42");
    EXPECT_EQ(finish(p), 0);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
TEST_F(ProcTest, RefusedBeforeAnythingIsFormattedOrStarted) {
    // Formatting this argument would crash, so a refusal must come first.
    const char *unreadable = reinterpret_cast<const char *>(std::uintptr_t{1});
    for (int flags : {0x11, 0x13, 0x51})
        EXPECT_EQ(proc_create(flags, "%s", unreadable), nullptr) << "flags " << flags;
    const char *no_format = nullptr;
    EXPECT_EQ(proc_create(0, no_format), nullptr);
    // TearDown checks that no child was started.
}
#pragma GCC diagnostic pop

TEST_F(ProcTest, PipesAndTheirBlockingModes) {
    struct Case {
        int flags;
        bool in, out, in_nonblocking;
    };
    for (Case c : {Case{0x00, false, false, false}, Case{0x50, false, false, false},
                   Case{0x01, false, true, false}, Case{0x02, true, false, false},
                   Case{0x03, true, true, true}}) {
        ktprocess *p = proc_create(c.flags, "sleep 0");
        ASSERT_NE(p, nullptr) << "flags " << c.flags;
        EXPECT_GT(p->pid, 0);
        EXPECT_EQ(p->in != nullptr, c.in) << "flags " << c.flags;
        EXPECT_EQ(p->out != nullptr, c.out) << "flags " << c.flags;
        if (p->in != nullptr) {
            EXPECT_EQ((fcntl(fileno(p->in), F_GETFL) & O_NONBLOCK) != 0, c.in_nonblocking)
                << "flags " << c.flags;
        }
        if (p->out != nullptr) {
            EXPECT_EQ(fcntl(fileno(p->out), F_GETFL) & O_NONBLOCK, 0) << "the read end blocks";
        }
        EXPECT_EQ(finish(p), 0);
    }
}

TEST_F(ProcTest, BothPipeFlagsShareOnePipe) {
    ktprocess *p = proc_create(PROC_STDOUT_PIPE | PROC_STDIN_PIPE, "sleep 0");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(proc_write_stdin(p, "%s\n", "loop"), 5);
    char buf[16];
    EXPECT_EQ(proc_readd_stdout(p, buf, sizeof buf, "\n"), 4);
    EXPECT_STREQ(buf, "loop");
    EXPECT_EQ(finish(p), 0);
}

TEST_F(ProcTest, StandardInputPipe) {
    for (const char *line : {"hello", "other"}) {
        ktprocess *p = proc_create(PROC_STDIN_PIPE, "sh -c 'read line; test \"$line\" = hello'");
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(proc_write_stdin(p, "%s\n", line), 6);
        EXPECT_EQ(finish(p), std::strcmp(line, "hello") == 0 ? 0 : 1) << line;
    }
    ktprocess *p = proc_create(0, "true");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(proc_write_stdin(p, "x"), -1) << "no input pipe";
    EXPECT_EQ(finish(p), 0);
    EXPECT_EQ(proc_write_stdin(nullptr, "x"), -1);
}

// What the child wrote to descriptor `target` (1 or 2), which it inherits from us unless a
// flag sends it to /dev/null.
std::string inherited_output(int flags, int target, const char *command) {
    int capture[2];
    if (pipe(capture) != 0)
        return "(pipe failed)";
    std::fflush(nullptr);
    int saved = dup(target);
    dup2(capture[1], target);
    close(capture[1]);
    ktprocess *p = proc_create(flags, "%s", command);
    dup2(saved, target);
    close(saved);
    if (p == nullptr) {
        close(capture[0]);
        return "(proc_create failed)";
    }
    EXPECT_EQ(finish(p), 0);
    std::string text;
    char c;
    while (read(capture[0], &c, 1) == 1)
        text += c;
    close(capture[0]);
    return text;
}

TEST_F(ProcTest, NullDeviceFlags) {
    const char *to_err = "sh -c 'printf err >&2'";
    EXPECT_EQ(inherited_output(0, STDOUT_FILENO, "printf out"), "out");
    EXPECT_EQ(inherited_output(PROC_STDOUT_NULL, STDOUT_FILENO, "printf out"), "");
    EXPECT_EQ(inherited_output(PROC_STDOUT_NULL, STDERR_FILENO, to_err), "err");
    EXPECT_EQ(inherited_output(0, STDERR_FILENO, to_err), "err");
    EXPECT_EQ(inherited_output(PROC_STDERR_NULL, STDERR_FILENO, to_err), "");
}

TEST_F(ProcTest, ExitStatusReported) {
    struct Case {
        const char *command;
        int status;
    };
    for (Case c : {Case{"true", 0}, Case{"sh -c 'exit 3'", 3}, Case{"/nonexistent/program", 255},
                   Case{"", 255}, Case{" \n ", 255}}) {
        ktprocess *p = proc_create(PROC_STDERR_NULL, "%s", c.command);
        ASSERT_NE(p, nullptr) << c.command;
        EXPECT_EQ(finish(p), c.status) << "command: '" << c.command << "'";
    }
}

TEST_F(ProcTest, SignalDeathReportsRawStatus) {
    for (int sig : {SIGKILL, SIGTERM}) {
        ktprocess *p = proc_create(0, "sleep 30");
        ASSERT_NE(p, nullptr);
        kill(p->pid, sig);
        unsigned int limit = 10000;
        int status = -1;
        EXPECT_EQ(proc_wait_exittm(p, 0, &limit, &status), p->pid);
        EXPECT_EQ(status, sig) << "raw wait status of a signal death";
        proc_free_ktprocess(p);
    }
}

TEST_F(ProcTest, WaitOptionsArePassedOn) {
    ktprocess *p = proc_create(0, "sh -c 'kill -STOP $$'");
    ASSERT_NE(p, nullptr);
    unsigned int limit = 10000;
    int status = 0;
    EXPECT_EQ(proc_wait_exittm(p, WUNTRACED, &limit, &status), p->pid);
    EXPECT_TRUE(WIFSTOPPED(status)) << status;
    EXPECT_EQ(WSTOPSIG(status), SIGSTOP);
    kill_and_reap(p);
}

TEST_F(ProcTest, ChildAlreadyEndedIsReapedWithoutSleeping) {
    ktprocess *p = proc_create(0, "true");
    ASSERT_NE(p, nullptr);
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(p->pid), &info, WEXITED | WNOWAIT), 0);
    unsigned int limit = 5000;
    auto start = Clock::now();
    EXPECT_EQ(proc_wait_exittm(p, 0, &limit, nullptr), p->pid);
    EXPECT_LT(ms_since(start), 100);
    EXPECT_EQ(limit, 0u);
    proc_free_ktprocess(p);
}

TEST_F(ProcTest, RunningChildOutlastsTheLimit) {
    struct Case {
        unsigned int limit, elapsed;
    };
    for (Case c : {Case{0, 0}, Case{50, 0}, Case{99, 0}, Case{100, 100}, Case{250, 200}}) {
        ktprocess *p = proc_create(0, "sleep 30");
        ASSERT_NE(p, nullptr);
        unsigned int value = c.limit;
        int status = 12345;
        auto start = Clock::now();
        EXPECT_EQ(proc_wait_exittm(p, 0, &value, &status), 0) << "limit " << c.limit;
        long wall = ms_since(start);
        EXPECT_EQ(value, c.elapsed) << "limit " << c.limit;
        EXPECT_EQ(status, 12345) << "untouched while running";
        // The remainder is slept even though it is not counted.
        EXPECT_GE(wall, static_cast<long>(c.limit));
        EXPECT_LT(wall, static_cast<long>(c.limit) + 3000);
        EXPECT_EQ(waitpid(p->pid, nullptr, WNOHANG), 0) << "still running, not signalled";
        kill_and_reap(p);
    }
}

TEST_F(ProcTest, ElapsedCountsCompletedSleeps) {
    ktprocess *p = proc_create(0, "sleep 0.3");
    ASSERT_NE(p, nullptr);
    unsigned int value = 5000;
    auto start = Clock::now();
    EXPECT_EQ(proc_wait_exittm(p, 0, &value, nullptr), p->pid);
    long wall = ms_since(start);
    EXPECT_EQ(value % 100, 0u);
    EXPECT_GE(value, 200u);
    EXPECT_LE(static_cast<long>(value), wall);
    EXPECT_LT(value, 5000u);
    proc_free_ktprocess(p);
}

TEST_F(ProcTest, WaitWithoutLimitOrRecord) {
    ktprocess *p = proc_create(0, "sh -c 'sleep 0.2; exit 7'");
    ASSERT_NE(p, nullptr);
    int status = 0;
    EXPECT_EQ(proc_wait_exittm(p, 0, nullptr, &status), p->pid);
    EXPECT_EQ(status, 7);
    proc_free_ktprocess(p);
    unsigned int limit = 100;
    EXPECT_EQ(proc_wait_exittm(nullptr, 0, &limit, &status), -1);
    EXPECT_EQ(proc_free_ktprocess(nullptr), 0);
}

TEST_F(ProcTest, DelimitedReads) {
    struct Read {
        int32_t size;
        const char *delims;
        int result;
        std::string text;
    };
    struct Case {
        const char *command;
        std::vector<Read> reads;
    };
    const std::string none;
    const Case cases[] = {
        // A full buffer gets no terminator; the next read finds the rest and eats the delimiter.
        {"printf abcdef\\n", {{4, "\n", 4, "abcd"}, {4, "\n", 2, "ef"}, {4, "\n", -1, none}}},
        {"printf abc", {{16, "\n", 3, "abc"}, {16, "\n", -1, none}}},
        {"printf ab\\0cd", {{16, "", 2, "ab"}, {16, "", 2, "cd"}, {16, "", -1, none}}},
        {"printf a,b;c", {{16, ",;", 1, "a"}, {16, ",;", 1, "b"}, {16, ",;", 1, "c"}}},
        {"printf x\\n\\ny", {{16, "\n", 1, "x"}, {16, "\n", 0, ""}, {16, "\n", 1, "y"}}},
        {"printf a\\nb", {{16, "", 3, "a\nb"}}},
    };
    for (const Case &c : cases) {
        ktprocess *p = proc_create(PROC_STDOUT_PIPE, "%s", c.command);
        ASSERT_NE(p, nullptr);
        for (const Read &r : c.reads) {
            char buf[17];
            std::memset(buf, '#', sizeof buf);
            EXPECT_EQ(proc_readd_stdout(p, buf, r.size, r.delims), r.result) << c.command;
            if (r.result < 0)
                continue;
            EXPECT_EQ(std::string(buf, static_cast<size_t>(r.result)), r.text) << c.command;
            EXPECT_EQ(buf[r.result], r.result == r.size ? '#' : '\0') << c.command;
        }
        EXPECT_EQ(finish(p), 0);
    }
}

TEST_F(ProcTest, ReadersRefuseBadArguments) {
    ktprocess *p = proc_create(PROC_STDOUT_PIPE, "printf x");
    ASSERT_NE(p, nullptr);
    char buf[8];
    EXPECT_EQ(proc_readd_stdout(nullptr, buf, 8, "\n"), -1);
    EXPECT_EQ(proc_readd_stdout(p, nullptr, 8, "\n"), -1);
    EXPECT_EQ(proc_readd_stdout(p, buf, 8, nullptr), -1);
    EXPECT_EQ(proc_readd_stdout(p, buf, 0, "\n"), -1);
    EXPECT_EQ(proc_readd_stdout(p, buf, -1, "\n"), -1);
    EXPECT_EQ(proc_readd_stdout_tm(nullptr, buf, 8, nullptr, nullptr), -1);
    EXPECT_EQ(proc_readd_stdout_tm(p, nullptr, 8, nullptr, nullptr), -1);
    EXPECT_EQ(proc_readd_stdout_tm(p, buf, 0, nullptr, nullptr), -1);
    EXPECT_EQ(proc_readd_stdout(p, buf, 8, "\n"), 1) << "nothing consumed by the refusals";
    EXPECT_EQ(finish(p), 0);

    ktprocess *no_out = proc_create(0, "true");
    ASSERT_NE(no_out, nullptr);
    EXPECT_EQ(proc_readd_stdout(no_out, buf, 8, "\n"), -1);
    EXPECT_EQ(proc_readd_stdout_tm(no_out, buf, 8, nullptr, nullptr), -1);
    EXPECT_EQ(finish(no_out), 0);
}

TEST(ReadLimit, WholeLimitAlsoInMicroseconds) {
    struct Case {
        unsigned int ms;
        long sec, usec;
    };
    for (Case c :
         {Case{0, 0, 0}, Case{999, 0, 999000}, Case{1500, 1, 1500000}, Case{2000, 2, 2000000}}) {
        timeval limit = proc_read_limit(c.ms);
        EXPECT_EQ(limit.tv_sec, c.sec) << c.ms;
        EXPECT_EQ(limit.tv_usec, c.usec) << c.ms;
    }
}

TEST_F(ProcTest, TimedReadTimesOut) {
    ktprocess *p = proc_create(PROC_STDOUT_PIPE, "sleep 30");
    ASSERT_NE(p, nullptr);
    char buf[8];
    unsigned int limit = 1100;
    auto start = Clock::now();
    EXPECT_EQ(proc_readd_stdout_tm(p, buf, sizeof buf, "\n", &limit), 0);
    long wall = ms_since(start);
    // 1 s plus the whole 1.1 s again in the microseconds field.
    EXPECT_GE(wall, 2000);
    EXPECT_LT(wall, 6000);
    kill_and_reap(p);
}

TEST_F(ProcTest, TimedReads) {
    ktprocess *p = proc_create(PROC_STDOUT_PIPE, "printf l1\\nl2\\nabcdef");
    ASSERT_NE(p, nullptr);
    char buf[16];
    unsigned int limit = 5000;
    EXPECT_EQ(proc_readd_stdout_tm(p, buf, sizeof buf, "\n", &limit), 2);
    EXPECT_STREQ(buf, "l1");
    EXPECT_EQ(proc_readd_stdout_tm(p, buf, sizeof buf, "\n", nullptr), 2);
    EXPECT_STREQ(buf, "l2");
    // Without delimiters: one block, not terminated.
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(proc_readd_stdout_tm(p, buf, 4, nullptr, nullptr), 4);
    EXPECT_EQ(std::string(buf, 5), "abcd#");
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(proc_readd_stdout_tm(p, buf, sizeof buf, nullptr, nullptr), 2);
    EXPECT_EQ(std::string(buf, 3), "ef#");
    EXPECT_EQ(proc_readd_stdout_tm(p, buf, sizeof buf, nullptr, nullptr), -1) << "end of output";
    EXPECT_EQ(finish(p), 0);

    p = proc_create(PROC_STDOUT_PIPE, "printf hello");
    ASSERT_NE(p, nullptr);
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(proc_readd_stdout_tm(p, buf, sizeof buf, nullptr, &limit), 5);
    EXPECT_EQ(std::string(buf, 6), "hello#");
    EXPECT_EQ(finish(p), 0);
}

} // namespace
