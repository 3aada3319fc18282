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
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

long ms_since(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

bool nonblocking(FILE *stream) {
    return (fcntl(fileno(stream), F_GETFL) & O_NONBLOCK) != 0;
}

// Everything left on the child's output pipe, up to its end.
std::string read_rest(ktprocess *p) {
    std::string text;
    for (int c; (c = std::fgetc(p->out)) != EOF;)
        text += static_cast<char>(c);
    return text;
}

// Reaps the child through proc_wait_exittm, frees the record and returns the reported status.
// Waiting first without reaping spares each test the 100 ms polling steps.
int finish(ktprocess *p) {
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(p->pid), &info, WEXITED | WNOWAIT);
    unsigned int limit = 0;
    int status = -1;
    EXPECT_EQ(proc_wait_exittm(p, 0, &limit, &status), p->pid);
    proc_free_ktprocess(p);
    return status;
}

// Kills and reaps a child the test left running on purpose.
void kill_and_reap(ktprocess *p) {
    kill(p->pid, SIGKILL);
    waitpid(p->pid, nullptr, 0);
    proc_free_ktprocess(p);
}

struct ProcTest : ::testing::Test {
    void TearDown() override {
        errno = 0;
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left behind";
        EXPECT_EQ(errno, ECHILD);
    }
};

TEST_F(ProcTest, CommandLineSplitting) {
    struct Case {
        const char *text;
        std::vector<std::string> words;
    };
    const Case cases[] = {
        {"prog 'a b' c", {"prog", "a b", "c"}}, // separators kept inside quotes
        {"prog a\\ b", {"prog", "a\\", "b"}},
        {" a\tb \n\n c \n", {"a\tb", "c"}}, // blank and line feed only, runs collapsed
        {"'a b'c d", {"a b", "d"}},         // the character after a closing quote is lost
        {"say 'x'", {"say", "x"}},          // a closing quote ending the text
        {"xy'a b' z", {"y'a b", "z"}},      // a quote opening mid-word drops the first one
        {"'' a \"\"", {"a"}},               // empty quoted words give nothing
        {"it's", {"it's"}},                 // no partner: an ordinary character
        {"'a\\'b' c", {"a\\'b", "c"}},      // an escaped quote does not close
        {"\"a 'b\" c'", {"a 'b", "c'"}},    // nor one of the other kind
        {"1 2 3 4 5 6 7 8", {"1", "2", "3", "4", "5", "6", "7", "8"}}, // past two doublings
        {" \n ", {}},
    };
    for (const Case &c : cases) {
        std::string text = c.text;
        char **argv = proc_split_words(text.data());
        ASSERT_NE(argv, nullptr);
        std::vector<std::string> words;
        for (char **w = argv; *w != nullptr; ++w)
            words.emplace_back(*w);
        std::free(argv);
        EXPECT_EQ(words, c.words) << "text: " << c.text;

        // The same through a real exec: print_args writes each argument on a line.
        std::string expected;
        for (const std::string &w : c.words)
            expected += w + '\n';
        ktprocess *p = proc_create(PROC_STDOUT_PIPE, "%s %s", PRINT_ARGS, c.text);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(read_rest(p), expected) << "exec of: " << c.text;
        EXPECT_EQ(finish(p), 0);
    }
}

