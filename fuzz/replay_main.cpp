// Without a fuzzing engine every target is an ordinary program that feeds
// each file of the corpus folders (or single files) named on its command line
// to the target once: the normal test suite replays every corpus, regression
// cases included, under whatever sanitizers that build uses.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

void run_file(const std::filesystem::path &file) {
    std::ifstream in(file, std::ios::binary);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // An empty vector's data() may be null; the targets get a valid pointer.
    static const uint8_t none = 0;
    LLVMFuzzerTestOneInput(bytes.empty() ? &none : bytes.data(), bytes.size());
}

}  // namespace

int main(int argc, char **argv) {
    std::size_t runs = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path arg(argv[i]);
        if (std::filesystem::is_directory(arg)) {
            std::vector<std::filesystem::path> files;
            for (const auto &entry : std::filesystem::directory_iterator(arg))
                if (entry.is_regular_file()) files.push_back(entry.path());
            std::sort(files.begin(), files.end());
            for (const auto &f : files) {
                run_file(f);
                ++runs;
            }
        } else {
            run_file(arg);
            ++runs;
        }
    }
    std::fprintf(stderr, "replayed %zu inputs\n", runs);
    // A corpus that is missing or empty tests nothing: fail rather than pass.
    return runs > 0 ? 0 : 1;
}
