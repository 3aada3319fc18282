// Tests of the INI configuration store: line rules, readers, the rewrite and the lock file.
#include "config/ktcfg.h"
#include "config/ktcfg_internal.h"
#include "tests/helpers/holder.h"
#include "tests/helpers/scratch.h"
#include "tests/helpers/syslog_catcher.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using kt_test::read_file;
using kt_test::scratch_dir;
using kt_test::write_file;

// A ktmap of key/value pairs that owns their storage.
class pair_map {
  public:
    using item_list = std::vector<std::pair<std::string, std::string>>;
    pair_map(std::initializer_list<item_list::value_type> list) : pair_map(item_list(list)) {}
    explicit pair_map(const item_list &items) : map_(ktmap_create(std::strcmp)) {
        text_.reserve(items.size() * 2);
        for (const auto &item : items) {
            text_.push_back(item.first);
            text_.push_back(item.second);
        }
        pairs_.reserve(items.size());
        for (size_t i = 0; i < items.size(); ++i)
            pairs_.push_back(ktpair{text_[2 * i].data(), text_[2 * i + 1].data()});
        for (ktpair &pair : pairs_)
            ktlist_insert(map_->list, map_->list, &pair);
    }
    ~pair_map() { ktmap_dispose(map_); }
    pair_map(const pair_map &) = delete;
    pair_map &operator=(const pair_map &) = delete;
    const ktmap *get() const { return map_; }

  private:
    ktmap *map_;
    std::vector<std::string> text_;
    std::vector<ktpair> pairs_;
};

// Names in `dir` that start with "conf.tmp.".
std::vector<std::string> leftovers(const std::string &dir) {
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (const dirent *e = readdir(d)) {
            if (std::strncmp(e->d_name, "conf.tmp.", 9) == 0)
                names.emplace_back(e->d_name);
        }
        closedir(d);
    }
    return names;
}

ino_t inode_of(const std::string &path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

bool in_sandbox() {
    return std::getenv("HOTPLUGD_SANDBOX") != nullptr;
}

// ---- line rules on plain strings ---------------------------------------------------------

TEST(LineRules, HeadersAndKeyLines) {
    struct Case {
        std::string_view line;
        bool header;
        std::string_view name; // of a header
        bool key_line;
        std::string_view key, value;
    };
    const Case cases[] = {
        {"[S]\n", true, "S", false, "", ""},
        {"[S] text after=ignored\n", true, "S", true, "[S] text after", "ignored"},
        {"[a=b]\n", true, "a=b", true, "[a", "b]"},
        {"[]\n", true, "", false, "", ""},
        {"[x]y]\n", true, "x", false, "", ""},
        {"[noclose=1\n", false, "", true, "[noclose", "1"},
        {" [S]\n", false, "", false, "", ""},
        {"KEY = value\n", false, "", true, "KEY ", " value"},
        {"K=v\r\n", false, "", true, "K", "v\r"},
        {"#K=v\n", false, "", true, "#K", "v"},
        {"K=a=b", false, "", true, "K", "a=b"},
        {"=v\n", false, "", true, "", "v"},
        {"K=\n", false, "", true, "K", ""},
        {"K=\"quoted\" \n", false, "", true, "K", "\"quoted\" "},
        {"KEY value\n", false, "", false, "", ""},
        {"\n", false, "", false, "", ""},
        {"", false, "", false, "", ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.line));
        EXPECT_EQ(ktcfg::is_header(c.line), c.header);
        if (c.header) {
            EXPECT_EQ(ktcfg::header_name(c.line), c.name);
        }
        ktcfg::key_value kv;
        ASSERT_EQ(ktcfg::split_key_value(c.line, &kv), c.key_line);
        if (c.key_line) {
            EXPECT_EQ(kv.key, c.key);
            EXPECT_EQ(kv.value, c.value);
        }
    }
}

TEST(LineRules, SectionCursor) {
    using step = ktcfg::section_cursor::step;
    const std::vector<std::string_view> lines = {"TOP=1\n", "[S]\n", "text\n",
                                                 "A=2\n",   "[T]\n", "A=3\n"};
    struct Case {
        std::string_view section;
        std::vector<step> steps; // until `end`, if it comes
        bool found;
    };
    const Case cases[] = {
        {"", {step::key_line, step::end}, true},
        {"S", {step::skip, step::skip, step::skip, step::key_line, step::end}, true},
        {"T", {step::skip, step::skip, step::skip, step::skip, step::skip, step::key_line}, true},
        {"s", {step::skip, step::skip, step::skip, step::skip, step::skip, step::skip}, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.section));
        ktcfg::section_cursor cursor(c.section);
        std::vector<step> seen;
        for (std::string_view line : lines) {
            seen.push_back(cursor.feed(line));
            if (seen.back() == step::end)
                break;
        }
        EXPECT_EQ(seen, c.steps);
        EXPECT_EQ(cursor.found(), c.found);
    }
}

