// Stands between the library and libc: while it is armed, the n-th of the calling thread's calls fails as the
// system might let it fail. No libc header, which would have names of its own for some of these.
#include "shim.h"

#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <stddef.h>

static __thread int left; // calls up to the one that fails, and itself; 0: none is to

void fault_arm(int n)
{
    left = n;
}

int fault_disarm(void)
{
    const int rest = left;
    left = 0;
    return rest;
}

static int fails(int error)
{
    if (left == 0 || --left != 0)
        return 0;
    errno = error;
    return 1;
}

#define WRAP(result, name, parameters, arguments, failure, error)                                            \
    WRAP_AS(result, name, name, parameters, arguments, failure, error)
#define WRAP_AS(result, name, real_name, parameters, arguments, failure, error)                              \
    result name parameters;                                                                                  \
    result name parameters                                                                                   \
    {                                                                                                        \
        static result(*real) parameters;                                                                     \
        if (fails(error))                                                                                    \
            return failure;                                                                                  \
        if (real == NULL)                                                                                    \
            *(void **)&real = dlsym(RTLD_NEXT, #real_name);                                                  \
        return real arguments;                                                                               \
    }

typedef long ssize_t;
typedef long long off64_t;
WRAP(void *, malloc, (size_t size), (size), NULL, ENOMEM)
WRAP(void *, calloc, (size_t count, size_t size), (count, size), NULL, ENOMEM)
WRAP(int, open64, (const char *path, int flags, int mode), (path, flags, mode), -1, EMFILE)
WRAP(void *, fopen64, (const char *path, const char *mode), (path, mode), NULL, EMFILE)
WRAP(void *, opendir, (const char *path), (path), NULL, EMFILE)
WRAP(void *, popen, (const char *command, const char *mode), (command, mode), NULL, ENOMEM)
WRAP(ssize_t, read, (int fd, void *buffer, size_t size), (fd, buffer, size), -1, EIO)
WRAP(ssize_t, write, (int fd, const void *buffer, size_t size), (fd, buffer, size), -1, ENOSPC)
WRAP(ssize_t, pread64, (int fd, void *buffer, size_t size, off64_t at), (fd, buffer, size, at), -1, EIO)
WRAP(ssize_t, pwrite64, (int fd, const void *buffer, size_t size, off64_t at), (fd, buffer, size, at), -1,
     EIO)
WRAP(ssize_t, readlink, (const char *path, char *buffer, size_t size), (path, buffer, size), -1, EACCES)
WRAP(int, socket, (int domain, int type, int protocol), (domain, type, protocol), -1, EMFILE)
WRAP(int, bind, (int fd, const void *address, unsigned size), (fd, address, size), -1, EADDRINUSE)
WRAP(int, connect, (int fd, const void *address, unsigned size), (fd, address, size), -1, ECONNREFUSED)
WRAP(int, listen, (int fd, int backlog), (fd, backlog), -1, EADDRINUSE)
WRAP(int, setsockopt, (int fd, int level, int name, const void *value, unsigned size),
     (fd, level, name, value, size), -1, ENOPROTOOPT)
WRAP(int, flock, (int fd, int how), (fd, how), -1, ENOLCK)
WRAP(int, poll, (void *fds, unsigned long count, int limit), (fds, count, limit), -1, EINTR)
WRAP(int, pipe2, (int *ends, int flags), (ends, flags), -1, EMFILE)
WRAP(int, fork, (void), (), -1, EAGAIN)
WRAP_AS(int, vfork, fork, (void), (), -1, EAGAIN) // which cannot be wrapped
WRAP(int, posix_spawnp,
     (int *pid, const char *file, const void *actions, const void *attributes, char *const *arguments,
      char *const *environment),
     (pid, file, actions, attributes, arguments, environment), EAGAIN, EAGAIN)
WRAP(int, waitpid, (int pid, int *status, int options), (pid, status, options), -1, EINTR)
WRAP(int, shmget, (int key, size_t size, int flags), (key, size, flags), -1, ENOSPC)
WRAP(void *, shmat, (int id, const void *address, int flags), (id, address, flags), (void *)-1, EMFILE)
WRAP(int, pthread_create, (void *thread, const void *attributes, void *(*run)(void *), void *argument),
     (thread, attributes, run, argument), EAGAIN, EAGAIN)
WRAP(int, timer_create, (int clock, void *event, void *timer), (clock, event, timer), -1, EAGAIN)
