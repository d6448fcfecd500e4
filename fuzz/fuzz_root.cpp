#include "fuzz_root.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "store/config_store.h"

namespace fuzz {

namespace fs = std::filesystem;

const std::string& phoneRoot() {
    static const std::string root = [] {
        // Memory-backed where there is one: the store syncs every file it writes.
        std::string pattern = fs::is_directory("/dev/shm") ? "/dev/shm/cfgupgrade-fuzz-XXXXXX" : "/tmp/cfgupgrade-fuzz-XXXXXX";
        std::string dir = mkdtemp(&pattern[0]) ? pattern : "";
        if (dir.empty()) fail("cannot make a temporary root");
        setenv("CFGUPGRADE_ROOT", dir.c_str(), 1);
        setenv("CFGUPGRADE_LOG", "/dev/null", 1);
        static std::string removeAtExit = dir;
        std::atexit([] {
            std::error_code ec;
            fs::remove_all(removeAtExit, ec);
        });
        return dir;
    }();
    return root;
}

namespace {
std::string current;  // the root files are planted in; phoneRoot() until freshRoot()
}

void freshRoot() {
    static unsigned long count = 0;
    std::error_code ec;
    if (!current.empty()) fs::remove_all(current, ec);
    current = phoneRoot() + "/" + std::to_string(++count);
    fs::create_directories(current);
    setenv("CFGUPGRADE_ROOT", current.c_str(), 1);
    store::reset();
}

void plant(const std::string& logical, const std::string& bytes) {
    std::string path = (current.empty() ? phoneRoot() : current) + logical;
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    store::reset();
}

std::string readBack(const std::string& logical) {
    std::ifstream in((current.empty() ? phoneRoot() : current) + logical, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void fail(const char* what) {
    std::fprintf(stderr, "fuzz property broken: %s\n", what);
    std::abort();
}

}  // namespace fuzz