// ---- readers -----------------------------------------------------------------------------

const std::string long_value(100000, 'x');

std::string sample_file() {
    return "TOP=1\n"
           "A=first\n"
           "A=second\n"
           "KEY = value\n"
           "#C=commented\n"
           "CR=x\r\n"
           "[noclose=raw\n"
           "[S]\n"
           "A=s-value\n"
           "only text\n"
           "B=in-S\n"
           "[T] trailing text\n"
           "B=in-T\n"
           "LONG=" +
           long_value +
           "\n"
           "[S]\n"
           "C=second S\n"
           "[U]\n"
           "LAST=end";
}

TEST(GetIniString, FindsFirstKeyOfItsSection) {
    scratch_dir dir;
    const std::string path = dir / "sample.conf";
    ASSERT_TRUE(write_file(path, sample_file()));

    struct Case {
        const char *section;
        const char *key;
        int result;
        std::string value;
    };
    const Case cases[] = {
        {nullptr, "TOP", 0, "1"},
        {"", "A", 0, "first"},
        {nullptr, "KEY ", 0, " value"},
        {nullptr, "KEY", -ENOENT, ""},
        {nullptr, "#C", 0, "commented"},
        {nullptr, "CR", 0, "x\r"},
        {nullptr, "[noclose", 0, "raw"},
        {nullptr, "B", -ENOENT, ""}, // the first header ends the top of the file
        {"S", "A", 0, "s-value"},
        {"S", "B", 0, "in-S"},
        {"S", "LONG", -ENOENT, ""}, // only in a later section
        {"S", "C", -ENOENT, ""},    // only in a second section of the same name
        {"T", "B", 0, "in-T"},
        {"T", "LONG", 0, long_value},
        {"U", "LAST", 0, "end"},
        {"s", "A", -ENOENT, ""},
        {"X", "A", -ENOENT, ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.section != nullptr ? c.section : "(null)") + " " + c.key);
        char *value = nullptr;
        ASSERT_EQ(kt_cfg_get_ini_string(path.c_str(), c.section, c.key, &value), c.result);
        if (c.result == 0) {
            ASSERT_NE(value, nullptr);
            EXPECT_EQ(std::string(value), c.value);
        }
        kt_cfg_release_string(value);
    }
}

TEST(GetIniString, BadArgumentsAndMissingFile) {
    scratch_dir dir;
    const std::string path = dir / "x.conf";
    ASSERT_TRUE(write_file(path, "A=1\n"));
    char *value = nullptr;
    EXPECT_EQ(kt_cfg_get_ini_string(nullptr, nullptr, "A", &value), -EINVAL);
    EXPECT_EQ(kt_cfg_get_ini_string(path.c_str(), nullptr, nullptr, &value), -EINVAL);
    EXPECT_EQ(kt_cfg_get_ini_string(path.c_str(), nullptr, "A", nullptr), -EINVAL);
    EXPECT_EQ(kt_cfg_get_ini_string((dir / "missing").c_str(), nullptr, "A", &value), -EIO);
    EXPECT_EQ(value, nullptr);
    kt_cfg_release_string(nullptr);
}

TEST(Sections, ListsNamesAndReadsOneSection) {
    scratch_dir dir;
    const std::string path = dir / "sample.conf";
    ASSERT_TRUE(write_file(path, sample_file()));

    ktlist *names = nullptr;
    ASSERT_EQ(kt_cfg_get_sections(path.c_str(), &names), 0);
    std::vector<std::string> got;
    for (ktlist_node *node = names->next; node != names; node = node->next)
        got.emplace_back(static_cast<const char *>(node->data));
    EXPECT_EQ(got, (std::vector<std::string>{"S", "T", "S", "U"}));
    kt_cfg_release_sections(names);

    struct Case {
        const char *section;
        int result;
        std::vector<std::pair<std::string, std::string>> pairs;
    };
    const Case cases[] = {
        {"S", 0, {{"A", "s-value"}, {"B", "in-S"}}},
        {"T", 0, {{"B", "in-T"}, {"LONG", long_value}}},
        {"",
         0,
         {{"TOP", "1"},
          {"A", "first"},
          {"A", "second"},
          {"KEY ", " value"},
          {"#C", "commented"},
          {"CR", "x\r"},
          {"[noclose", "raw"}}},
        {"X", -ENOENT, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.section);
        ktmap *map = nullptr;
        ASSERT_EQ(kt_cfg_get_section(path.c_str(), c.section, &map), c.result);
        if (c.result != 0)
            continue;
        std::vector<std::pair<std::string, std::string>> pairs;
        for (ktlist_node *node = map->list->next; node != map->list; node = node->next) {
            const auto *pair = static_cast<const ktpair *>(node->data);
            pairs.emplace_back(pair->key, pair->value);
        }
        EXPECT_EQ(pairs, c.pairs);
        EXPECT_EQ(map->compare, std::strcmp);
        kt_cfg_release_section(map);
    }
}

