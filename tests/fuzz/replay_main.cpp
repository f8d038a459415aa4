// Runs a fuzz target over files and directories of inputs (the seed corpus
// and every regression input), for builds without libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    namespace fs = std::filesystem;
    int runs = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<fs::path> files;
        if (!fs::exists(argv[i])) continue;  // no regression inputs for this target yet
        if (fs::is_directory(argv[i])) {
            for (const auto &e : fs::recursive_directory_iterator(argv[i]))
                if (e.is_regular_file()) files.push_back(e.path());
        } else {
            files.emplace_back(argv[i]);
        }
        for (const auto &f : files) {
            std::ifstream in(f, std::ios::binary);
            std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), {});
            LLVMFuzzerTestOneInput(data.data(), data.size());
            ++runs;
        }
    }
    std::printf("%d inputs replayed\n", runs);
    return runs > 0 ? 0 : 1;
}
