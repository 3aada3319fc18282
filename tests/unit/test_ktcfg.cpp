// Tests of the INI configuration store: line rules, readers, the rewrite and the lock file.
#include "config/ktcfg.h"
#include "config/ktcfg_internal.h"
#include "tests/helpers/holder.h"
#include "tests/helpers/scratch.h"
#include "tests/helpers/syslog_catcher.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using kt_test::in_sandbox;
using kt_test::read_file;
using kt_test::scratch_dir;
using kt_test::write_file;
using items = std::vector<std::pair<std::string, std::string>>;

// A ktmap of key/value pairs that owns their storage.
struct pair_map {
    explicit pair_map(items list) : text(std::move(list)) {
        for (auto &[key, value] : text)
            pairs.push_back(ktpair{key.data(), value.data()});
        for (ktpair &pair : pairs)
            ktlist_insert(map->list, map->list, &pair);
    }
    const ktmap *get() const { return map.get(); }
    items text;
    std::vector<ktpair> pairs;
    std::unique_ptr<ktmap, void (*)(ktmap *)> map{ktmap_create(std::strcmp), ktmap_dispose};
};

// How many "conf.tmp." files `dir` holds; with `remove`, they go.
size_t leftovers(const std::string &dir, bool remove = false) {
    size_t count = 0;
    if (DIR *d = opendir(dir.c_str())) {
        while (const dirent *e = readdir(d)) {
            if (std::strncmp(e->d_name, "conf.tmp.", 9) == 0 && ++count > 0 && remove)
                unlink((dir + "/" + e->d_name).c_str());
        }
        closedir(d);
    }
    return count;
}

struct stat stat_of(const std::string &path) {
    struct stat st {};
    stat(path.c_str(), &st);
    return st;
}

// ---- line rules on plain strings ---------------------------------------------------------

TEST(LineRules, HeadersAndKeyLines) {
    struct Case {
        std::string_view line, name; // the name of a header
        bool header, key_line;
        std::string_view key, value;
    } cases[] = {
        {"[S]\n", "S", true, false, "", ""},
        {"[S] text after=ignored\n", "S", true, true, "[S] text after", "ignored"},
        {"[]\n", "", true, false, "", ""},
        {"[x]y]\n", "x", true, false, "", ""},
        {"[noclose=1\n", "", false, true, "[noclose", "1"},
        {" [S]\n", "", false, false, "", ""},
        {"KEY = value\n", "", false, true, "KEY ", " value"},
        {"K=v\r\n", "", false, true, "K", "v\r"},
        {"#K=v\n", "", false, true, "#K", "v"},
        {"K=a=b", "", false, true, "K", "a=b"},
        {"=v\n", "", false, true, "", "v"},
        {"K=\"quoted\" \n", "", false, true, "K", "\"quoted\" "},
        {"KEY value\n", "", false, false, "", ""},
        {"", "", false, false, "", ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.line));
        EXPECT_EQ(ktcfg::is_header(c.line), c.header);
        EXPECT_EQ(c.header ? ktcfg::header_name(c.line) : "", c.name);
        ktcfg::key_value kv{};
        EXPECT_EQ(ktcfg::split_key_value(c.line, &kv), c.key_line);
        EXPECT_EQ(kv.key, c.key);
        EXPECT_EQ(kv.value, c.value);
    }
}

// ---- readers -----------------------------------------------------------------------------

