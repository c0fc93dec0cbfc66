// Runs once per executable path; stays until its standard input ends.
#include <cstdio>
#include <qzlib.h>

int main()
{
    std::printf("result %d\n", qzlib_process_unique());
    std::fflush(stdout);
    while (std::getchar() != EOF)
        continue;
}
