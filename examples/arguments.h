/* SPDX-License-Identifier: MIT */
/*
 * What the daemons here do with their arguments. -h and --help print the usage. Whatever is wrong
 * is one line on standard error, "daemon: what is wrong: why", and status 2, before anything has
 * been started or written.
 */
#ifndef ARGUMENTS_H
#define ARGUMENTS_H

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const struct option ONLY_HELP[] = {{"help", no_argument, NULL, 'h'}, {NULL, 0, NULL, 0}};

static inline void wrong_usage(const char *daemon, const char *what, const char *why)
{
    fprintf(stderr, "%s: %s: %s\n", daemon, what, why);
    exit(2);
}

/* Status 1 when nobody could read it. */
static inline void print_usage(const char *daemon, const char *usage)
{
    if (fputs(usage, stdout) < 0 || fflush(stdout) != 0) {
        fprintf(stderr, "%s: standard output: %s\n", daemon, strerror(errno));
        exit(1);
    }
    exit(0);
}

/* The whole text must be a decimal number within the limits. */
static inline int number_argument(const char *daemon, const char *text, int min, int max)
{
    char why[64];
    char *end;
    long number;

    errno = 0;
    number = strtol(text, &end, 10);
    snprintf(why, sizeof why, "not a number from %d to %d", min, max);
    if (*text < '0' || *text > '9' || *end != '\0' || errno != 0 || number < min || number > max)
        wrong_usage(daemon, text, why);
    return (int)number;
}

/* Before the first option. A standard stream that the caller has closed must not become the
 * number of a tty or a flash partition, which would then be printed to. */
static inline void begin_arguments(const char *daemon, char **argv)
{
    int fd;

    for (fd = 0; fd <= 2; fd++)
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", fd == 0 ? O_WRONLY : O_RDONLY) < 0)
            exit(1);
    argv[0] = (char *)daemon; /* for getopt_long's own messages */
}

/* For a daemon without options. Returns the index of the first operand, which may be argc. */
static inline int take_operands(const char *daemon, const char *usage, int argc, char **argv, int most)
{
    int option;

    begin_arguments(daemon, argv);
    while ((option = getopt_long(argc, argv, "h", ONLY_HELP, NULL)) != -1) {
        if (option == 'h')
            print_usage(daemon, usage);
        exit(2); /* getopt_long has said why */
    }
    if (argc - optind > most)
        wrong_usage(daemon, argv[optind + most], "one argument too many");
    return optind;
}

#endif
