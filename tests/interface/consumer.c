/* A daemon outside the tree: calls the library and the cJSON that comes with it. */
#include <qzlib.h>

#include <dlfcn.h>
#include <string.h>

int main(void)
{
    char text[] = " \t3.2.0\r\n";
    cJSON *tree = cJSON_Parse("{\"rssi\": -71}");
    void *library = dlopen("libqzlib.so.3", RTLD_NOW);
    if (strcmp(qzlib_str_trim(text), "3.2.0") != 0)
        return 1;
    if (tree == NULL || cJSON_GetObjectItem(tree, "rssi")->valueint != -71)
        return 2;
    cJSON_Delete(tree);
    if (library == NULL || dlsym(library, "cJSON_Parse") == NULL || dlsym(library, "debug_msg") == NULL)
        return 3;
    return dlclose(library);
}
