/* SPDX-License-Identifier: MIT */
/*
 * Staying on the message bus. A daemon whose server ended, or was replaced by one that does not know
 * it, finds its own name no longer; to look costs no system call.
 */
#ifndef BUS_H
#define BUS_H

#include <qzlib.h>
#include <time.h>
#include <unistd.h>

enum { BUS_RETRY_S = 10 }; /* a socket without a server costs a connect of six seconds */

/* Whether this process is on the bus under that name; joins it when a server runs. Not to be
 * called while another thread writes to the bus. */
static inline int on_bus(const char *name)
{
    static time_t tried;
    struct timespec now;

    if (qzlib_find_client_by_name(name) != NULL)
        return 1;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (access(QZLIB_MBUS_SOCKET, F_OK) != 0 || (tried != 0 && now.tv_sec - tried < BUS_RETRY_S))
        return 0;
    tried = now.tv_sec;
    return qzlib_connect_mbus_server(name) == 0;
}

#endif
