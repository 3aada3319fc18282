// Tests of the INI configuration store: line rules via the readers, atomic rewrite, lock file.
#include "config/ktcfg.h"
#include "tests/helpers/holder.h"
#include "tests/helpers/scratch.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <vector>

namespace {

using kt_test::read_file;
using kt_test::write_file;

// Rewrites `path` through `tmp` with the pairs of `list` ("KEY", "value", ...), in that order.
int set(const std::string &path, const std::string &tmp, std::vector<std::string> list) {
    std::vector<ktpair> pairs(list.size() / 2);
    ktmap *map = ktmap_create(std::strcmp);
    for (size_t i = 0; i < pairs.size(); ++i) {
        pairs[i] = ktpair{list[2 * i].data(), list[2 * i + 1].data()};
        ktlist_insert(map->list, map->list, &pairs[i]);
    }
    const int result = kt_cfg_set_strings(path.c_str(), tmp.c_str(), map);
    ktmap_dispose(map);
    return result;
}

long entries(const std::string &dir) {
    return std::distance(std::filesystem::directory_iterator(dir), {});
}

const std::string long_value(100000, 'x');

// The pairs of the top of the file show the line rules; the values, where the readers look.
TEST(Readers, LineRulesSectionsKeysAndFailures) {
    kt_test::scratch_dir dir;
    const std::string path = dir / "a.conf", gone = dir / "missing";
    ASSERT_TRUE(write_file(path, "TOP=1\nA=first\nA=2\nKEY = v\n#K=v\nK=a=b\nCR=v\r\n[noclose=v\n "
                                 "[S]=v\nx]=v\nno key\n[S] after=v\nA=in S\n"
                                 "[T]\nB=in T\nLONG=" +
                                     long_value + "\n[S]\nC=in S again\n[U]\nZ=end"));
    ktlist *names = nullptr;
    ktmap *map = nullptr;
    ASSERT_TRUE(kt_cfg_get_sections(path.c_str(), &names) == 0 &&
                kt_cfg_get_section(path.c_str(), "", &map) == 0);
    std::string seen;
    for (ktlist_node *node = names->next; node != names; node = node->next)
        seen += static_cast<const char *>(node->data) + std::string(";");
    for (ktlist_node *node = map->list->next; node != map->list; node = node->next)
        seen += static_cast<ktpair *>(node->data)->key +
                ("|" + std::string(static_cast<ktpair *>(node->data)->value)) + ";";
    kt_cfg_release_sections(names);
    kt_cfg_release_section(map);
    EXPECT_EQ(seen, "S;T;S;U;TOP|1;A|first;A|2;KEY | v;#K|v;K|a=b;CR|v\r;[noclose|v; [S]|v;x]|v;");
    const char *values[][3] = {
        {nullptr, "TOP", "1"}, {"", "A", "first"},  {"", "KEY", nullptr},
        {"", "B", nullptr},    {"S", "A", "in S"},  {"S", "B", nullptr},
        {"S", "C", nullptr},   {"T", "B", "in T"},  {"U", "Z", "end"},
        {"s", "A", nullptr},   {"V", "A", nullptr}, {"T", "LONG", long_value.c_str()}};
    for (auto [section, key, text] : values) { // null: -ENOENT
        char *value = nullptr;
        EXPECT_EQ(kt_cfg_get_ini_string(path.c_str(), section, key, &value), text ? 0 : -ENOENT);
        EXPECT_STREQ(value, text) << section << key;
        kt_cfg_release_string(value);
    }
    const char *f = path.c_str(), *m = gone.c_str();
    char *value = nullptr;
    ktmap *pairs = ktmap_create(std::strcmp);
    EXPECT_TRUE(kt_cfg_get_ini_string(nullptr, "", "A", &value) == -EINVAL &&
                kt_cfg_get_sections(nullptr, &names) == -EINVAL &&
                kt_cfg_get_section(nullptr, "", &map) == -EINVAL &&
                kt_cfg_set_strings(nullptr, f, pairs) == -EINVAL &&
                kt_cfg_set_strings(f, f, nullptr) == -EINVAL &&
                kt_cfg_get_ini_string(m, "", "A", &value) == -EIO &&
                kt_cfg_get_sections(m, &names) == -EIO && kt_cfg_get_section(m, "", &map) == -EIO &&
                kt_cfg_get_section(f, "V", &map) == -ENOENT &&
                kt_cfg_set_strings(m, dir.path().c_str(), pairs) == -ENOENT &&
                kt_cfg_set_strings(f, m, pairs) == -ENOENT && access(m, F_OK) != 0);
    ktmap_dispose(pairs);
    kt_cfg_release_sections(nullptr);
    kt_cfg_release_section(nullptr);
}

// Every occurrence of a key is replaced, in every section; other lines stay byte for byte, keys
// the file lacks are not added, and a new file of mode 0600 takes the old one's place (the
// black-box fault tests kill the daemon amid such rewrites).
TEST(SetStrings, ReplacesKeyLinesAtomically) {
    const std::string text(70000, 't'), tail = "KEY =not KEY\nTAIL=no line feed";
    const std::vector<std::string> cases[] = {
        // before, after, pairs
        {"# c\r\nA=1\r\nplain\n\n[S]\nA=old\nB=" + long_value + "\nKEEP=k\r\n" + text +
             "\n[T]\nA==3\n" + tail,
         "# c\r\nA=new\nplain\n\n[S]\nA=new\nB=b\nKEEP=k\r\n" + text + "\n[T]\nA=new\n" + tail, "A",
         "new", "B", "b", "A", "not the first", "KEY", "x", "NEW", "1"},
        {"X=1\nY=2", "X=1\nY=" + long_value + "\n", "Y", long_value},
        {"A=1\n[S]\nB=2\n", "A=1\n[S]\nB=2\n", "MISSING", "x"}};
    kt_test::scratch_dir dir;
    const std::string path = dir / "system.conf";
    struct stat old {};
    struct stat now {};
    for (const auto &c : cases) {
        ASSERT_TRUE(write_file(path, c[0]) && chmod(path.c_str(), 0644) == 0 &&
                    stat(path.c_str(), &old) == 0);
        EXPECT_EQ(set(path, dir.path(), {c.begin() + 2, c.end()}), 0);
        EXPECT_EQ(read_file(path), c[1]);
        EXPECT_TRUE(stat(path.c_str(), &now) == 0 && now.st_ino != old.st_ino &&
                    (now.st_mode & 07777) == 0600 && entries(dir.path()) == 1);
    }
}

// A tmp_dir on another file system ends in a failed rename, the temporary file left behind
// (the fault tests fill one up). The lock file has the mode 644 decimal.
TEST(InSandbox, FailedRewritesAndTheLock) {
    if (!kt_test::in_sandbox())
        GTEST_SKIP()
            << "needs scripts/sandbox/run: it mounts a file system and makes the lock file";
    setlogmask(LOG_MASK(LOG_DEBUG)); // the failed rename is logged: not into the host's log
    kt_test::scratch_dir dir;
    const std::string path = dir / "system.conf", tiny = dir / "tiny";
    ASSERT_EQ(mkdir(tiny.c_str(), 0755), 0);
    ASSERT_EQ(mount("tmpfs", tiny.c_str(), "tmpfs", 0, "size=4k"), 0) << std::strerror(errno);
    ASSERT_TRUE(write_file(path, "A=1\nK=old\n"));
    EXPECT_EQ(set(path, tiny, {"K", "new"}), -1);
    EXPECT_EQ(read_file(std::filesystem::directory_iterator(tiny)->path()), "A=1\nK=new\n");
    EXPECT_EQ(umount(tiny.c_str()), 0);
    unlink(KT_CFG_LOCK_FILE);
    const mode_t mask = umask(0);
    const int fd = kt_cfg_get_lock(LOCK_EX);
    umask(mask);
    struct stat st {};
    EXPECT_TRUE(stat(KT_CFG_LOCK_FILE, &st) == 0 && (st.st_mode & 07777) == 01204 &&
                fcntl(fd, F_GETFD) == FD_CLOEXEC);
    EXPECT_EQ(kt_test::start_holder([] { return kt_cfg_get_lock(LOCK_SH | LOCK_NB) >= 0; }), -1)
        << "held";
    EXPECT_EQ(kt_cfg_release_lock(fd), 0);
    const pid_t holder = kt_test::start_holder([] { return kt_cfg_get_lock(LOCK_SH) >= 0; });
    EXPECT_TRUE(holder > 0 && kt_cfg_get_lock(LOCK_EX | LOCK_NB) == -EWOULDBLOCK &&
                kt_cfg_get_lock(0) == -EINVAL);
    kt_test::stop_holder(holder);
}

} // namespace