TEST(Sections, BadArgumentsAndMissingFile) {
    ktlist *names = nullptr;
    ktmap *map = nullptr;
    EXPECT_EQ(kt_cfg_get_sections(nullptr, &names), -EINVAL);
    EXPECT_EQ(kt_cfg_get_sections("/nonexistent/x.conf", nullptr), -EINVAL);
    EXPECT_EQ(kt_cfg_get_sections("/nonexistent/x.conf", &names), -EIO);
    EXPECT_EQ(kt_cfg_get_section(nullptr, "S", &map), -EINVAL);
    EXPECT_EQ(kt_cfg_get_section("/nonexistent/x.conf", "S", nullptr), -EINVAL);
    EXPECT_EQ(kt_cfg_get_section("/nonexistent/x.conf", "S", &map), -EIO);
    EXPECT_EQ(names, nullptr);
    EXPECT_EQ(map, nullptr);
    kt_cfg_release_sections(nullptr);
    kt_cfg_release_section(nullptr);
}

// ---- the rewrite -------------------------------------------------------------------------

struct SetStrings : ::testing::Test {
    scratch_dir dir;
    std::string path = dir / "system.conf";
    std::string tmp = dir / "tmp";
    void SetUp() override { ASSERT_EQ(mkdir(tmp.c_str(), 0700), 0); }
};

TEST_F(SetStrings, ReplacesEveryOccurrenceAndKeepsEverythingElse) {
    const std::string long_text(70000, 't');
    const std::string before = "# comment line\r\n"
                               "A=1\r\n"
                               "plain text\n"
                               "\n"
                               "[S]\n"
                               "A=old in S\n"
                               "B=" +
                               long_value +
                               "\n"
                               "KEEP=k\r\n" +
                               long_text +
                               "\n"
                               "[T]\n"
                               "A==third\n"
                               "KEY =not this one\n"
                               "TAIL=no line feed";
    const std::string after = "# comment line\r\n"
                              "A=new\n"
                              "plain text\n"
                              "\n"
                              "[S]\n"
                              "A=new\n"
                              "B=b\n"
                              "KEEP=k\r\n" +
                              long_text +
                              "\n"
                              "[T]\n"
                              "A=new\n"
                              "KEY =not this one\n"
                              "TAIL=no line feed";
    ASSERT_TRUE(write_file(path, before));
    pair_map pairs{{"A", "new"}, {"B", "b"}, {"A", "not the first"}, {"KEY", "x"}, {"NEW", "1"}};
    EXPECT_EQ(kt_cfg_set_strings(path.c_str(), tmp.c_str(), pairs.get()), 0);
    EXPECT_EQ(read_file(path), after);
    EXPECT_TRUE(leftovers(tmp).empty());
}

