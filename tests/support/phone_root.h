// A temporary phone root for tests: CFGUPGRADE_ROOT points at a fresh directory,
// files are addressed by their logical paths, and the log goes to a file.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

class PhoneRoot : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Writes a file (creating its directories) and reads it back, by logical path.
    void write(const std::string& logical, const std::string& content);
    std::string read(const std::string& logical) const;
    bool exists(const std::string& logical) const;
    void makeDir(const std::string& logical);
    std::string physical(const std::string& logical) const { return root_ + logical; }
    // Every regular file under the root, with its content, sorted by path.
    std::vector<std::pair<std::string, std::string>> snapshot() const;

    // Runs one step as the driver does: the step, then a commit of the store.
    template <typename Step>
    void runStep(Step step) {
        step();
        commit();
    }
    void commit();

    // Log records written since the test began.
    std::string log() const;

    // Runs the cfgupgrade binary on this root; returns its exit status, fills out/err.
    int runTool(const std::vector<std::string>& args, std::string* out = nullptr);

    std::string root_;
};

// Copies a directory tree (the example image) under the test root.
void copyTree(const std::string& from, const std::string& to);