TEST(Readers, ValuesSectionNamesAndSections) {
    const std::string long_value(100000, 'x');
    scratch_dir dir;
    const std::string path = dir / "sample.conf";
    ASSERT_TRUE(write_file(path, "TOP=1\nA=first\nA=second\nKEY = value\n[noclose=raw\n"
                                 "[S]\nA=s-value\nonly text\nB=in-S\n"
                                 "[T] trailing text\nB=in-T\nLONG=" +
                                     long_value + "\n[S]\nC=second S\n[U]\nLAST=end"));
    struct Value {
        const char *section, *key;
        int result;
        std::string value;
    };
    const Value values[] = {
        {nullptr, "TOP", 0, "1"},       {"", "A", 0, "first"},
        {nullptr, "KEY ", 0, " value"}, {nullptr, "KEY", -ENOENT, ""},
        {nullptr, "B", -ENOENT, ""}, // the first header ends the top of the file
        {"S", "A", 0, "s-value"},       {"S", "B", 0, "in-S"},
        {"S", "LONG", -ENOENT, ""}, // only in a later section
        {"S", "C", -ENOENT, ""},    // only in a second section of the same name
        {"T", "LONG", 0, long_value},   {"U", "LAST", 0, "end"},
        {"s", "A", -ENOENT, ""},
    };
    for (const Value &c : values) {
        SCOPED_TRACE(std::string(c.section != nullptr ? c.section : "(null)") + " " + c.key);
        char *value = nullptr;
        ASSERT_EQ(kt_cfg_get_ini_string(path.c_str(), c.section, c.key, &value), c.result);
        EXPECT_EQ(value != nullptr ? std::string(value) : "", c.value);
        kt_cfg_release_string(value);
    }

    ktlist *names = nullptr;
    ASSERT_EQ(kt_cfg_get_sections(path.c_str(), &names), 0);
    std::vector<std::string> got;
    for (ktlist_node *node = names->next; node != names; node = node->next)
        got.emplace_back(static_cast<const char *>(node->data));
    EXPECT_EQ(got, (std::vector<std::string>{"S", "T", "S", "U"}));
    kt_cfg_release_sections(names);

    const std::pair<const char *, items> sections[] = {
        {"S", {{"A", "s-value"}, {"B", "in-S"}}},
        {"T", {{"B", "in-T"}, {"LONG", long_value}}},
        {"",
         {{"TOP", "1"}, {"A", "first"}, {"A", "second"}, {"KEY ", " value"}, {"[noclose", "raw"}}},
    };
    for (const auto &[section, pairs] : sections) {
        SCOPED_TRACE(section);
        ktmap *map = nullptr;
        ASSERT_EQ(kt_cfg_get_section(path.c_str(), section, &map), 0);
        items seen;
        for (ktlist_node *node = map->list->next; node != map->list; node = node->next) {
            const auto *pair = static_cast<const ktpair *>(node->data);
            seen.emplace_back(pair->key, pair->value);
        }
        EXPECT_EQ(seen, pairs);
        EXPECT_EQ(map->compare, std::strcmp);
        kt_cfg_release_section(map);
    }
}

// Null arguments, missing files and sections: an error code, nothing handed out or created.
TEST(Ktcfg, NullArgumentsAndMissingFiles) {
    scratch_dir dir;
    const std::string file = dir / "x.conf", gone = dir / "missing";
    ASSERT_TRUE(write_file(file, "A=1\n"));
    const char *path = file.c_str(), *missing = gone.c_str(), *tmp = dir.path().c_str();
    const pair_map pairs(items{{"A", "2"}});
    char *value = nullptr;
    ktlist *names = nullptr;
    ktmap *map = nullptr;
    const int results[][2] = {
        {kt_cfg_get_ini_string(nullptr, nullptr, "A", &value), -EINVAL},
        {kt_cfg_get_ini_string(path, nullptr, nullptr, &value), -EINVAL},
        {kt_cfg_get_ini_string(path, nullptr, "A", nullptr), -EINVAL},
        {kt_cfg_get_ini_string(missing, nullptr, "A", &value), -EIO},
        {kt_cfg_get_sections(nullptr, &names), -EINVAL},
        {kt_cfg_get_sections(path, nullptr), -EINVAL},
        {kt_cfg_get_sections(missing, &names), -EIO},
        {kt_cfg_get_section(nullptr, "S", &map), -EINVAL},
        {kt_cfg_get_section(path, "S", nullptr), -EINVAL},
        {kt_cfg_get_section(missing, "S", &map), -EIO},
        {kt_cfg_get_section(path, "S", &map), -ENOENT},
        {kt_cfg_set_strings(nullptr, tmp, pairs.get()), -EINVAL},
        {kt_cfg_set_strings(path, nullptr, pairs.get()), -EINVAL},
        {kt_cfg_set_strings(path, tmp, nullptr), -EINVAL},
        {kt_cfg_set_strings(missing, tmp, pairs.get()), -ENOENT},
        {kt_cfg_set_strings(path, missing, pairs.get()), -ENOENT},
    };
    for (size_t i = 0; i < std::size(results); ++i)
        EXPECT_EQ(results[i][0], results[i][1]) << "case " << i;
    EXPECT_TRUE(value == nullptr && names == nullptr && map == nullptr);
    EXPECT_NE(access(missing, F_OK), 0) << "never created";
    EXPECT_EQ(read_file(file), "A=1\n");
    kt_cfg_release_string(nullptr);
    kt_cfg_release_sections(nullptr);
    kt_cfg_release_section(nullptr);
}

