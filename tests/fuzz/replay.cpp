// The main function of a fuzzer in builds without libFuzzer: runs the inputs in the files and
// folders that it is given. A file that ends the process is the last one named on standard error.

#include "fuzz.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

// Weak, since not every fuzzer has one. NOLINTNEXTLINE(readability-redundant-declaration)
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

std::vector<std::string> files_of(const std::string& path) {
    std::vector<std::string> files;
    if (!std::filesystem::is_directory(path)) {
        return {path};
    }
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

// In a block of its own size, so that the address sanitizer sees a read behind its end.
void run(const std::vector<char>& bytes) {
    const std::unique_ptr<uint8_t[]> block(new uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), block.get());
    LLVMFuzzerTestOneInput(block.get(), bytes.size());
}

bool run_file(const std::string& path) {
    fprintf(stderr, "%s\n", path.c_str());
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
        fprintf(stderr, "cannot be read\n");
        return false;
    }
    run(bytes);
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    run({});
    size_t count = 0;
    for (int i = 1; i < argc; i++) {
        for (const std::string& path : files_of(argv[i])) {
            if (!run_file(path)) {
                return EXIT_FAILURE;
            }
            count++;
        }
    }
    if (count == 0) {
        fprintf(stderr, "no input was given\n");
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
