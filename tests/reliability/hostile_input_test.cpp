// Hostile and broken input, end to end: each case plants something on the example
// image and runs one mode. The run must exit 0, change no file that the same mode
// does not change on the plain image (besides the case's own), keep what it could not
// understand byte for byte, and leave no temporary file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

#include <filesystem>
#include <iostream>
#include <fstream>
#include <functional>

#include "reliability/fault_run.h"
#include "support/phone_root.h"

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
    RunOptions options = {};
};

#ifdef __SANITIZE_ADDRESS__
const bool kSanitized = true;
#else
const bool kSanitized = false;
#endif

// Files outside the phone root that a link points at; each must keep these bytes.
const char kVictimBytes[] = "[Backlight]\nnBacklightTime = 5\n[Features]\nBLFLedOffIdle = 9\n";
std::string victim(const std::string& root) { return fs::weakly_canonical(root + "/../victim.ini").string(); }
std::string outsideRoot(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

size_t count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

void link(const std::string& root, const std::string& logical, const std::string& target) {
    fs::remove_all(root + logical);
    fs::create_symlink(target, root + logical);
}

mode_t modeOf(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

// A settings file padded with comment lines to `size` bytes.
std::string padded(size_t size) { return example(kUser) + std::string(size - example(kUser).size() - 1, ';') + "\n"; }

// Many short keys just under the INI limit: more to hold in memory than a small limit allows.
// At the size limit, and every byte a line: the lines that cost the store most to hold.
std::string manyShortKeys() {
    std::string out = example(kUser);
    for (size_t i = 0; out.size() < (4u << 20) - 64; ++i) out += "k" + std::to_string(i) + "=v\n";
    return out;
}

std::string manyEmptyLines() {
    std::string out = example(kUser);
    return out + std::string((4u << 20) - 64 - out.size(), '\n');
}

const char kRecord[] = "/tmp/VersionInfo.cfg";
const char kLinkedOut[] = "a symbolic link leads out of its area";

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
    {"a settings file linked out of /config, inside and outside the root", "all",
     [](auto& r) {
         put(r, "/outside.ini", kVictimBytes);
         std::ofstream(victim(r), std::ios::binary) << kVictimBytes;
         link(r, kUser, "../../outside.ini");
         link(r, "/config/user/voip/sipAccount1.cfg", "../../../../victim.ini");
         link(r, "/config/user/voip/sipAccount0.cfg", victim(r));  // absolute: the root stands for "/"
     },
     [](auto& t, auto& log, auto& root) {
         return stateOf(t, "/outside.ini") == State(kVictimBytes) && outsideRoot(victim(root)) == kVictimBytes &&
                stateOf(t, kUser) == State("-> ../../outside.ini") &&
                count(log, "Cannot read [/config/user/user.ini]: "s + kLinkedOut) == 1 &&
                count(log, "Cannot read [/config/user/voip/sipAccount1.cfg]: "s + kLinkedOut) == 1 &&
                count(log, "Cannot read [/config/user/voip/sipAccount0.cfg]: "s + kLinkedOut) == 1 &&
                count(log, "[/config/user/user.ini]") == 1;
     },
     {}},
    {"an account directory linked out of /config", "1",
     [](auto& r) {
         fs::create_directories(r + "/elsewhere");
         fs::rename(r + "/config/user/voip", r + "/elsewhere/voip");
         fs::create_directory_symlink("../../elsewhere/voip", r + "/config/user/voip");
     },
     [](auto& t, auto& log, auto&) {
         return contains(stateOf(t, "/elsewhere/voip/sipAccount5.cfg"), "dip-only-in-account-5") &&
                !stateOf(t, "/elsewhere/voip/directip.cfg") &&
                log.find("Cannot read [/config/user/voip/sipAccount5.cfg]: "s + kLinkedOut) != std::string::npos;
     },
     {}},
    {"a version record that is a symbolic link", "1",
     [](auto& r) {
         put(r, "/victim.ini", kVictimBytes);
         std::ofstream(victim(r), std::ios::binary) << kVictimBytes;
         link(r, kRecord, "../victim.ini");
     },
     [](auto& t, auto& log, auto& root) {
         return stateOf(t, "/victim.ini") == State(kVictimBytes) && outsideRoot(victim(root)) == kVictimBytes &&
                contains(stateOf(t, kRecord), "[Features]\nBLFLedOffIdle=") && modeOf(root + kRecord) == 0600 &&
                count(log, "Cannot read [/tmp/VersionInfo.cfg]: not a regular file of this user guarded from others") == 1;
     },
     {kRecord}},
    {"a version record others may write", "2", [](auto& r) { fs::permissions(r + kRecord, fs::perms(0666)); },
     [](auto& t, auto& log, auto&) {
         return !contains(stateOf(t, kUser), "BLFLedMode") &&
                count(log, "Cannot read [/tmp/VersionInfo.cfg]: not a regular file of this user guarded from others") == 1;
     },
     {}},
    {"files that may hold a password are created for their owner only", "1", [](auto&) {},
     [](auto&, auto&, auto& root) {
         return modeOf(root + "/config/user/voip/directip.cfg") == 0600 && modeOf(root + kRecord) == 0600;
     },
     {}},
    {"a FIFO and a device where settings files should be", "all",
     [](auto& r) {
         fs::remove(r + "/config/system/system.ini");
         mkfifo((r + "/config/system/system.ini").c_str(), 0600);
         fs::remove(r + "/config/version.ini");
         // A device needs root; without it a second FIFO stands in, which the tool treats alike.
         if (mknod((r + "/config/version.ini").c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0) {
             std::cout << "[ note ] no device node without root: a FIFO stands in for it\n";
             mkfifo((r + "/config/version.ini").c_str(), 0600);
         }
     },
     [](auto&, auto& log, auto&) {
         return count(log, "Cannot read [/config/system/system.ini]: not a regular file") == 1 &&
                count(log, "Cannot read [/config/version.ini]: not a regular file") == 1;
     },
     {}},
    {"a settings file over 4 MiB and a sparse one of 1 TiB", "all",
     [](auto& r) {
         put(r, kUser, padded((4u << 20) + 1));
         fs::resize_file(r + "/config/user/voip/sipAccount0.cfg", 1ull << 40);
     },
     [](auto& t, auto& log, auto&) {
         return !contains(stateOf(t, kUser), "RingbackTimeout") &&  // never written
                stateOf(t, "/config/user/voip/sipAccount0.cfg") == State("(1099511627776 bytes)") &&
                count(log, "Cannot read [/config/user/user.ini]: File too large") == 1 &&
                count(log, "Cannot read [/config/user/voip/sipAccount0.cfg]: File too large") == 1;
     },
     {}},
    // The largest settings file accepted fits in the start-up's address space plus about three times its size.
    {"the largest settings file in bounded memory", "dev", [](auto& r) { put(r, kUser, manyShortKeys()); },
     [](auto& t, auto& log, auto&) {
         return log.find("std::bad_alloc") == std::string::npos && contains(stateOf(t, kUser), "RingbackTimeout=");
     },
     {}, {{}, {}, 28ul << 20}},
    {"a settings file too big for the memory the run may use", "dev", [](auto& r) { put(r, kUser, manyEmptyLines()); },
     [](auto& t, auto& log, auto&) {
         // Each step that needs the file ends with one line; the certificate sync still runs.
         return log.find("etlTrace[3] Step [ring-back timeout] stopped: std::bad_alloc") != std::string::npos &&
                !contains(stateOf(t, kUser), "RingbackTimeout") && stateOf(t, "/config/certs/phoneca/ExampleIssuingCA.pem");
     },
     {"/config/certs/phoneca/"}, {{}, {}, 16ul << 20}},
    {"an attribute the new file cannot take", "all",
     [](auto& r) { setxattr((r + kUser).c_str(), "user.origin", "factory", 7, 0); },
     [](auto& t, auto& log, auto&) {
         return log.find("Cannot write [/config/user/user.ini]: Operation not supported") != std::string::npos &&
                !contains(stateOf(t, kUser), "RingbackTimeout");
     },
     {}, {{}, {"strace", "-f", "-qq", "-o", "/dev/null", "-e", "inject=fsetxattr:error=EOPNOTSUPP"}}},
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

// Every case runs twice: paths resolved by openat2, and by the component walk that
// kernels without it use.
TEST(HostileInput, EachCaseLosesNothingAndTouchesOnlyWhatItMay) {
    WorkDir work;
    std::map<std::string, std::set<std::string>> changedBy;
    for (const HostileCase& c : kCases)
        for (bool walk : {false, true}) {
        if (c.options.addressSpace && (kSanitized || toolIsEmulated())) {
            std::cout << "[ skipped ] " << c.what << ": the sanitizer runtime or the emulator needs more address space "
                         "than the limit\n";
            break;
        }
        if (!c.options.wrapper.empty() && std::system("strace -o /dev/null true >/dev/null 2>&1") != 0) {
            std::cout << "[ skipped ] " << c.what << ": strace is missing or may not trace here (make test installs it)\n";
            break;
        }
        const std::string what = c.what + std::string(walk ? " (walk)" : " (openat2)");
        if (!changedBy.count(c.mode)) changedBy[c.mode] = changedByMode(c.mode, work);
        std::string root = work.path("case");
        buildImage(root, c.mode);
        c.plant(root);
        Tree before = snapshot(root);
        RunOptions options = c.options;
        if (walk) options.env.push_back("CFGUPGRADE_NO_OPENAT2=1");
        ToolRun run = runTool(root, c.mode, {}, options);
        Tree after = snapshot(root);
        EXPECT_EQ(run.exitCode, 0) << what << run.errors;
        EXPECT_TRUE(c.holds(after, run.log, root)) << what << "\n" << run.log.substr(0, 2000);
        std::set<std::string> touched;
        for (const auto& [path, bytes] : after) {
            EXPECT_FALSE(isTempName(path)) << what << ": " << path;
            if (stateOf(before, path) != State(bytes)) touched.insert(path);
        }
        for (const auto& [path, bytes] : before)
            if (!after.count(path)) touched.insert(path);
        for (const auto& path : touched) EXPECT_TRUE(mayChange(path, changedBy[c.mode], c.mayChange)) << what << ": " << path;
        fs::remove(victim(root));
        }
}
