// SPDX-License-Identifier: Apache-2.0
// Stands in for the fuzzer: gives a fuzz target each file of the folders named on the command line.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int main(int argc, char **argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i)
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string bytes(std::istreambuf_iterator<char>(file), {});
            std::cerr << entry.path().string() << "\n"; // the last one named is the one that failed
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()),
                                   bytes.size());
            ++count;
        }
    std::cerr << count << " inputs\n";
    return count > 0 ? 0 : 1;
}
