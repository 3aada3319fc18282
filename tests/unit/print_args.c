/* Test helper: prints each argument on a line of its own, so tests see how a command was split. */
#include <stdio.h>

int main(int argc, char **argv) {
    for (int i = 1; i < argc; ++i)
        puts(argv[i]);
}
