/* Compiles every library header as C and calls through each, as the appliance's C programs do. */
#include <stdio.h>
#include <string.h>

#include "c_headers.h" /* every library header, in a list the build makes */

static int failures, freed;
static void count_free(void *copy) {
    freed += copy != NULL;
}
#define CHECK(cond) ((cond) ? (void)0 : (void)(failures++, fprintf(stderr, "FAILED: %s\n", #cond)))

int main(void) {
    char key[] = "DRIVE_LETTERA", out[8], *text = NULL;
    ktpair pair = {key, key};
    ktmap *map = ktmap_create(strcmp);
    ktmnglist *mlist = ktmnglist_create(count_free);
    CHECK(ktlist_insert(map->list, map->list, &pair) && ktmap_find(map, key) == map->list->next &&
          ktmap_find(map, "B") == map->list && !ktmap_find(map, NULL) && !ktmap_find(NULL, key));
    ktlist_clear(map->list);
    /* Insert before a position; erase frees the copy, hands back the next node (or the head). */
    ktmngiterator last = ktmnglist_insert(mlist, mlist->list, "c", 2);
    ktmngiterator first = ktmnglist_insert(mlist, last, "abcdef", 7);
    CHECK(ktmngiterator_get_data(first, out, 3) == 7 && memcmp(out, "abc", 3) == 0 &&
          ktmnglist_length(mlist) == 2 && ktlist_count(map->list) == 0 &&
          ktmnglist_erase(mlist, first) == last && ktmnglist_erase(mlist, last) == mlist->list &&
          ktlist_count(mlist->list) == 0 && freed == 2 && !ktmnglist_erase(mlist, mlist->list) &&
          !ktlist_erase(NULL, last) && !ktlist_insert(NULL, NULL, key) && ktlist_count(NULL) == 0 &&
          !ktmnglist_insert(NULL, NULL, key, 1) && !ktmnglist_insert(mlist, mlist->list, NULL, 1) &&
          ktmngiterator_get_data(NULL, out, 1) == -1 && !ktmngiterator_get_ptr(NULL));
    ktmap_dispose(map);
    ktmnglist_free(mlist);
    ktipc *ipc = ktipc_create(NULL, 0);
    ktprocess *proc = proc_create(PROC_STDOUT_PIPE, "printf %s", "c");
    CHECK(ipc && ktipc_receive(ipc, out, sizeof out, 0, NULL, NULL) == 0 && proc &&
          proc_readd_stdout(proc, out, sizeof out, "\n") == 1 && out[0] == 'c' &&
          proc_wait_exittm(proc, 0, NULL, NULL) == proc->pid && kt_is_utf8("\xc3\xa9"));
    ktipc_close(ipc);
    proc_free_ktprocess(proc);
    static hotplugd_context daemon;
    static sddb_record device;
    static mntmg_record request; /* for sda: a walk would go on to use the null context */
    CHECK(mntmg_getlen(NULL) == -1 && get_sdname(17, out, sizeof out) == 0 &&
          strcmp(out, "sdb1") == 0 && sizeof daemon.settings == 4496 &&
          ktread_filef(out, sizeof out, "%s/comm", "/proc/self") > 0);
    CHECK(kt_cfg_get_ini_string(NULL, NULL, "A", &text) < 0 && kt_cfg_flushcache(NULL) < 0 &&
          load_sysconf(NULL, &daemon.settings) == -1 && kt_create_pid_file(NULL) == -1 &&
          initialize_lock_dletter(NULL, key) == -1 && sddb_insert(NULL, &device) == -1 &&
          probe_clean_label("a:b", out, sizeof out) == 3 && disk_name_of(16, out, 8) == 0 &&
          disk_name_of(416, out, 8) == -1 && prepare_partition(NULL, &device, NULL) == -1 &&
          hotplug_mount(NULL, NULL) == -1 && umount_disk(NULL, &request, 1) == -1 &&
          mount_disk(NULL, &request, 1) == -1 && receive_request(NULL) == -1 &&
          callprog(NULL, HOOK_ADD) == -1 && hook_add_script(NULL, 0) == -1 &&
          hook_remove_script(NULL, 0) == -1 && mount_thread_run(NULL) == -1 &&
          receive_thread_run(&daemon.receive_args) == -1);
    return failures != 0;
}