// ---- the rewrite -------------------------------------------------------------------------

// Every occurrence of a key is replaced, in every section; every other line stays byte for
// byte; a replaced line ends in a line feed. The result is a new file of mode 0600.
TEST(SetStrings, ReplacesKeyLinesAndCopiesTheRest) {
    const std::string long_text(70000, 't'), long_value(100000, 'x');
    const std::string head = "# comment line\r\n", tail = "KEY =not this one\nTAIL=no line feed";
    const struct {
        std::string before;
        items pairs;
        std::string after;
    } cases[] = {
        {head + "A=1\r\nplain text\n\n[S]\nA=old in S\nB=" + long_value + "\nKEEP=k\r\n" +
             long_text + "\n[T]\nA==third\n" + tail,
         {{"A", "new"}, {"B", "b"}, {"A", "not the first"}, {"KEY", "x"}, {"NEW", "1"}},
         head + "A=new\nplain text\n\n[S]\nA=new\nB=b\nKEEP=k\r\n" + long_text + "\n[T]\nA=new\n" +
             tail},
        {"X=1\nY=2", {{"Y", "3"}}, "X=1\nY=3\n"},
        {"A=1\n[S]\nB=2\n", {{"MISSING", "x"}}, "A=1\n[S]\nB=2\n"},
    };
    scratch_dir dir;
    const std::string path = dir / "system.conf";
    for (const auto &c : cases) {
        SCOPED_TRACE(c.after.substr(0, 20));
        ASSERT_TRUE(write_file(path, c.before));
        ASSERT_EQ(chmod(path.c_str(), 0644), 0);
        ino_t old_inode = stat_of(path).st_ino;
        EXPECT_EQ(kt_cfg_set_strings(path.c_str(), dir.path().c_str(), pair_map(c.pairs).get()), 0);
        EXPECT_EQ(read_file(path), c.after);
        EXPECT_NE(stat_of(path).st_ino, old_inode) << "renamed into place, not written in place";
        EXPECT_EQ(stat_of(path).st_mode & 07777, 0600u);
        EXPECT_EQ(leftovers(dir.path()), 0u);
    }
}

// A tmp_dir on another file system ends in a failed rename, logged at LOG_CRIT; a full one in a
// failed write. Either way the old file stays whole and the temporary file behind.
TEST(SetStrings, FailuresLeaveTheOldFile) {
    if (!in_sandbox())
        GTEST_SKIP() << "needs tests/sandbox/run: /etc/sysconfig and /tmp are tmpfs of its own";
    const std::string path = "/etc/sysconfig/system.conf", tiny = "/tmp/tiny";
    ASSERT_EQ(mkdir(tiny.c_str(), 0755), 0);
    ASSERT_EQ(mount("tmpfs", tiny.c_str(), "tmpfs", 0, "size=4k"), 0) << std::strerror(errno);
    scratch_dir other; // under /tmp, another file system
    std::string before;
    for (int i = 0; i < 2000; ++i)
        before += "KEY" + std::to_string(i) + "=value\n";
    ASSERT_TRUE(write_file(path, before));
    for (const std::string &tmp : {other.path(), tiny}) {
        SCOPED_TRACE(tmp);
        kt_test::caught_syslog caught = kt_test::catch_syslog([&] {
            return kt_cfg_set_strings(path.c_str(), tmp.c_str(),
                                      pair_map(items{{"KEY7", "new"}}).get());
        });
        ASSERT_EQ(caught.error, "");
        EXPECT_EQ(read_file(path), before) << "the old file is untouched";
        EXPECT_EQ(leftovers(tmp), 1u) << "the temporary file stays behind";
        if (tmp == tiny) {
            EXPECT_EQ(caught.result, -ENOSPC) << "a failed write, not the rename";
            EXPECT_TRUE(caught.messages.empty());
            continue;
        }
        EXPECT_EQ(caught.result, -1);
        ASSERT_EQ(caught.messages.size(), 1u);
        EXPECT_EQ(caught.messages[0].rfind("<26>", 0), 0u) << "LOG_DAEMON | LOG_CRIT";
        const std::string text = "Rename config file fail master " + path + " tmp ";
        std::string logged = kt_test::syslog_text(caught.messages[0]);
        ASSERT_EQ(logged.rfind(text + tmp + "/conf.tmp.", 0), 0u) << logged;
        std::string after = before;
        after.replace(after.find("KEY7=value"), 10, "KEY7=new");
        EXPECT_EQ(read_file(logged.substr(text.size())), after) << "complete but not renamed";
    }
    EXPECT_EQ(umount(tiny.c_str()), 0);
}