TEST_F(ProcTest, CommandLineIsFormattedInFull) {
    // "printf " is 7 characters: a line that just misses the first 32-byte buffer, a long one.
    for (size_t total : {32u, 200u}) {
        std::string word(total - 7, 'x');
        ktprocess *p = proc_create(PROC_STDOUT_PIPE, "printf %s", word.c_str());
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(read_rest(p), word) << total << " characters";
        EXPECT_EQ(finish(p), 0);
    }
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
TEST_F(ProcTest, BadArgumentsAreRefused) {
    // Formatting this argument would crash, so the refusal of the flags must come first; the
    // fixture checks that no child was started.
    const char *unreadable = reinterpret_cast<const char *>(std::uintptr_t{1});
    for (int flags : {0x11, 0x13, 0x51})
        EXPECT_EQ(proc_create(flags, "%s", unreadable), nullptr) << "flags " << flags;
    const char *no_format = nullptr;
    EXPECT_EQ(proc_create(0, no_format), nullptr);
    EXPECT_EQ(proc_wait_exittm(nullptr, 0, nullptr, nullptr), -1);
    EXPECT_EQ(proc_free_ktprocess(nullptr), 0);
    EXPECT_EQ(proc_write_stdin(nullptr, "x"), -1);

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
    EXPECT_EQ(proc_readd_stdout_tm(p, buf, -1, nullptr, nullptr), -1);
    EXPECT_EQ(proc_write_stdin(p, "x"), -1) << "no input pipe";
    EXPECT_EQ(proc_readd_stdout(p, buf, 8, "\n"), 1) << "nothing consumed by the refusals";
    EXPECT_EQ(finish(p), 0);
}
#pragma GCC diagnostic pop

TEST_F(ProcTest, OnePipeAndItsBlockingModes) {
    struct Case {
        int flags;
        const char *command;
        bool in, out;
    };
    const Case cases[] = {{PROC_STDOUT_PIPE, "true", false, true},
                          {PROC_STDIN_PIPE, "sh -c 'read l; test \"$l\" = loop'", true, false},
                          {PROC_STDOUT_PIPE | PROC_STDIN_PIPE, "true", true, true}};
    for (const Case &c : cases) {
        ktprocess *p = proc_create(c.flags, "%s", c.command);
        ASSERT_NE(p, nullptr);
        ASSERT_EQ(p->in != nullptr, c.in) << "flags " << c.flags;
        ASSERT_EQ(p->out != nullptr, c.out) << "flags " << c.flags;
        // Only both flags leave the write end open in the parent, and only it gets O_NONBLOCK.
        EXPECT_TRUE(!c.in || nonblocking(p->in) == c.out) << "flags " << c.flags;
        EXPECT_TRUE(!c.out || !nonblocking(p->out)) << "the read end blocks";
        EXPECT_EQ(proc_write_stdin(p, "%s\n", "loop"), c.in ? 5 : -1);
        if (c.in && c.out) {
            // Both ends of the same pipe: what goes in comes back out.
            char buf[8];
            EXPECT_EQ(proc_readd_stdout(p, buf, sizeof buf, "\n"), 4);
            EXPECT_STREQ(buf, "loop");
        }
        EXPECT_EQ(finish(p), 0) << "flags " << c.flags;
    }
}

TEST_F(ProcTest, NullDevicesAndExitStatus) {
    struct Case {
        int flags;
        const char *command;
        int status;
    };
    const Case cases[] = {
        // The child itself checks where a descriptor points and tells by its exit code.
        {PROC_STDOUT_NULL, "sh -c 'test \"$(readlink /proc/$$/fd/1)\" = /dev/null'", 0},
        {PROC_STDERR_NULL, "sh -c 'test \"$(readlink /proc/$$/fd/2)\" = /dev/null'", 0},
        {0, "sh -c 'exit 3'", 3},
        {0, "sh -c 'kill -9 $$'", SIGKILL}, // the raw wait status of a signal death
        {PROC_STDERR_NULL, "/nonexistent/program", 255},
        {0, " \n ", 255},
    };
    for (const Case &c : cases) {
        ktprocess *p = proc_create(c.flags, "%s", c.command);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(finish(p), c.status) << "command: '" << c.command << "'";
    }
}

TEST_F(ProcTest, WaitLimitAndElapsedTime) {
    // Still running: the immediate try, the counted 100 ms sleeps, the uncounted remainder.
    for (auto [limit, elapsed] : {std::pair{50u, 0u}, std::pair{250u, 200u}}) {
        ktprocess *p = proc_create(0, "sleep 30");
        ASSERT_NE(p, nullptr);
        unsigned int value = limit;
        auto start = Clock::now();
        EXPECT_EQ(proc_wait_exittm(p, 0, &value, nullptr), 0);
        long wall = ms_since(start);
        EXPECT_EQ(value, elapsed) << "limit " << limit;
        EXPECT_GE(wall, static_cast<long>(limit)) << "the remainder is slept all the same";
        EXPECT_LT(wall, static_cast<long>(limit) + 3000);
        EXPECT_EQ(waitpid(p->pid, nullptr, WNOHANG), 0) << "still running, not signalled";
        kill_and_reap(p);
    }

    // Reaped in a pass: the completed sleeps count.
    ktprocess *p = proc_create(0, "sleep 0.3");
    ASSERT_NE(p, nullptr);
    unsigned int value = 5000;
    EXPECT_EQ(proc_wait_exittm(p, 0, &value, nullptr), p->pid);
    EXPECT_EQ(value % 100, 0u);
    EXPECT_GE(value, 200u);
    EXPECT_LT(value, 5000u);
    proc_free_ktprocess(p);

    // Without a limit it polls on; the options reach waitpid, so a stop ends the wait.
    p = proc_create(0, "sh -c 'sleep 0.2; kill -STOP $$'");
    ASSERT_NE(p, nullptr);
    int status = 0;
    EXPECT_EQ(proc_wait_exittm(p, WUNTRACED, nullptr, &status), p->pid);
    EXPECT_TRUE(WIFSTOPPED(status)) << status;
    kill_and_reap(p);
}

TEST_F(ProcTest, DelimitedReads) {
    struct Read {
        int32_t size;
        int result;
        std::string text;
    };
    struct Case {
        const char *command, *delims;
        std::vector<Read> reads;
    };
    const Case cases[] = {
        // A full buffer gets no terminator; the next read finds the rest and eats the delimiter.
        {"printf abcdef\\n", "\n", {{4, 4, "abcd"}, {4, 2, "ef"}, {4, -1, ""}}},
        {"printf abc", "\n", {{16, 3, "abc"}, {16, -1, ""}}},
        {"printf a\\nb\\0cd", "", {{16, 3, "a\nb"}, {16, 2, "cd"}, {16, -1, ""}}},
        {"printf x,y;;z", ",;", {{16, 1, "x"}, {16, 1, "y"}, {16, 0, ""}, {16, 1, "z"}}},
    };
    for (const Case &c : cases) {
        ktprocess *p = proc_create(PROC_STDOUT_PIPE, "%s", c.command);
        ASSERT_NE(p, nullptr);
        for (const Read &r : c.reads) {
            char buf[17];
            std::memset(buf, '#', sizeof buf);
            EXPECT_EQ(proc_readd_stdout(p, buf, r.size, c.delims), r.result) << c.command;
            if (r.result < 0)
                continue;
            EXPECT_EQ(std::string(buf, static_cast<size_t>(r.result)), r.text) << c.command;
            EXPECT_EQ(buf[r.result], r.result == r.size ? '#' : '\0') << c.command;
        }
        EXPECT_EQ(finish(p), 0);
    }
}

TEST_F(ProcTest, TimedReads) {
    ktprocess *p = proc_create(PROC_STDOUT_PIPE, "sleep 30");
    ASSERT_NE(p, nullptr);
    char buf[16];
    unsigned int limit = 1000;
    auto start = Clock::now();
    EXPECT_EQ(proc_readd_stdout_tm(p, buf, sizeof buf, "\n", &limit), 0);
    long wall = ms_since(start);
    EXPECT_GE(wall, 1900) << "1 s plus the whole limit again";
    EXPECT_LT(wall, 6000);
    kill_and_reap(p);
    timeval select_limit = proc_read_limit(1500);
    EXPECT_EQ(select_limit.tv_sec, 1);
    EXPECT_EQ(select_limit.tv_usec, 1500000);
    // Past what a 32-bit microsecond field holds, the same wait is folded into seconds.
    select_limit = proc_read_limit(3000500);
    EXPECT_EQ(select_limit.tv_sec, 6000);
    EXPECT_EQ(select_limit.tv_usec, 500000);

    p = proc_create(PROC_STDOUT_PIPE, "printf l1\\nabcdef");
    ASSERT_NE(p, nullptr);
    limit = 5000;
    EXPECT_EQ(proc_readd_stdout_tm(p, buf, sizeof buf, "\n", &limit), 2);
    EXPECT_STREQ(buf, "l1");
    // Without delimiters: one block, not terminated.
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(proc_readd_stdout_tm(p, buf, 4, nullptr, nullptr), 4);
    EXPECT_EQ(std::string(buf, 5), "abcd#");
    EXPECT_EQ(proc_readd_stdout_tm(p, buf, sizeof buf, nullptr, nullptr), 2);
    EXPECT_EQ(proc_readd_stdout_tm(p, buf, sizeof buf, nullptr, nullptr), -1) << "end of output";
    EXPECT_EQ(finish(p), 0);
}

} // namespace
