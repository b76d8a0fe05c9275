#include "FuzzTarget.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>

// Runs every file of the folders on the command line through the target once, in the order of their names.
// Any compiler will do, and any machine: libFuzzer isn't needed. The last name printed is that of the input
// that failed.

namespace
{

std::set<std::filesystem::path> filesIn(int count, char** folders)
{
    std::set<std::filesystem::path> files;
    for (int i = 0; i < count; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(folders[i])) {
            files.insert(entry.path());
        }
    }
    return files;
}

void replay(const std::filesystem::path& file)
{
    std::fprintf(stderr, "%s\n", file.c_str());
    std::ifstream stream(file, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    fuzzCheck(stream.good() || stream.eof(), "the file can't be read");
    // A block of exactly this size: the address sanitizer sees each byte read beyond it.
    const std::unique_ptr<std::uint8_t[]> bytes(new std::uint8_t[text.size()]);
    text.copy(reinterpret_cast<char*>(bytes.get()), text.size());
    LLVMFuzzerTestOneInput(bytes.get(), text.size());
}

} // namespace

int main(int argc, char** argv)
try {
    const std::set<std::filesystem::path> files = filesIn(argc - 1, argv + 1);
    for (const std::filesystem::path& file : files) {
        replay(file);
    }
    std::printf("%zu inputs\n", files.size());
    return files.empty() ? 1 : 0; // no corpus, no test
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
