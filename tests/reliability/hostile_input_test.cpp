// Hostile and broken input, end to end: each case plants something on the example
// image and runs one mode. The run must exit 0, change no file that the same mode
// does not change on the plain image (besides the case's own), keep what it could not
// understand byte for byte, and leave no temporary file.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "reliability/fault_run.h"

using namespace reliability;
using namespace std::string_literals;
namespace fs = std::filesystem;

namespace {

const char kUser[] = "/config/user/user.ini";

void put(const std::string& root, const std::string& logical, const std::string& bytes) {
    fs::create_directories(fs::path(root + logical).parent_path());
    std::ofstream(root + logical, std::ios::binary) << bytes;
}

std::string example(const std::string& logical) {
    std::ifstream in(std::string(CFGUPGRADE_EXAMPLES "/phone-root") + logical, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string repeat(size_t count, const std::function<std::string(size_t)>& piece) {
    std::string out;
    for (size_t i = 0; i < count; ++i) out += piece(i);
    return out;
}

bool contains(const State& state, const std::string& part) { return state && state->find(part) != std::string::npos; }

struct HostileCase {
    const char* what;
    const char* mode;
    std::function<void(const std::string& root)> plant;
    // Holds for the files after the run; `log` is what the run logged.
    std::function<bool(const Tree& after, const std::string& log, const std::string& root)> holds;
    std::vector<std::string> mayChange;  // beyond what the mode changes on the plain image
};

const std::string kLongLine = "Long = " + std::string(1 << 20, 'x') + "\n";
const std::string kOddBytes = "Note = a\0b\xff\xfe\xc3(\n\0\0\0\n"s;
const std::string kBulk = "[Bulk]\n" + repeat(100000, [](size_t i) { return "k" + std::to_string(i) + " = v\n"; });
const std::string kManyKeys =
    "<dsskey>" + repeat(5000, [](size_t i) { return "<item type=\"22\"><itemdata line=\"" + std::to_string(i % 7) + "\"/></item>"; }) +
    "</dsskey>";

const char kRules[] = "/phone/resource/configTranslate.xml";
const std::string kRingRule = "<rule srcFile=\"/config/user/user.ini\" srcSec=\"Ringer\" srcKey=\"strRingFile\" dstSec=\"Sound\" ";

std::string rules(const std::string& body) { return "<?xml version=\"1.0\"?>\n<translate>" + body + "</translate>\n"; }

const HostileCase kCases[] = {
    {"10,000 rules", "dev",
     [](auto& r) { put(r, kRules, rules(repeat(10000, [](size_t i) { return kRingRule + "dstKey=\"R" + std::to_string(i) + "\"/>"; }))); },
     [](auto& t, auto&, auto&) { return contains(stateOf(t, kUser), "R0=Ring3.wav") && contains(stateOf(t, kUser), "R9999=Ring3.wav"); }, {}},
    {"10,000 levels of nesting", "dev",
     [](auto& r) { put(r, kRules, rules(repeat(10000, [](size_t) { return "<a>"; }) + repeat(10000, [](size_t) { return "</a>"; }) +
                                        kRingRule + "dstKey=\"AfterDeep\"/>")); },
     [](auto& t, auto& log, auto&) {
         return !contains(stateOf(t, kUser), "AfterDeep") &&
                log.find("Cannot read [/phone/resource/configTranslate.xml]: nested too deep") != std::string::npos;
     },
     {}},
    {"entity declarations", "dev",
     [](auto& r) {
         put(r, kRules, "<?xml version=\"1.0\"?><!DOCTYPE translate [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;\">"
                        "<!ENTITY c \"&b;&b;&b;&b;&b;&b;\"><!ENTITY f SYSTEM \"/etc/passwd\">]><translate>" +
                            kRingRule + "dstKey=\"&c;&f;\"/></translate>");
     },
     [](auto& t, auto&, auto&) { return contains(stateOf(t, kUser), "&c;&f;=Ring3.wav") && !contains(stateOf(t, kUser), "aaaaaaaaaaaaaaaaaaaa"); },
     {}},
    {"a 64 KiB attribute", "dev", [](auto& r) { put(r, kRules, rules(kRingRule + "dstKey=\"" + std::string(65536, 'k') + "\"/>")); },
     [](auto& t, auto&, auto&) { return contains(stateOf(t, kUser), std::string(65536, 'k') + "=Ring3.wav"); }, {}},
    {"paths with ..", "dev",
     [](auto& r) {
         put(r, kRules, rules("<rule srcFile=\"/config/../../escape.ini\" srcSec=\"S\" srcKey=\"k\" dstFile=\"/config/user/user.ini\" "
                              "dstSec=\"Escape\" dstKey=\"k\"/><rule srcFile=\"/config/user/user.ini\" srcSec=\"Ringer\" "
                              "srcKey=\"strRingFile\" dstFile=\"/config/user/../../../escape.ini\"/>"));
         put(r, "/../escape.ini", "[S]\nk=outside\n");
     },
     [](auto& t, auto&, auto& root) {
         std::ifstream outside(root + "/../escape.ini");
         return contains(stateOf(t, kUser), "[Escape]\nk=\n") && !contains(stateOf(t, kUser), "outside") &&
                std::string(std::istreambuf_iterator<char>(outside), {}) == "[S]\nk=outside\n";
     },
     {}},
    {"a 1 MiB line", "all", [](auto& r) { put(r, kUser, example(kUser) + kLongLine); },
     [](auto& t, auto&, auto&) { return contains(stateOf(t, kUser), kLongLine) && contains(stateOf(t, kUser), "nBacklightTime = 1800"); }, {}},
    {"NUL bytes and invalid UTF-8", "all",
     [](auto& r) { put(r, "/config/user/voip/sipAccount1.cfg", example("/config/user/voip/sipAccount1.cfg") + kOddBytes); },
     [](auto& t, auto&, auto&) { return contains(stateOf(t, "/config/user/voip/sipAccount1.cfg"), kOddBytes); }, {}},
    {"a byte-order mark", "all", [](auto& r) { put(r, kUser, "\xEF\xBB\xBF" + example(kUser)); },
     [](auto& t, auto&, auto&) { return stateOf(t, kUser)->rfind("\xEF\xBB\xBF; User", 0) == 0 && contains(stateOf(t, kUser), "= 1800"); }, {}},
    {"100,000 keys", "all", [](auto& r) { put(r, kUser, example(kUser) + kBulk); },
     [](auto& t, auto&, auto&) { return contains(stateOf(t, kUser), kBulk) && contains(stateOf(t, kUser), "= 1800"); }, {}},
    {"a section header without ]", "all",
     [](auto& r) { put(r, "/config/version.ini", "[SyncConfig\nbEnableFromOld = 0\n"); },
     [](auto& t, auto&, auto&) { return stateOf(t, "/config/version.ini") == "[SyncConfig\nbEnableFromOld = 0\n"; }, {}},
    {"account file 0 that cannot be read", "1", [](auto& r) {
         fs::remove(r + "/config/user/voip/sipAccount0.cfg");
         fs::create_directory(r + "/config/user/voip/sipAccount0.cfg");
     },
     [](auto& t, auto& log, auto&) {
         return !contains(stateOf(t, kUser), "RingbackTimeout") &&
                log.find("Cannot read [/config/user/voip/sipAccount0.cfg]: Is a directory") != std::string::npos;
     },
     {"/config/user/voip/sipAccount0.cfg"}},
    {"key layouts with 5000 keys", "2", [](auto& r) { put(r, "/config/data/expkey3.xml", kManyKeys); },
     [](auto& t, auto&, auto&) {
         const State s = stateOf(t, "/config/data/expkey3.xml");
         size_t n = 0;
         for (size_t at = s->find("xml_phonebook=\"6\""); at != std::string::npos; at = s->find("xml_phonebook=\"6\"", at + 1)) ++n;
         return n == 714;
     },
     {"/config/data/expkey3.xml"}},
    {"certificate names with shell syntax", "dev", [](auto& r) {
         for (const char* name : {"-rf", "--help", "$(touch INJECTED)", "a;touch INJECTED", "`touch INJECTED`"})
             put(r, std::string("/phone/factory/certs/phoneca/") + name, name);
     },
     [](auto& t, auto&, auto&) {
         for (const char* name : {"-rf", "--help", "$(touch INJECTED)", "a;touch INJECTED", "`touch INJECTED`"})
             if (stateOf(t, std::string("/config/certs/phoneca/") + name) != State(name)) return false;
         return !fs::exists("INJECTED");
     },
     {"/config/certs/phoneca/"}},
    {"a settings file that is a symbolic link", "all", [](auto& r) {
         fs::create_directories(r + "/config/real");
         fs::rename(r + kUser, r + "/config/real/user.ini");
         fs::create_symlink("../real/user.ini", r + kUser);
     },
     [](auto& t, auto&, auto&) {
         return stateOf(t, kUser) == State("-> ../real/user.ini") && contains(stateOf(t, "/config/real/user.ini"), "= 1800");
     },
     {"/config/real/user.ini"}},
};

// Paths a run of the mode changes on the plain image.
std::set<std::string> changedByMode(const std::string& mode, WorkDir& work) {
    std::string plain = work.path("plain-" + mode);
    buildImage(plain, mode);
    Tree before = snapshot(plain);
    runTool(plain, mode);
    Tree after = snapshot(plain);
    std::set<std::string> changed;
    for (const auto& [path, bytes] : after)
        if (stateOf(before, path) != State(bytes)) changed.insert(path);
    for (const auto& [path, bytes] : before)
        if (!after.count(path)) changed.insert(path);
    return changed;
}

bool mayChange(const std::string& path, const std::set<std::string>& changed, const std::vector<std::string>& extra) {
    if (changed.count(path)) return true;
    for (const auto& prefix : extra)
        if (path.rfind(prefix, 0) == 0) return true;
    return false;
}

}  // namespace

TEST(HostileInput, EachCaseLosesNothingAndTouchesOnlyWhatItMay) {
    WorkDir work;
    std::map<std::string, std::set<std::string>> changedBy;
    for (const HostileCase& c : kCases) {
        if (!changedBy.count(c.mode)) changedBy[c.mode] = changedByMode(c.mode, work);
        std::string root = work.path("case");
        buildImage(root, c.mode);
        c.plant(root);
        Tree before = snapshot(root);
        ToolRun run = runTool(root, c.mode);
        Tree after = snapshot(root);
        EXPECT_EQ(run.exitCode, 0) << c.what << run.errors;
        EXPECT_TRUE(c.holds(after, run.log, root)) << c.what;
        std::set<std::string> touched;
        for (const auto& [path, bytes] : after) {
            EXPECT_FALSE(isTempName(path)) << c.what << ": " << path;
            if (stateOf(before, path) != State(bytes)) touched.insert(path);
        }
        for (const auto& [path, bytes] : before)
            if (!after.count(path)) touched.insert(path);
        for (const auto& path : touched) EXPECT_TRUE(mayChange(path, changedBy[c.mode], c.mayChange)) << c.what << ": " << path;
    }
}
