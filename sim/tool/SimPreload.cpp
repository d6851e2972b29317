#include "tool/SimPreload.h"

#include <fcntl.h>
#include <link.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace vexlo_sim {
namespace {

const char kUmockdevPreload[] = "libumockdev-preload.so.0";

// Sanitizer runtimes loaded in this process (vexlo-sim built with a sanitizer), full paths.
int CollectRuntime(dl_phdr_info* info, size_t, void* arg) {
    const char* path = info->dlpi_name;
    const char* base = path ? strrchr(path, '/') : nullptr;
    base = base ? base + 1 : path;
    if (!base) return 0;
    for (const char* prefix : {"libasan.so", "libtsan.so", "libubsan.so", "liblsan.so"})
        if (strncmp(base, prefix, strlen(prefix)) == 0) static_cast<std::vector<std::string>*>(arg)->push_back(path);
    return 0;
}

// The path execvp would run for `program`, or empty.
std::string Resolve(const std::string& program) {
    if (program.find('/') != std::string::npos) return program;
    const char* path = std::getenv("PATH");
    std::string dirs = path && *path ? path : "/usr/local/bin:/usr/bin:/bin";
    size_t start = 0;
    for (;;) {
        size_t end = dirs.find(':', start);
        std::string dir = dirs.substr(start, end == std::string::npos ? std::string::npos : end - start);
        std::string full = (dir.empty() ? "." : dir) + "/" + program;
        if (access(full.c_str(), X_OK) == 0) return full;
        if (end == std::string::npos) return "";
        start = end + 1;
    }
}

// True when the file holds `name`: a dynamically linked program names each library it needs.
bool FileMentions(const std::string& file, const std::string& name) {
    int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st;
    bool found = false;
    if (fstat(fd, &st) == 0 && st.st_size > 0) {
        void* map = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
        if (map != MAP_FAILED) {
            found = memmem(map, static_cast<size_t>(st.st_size), name.data(), name.size()) != nullptr;
            munmap(map, static_cast<size_t>(st.st_size));
        }
    }
    close(fd);
    return found;
}

}  // namespace

std::string SimChildPreload(const std::string& program, const char* inherited) {
    std::vector<std::string> runtimes;
    dl_iterate_phdr(&CollectRuntime, &runtimes);
    std::string preload;
    std::string file = runtimes.empty() ? "" : Resolve(program);
    for (const std::string& rt : runtimes) {
        std::string soname = rt.substr(rt.rfind('/') + 1);
        if (!file.empty() && FileMentions(file, soname)) preload += rt + ":";
    }
    // A runtime preloaded on purpose (a program such as python that loads a sanitizer build of
    // the library) keeps its first place; everything else inherited follows the umockdev preload.
    std::string rest;
    std::string list = inherited ? inherited : "";
    for (size_t start = 0; start < list.size();) {
        size_t end = list.find(':', start);
        if (end == std::string::npos) end = list.size();
        std::string item = list.substr(start, end - start);
        start = end + 1;
        if (item.empty()) continue;
        const char* base = strrchr(item.c_str(), '/');
        base = base ? base + 1 : item.c_str();
        bool runtime = false;
        for (const char* prefix : {"libasan.so", "libtsan.so", "libubsan.so", "liblsan.so"})
            runtime = runtime || strncmp(base, prefix, strlen(prefix)) == 0;
        (runtime ? preload : rest) += item + ":";
    }
    preload += kUmockdevPreload;
    if (!rest.empty()) preload += ":" + rest.substr(0, rest.size() - 1);
    return preload;
}

}  // namespace vexlo_sim
