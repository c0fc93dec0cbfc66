// Stands between the library and libc: while it is armed, the n-th of the calling thread's calls fails as the
// system might let it fail. No libc header, which would have types of its own for these: a call is handed on
// as the six words in which its arguments are, whatever they mean.
#include <dlfcn.h>
#include <errno.h>
#include <stddef.h>

__thread int fault_in; // calls up to the one that fails, and itself; 0: none is to

static int fails(int error)
{
    if (fault_in == 0 || --fault_in != 0)
        return 0;
    errno = error;
    return 1;
}

#define WRAP(name, failure, error) WRAP_AS(name, name, failure, error)
#define WRAP_AS(name, real_name, failure, error)                                                             \
    long name(long, long, long, long, long, long);                                                           \
    long name(long a, long b, long c, long d, long e, long f)                                                \
    {                                                                                                        \
        static long (*real)(long, long, long, long, long, long);                                             \
        if (fails(error))                                                                                    \
            return failure;                                                                                  \
        if (real == NULL)                                                                                    \
            *(void **)&real = dlsym(RTLD_NEXT, #real_name);                                                  \
        return real(a, b, c, d, e, f);                                                                       \
    }

WRAP(malloc, 0, ENOMEM)
WRAP(calloc, 0, ENOMEM)
WRAP(open64, -1, EMFILE)
WRAP(fopen64, 0, EMFILE)
WRAP(opendir, 0, EMFILE)
WRAP(popen, 0, ENOMEM)
WRAP(read, -1, EIO)
WRAP(write, -1, ENOSPC)
WRAP(pread64, -1, EIO)
WRAP(pwrite64, -1, EIO)
WRAP(readlink, -1, EACCES)
WRAP(socket, -1, EMFILE)
WRAP(bind, -1, EADDRINUSE)
WRAP(connect, -1, ECONNREFUSED)
WRAP(listen, -1, EADDRINUSE)
WRAP(setsockopt, -1, ENOPROTOOPT)
WRAP(flock, -1, ENOLCK)
WRAP(poll, -1, EINTR)
WRAP(pipe2, -1, EMFILE)
WRAP(fork, -1, EAGAIN)
WRAP_AS(vfork, fork, -1, EAGAIN) // which cannot be wrapped
WRAP(posix_spawnp, EAGAIN, EAGAIN)
WRAP(waitpid, -1, EINTR)
WRAP(shmget, -1, ENOSPC)
WRAP(shmat, -1, EMFILE)
WRAP(pthread_create, EAGAIN, EAGAIN)
WRAP(timer_create, -1, EAGAIN)
