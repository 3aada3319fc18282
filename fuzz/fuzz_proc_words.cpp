// fuzz_proc_words: a command line through the process runner's word splitter.
#include "fuzz/fuzz.h"
#include "lib/proc_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::text line = fuzz::copy(data, size);
    char **words = proc_split_words(line.get());
    // Every word is a non-empty string inside the line.
    for (char **w = words; w != nullptr && *w != nullptr; ++w)
        if (*w < line.get() || *w + std::strlen(*w) > line.get() + size || **w == '\0')
            std::abort();
    std::free(words);
    return 0;
}
