// The four access families on one file, in one process: what no run of the binary can
// show on its own, since each step uses the store its own way. What the steps make of
// it is pinned by the golden images.
#include <gtest/gtest.h>

#include <functional>

#include "store/config_store.h"
#include "store/report.h"
#include "support/tool_run.h"

using namespace ETL_FileHelper;

namespace {

const char* const kUser = "/config/user/user.ini";

class Store : public ::testing::Test {
protected:
    tool::WorkDir work;
    void SetUp() override {
        setenv("CFGUPGRADE_ROOT", work.root().c_str(), 1);
        tool::fs::create_directories(work.root() + "/config/user");
        std::ofstream(work.root() + kUser) << "[Net]\nk=0\n";
        store::reset();
    }
    void TearDown() override { store::reset(); }
};

}  // namespace

TEST_F(Store, EveryCompletedWriteIsSeenByEveryFamily) {
    // Each writer sets Net/k to a new number, and again (a set of the value already there
    // succeeds too, as do a handle's second set of a key before its flush and a flush with
    // nothing pending); each reader must then see it.
    std::function<bool(int)> writers[] = {
        [](int v) { return etlSetProfileInt(kUser, "Net", "k", v); },
        [](int v) { return etlSetRegistryInt(kUser, "Net", "k", v); },
        [](int v) { HREGISTRY h = registryOpen(kUser, "Net"); return registrySetInt(h, "k", -v) && registrySetInt(h, "k", v) && registryFlush(h) && registryFlush(h); },
        [](int v) { iniFile f; f.LoadFromFile(kUser); f.SetTextValue("Net", "k", std::to_string(v)); return f.SaveToFile(); },
    };
    std::function<int()> readers[] = {
        [] { return etlGetProfileInt(kUser, "Net", "k", -9); },
        [] { return etlGetRegistryInt(kUser, "Net", "k", -9); },
        [] { return std::atoi(ETL_SubClass::registryGetString(registryOpen(kUser, "Net"), "k", "").c_str()); },
        [] { iniFile f; return f.LoadFromFile(kUser) ? f.GetIntValue("Net", "k", -9) : -8; },
    };
    int value = 0;
    for (auto& writeValue : writers)
        for (auto& readValue : readers) {
            EXPECT_TRUE(writeValue(++value) && writeValue(value)) << value;
            EXPECT_EQ(readValue(), value);
        }
    // A handle reads back what it set before its flush; nobody else sees that yet.
    HREGISTRY handle = registryOpen(kUser, "Net");
    registrySetString(handle, "p", "pending");
    EXPECT_EQ(ETL_SubClass::registryGetString(handle, "p", ""), "pending");
    EXPECT_EQ(etlGetProfileInt(kUser, "Net", "p", -1), -1);
    EXPECT_TRUE(store::commit());
    EXPECT_EQ(tool::slurp(work.root() + kUser), "[Net]\nk=" + std::to_string(value) + "\n");
}

// The store changes a file's content in place when nobody else holds it; a document
// that does must keep the content it loaded, and unsaved values stay in the document.
TEST_F(Store, ADocumentSeesWhatItLoadedAndSetUntilItLoadsAgain) {
    iniFile early, writer, unnamed;
    unnamed.SetTextValue("Net", "k", "5");
    EXPECT_EQ(unnamed.SaveToFile(), 0) << "a document never loaded has no file to save to";
    early.LoadFromFile(kUser);
    writer.LoadFromFile(kUser);
    writer.SetTextValue("Net", "k", "1");
    EXPECT_EQ(writer.GetIntValue("Net", "k", -9), 1);
    EXPECT_EQ(writer.GetTextValue("Net", "j", "-") + writer.GetTextValue("Other", "k", "-"), "--") << "only that key";
    EXPECT_EQ(etlGetProfileInt(kUser, "Net", "k", -9), 0) << "not saved yet";
    for (int v = 1; v <= 3; ++v) {  // the second and third saves change the store's copy in place
        writer.SetTextValue("Net", "k", std::to_string(v));
        writer.SaveToFile();
        EXPECT_EQ(etlGetProfileInt(kUser, "Net", "k", -9), v);
    }
    etlSetProfileInt(kUser, "Net", "k", 4);
    EXPECT_EQ(writer.GetIntValue("Net", "k", -9), 3) << "a path-addressed set does not reach a loaded document";
    EXPECT_EQ(early.GetIntValue("Net", "k", -9), 0);
    early.LoadFromFile(kUser);  // now holds the store's copy with it
    EXPECT_EQ(early.GetIntValue("Net", "k", -9), 4);
    writer.SetTextValue("Net", "other", "x");
    writer.SetTextValue("Other", "other", "y");  // the same name in another section is another key
    writer.SaveToFile();  // saves the whole document: its k=3 wins over the set of 4
    store::commit();
    EXPECT_EQ(tool::slurp(work.root() + kUser), "[Net]\nk=3\nother=x\n[Other]\nother=y\n");
    EXPECT_EQ(early.GetTextValue("Net", "other", "-"), "-") << "another document's save does not reach it";
}

