#include "driver.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "store/config_store.h"

namespace fuzz {

namespace fs = std::filesystem;

namespace {

const std::string& root() {
    static const std::string dir = [] {
        // Memory-backed where there is one: the store syncs every file it writes.
        std::string pattern = fs::is_directory("/dev/shm") ? "/dev/shm/cfgupgrade-fuzz-XXXXXX" : "/tmp/cfgupgrade-fuzz-XXXXXX";
        if (!mkdtemp(&pattern[0])) fail("cannot make a temporary root");
        setenv("CFGUPGRADE_ROOT", pattern.c_str(), 1);
        setenv("CFGUPGRADE_LOG", "/dev/null", 1);
        static std::string removeAtExit = pattern;
        std::atexit([] {
            std::error_code ec;
            fs::remove_all(removeAtExit, ec);
        });
        return pattern;
    }();
    return dir;
}

}  // namespace

void plant(const std::string& logical, const std::string& bytes) {
    fs::create_directories(fs::path(root() + logical).parent_path());
    std::ofstream(root() + logical, std::ios::binary | std::ios::trunc) << bytes;
    store::reset();
}

std::string readBack(const std::string& logical) {
    std::ifstream in(root() + logical, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void fail(const char* what) {
    std::fprintf(stderr, "fuzz property broken: %s\n", what);
    std::abort();
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::property(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