TEST_F(SetStrings, UnknownKeyRewritesUnchangedAsNewFileWithMode0600) {
    const std::string content = "A=1\n[S]\nB=2\n";
    ASSERT_TRUE(write_file(path, content));
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    ino_t old_inode = inode_of(path);
    pair_map pairs{{"MISSING", "x"}};
    EXPECT_EQ(kt_cfg_set_strings(path.c_str(), tmp.c_str(), pairs.get()), 0);
    EXPECT_EQ(read_file(path), content);
    EXPECT_NE(inode_of(path), old_inode) << "renamed into place, not written in place";
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST_F(SetStrings, ReplacedLastLineGainsLineFeed) {
    ASSERT_TRUE(write_file(path, "X=1\nY=2"));
    pair_map pairs{{"Y", "3"}};
    EXPECT_EQ(kt_cfg_set_strings(path.c_str(), tmp.c_str(), pairs.get()), 0);
    EXPECT_EQ(read_file(path), "X=1\nY=3\n");
}

TEST_F(SetStrings, FailuresLeaveTheFileAlone) {
    ASSERT_TRUE(write_file(path, "A=1\n"));
    pair_map pairs{{"A", "2"}};
    const std::string missing = dir / "missing.conf";
    EXPECT_EQ(kt_cfg_set_strings(missing.c_str(), tmp.c_str(), pairs.get()), -ENOENT);
    EXPECT_NE(access(missing.c_str(), F_OK), 0) << "never created";
    EXPECT_EQ(kt_cfg_set_strings(path.c_str(), (dir / "no-such-dir").c_str(), pairs.get()),
              -ENOENT);
    EXPECT_EQ(kt_cfg_set_strings(nullptr, tmp.c_str(), pairs.get()), -EINVAL);
    EXPECT_EQ(kt_cfg_set_strings(path.c_str(), nullptr, pairs.get()), -EINVAL);
    EXPECT_EQ(kt_cfg_set_strings(path.c_str(), tmp.c_str(), nullptr), -EINVAL);
    EXPECT_EQ(read_file(path), "A=1\n");
}

// A tmp_dir on another file system: the rename fails, is logged at LOG_CRIT, and the
// temporary file stays.
TEST(SetStringsAcrossFileSystems, RenameFailsWithMessage) {
    if (!in_sandbox())
        GTEST_SKIP() << "needs tests/sandbox/run: /etc/sysconfig and /tmp are its tmpfs";
    const std::string path = "/etc/sysconfig/system.conf";
    const std::string before = "DRIVE_LETTERA=\nDRIVE_LETTERB=\n";
    ASSERT_TRUE(write_file(path, before));
    scratch_dir tmp; // under /tmp, another tmpfs
    ASSERT_FALSE(tmp.path().empty());

    kt_test::caught_syslog caught = kt_test::catch_syslog([&] {
        pair_map pairs{{"DRIVE_LETTERA", "SERIAL1"}};
        return kt_cfg_set_strings(path.c_str(), tmp.path().c_str(), pairs.get());
    });
    ASSERT_EQ(caught.error, "");
    EXPECT_EQ(caught.result, -1);
    ASSERT_EQ(caught.messages.size(), 1u);
    const std::string &message = caught.messages[0];
    EXPECT_EQ(message.rfind("<26>", 0), 0u) << "LOG_DAEMON | LOG_CRIT: " << message;
    const std::string text = "Rename config file fail master " + path + " tmp ";
    std::string logged = kt_test::syslog_text(message);
    ASSERT_EQ(logged.rfind(text, 0), 0u) << message;
    std::string tmp_name = logged.substr(text.size());
    EXPECT_EQ(tmp_name.rfind(tmp.path() + "/conf.tmp.", 0), 0u) << tmp_name;
    EXPECT_EQ(tmp_name.size(), tmp.path().size() + 16);

    EXPECT_EQ(read_file(path), before) << "the old file is untouched";
    EXPECT_EQ(read_file(tmp_name), "DRIVE_LETTERA=SERIAL1\nDRIVE_LETTERB=\n")
        << "the temporary file stays behind";
}

// A tmp_dir on a full file system: the write fails and the old file stays whole.
TEST(SetStringsOnFullDisk, FailsAndLeavesOldFile) {
    if (!in_sandbox())
        GTEST_SKIP() << "needs tests/sandbox/run to mount a tiny tmpfs";
    const std::string tiny = "/tmp/tiny";
    ASSERT_EQ(mkdir(tiny.c_str(), 0755), 0);
    ASSERT_EQ(mount("tmpfs", tiny.c_str(), "tmpfs", 0, "size=4k"), 0) << std::strerror(errno);
    const std::string path = "/tmp/big.conf";
    std::string before;
    for (int i = 0; i < 2000; ++i)
        before += "KEY" + std::to_string(i) + "=value of some length\n";
    ASSERT_TRUE(write_file(path, before));

    pair_map pairs{{"KEY7", "changed"}};
    int result = kt_cfg_set_strings(path.c_str(), tiny.c_str(), pairs.get());
    EXPECT_EQ(result, -ENOSPC) << "a failed write, not the rename";
    EXPECT_EQ(read_file(path), before);
    EXPECT_EQ(leftovers(tiny).size(), 1u) << "the partial temporary file stays";
    EXPECT_EQ(umount(tiny.c_str()), 0);
}

// Kills a process with SIGKILL at random moments while it rewrites a file over and over: every
// read in between and after every kill sees the old or the new content, never a mixture.
TEST(SetStringsAtomicity, SigkillNeverLeavesTornFile) {
    scratch_dir dir;
    const std::string path = dir / "system.conf", tmp = dir / "tmp";
    ASSERT_EQ(mkdir(tmp.c_str(), 0700), 0);
    std::string old_content, new_content;
    std::vector<std::pair<std::string, std::string>> old_items, new_items;
    for (int i = 0; i < 600; ++i) {
        std::string key = "KEY" + std::to_string(i);
        old_items.emplace_back(key, "old-" + std::string(60, 'o'));
        new_items.emplace_back(key, "new-" + std::string(60, 'n'));
        old_content += key + "=" + old_items.back().second + "\n# text line\n";
        new_content += key + "=" + new_items.back().second + "\n# text line\n";
    }
    ASSERT_TRUE(write_file(path, old_content));
    const pair_map to_new(new_items), to_old(old_items);

    std::mt19937 random(
        static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count()));
    std::uniform_int_distribution<int> delay_us(0, 3000);
    const int kills = 300;
    int mid_rewrite = 0, torn = 0, reads = 0;
    for (int k = 0; k < kills; ++k) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (;;) {
                kt_cfg_set_strings(path.c_str(), tmp.c_str(), to_new.get());
                kt_cfg_set_strings(path.c_str(), tmp.c_str(), to_old.get());
            }
        }
        auto deadline =
            std::chrono::steady_clock::now() + std::chrono::microseconds(delay_us(random));
        do {
            std::string seen = read_file(path);
            ++reads;
            torn += seen != old_content && seen != new_content;
        } while (std::chrono::steady_clock::now() < deadline);
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        std::string seen = read_file(path);
        ++reads;
        torn += seen != old_content && seen != new_content;
        for (const std::string &name : leftovers(tmp)) {
            ++mid_rewrite;
            unlink((tmp + "/" + name).c_str());
        }
    }
    std::printf("[ atomicity ] %d SIGKILLs during rewrite loops, %d of them mid-rewrite (a "
                "temporary file left), %d reads, %d torn\n",
                kills, mid_rewrite, reads, torn);
    RecordProperty("sigkills", kills);
    RecordProperty("mid_rewrite", mid_rewrite);
    EXPECT_EQ(torn, 0);
}

