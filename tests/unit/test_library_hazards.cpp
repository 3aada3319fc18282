// The library's hazards of docs/SECURITY.md: shown in the appliance's build, closed when hardened.
#include "config/ktcfg_rom.h"
#include "tests/helpers/scratch.h"

TEST(Hazards, RomStoreTakesAnotherChildsStatus) {
    kt_test::scratch_dir dir;
    ASSERT_TRUE(kt_test::write_file(dir / "system.conf", "DRIVE_LETTERA=\n"));
    // A child of the caller that has ended, as a hook program left past its time limit would.
    const pid_t other = fork();
    if (other == 0)
        _exit(3);
    siginfo_t ended{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(other), &ended, WEXITED | WNOWAIT), 0);
    // wait() for any child hands the store the other child's failure while tar still writes.
    const int stored = kt_cfg_rom_store((dir / "rom").c_str(), dir.path().c_str());
    EXPECT_EQ(stored, HOTPLUGD_HARDENED ? 0 : -1);
    EXPECT_EQ(waitpid(other, nullptr, WNOHANG), HOTPLUGD_HARDENED ? other : -1);
    while (wait(nullptr) > 0) {
    }
}
