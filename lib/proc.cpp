// proc: fork and exec of a split command line, one pipe, a polling wait and the output readers.
#include "lib/proc.h"

#include "lib/kt_internal.h"
#include "lib/proc_internal.h"

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Most command lines fit the first guess; longer ones grow it once, to the exact length.
constexpr size_t initial_command_size = 32;

bool is_separator(char c) {
    return c == ' ' || c == '\n';
}

// The quote that closes the one at `open`: the next of the same kind not preceded by a
// backslash; null when there is none and the quote is an ordinary character.
char *closing_quote(char *open) {
    for (char *q = open + 1; *q != '\0'; ++q)
        if (*q == *open && q[-1] != '\\')
            return q;
    return nullptr;
}

// Points `target` (1 or 2) at /dev/null. Without /dev/null the open gives -1, and dup2 and
// close of -1 fail and leave `target` as it was.
void redirect_to_null(int target) {
    int fd = open("/dev/null", O_WRONLY);
    dup2(fd, target);
    if (fd != target)
        close(fd);
}

// The child's side of proc_create; never returns.
[[noreturn]] void run_child(int flags, char *text, int read_end, int write_end) {
    kt::unblock_signals();
    if (flags & PROC_STDIN_PIPE)
        dup2(read_end, STDIN_FILENO);
    if (flags & PROC_STDOUT_PIPE)
        dup2(write_end, STDOUT_FILENO);
    if (flags & PROC_STDOUT_NULL)
        redirect_to_null(STDOUT_FILENO);
    if (flags & PROC_STDERR_NULL)
        redirect_to_null(STDERR_FILENO);
    // Every other inherited descriptor stays open across exec. A pipe end below 3 exists only
    // because the caller had that standard descriptor closed; it is the child's stream now.
    if (read_end > STDERR_FILENO)
        close(read_end);
    if (write_end > STDERR_FILENO)
        close(write_end);

    char **argv = proc_split_words(text);
    if (argv != nullptr && argv[0] != nullptr)
        execvp(argv[0], argv);
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    std::free(argv);
    // Seen by the parent as exit status 255.
    _exit(-1);
}

void sleep_ms(long ms) {
    timespec left{ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
}

} // namespace

char **proc_split_words(char *text) {
    size_t capacity = 4;
    size_t count = 0;
    auto **words = static_cast<char **>(std::malloc(capacity * sizeof(char *)));
    if (words == nullptr || text == nullptr) {
        std::free(words);
        return nullptr;
    }

    char *p = text;
    for (;;) {
        while (is_separator(*p))
            ++p;
        if (*p == '\0')
            break;
        char *start = p;
        char *end;
        char *next;
        for (;; ++p) {
            if (*p == '\0' || is_separator(*p)) {
                end = p;
                next = *p == '\0' ? p : p + 1;
                break;
            }
            char *close = (*p == '"' || *p == '\'') ? closing_quote(p) : nullptr;
            if (close != nullptr) {
                // Dropping the word's first character removes an opening quote that starts the
                // word; one that opens mid-word costs the word its first character instead.
                // Deliberate and kept: command lines are split as the appliance's have always
                // been, so its tools and hook programs get the arguments they always got.
                ++start;
                end = close;
                // The character after a closing quote is taken to be a separator and skipped.
                next = close[1] == '\0' ? close + 1 : close + 2;
                break;
            }
        }
        *end = '\0';
        p = next;
        if (*start == '\0')
            continue;
        words[count++] = start;
        if (count == capacity) {
            capacity *= 2;
            auto **bigger = static_cast<char **>(std::realloc(words, capacity * sizeof(char *)));
            if (bigger == nullptr) {
                std::free(words);
                return nullptr;
            }
            words = bigger;
        }
    }
    words[count] = nullptr;
    return words;
}

timeval proc_read_limit(unsigned int timeout_ms) {
    timeval limit{};
    limit.tv_sec = static_cast<time_t>(timeout_ms / 1000);
    // The whole limit again as microseconds, not its remainder: deliberate, and kept, since
    // the readers of tool output have always waited this long (select folds the excess into
    // seconds: timeout_ms / 1000 s + timeout_ms ms in all).
    const uint64_t micros = static_cast<uint64_t>(timeout_ms) * 1000;
    if (micros <= INT32_MAX) {
        limit.tv_usec = static_cast<suseconds_t>(micros);
    } else {
        // Beyond what a 32-bit suseconds_t (and select) takes: fold it here to the same wait.
        limit.tv_sec += static_cast<time_t>(timeout_ms / 1000);
        limit.tv_usec = static_cast<suseconds_t>(timeout_ms % 1000) * 1000;
    }
    return limit;
}

