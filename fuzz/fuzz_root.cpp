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
        char pattern[] = "/tmp/cfgupgrade-fuzz-XXXXXX";
        std::string dir = mkdtemp(pattern) ? pattern : "";
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

void plant(const std::string& logical, const std::string& bytes) {
    std::string path = phoneRoot() + logical;
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    store::reset();
}

std::string readBack(const std::string& logical) {
    std::ifstream in(phoneRoot() + logical, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void fail(const char* what) {
    std::fprintf(stderr, "fuzz property broken: %s\n", what);
    std::abort();
}

}  // namespace fuzz