// A set whose text would not read back the same is refused in every family, with one
// line naming file, section and key, and changes nothing: a missing file stays missing.
TEST_F(Store, ARefusedSetIsLoggedAndCreatesNothing) {
    static std::vector<std::string> lines;
    store::setReportSink([](const char* line) { lines.push_back(line); });
    const std::string missing = "/config/user/new.ini";
    std::function<bool()> sets[] = {
        [&] { return etlSetProfileInt(missing, "Net", "a=b", 1); },
        [&] { return etlSetRegistryInt(missing, "a]b", "k", 1); },
        [&] { return registrySetString(registryOpen(missing, "Net"), "k", "x\ny"); },
        [&] { iniFile f; f.LoadFromFile(missing); return f.SetTextValue("Net", "#k", "1") != 0; },
    };
    for (auto& set : sets) EXPECT_FALSE(set());
    EXPECT_FALSE(registryFlush(nullptr)) << "the handle of a path the store refused";
    EXPECT_TRUE(store::commit());
    store::setReportSink(nullptr);
    EXPECT_FALSE(tool::fs::exists(work.root() + missing));
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1], "Cannot set [" + missing + "] section [a]b] key [k]: it would not read back the same");
}

// Another writer changes the file after the store read it: between two steps (the next
// step reads it again) or within the step that sets a key (the commit sets the step's
// keys again on what the file holds now). Either way both changes end up in the file.
TEST_F(Store, AnotherWritersChangeSurvivesTheNextSave) {
    const std::string path = work.root() + kUser;
    std::function<bool()> sets[] = {
        [] { return etlSetProfileInt(kUser, "Net", "k", 7); },
        [] { HREGISTRY h = registryOpen(kUser, "Net"); return registrySetInt(h, "k", 7) && registryFlush(h); },
        [] { iniFile f; f.LoadFromFile(kUser); f.SetTextValue("Net", "k", "7"); return f.SaveToFile() != 0; },
    };
    std::function<void()> writers[] = {
        [&] {  // replaces the file, as an atomic writer does
            std::ofstream(path + ".new") << "[Net]\nk=0\n[Daemon]\nd=1\n";
            tool::fs::rename(path + ".new", path);
        },
        [&] { std::ofstream(path, std::ios::app) << "[Daemon]\nd=1\n"; },  // in place
    };
    for (bool sameStep : {false, true})
        for (auto& set : sets)
            for (auto& otherWriter : writers) {
                std::ofstream(path) << "[Net]\nk=0\n";
                store::reset();
                EXPECT_EQ(etlGetProfileInt(kUser, "Net", "k", -1), 0);
                if (!sameStep) store::commit();
                otherWriter();
                EXPECT_EQ(etlGetProfileInt(kUser, "Daemon", "d", -1), sameStep ? -1 : 1) << "read once per step";
                EXPECT_TRUE(set());
                EXPECT_TRUE(store::commit());
                EXPECT_EQ(tool::slurp(path), "[Net]\nk=7\n[Daemon]\nd=1\n") << "same step: " << sameStep;
            }
}

// A document walked over its lines is saved as a whole: it cannot be set again on another
// writer's file, so that file is left as the other writer made it, with one line.
TEST_F(Store, AWholeDocumentIsNotSavedOverAnotherWritersChange) {
    static std::vector<std::string> lines;
    store::setReportSink([](const char* line) { lines.push_back(line); });
    iniFile doc;
    doc.LoadFromFile(kUser);
    for (iniObject* node : doc.objects())
        if (node->type() == iniObject::kSection)
            for (iniObject* line : static_cast<iniSection*>(node)->objects())
                if (line->type() == iniObject::kKey) static_cast<iniKey*>(line)->SetValue("7");
    EXPECT_TRUE(doc.SaveToFile());
    std::ofstream(work.root() + kUser, std::ios::app) << "d=1\n";
    EXPECT_FALSE(store::commit());
    store::setReportSink(nullptr);
    EXPECT_EQ(tool::slurp(work.root() + kUser), "[Net]\nk=0\nd=1\n");
    EXPECT_EQ(lines, std::vector<std::string>{"Cannot write [" + std::string(kUser) + "]: another writer changed it since it was read"});
    EXPECT_EQ(etlGetProfileInt(kUser, "Net", "d", -1), 1) << "later steps read what is there";
}
