/* The yardstick for start-up: the least a program that prints one line can cost,
 * loading and exit included. A run of cfgupgrade without an argument, which only
 * logs its usage line, is timed against it. */
#include <stdio.h>

int main(void) {
    puts("usage: one line");
    return 0;
}
