/* A daemon outside the tree: calls the library and the cJSON that comes with it. */
#include <qzlib.h>

#include <dlfcn.h>
#include <string.h>
#include <sys/resource.h>

static void ignore(local_msg *msg, void *ctx)
{
    (void)msg;
    (void)ctx;
}

int main(void)
{
    char text[] = " \t3.2.0\r\n";
    cJSON *tree = cJSON_Parse("{\"rssi\": -71}");
    const struct rlimit none = {0, 0};
    void *library = dlopen("libqzlib.so.3", RTLD_NOW);
    if (strcmp(qzlib_str_trim(text), "3.2.0") != 0)
        return 1;
    if (tree == NULL || cJSON_GetObjectItem(tree, "rssi")->valueint != -71)
        return 2;
    cJSON_Delete(tree);
    if (library == NULL || dlsym(library, "cJSON_Parse") == NULL || dlsym(library, "debug_msg") == NULL)
        return 3;
    if (dlclose(library) != 0 || qzlib_msg_init(ignore, NULL) != 0)
        return 4;
    /* Closing the channel needs no descriptor, not even for libc's unwinder. */
    setrlimit(RLIMIT_NOFILE, &none);
    qzlib_msg_exit();
    return 0;
}
