// fuzz_reply: a datagram as hotplugctl receives it, through every decoder of the daemon's replies,
// as tables and as JSON.
#include "client/reply.h"
#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static FILE *out = std::fopen("/dev/null", "w");
    char names[26][4];
    reply_map map;
    reply_disks(data, size, names);
    reply_read_map(data, size, &map);
    reply_result(data, size);
    for (int how : {REPLY_TABLE, REPLY_JSON}) {
        reply_show_disk(out, "sdb", data, size, how);
        reply_show_partition(out, 1, data, size, how);
    }
    // Text fields reach the JSON writer as their bytes up to the first NUL.
    fuzz::text text = fuzz::copy(data, size);
    reply_json_string(out, text.get(), std::strlen(text.get()));
    return 0;
}
