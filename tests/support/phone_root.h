// A temporary phone root for tests: CFGUPGRADE_ROOT points at a fresh directory,
// files are addressed by their logical paths, and the log goes to a file beside it.
// Also how tests look at stored values: INI lines and protected forms.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "platform/log.h"
#include "platform/pw_data.h"
#include "store/config_store.h"
#include "store/report.h"

// The words that start the tool: the binary, behind the emulator in a cross build
// (CMake's CMAKE_CROSSCOMPILING_EMULATOR, split at blanks).
inline std::vector<std::string> toolCommand() {
    std::vector<std::string> words;
    std::istringstream emulator(CFGUPGRADE_EMULATOR);
    for (std::string word; emulator >> word;) words.push_back(word);
    words.push_back(CFGUPGRADE_BINARY);
    return words;
}

// A cross build's tests run the tool under an emulator.
inline bool toolIsEmulated() { return *CFGUPGRADE_EMULATOR != '\0'; }

class PhoneRoot : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/cfgupgrade-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
        std::filesystem::create_directories(root_ + "/tmp");
        setenv("CFGUPGRADE_ROOT", root_.c_str(), 1);
        setenv("CFGUPGRADE_LOG", (root_ + ".log").c_str(), 1);
        unsetenv("CFGUPGRADE_TRACE_LEVEL");
        store::reset();
        store::setReportSink([](const char* line) { app_log(60, 4, "%s", line); });
    }
    void TearDown() override {
        store::reset();
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
        std::filesystem::remove(root_ + ".log", ec);
    }
    // A new, empty root for the next case of a table.
    void fresh() { TearDown(); SetUp(); }

    std::string physical(const std::string& logical) const { return root_ + logical; }
    void write(const std::string& logical, const std::string& content) {
        std::filesystem::create_directories(std::filesystem::path(physical(logical)).parent_path());
        std::ofstream(physical(logical), std::ios::binary) << content;
    }
    std::string read(const std::string& logical) const { return slurp(physical(logical)); }
    bool exists(const std::string& logical) const { return std::filesystem::exists(physical(logical)); }
    void makeDir(const std::string& logical) { std::filesystem::create_directories(physical(logical)); }
    // Log records written since the root was made.
    std::string log() const { return slurp(root_ + ".log"); }

    // Every regular file under the root, by path, with its content.
    std::map<std::string, std::string> snapshot() const {
        std::map<std::string, std::string> files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root_))
            if (entry.is_regular_file()) files[entry.path().string().substr(root_.size())] = slurp(entry.path());
        return files;
    }

    // Runs one step as the driver does: the step, then a commit of the store.
    template <typename Step>
    void runStep(Step step) {
        step();
        store::commit();
    }

    // Runs the cfgupgrade binary on this root (its output discarded); its exit status.
    int runTool(const std::vector<std::string>& args) {
        std::string command;
        for (const auto& word : toolCommand()) command += word + " ";
        for (const auto& arg : args) command += " '" + arg + "'";
        int status = std::system((command + " >/dev/null").c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string root_;

private:
    static std::string slurp(const std::string& path) {
        std::stringstream buffer;
        buffer << std::ifstream(path, std::ios::binary).rdbuf();
        return buffer.str();
    }
};

// The value of the first line "key=..." or "key = ..."; "(absent)" without one.
inline std::string valueOf(const std::string& ini, const std::string& key) {
    for (const std::string& lead : {"\n" + key + "=", "\n" + key + " = "}) {
        size_t at = ("\n" + ini).find(lead);
        if (at != std::string::npos) return ini.substr(at + lead.size() - 1, ini.find('\n', at) - at - lead.size() + 1);
    }
    return "(absent)";
}

inline std::string protectedForm(const std::string& plain) {
    char out[kPwDataBufferSize] = {};
    return pw_data_encrypt(plain.c_str(), out) == 0 ? out : "(failed)";
}

// A stored value as the tables write it: "*plain" for a protected form, else itself.
inline std::string seen(const std::string& value) {
    char plain[kPwDataBufferSize] = {};
    return pw_data_decrypt(value.c_str(), plain) == 0 ? "*" + std::string(plain) : value;
}
