// Runs a fuzz target over files and directories of inputs (the seed corpus
// and every regression input), for builds without libFuzzer.
#include <sys/resource.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

// Inputs replay under the memory cap they were found under: a capacity a
// peer announces beyond it fails to allocate (error 3) instead of taking
// gigabytes and minutes. The sanitizers take the fuzzer's own options
// (ASAN_OPTIONS from the environment still adds to them); a plain build
// caps the data segment, which is looser but keeps every input quick.
#if defined(__SANITIZE_ADDRESS__)
#define REPLAY_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define REPLAY_UNDER_ASAN 1
#endif
#endif

#ifdef REPLAY_UNDER_ASAN
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=24";
}
static void cap_memory() {}
#else
static void cap_memory() {
    constexpr rlim_t kDataLimit = rlim_t{1} << 30;
    const rlimit limit{kDataLimit, kDataLimit};
    setrlimit(RLIMIT_DATA, &limit);
}
#endif

int main(int argc, char **argv) {
    namespace fs = std::filesystem;
    cap_memory();
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
