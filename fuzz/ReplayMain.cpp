// Feeds every file of the given folders to the target, once: seeds are regression tests wherever there is no fuzzer.
#include "fuzz/Fuzz.h"

#include <algorithm>
#include <vector>

int main(int argc, char** argv)
{
    std::vector<std::filesystem::path> seeds;
    for (int i = 1; i < argc; ++i)
        for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
            if (entry.is_regular_file())
                seeds.push_back(entry.path());
    std::sort(seeds.begin(), seeds.end());
    for (const std::filesystem::path& seed : seeds)
    {
        std::printf("%s\n", seed.filename().string().c_str());
        std::fflush(stdout); // the last name is that of the seed that breaks a law
        const std::string bytes = QsFuzz::BytesOf(seed);
        // A copy of exactly its size, so that a sanitizer sees a read beyond the end.
        const std::vector<std::uint8_t> data(bytes.begin(), bytes.end());
        LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    std::printf("%zu seeds\n", seeds.size());
    return seeds.empty() ? 1 : 0;
}
