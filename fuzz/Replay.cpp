// Feeds every file of the folders that it is given to the fuzz target.

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "Fuzz.h"

int main(int count, char** arguments) {
    std::size_t files = 0;
    for (int i = 1; i < count; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(arguments[i])) {
            std::ifstream stream(entry.path(), std::ios::binary);
            const std::string contents{std::istreambuf_iterator<char>(stream), {}};
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(contents.data()), contents.size());
            ++files;
        }
    }
    std::cout << files << " files replayed\n";
    return files == 0 ? 1 : 0;
}
