// Runs a target over the files of directories: what the fuzzer once found stays mended.
#include "fuzz.h"

int main(int argc, char** argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    std::size_t files = 0;
    for (int n = 1; n < argc; ++n) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[n])) {
            std::printf("%s\n", entry.path().c_str());
            std::fflush(stdout);  // it tells which one breaks
            const std::string input = contents(entry.path());
            (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()),
                                         input.size());
            ++files;
        }
    }
    expect(files > 0, "there is a corpus");
    return 0;
}
