// Replays fuzz inputs without libFuzzer: every file named, or found in a directory named, is run
// through the target once. Exits non-zero when there was nothing to replay.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static int RunFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    return 1;
}

int main(int argc, char** argv) {
    int runs = 0;
    for (int i = 1; i < argc; ++i) {
        struct stat st;
        if (stat(argv[i], &st) != 0) continue;
        if (!S_ISDIR(st.st_mode)) {
            runs += RunFile(argv[i]);
            continue;
        }
        DIR* d = opendir(argv[i]);
        while (dirent* e = d ? readdir(d) : nullptr) {
            if (e->d_name[0] == '.') continue;
            runs += RunFile(std::string(argv[i]) + "/" + e->d_name);
        }
        if (d) closedir(d);
    }
    printf("replayed %d inputs\n", runs);
    return runs > 0 ? 0 : 1;
}
