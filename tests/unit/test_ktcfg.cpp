// Tests of the INI configuration store: line rules via the readers, atomic rewrite, lock file.
#include "config/ktcfg.h"
#include "tests/helpers/scratch.h"

#include <filesystem>
#include <sys/file.h>

using namespace kt_test;

int set(const std::string &path, const std::string &tmp, std::vector<std::string> list) {
    std::vector<ktpair> pairs(list.size() / 2);
    std::unique_ptr<ktmap, decltype(&ktmap_dispose)> map(ktmap_create(std::strcmp), ktmap_dispose);
    for (size_t i = 0; i < pairs.size(); ++i) {
        pairs[i] = ktpair{list[2 * i].data(), list[2 * i + 1].data()};
        ktlist_insert(map->list, map->list, &pairs[i]);
    }
    return kt_cfg_set_strings(path.c_str(), tmp.c_str(), map.get());
}

const std::string long_value(100000, 'x');

// Section names in order and the top's pairs show the line rules; the values, where readers look.
TEST(Readers, LineRulesSectionsKeysAndFailures) {
    scratch_dir dir;
    const std::string path = dir / "a.conf", gone = dir / "missing";
    ASSERT_TRUE(write_file(path, "TOP=1\nA=first\nA=2\nKEY = v\n#K=v\nK=a=b\nCR=v\r\n[noclose=v\n "
                                 "[S]=v\nx]=v\nno key\n[S] after=v\nA=in S\n"
                                 "[T]\nB=in T\nLONG=" +
                                     long_value + "\n[S]\nC=in S again\n[U]\nZ=end"));
    const char *f = path.c_str(), *m = gone.c_str();
    ktlist *names = nullptr;
    ktmap *top = nullptr;
    ASSERT_TRUE(kt_cfg_get_sections(f, &names) == 0 && kt_cfg_get_section(f, "", &top) == 0);
    std::string seen;
    for (ktlist_node *n = names->next; n != names; n = n->next)
        seen += static_cast<const char *>(n->data) + std::string(";");
    for (ktlist_node *n = top->list->next; n != top->list; n = n->next)
        seen += static_cast<ktpair *>(n->data)->key +
                ("|" + std::string(static_cast<ktpair *>(n->data)->value)) + ";";
    EXPECT_EQ(seen, "S;T;S;U;TOP|1;A|first;A|2;KEY | v;#K|v;K|a=b;CR|v\r;[noclose|v; [S]|v;x]|v;");
    const char *values[][3] = {
        {nullptr, "TOP", "1"}, {"", "A", "first"},  {"", "B", nullptr},
        {"S", "A", "in S"},    {"S", "C", nullptr}, {"U", "Z", "end"},
        {"s", "A", nullptr},   {"V", "A", nullptr}, {"T", "LONG", long_value.c_str()}};
    char *value = nullptr;
    for (auto [section, key, text] : values) { // null: -ENOENT
        EXPECT_EQ(kt_cfg_get_ini_string(f, section, key, &value), text ? 0 : -ENOENT);
        EXPECT_STREQ(value, text) << section << key;
        kt_cfg_release_string(std::exchange(value, nullptr));
    }
    EXPECT_TRUE(kt_cfg_get_ini_string(nullptr, "", "A", &value) == -EINVAL &&
                kt_cfg_get_sections(nullptr, &names) == -EINVAL &&
                kt_cfg_get_section(nullptr, "", &top) == -EINVAL &&
                kt_cfg_set_strings(nullptr, f, top) == -EINVAL &&
                kt_cfg_set_strings(f, f, nullptr) == -EINVAL &&
                kt_cfg_get_ini_string(m, "", "A", &value) == -EIO &&
                kt_cfg_set_strings(m, dir.path().c_str(), top) == -ENOENT &&
                kt_cfg_set_strings(f, m, top) == -ENOENT && access(m, F_OK) != 0);
    kt_cfg_release_sections(names);
    kt_cfg_release_section(top);
    kt_cfg_release_sections(nullptr);
    kt_cfg_release_section(nullptr);
}

// Every occurrence of a key is replaced, no key added; a new 0600 file takes the old one's place.
TEST(SetStrings, ReplacesKeyLinesAtomically) {
    const std::string text(70000, 't'), tail = "KEY =not KEY\nTAIL=no line feed";
    const std::vector<std::string> cases[] = {
        // before, after, pairs
        {"# c\r\nA=1\r\nplain\n\n[S]\nA=old\nB=" + long_value + "\nKEEP=k\r\n" + text +
             "\n[T]\nA==3\n" + tail,
         "# c\r\nA=new\nplain\n\n[S]\nA=new\nB=b\nKEEP=k\r\n" + text + "\n[T]\nA=new\n" + tail, "A",
         "new", "B", "b", "A", "not the first", "KEY", "x", "NEW", "1"},
        {"X=1\nY=2", "X=1\nY=" + long_value + "\n", "Y", long_value}};
    scratch_dir dir;
    const std::string path = dir / "system.conf";
    struct stat old, now;
    for (const auto &c : cases) {
        ASSERT_TRUE(write_file(path, c[0]) && chmod(path.c_str(), 0644) == 0 &&
                    stat(path.c_str(), &old) == 0);
        EXPECT_EQ(set(path, dir.path(), {c.begin() + 2, c.end()}), 0);
        EXPECT_EQ(read_file(path), c[1]);
        EXPECT_TRUE(stat(path.c_str(), &now) == 0 && now.st_ino != old.st_ino &&
                    (now.st_mode & 07777) == 0600 &&
                    std::distance(std::filesystem::directory_iterator(dir.path()), {}) == 1);
    }
}

// A tmp_dir on another file system: the rename fails, the temporary file stays behind.
TEST(InSandbox, FailedRewritesAndTheLock) {
    KT_NEEDS_SANDBOX("it mounts a file system and makes the lock file");
    setlogmask(LOG_MASK(LOG_DEBUG)); // the failed rename is logged: not into the host's log
    scratch_dir dir;
    const std::string path = dir / "system.conf", tiny = dir / "tiny";
    ASSERT_TRUE(mkdir(tiny.c_str(), 0755) == 0 && write_file(path, "A=1\nK=old\n") &&
                mount("tmpfs", tiny.c_str(), "tmpfs", 0, "size=4k") == 0)
        << std::strerror(errno);
    EXPECT_EQ(set(path, tiny, {"K", "new"}), -1);
    EXPECT_EQ(read_file(std::filesystem::directory_iterator(tiny)->path()), "A=1\nK=new\n");
    EXPECT_EQ(umount(tiny.c_str()), 0);
    unlink(KT_CFG_LOCK_FILE);
    const mode_t mask = umask(0);
    const int fd = kt_cfg_get_lock(LOCK_EX);
    umask(mask);
    struct stat st {};
    // Mode 644 decimal, as every program of the appliance makes it.
    EXPECT_TRUE(stat(KT_CFG_LOCK_FILE, &st) == 0 && (st.st_mode & 07777) == 01204 &&
                fcntl(fd, F_GETFD) == FD_CLOEXEC);
    EXPECT_EQ(start_holder([] { return kt_cfg_get_lock(LOCK_SH | LOCK_NB) >= 0; }), -1) << "held";
    EXPECT_EQ(kt_cfg_release_lock(fd), 0);
    const pid_t holder = start_holder([] { return kt_cfg_get_lock(LOCK_SH) >= 0; });
    EXPECT_TRUE(holder > 0 && kt_cfg_get_lock(LOCK_EX | LOCK_NB) == -EWOULDBLOCK &&
                kt_cfg_get_lock(0) == -EINVAL);
    stop_holder(holder);
}