// ---- the lock file -----------------------------------------------------------------------

struct Lock : ::testing::Test {
    void SetUp() override {
        if (!in_sandbox())
            GTEST_SKIP() << "needs tests/sandbox/run: it creates " KT_CFG_LOCK_FILE;
        unlink(KT_CFG_LOCK_FILE);
    }
};

// A child that takes the lock with `operation` and holds it until killed.
pid_t start_holder(int operation) {
    return kt_test::start_holder([operation] { return kt_cfg_get_lock(operation) >= 0; });
}

TEST_F(Lock, CreatedWithDecimalMode644) {
    mode_t old = umask(0);
    int fd = kt_cfg_get_lock(LOCK_EX);
    umask(old);
    ASSERT_GE(fd, 0);
    struct stat st {};
    ASSERT_EQ(stat(KT_CFG_LOCK_FILE, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 01204u);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(kt_cfg_release_lock(fd), 0);
    EXPECT_EQ(kt_cfg_release_lock(fd), -1) << "already closed";
}

TEST_F(Lock, ExclusiveHolderInAnotherProcessBlocks) {
    pid_t holder = start_holder(LOCK_EX);
    ASSERT_GT(holder, 0);
    EXPECT_EQ(kt_cfg_get_lock(LOCK_EX | LOCK_NB), -EWOULDBLOCK);
    EXPECT_EQ(kt_cfg_get_lock(LOCK_SH | LOCK_NB), -EWOULDBLOCK);
    kt_test::stop_holder(holder);
    int fd = kt_cfg_get_lock(LOCK_EX | LOCK_NB);
    EXPECT_GE(fd, 0) << "free once the holder is gone";
    EXPECT_EQ(kt_cfg_release_lock(fd), 0);
}

TEST_F(Lock, SharedHoldersCoexistAndReleaseFrees) {
    pid_t holder = start_holder(LOCK_SH);
    ASSERT_GT(holder, 0);
    int shared = kt_cfg_get_lock(LOCK_SH | LOCK_NB);
    EXPECT_GE(shared, 0);
    EXPECT_EQ(kt_cfg_get_lock(LOCK_EX | LOCK_NB), -EWOULDBLOCK);
    kt_test::stop_holder(holder);
    EXPECT_EQ(kt_cfg_get_lock(LOCK_EX | LOCK_NB), -EWOULDBLOCK) << "our own shared lock";
    EXPECT_EQ(kt_cfg_release_lock(shared), 0);
    int fd = kt_cfg_get_lock(LOCK_EX | LOCK_NB);
    EXPECT_GE(fd, 0);
    kt_cfg_release_lock(fd);
}

TEST_F(Lock, BadOperationIsMinusErrno) {
    EXPECT_EQ(kt_cfg_get_lock(0), -EINVAL);
}

} // namespace
