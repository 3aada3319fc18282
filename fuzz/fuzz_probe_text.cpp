// fuzz_probe_text: a probing tool's output: each line as disktype's, the whole as a label tool's.
#include "fuzz/fuzz.h"
#include "mount/probe_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    probe_scan scan{};
    for (size_t at = 0; at < size;) {
        const auto *feed = static_cast<const uint8_t *>(std::memchr(data + at, '\n', size - at));
        const size_t length = feed != nullptr ? static_cast<size_t>(feed - data) - at : size - at;
        probe_scan_line(&scan, fuzz::copy(data + at, length).get());
        at += length + 1;
    }
    // As probing reads a label: at most 127 bytes of the tool's output, into the record's field.
    char label[128];
    probe_clean_label(fuzz::copy(data, size < 127 ? size : 127).get(), label, sizeof label);
    return 0;
}
