// The fuzz targets without libFuzzer: fuzz_parsers --target=NAME FILE... runs each file once.
#include <fstream>
#include <iterator>
#include <stdio.h>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size);

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    int failed = argc < 3;
    for (int i = 2; i < argc; i++) {
        fprintf(stderr, "%s\n", argv[i]);
        std::ifstream file(argv[i], std::ios::binary);
        std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
        failed |= !file.is_open();
        LLVMFuzzerTestOneInput((const unsigned char *)bytes.data(), bytes.size());
    }
    return failed;
}
