// Runs a fuzz target on the files named on the command line and on the files in the folders named
// there, but not on hidden ones. A file *.hex holds hexadecimal digits, blanks, and comments from #
// to the end of the line; any other file is an input as it is.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz/Support.h"

namespace {

using std::filesystem::path;

std::string withoutComments(const std::string& text) {
    std::string digits;
    bool comment = false;
    for (const char letter : text) {
        if (letter == '#' || letter == '\n') comment = letter == '#';
        if (!comment && !isspace(static_cast<unsigned char>(letter))) digits += letter;
    }
    return digits;
}

std::string unhex(const std::string& digits) {
    std::string bytes;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return bytes;
}

void run(const path& file) {
    fprintf(stderr, "%s\n", file.c_str());
    std::ifstream in(file, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(in), {}};
    if (file.extension() == ".hex") text = unhex(withoutComments(text));
    const auto* const begin = reinterpret_cast<const unsigned char*>(text.data());
    LLVMFuzzerTestOneInput(fuzz::exactCopy(begin, text.size()).get(), text.size());
}

// Runs the inputs below `place`; returns their number.
int runAll(const path& place) {
    if (!std::filesystem::is_directory(place)) {
        run(place);
        return 1;
    }
    std::vector<path> files;
    for (const auto& entry : std::filesystem::directory_iterator(place)) {
        if (entry.path().filename().c_str()[0] != '.') files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    for (const path& file : files)
        run(file);
    return static_cast<int>(files.size());
}

}  // namespace

int main(int argc, char** argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i)
        count += runAll(argv[i]);
    printf("%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
