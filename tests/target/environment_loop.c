/* Sets the boot environment over and over, perhaps until the power is cut: environment_loop ROUNDS
 * Says what it finds, then "set N" each time that round N is on the flash. A round writes one of
 * two variables, as long as several flash pages and made of the round's number alone, so that
 * a block put together from two rounds shows: such a value is "found -1". */
#include <qzlib.h>

#include <stdio.h>
#include <stdlib.h>

enum { REPEATS = 5000, DIGITS = 8 };

static char text[REPEATS * DIGITS + DIGITS];

static int set_round(int round)
{
    for (int i = 0; i < REPEATS; ++i)
        snprintf(text + i * DIGITS, 2 * DIGITS, "%08d", round);
    return qzlib_set_boot_env(round % 2 == 0 ? "even" : "odd", text);
}

static int number_of(const char *name)
{
    int number = 0;
    int i;
    if (qzlib_get_boot_env(name, text, sizeof text) != 0)
        return 0;
    sscanf(text, "%8d", &number);
    for (i = DIGITS; i < REPEATS * DIGITS; ++i)
        if (text[i] != text[i - DIGITS])
            return -1;
    return text[i] == '\0' ? number : -1;
}

int main(int argc, char **argv)
{
    int even = number_of("even");
    int odd = number_of("odd");
    int round = even < 0 || odd < 0 ? -1 : even > odd ? even : odd;
    int end = round + (argc > 1 ? atoi(argv[1]) : 1000);
    setvbuf(stdout, NULL, _IONBF, 0);
    printf("found %d\n", round);
    if (round < 0)
        return 1;
    while (++round <= end) {
        if (set_round(round) != 0)
            return 1;
        printf("set %d\n", round);
    }
    return 0;
}