// Kills a process with SIGKILL at random moments while it rewrites a file over and over: every
// read in between and after every kill sees the old or the new content, never a mixture.
TEST(SetStrings, SigkillNeverLeavesTornFile) {
    scratch_dir dir;
    const std::string path = dir / "system.conf", tmp = dir.path();
    std::string old_content, new_content;
    items old_items, new_items;
    for (int i = 0; i < 600; ++i) {
        std::string key = "KEY" + std::to_string(i);
        old_items.emplace_back(key, "old-" + std::string(60, 'o'));
        new_items.emplace_back(key, "new-" + std::string(60, 'n'));
        old_content += key + "=" + old_items.back().second + "\n# text line\n";
        new_content += key + "=" + new_items.back().second + "\n# text line\n";
    }
    ASSERT_TRUE(write_file(path, old_content));
    const pair_map to_new(new_items), to_old(old_items);
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> delay_us(0, 3000);
    const int kills = 300;
    int mid_rewrite = 0, torn = 0, reads = 0;
    auto check = [&] {
        std::string seen = read_file(path);
        ++reads;
        torn += seen != old_content && seen != new_content;
    };
    for (int k = 0; k < kills; ++k) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (;;) {
                kt_cfg_set_strings(path.c_str(), tmp.c_str(), to_new.get());
                kt_cfg_set_strings(path.c_str(), tmp.c_str(), to_old.get());
            }
        }
        auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(delay_us(random));
        do
            check();
        while (std::chrono::steady_clock::now() < until);
        kt_test::stop_holder(child);
        check();
        mid_rewrite += static_cast<int>(leftovers(tmp, true));
    }
    std::printf("[ atomicity ] %d SIGKILLs during rewrite loops, %d of them mid-rewrite (a "
                "temporary file left), %d reads, %d torn\n",
                kills, mid_rewrite, reads, torn);
    EXPECT_EQ(torn, 0);
}

// ---- the lock file -----------------------------------------------------------------------

TEST(Lock, ModeAndOtherProcesses) {
    if (!in_sandbox())
        GTEST_SKIP() << "needs tests/sandbox/run: it creates " KT_CFG_LOCK_FILE;
    unlink(KT_CFG_LOCK_FILE);
    auto taker = [](int operation) {
        return kt_test::start_holder([operation] { return kt_cfg_get_lock(operation) >= 0; });
    };
    mode_t old = umask(0);
    int fd = kt_cfg_get_lock(LOCK_EX);
    umask(old);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(stat_of(KT_CFG_LOCK_FILE).st_mode & 07777, 01204u) << "644 in decimal";
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(taker(LOCK_SH | LOCK_NB), -1) << "held by this process";
    EXPECT_EQ(kt_cfg_release_lock(fd), 0);
    EXPECT_EQ(kt_cfg_get_lock(0), -EINVAL);

    // Another process holding LOCK_EX: every attempt without waiting fails until it is gone.
    pid_t holder = taker(LOCK_EX);
    ASSERT_GT(holder, 0);
    EXPECT_EQ(kt_cfg_get_lock(LOCK_EX | LOCK_NB), -EWOULDBLOCK);
    EXPECT_EQ(kt_cfg_get_lock(LOCK_SH | LOCK_NB), -EWOULDBLOCK);
    kt_test::stop_holder(holder);
    fd = kt_cfg_get_lock(LOCK_EX | LOCK_NB);
    EXPECT_GE(fd, 0) << "free once the holder is gone";
    EXPECT_EQ(kt_cfg_release_lock(fd), 0);
}

} // namespace
