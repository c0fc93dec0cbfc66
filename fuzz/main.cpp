// The entry of every target: libFuzzer's, or where the compiler has none a replay of the inputs in the
// folders given.
#include "input.h"

#include <filesystem>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    take(fuzz::Input({data, size}));
    return 0;
}

#ifdef REPLAY
int main(int argc, char **argv)
{
    int count = 0;
    for (const char *folder : std::span(argv + 1, static_cast<size_t>(argc - 1)))
        for (const auto &entry : std::filesystem::directory_iterator(folder)) {
            const std::string bytes = fuzz::read_file(entry.path().c_str(), entry.file_size());
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
            ++count;
        }
    printf("%d inputs\n", count);
    return count == 0;
}
#endif