extern "C" {

ktprocess *proc_create(int flags, const char *format, ...) {
    if (format == nullptr || ((flags & PROC_STDOUT_PIPE) && (flags & PROC_STDOUT_NULL)))
        return nullptr;
    va_list ap;
    va_start(ap, format);
    kt::heap_ptr<char> text = kt::vformat_alloc(initial_command_size, format, ap);
    va_end(ap);
    if (!text)
        return nullptr;

    int ends[2];
    if (pipe(ends) != 0)
        return nullptr;
    kt::unique_fd read_end(ends[0]);
    kt::unique_fd write_end(ends[1]);

    pid_t pid = fork();
    if (pid < 0)
        return nullptr;
    if (pid == 0)
        run_child(flags, text.get(), ends[0], ends[1]);

    // Should this fail the child runs on unreaped; there is no record left to wait with.
    auto *proc = static_cast<ktprocess *>(std::calloc(1, sizeof(ktprocess)));
    if (proc == nullptr)
        return nullptr;
    proc->pid = pid;

    int write_fd = -1;
    if (flags & PROC_STDIN_PIPE) {
        write_fd = write_end.get();
        proc->in = fdopen(write_fd, "w");
        if (proc->in != nullptr)
            write_end.release();
    } else {
        write_end.reset();
    }
    if (!(flags & PROC_STDOUT_PIPE))
        return proc;

    // The write end, not the read end, is made non-blocking: with the output pipe alone it is
    // already closed (-1) and this fails harmlessly, so the read end stays blocking and the
    // timed read keeps its limit with select; only both pipe flags make `in` non-blocking.
    fcntl(write_fd, F_SETFL, O_NONBLOCK);
    proc->out = fdopen(read_end.get(), "r");
    if (proc->out != nullptr)
        read_end.release();
    return proc;
}

int proc_free_ktprocess(ktprocess *proc) {
    if (proc == nullptr)
        return 0;
    if (proc->in != nullptr) {
        std::fclose(proc->in);
        proc->in = nullptr;
    }
    if (proc->out != nullptr) {
        std::fclose(proc->out);
        proc->out = nullptr;
    }
    std::free(proc);
    return 0;
}

int proc_wait_exittm(ktprocess *proc, int options, unsigned int *timeout_ms, int *status) {
    if (proc == nullptr)
        return -1;
    options |= WNOHANG;
    int raw = 0;
    int result = waitpid(proc->pid, &raw, options);
    unsigned int elapsed = 0;

    if (timeout_ms == nullptr) {
        // No limit: keep polling; the child is never signalled, so this lasts as long as it.
        while (result == 0) {
            sleep_ms(100);
            result = waitpid(proc->pid, &raw, options);
        }
    } else if (result == 0) {
        unsigned int limit = *timeout_ms;
        unsigned int rounds = limit / 100;
        unsigned int slept = 0;
        for (; slept < rounds; ++slept) {
            result = waitpid(proc->pid, &raw, options);
            if (result != 0)
                break;
            sleep_ms(100);
        }
        elapsed = slept * 100;
        if (slept == rounds) {
            // The remainder is slept but deliberately not counted: callers compare the
            // written-back time with whole 100 ms steps.
            sleep_ms(limit % 100);
            result = waitpid(proc->pid, &raw, options);
        }
    }

    if (timeout_ms != nullptr)
        *timeout_ms = elapsed;
    if (result > 0 && status != nullptr)
        *status = (raw & 0x7f) != 0 ? raw : (raw >> 8) & 0xff;
    return result;
}

int proc_readd_stdout(ktprocess *proc, char *buf, int32_t size, const char *delims) {
    // A negative size would let the loop below run past any buffer.
    if (proc == nullptr || buf == nullptr || delims == nullptr || size <= 0 || proc->out == nullptr)
        return -1;
    size_t delim_count = std::strlen(delims);
    int32_t count = 0;
    for (;;) {
        int c = std::fgetc(proc->out);
        if (c == EOF) {
            bool at_end = std::feof(proc->out) != 0;
            std::clearerr(proc->out);
            if (!at_end || count == 0)
                return -1;
            break;
        }
        if (c == '\0' || std::memchr(delims, c, delim_count) != nullptr)
            break;
        buf[count++] = static_cast<char>(c);
        if (count == size)
            return count;
    }
    buf[count] = '\0';
    return count;
}

int proc_readd_stdout_tm(ktprocess *proc, char *buf, int32_t size, const char *delims,
                         unsigned int *timeout_ms) {
    if (proc == nullptr || buf == nullptr || proc->out == nullptr)
        return -1;
    if (timeout_ms != nullptr) {
        int fd = fileno(proc->out);
        if (fd < 0 || fd >= FD_SETSIZE)
            return -1;
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        timeval limit = proc_read_limit(*timeout_ms);
        if (select(fd + 1, &readable, nullptr, nullptr, &limit) == -1)
            return -1;
        if (!FD_ISSET(fd, &readable))
            return 0;
    }
    if (delims != nullptr)
        return proc_readd_stdout(proc, buf, size, delims);
    if (size <= 0)
        return -1;
    size_t got = std::fread(buf, 1, static_cast<size_t>(size), proc->out);
    if (got == 0) {
        std::clearerr(proc->out);
        return -1;
    }
    return static_cast<int>(got);
}

int proc_write_stdin(ktprocess *proc, const char *format, ...) {
    if (proc == nullptr || format == nullptr || proc->in == nullptr)
        return -1;
    va_list ap;
    va_start(ap, format);
    int written = std::vfprintf(proc->in, format, ap);
    va_end(ap);
    // Without the flush the child would see nothing until the record is freed; the result is
    // still vfprintf's, as callers expect.
    std::fflush(proc->in);
    return written;
}

} // extern "C"
