// Runs a fuzz target over files instead of under libFuzzer: each argument
// is a file or a folder of files (the seed corpus, inputs that once made a
// target fail).  The ordinary and sanitizer builds run every target this way
// as unit tests, with the compiler they use; an input that fails makes the
// target abort, so the test fails with the file's name printed first.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

std::vector<std::string> files_of(const std::string& path) {
    std::vector<std::string> out;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return out;
    if (!S_ISDIR(st.st_mode)) {
        out.push_back(path);
        return out;
    }
    if (DIR* dir = opendir(path.c_str())) {
        while (dirent* d = readdir(dir))
            if (d->d_name[0] != '.') out.push_back(path + "/" + d->d_name);
        closedir(dir);
    }
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        const std::vector<std::string> files = files_of(argv[i]);
        if (files.empty()) {
            std::fprintf(stderr, "no inputs in %s\n", argv[i]);
            return 1;
        }
        for (const std::string& file : files) {
            std::ifstream in(file, std::ios::binary);
            const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            std::fprintf(stderr, "%s\n", file.c_str());
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++count;
        }
    }
    std::printf("replayed %zu inputs\n", count);
    return 0;
}
