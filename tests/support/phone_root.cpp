#include "support/phone_root.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "store/config_store.h"

namespace fs = std::filesystem;

void PhoneRoot::SetUp() {
    char tmpl[] = "/tmp/cfgupgrade-test-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root_ = tmpl;
    fs::create_directories(root_ + "/tmp");
    setenv("CFGUPGRADE_ROOT", root_.c_str(), 1);
    setenv("CFGUPGRADE_LOG", (root_ + ".log").c_str(), 1);
    unsetenv("CFGUPGRADE_TRACE_LEVEL");
    store::reset();
}

void PhoneRoot::TearDown() {
    store::reset();
    std::error_code ec;
    fs::remove_all(root_, ec);
    fs::remove(root_ + ".log", ec);
}

void PhoneRoot::write(const std::string& logical, const std::string& content) {
    fs::create_directories(fs::path(physical(logical)).parent_path());
    std::ofstream(physical(logical), std::ios::binary) << content;
}

std::string PhoneRoot::read(const std::string& logical) const {
    std::ifstream in(physical(logical), std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

bool PhoneRoot::exists(const std::string& logical) const { return fs::exists(physical(logical)); }

void PhoneRoot::makeDir(const std::string& logical) { fs::create_directories(physical(logical)); }

std::vector<std::pair<std::string, std::string>> PhoneRoot::snapshot() const {
    std::vector<std::pair<std::string, std::string>> files;
    for (const auto& entry : fs::recursive_directory_iterator(root_))
        if (entry.is_regular_file()) {
            std::string logical = entry.path().string().substr(root_.size());
            files.emplace_back(logical, read(logical));
        }
    std::sort(files.begin(), files.end());
    return files;
}

void PhoneRoot::commit() { store::commit(); }

std::string PhoneRoot::log() const {
    std::ifstream in(root_ + ".log", std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

int PhoneRoot::runTool(const std::vector<std::string>& args, std::string* out) {
    std::string command = CFGUPGRADE_BINARY;
    for (const auto& arg : args) command += " '" + arg + "'";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return -1;
    std::string output;
    char buffer[4096];
    while (size_t n = fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, n);
    int status = pclose(pipe);
    if (out) *out = output;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void copyTree(const std::string& from, const std::string& to) {
    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::overwrite_existing);
}
