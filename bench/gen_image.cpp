// Writes a synthetic phone image for the benchmark, the same bytes on every run
// except protected values, which carry a random nonce from the password routine.
//
//   gen_image --size demo|typical|large [--rules N] [--examples DIR] OUTDIR
//
// demo     the example image (examples/phone-root), copied
// typical  user.ini of about 1,500 keys, system.ini of about 500, 17 account files
//          of about 200 keys, a rule file of 300 rules (20 protected, lock on),
//          50 factory certificates of which 10 are missing from the configuration,
//          8 key layout files of 60 items, a version record
// large    ten times every count (the account files and key layout files stay 17
//          and 8, the numbers the tool knows; each holds ten times the keys)
// --rules  the typical image with N rules (protected ones in the same proportion),
//          for the scaling curve; every rule writes a key of its own, so the files
//          grow with the rule count as they would on a phone
//
// Every step of every mode has work on the first run, and a second run on the
// result finds nothing left to change. The user's lock setting is on and the
// factory's off, so the protection switch decodes the keys the protected-key list
// names; the translation's protected rules name other keys, or each run would undo
// the other's work at every boot (that is what the two steps do, not the store's doing).
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/protect.h"

namespace fsys = std::filesystem;

namespace {

struct Counts {
    int userKeys;
    int systemKeys;
    int accountKeys;
    int rules;
    int protectedRules;
    int certs;
    int missingCerts;
    int layoutItems;
};

const Counts kTypical = {1500, 500, 200, 300, 20, 50, 10, 60};
const int kAccounts = 17;       // account files 0 to 16
const int kDirectIpAccount = 5;  // the numbered account flagged as the direct-IP one
const int kSwitchAccounts = 4;   // per-account protected keys live in accounts 0 to 3
const int kKeysPerSection = 40;

Counts scaled(const Counts& c, int f) {
    return {c.userKeys * f, c.systemKeys * f, c.accountKeys * f, c.rules * f,
            c.protectedRules * f, c.certs * f, c.missingCerts * f, c.layoutItems * f};
}

// splitmix64: small, fast and the same everywhere, so images are reproducible.
struct Random {
    unsigned long long state;
    unsigned long long next() {
        unsigned long long z = (state += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    int below(int n) { return static_cast<int>(next() % static_cast<unsigned long long>(n)); }
};

std::string fmt(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char* format, ...) {
    char buffer[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return buffer;
}

void writeFile(const fsys::path& path, const std::string& bytes) {
    fsys::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary);
    out << bytes;
    if (!out) {
        std::fprintf(stderr, "gen_image: cannot write %s\n", path.c_str());
        std::exit(1);
    }
}

std::string accountPath(int n) { return fmt("/config/user/voip/sipAccount%d.cfg", n); }

// ---------------------------------------------------------------- INI files

// An INI file being written, with the keys that rules may read recorded by path.
struct IniBuilder {
    std::string logical;
    std::string text;
    struct Key { std::string section, key; };
    std::vector<Key> sources;  // filler keys: rules read them, nothing writes them
    std::string section;

    void comment(const std::string& line) { text += "; " + line + "\n"; }
    void open(const std::string& name) {
        if (!text.empty()) text += "\n";
        text += "[" + name + "]\n";
        section = name;
    }
    void key(const std::string& name, const std::string& value) { text += name + " = " + value + "\n"; }
    // Filler keys of the kinds a phone holds: switches, numbers, names, addresses.
    void filler(Random& rnd, int count, const std::string& stem) {
        static const char* kPrefixes[] = {"b", "n", "str", "e", "i"};
        for (int i = 0; i < count; ++i) {
            if (i % kKeysPerSection == 0) open(fmt("%s%02d", stem.c_str(), i / kKeysPerSection));
            int kind = rnd.below(5);
            std::string name = fmt("%s%sOption%03d", kPrefixes[kind], stem.c_str(), i);
            std::string value = kind == 0   ? fmt("%d", rnd.below(2))
                                : kind == 2 ? fmt("value-%llx.example.net", rnd.next() % 0xFFFFFF)
                                            : fmt("%d", rnd.below(5000));
            key(name, value);
            sources.push_back({section, name});
        }
    }
};

IniBuilder userIni(Random& rnd, int keys) {
    IniBuilder b{"/config/user/user.ini", "", {}, ""};
    b.comment("User settings of a desk phone on the old firmware (benchmark image).");
    b.open("PhoneSetting");
    b.key("EnLock", "1");
    b.key("Language", "English");
    b.key("TimeZone", "+1");
    b.open("Backlight");
    b.key("nBacklightTime", "30");
    b.key("nActiveLevel", "8");
    b.open("Features");
    b.key("BLFLedOffIdle", "1");
    b.key("BLfNotifyType", "0");
    b.key("ClosePowerLight", "1");
    b.key("PowerLedIdle&Talk", "1");
    b.key("PowerLedMail", "1");
    b.key("CallWaiting", "1");
    b.open("Sync");
    b.key("SyncCfgByVersion", "0");
    b.open("Secrets");  // protected by the platform list, decoded by the switch
    for (int i = 0; i < 6; ++i) b.key(fmt("strSecret%d", i), protectedForm(fmt("user-secret-%d", i)));
    b.filler(rnd, keys - 18, "User");
    return b;
}

IniBuilder systemIni(Random& rnd, int keys) {
    IniBuilder b{"/config/system/system.ini", "", {}, ""};
    b.comment("System settings (benchmark image).");
    b.open("Network");
    b.key("eWANType", "0");
    b.key("strHostName", "desk-phone-bench");
    b.open("Syslog");
    b.key("eLogType", "3");
    b.key("strServerName", "syslog.example.net");
    b.open("Admin");
    for (int i = 0; i < 4; ++i) b.key(fmt("strAdminSecret%d", i), protectedForm(fmt("admin-secret-%d", i)));
    b.filler(rnd, keys - 8, "Sys");
    return b;
}

IniBuilder accountIni(Random& rnd, int n, int keys) {
    IniBuilder b{accountPath(n), "", {}, ""};
    b.open("account");
    b.key("Enable", "1");
    b.key("Label", fmt("Line %d", n));
    b.key("UserName", fmt("%d", 1000 + n));
    b.key("AuthName", fmt("%d", 1000 + n));
    b.key("password", fmt("pass-%d;x=%d", n, n * 7));
    b.key("AuthPassword", n < kSwitchAccounts ? protectedForm(fmt("auth-%d", n)) : fmt("auth-%d", n));
    b.key("SIPServerHost", "pbx.example.net");
    if (n == 0) b.key("CancelTimer", "120");
    if (n % 2 == 1) b.key("SCALineKeyNumber", "2");  // even accounts get -1 written
    if (n == kDirectIpAccount) b.key("directip", "1");
    b.open("CallCenter");
    b.key("bEnableQueueStatusLight", "1");
    b.filler(rnd, keys - 10, "Acc");
    return b;
}

// ---------------------------------------------------------------- rule file

std::string rule(const std::string& attributes) { return "\t<rule " + attributes + "/>\n"; }

std::string attr(const char* name, const std::string& value) { return std::string(name) + "=\"" + value + "\" "; }

// Protected rules: in place on the password of accounts 4 to 16 (never those the
// switch decodes), then copies of those passwords into keys of their own.
std::string protectedRule(int i) {
    int n = kSwitchAccounts + i % (kAccounts - kSwitchAccounts);
    std::string src = attr("srcFile", accountPath(n)) + attr("srcSec", "account") + attr("srcKey", "password");
    if (i < kAccounts - kSwitchAccounts) return rule(src + "dstEncrypt=\"1\"");
    return rule(src + attr("dstFile", "/config/user/user.ini") + attr("dstSec", "Protected") +
                attr("dstKey", fmt("strProtected%05d", i)) + "dstEncrypt=\"1\"");
}

// Plain rules of every shape, each writing a key of its own (so no rule reads what
// another wrote, and a second run finds every value in place).
std::string plainRule(Random& rnd, int i, const std::vector<IniBuilder*>& files) {
    const IniBuilder& from = *files[static_cast<size_t>(rnd.below(static_cast<int>(files.size())))];
    const IniBuilder::Key& k = from.sources[static_cast<size_t>(rnd.below(static_cast<int>(from.sources.size())))];
    std::string src = attr("srcFile", from.logical) + attr("srcSec", k.section) + attr("srcKey", k.key);
    int shape = i % 20;
    if (shape < 12) {  // copy to another file and section
        const IniBuilder& to = *files[static_cast<size_t>(rnd.below(static_cast<int>(files.size())))];
        return rule(src + attr("dstFile", to.logical) + attr("dstSec", fmt("Migrated%02d", i % 8)) +
                    attr("dstKey", fmt("%s_%05d", k.key.c_str(), i)));
    }
    if (shape < 17)  // same file and section, another key
        return rule(src + attr("dstKey", fmt("New%s_%05d", k.key.c_str(), i)));
    if (shape == 17)  // clear: a destination without a source
        return rule(attr("dstFile", "/config/user/user.ini") + attr("dstSec", "Obsolete") +
                    attr("dstKey", fmt("bRemoved%05d", i)));
    if (shape == 18)  // inert: no destination file even after defaulting
        return rule(attr("srcSec", k.section) + attr("srcKey", k.key) + attr("dstKey", "Unused"));
    if (i % 100 == 19)  // a source file the phone does not have: the key is cleared
        return rule(attr("srcFile", "/config/user/voip/missing.cfg") + attr("srcSec", "account") +
                    attr("srcKey", "password") + attr("dstFile", from.logical) + attr("dstSec", "Migrated99") +
                    attr("dstKey", fmt("strLost%05d", i)));
    return rule(src + attr("dstSec", fmt("Renamed%02d", i % 4)));  // same key name, another section
}

std::string ruleFile(Random& rnd, const Counts& c, const std::vector<IniBuilder*>& files) {
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<translate>\n";
    // Protected rules spread evenly through the file.
    int every = c.protectedRules > 0 ? c.rules / c.protectedRules : c.rules + 1;
    int protectedDone = 0;
    for (int i = 0; i < c.rules; ++i) {
        if (protectedDone < c.protectedRules && i % every == every - 1)
            xml += protectedRule(protectedDone++);
        else
            xml += plainRule(rnd, i, files);
    }
    return xml + "</translate>\n";
}

// The platform's list of protected keys, as the switch reads it.
std::string protectedKeyList() {
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<encryptConfig>\n";
    auto entry = [&](const std::string& attributes) { xml += "\t<item " + attributes + "/>\n"; };
    entry(attr("file", "") + attr("section", "account") + attr("key", "AuthPassword") + attr("default", "") +
          "account=\"1\"");
    for (int i = 0; i < 6; ++i)
        entry(attr("file", "/config/user/user.ini") + attr("section", "Secrets") + attr("key", fmt("strSecret%d", i)) +
              "default=\"\"");
    for (int i = 0; i < 4; ++i)
        entry(attr("file", "/config/system/system.ini") + attr("section", "Admin") +
              attr("key", fmt("strAdminSecret%d", i)) + "default=\"\"");
    entry(attr("file", "/config/user/user.ini") + attr("section", "PhoneSetting") + attr("key", "Language") +
          attr("default", "") + "encrypt=\"0\"");
    return xml + "</encryptConfig>\n";
}

// ---------------------------------------------------------------- other files

std::string certificate(Random& rnd, int n) {
    static const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string pem = fmt("# benchmark CA %d (random bytes, not a certificate)\n-----BEGIN CERTIFICATE-----\n", n);
    for (int line = 0; line < 20; ++line) {
        for (int i = 0; i < 64; ++i) pem += kBase64[rnd.below(64)];
        pem += "\n";
    }
    return pem + "-----END CERTIFICATE-----\n";
}

// Items of every kind the key layout step rewrites, and some it leaves alone.
std::string keyLayout(Random& rnd, const char* root, int items) {
    static const int kTypes[] = {14, 15, 16, 22, 28, 45, 46, 47, 54, 55, 0, 1, 13, 2};
    std::string xml = fmt("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<%s>\n", root);
    for (int i = 0; i < items; ++i) {
        int type = kTypes[rnd.below(14)];
        xml += fmt("  <item type=\"%d\">\n    <itemdata line=\"%d\" extension=\"%d\" label=\"Key %d\" value=\"\"/>\n"
                   "  </item>\n",
                   type, 1 + rnd.below(16), 2000 + rnd.below(1000), i);
    }
    return xml + fmt("</%s>\n", root);
}

std::string talkingSoftkeys() {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<OnTalk version=\"1\">\n"
           "  <softkey index=\"0\" action=\"Transfer\"/>\n  <softkey index=\"1\" action=\"Hold\"/>\n"
           "  <softkey index=\"2\" action=\"Conference\"/>\n  <softkey index=\"3\" action=\"End\"/>\n</OnTalk>\n";
}

// ---------------------------------------------------------------- images

void synthetic(const fsys::path& out, const Counts& c) {
    Random rnd{0x5EEDu + static_cast<unsigned long long>(c.userKeys)};
    auto put = [&](const std::string& logical, const std::string& bytes) { writeFile(out / logical.substr(1), bytes); };

    IniBuilder user = userIni(rnd, c.userKeys);
    IniBuilder system = systemIni(rnd, c.systemKeys);
    std::vector<IniBuilder> accounts;
    for (int n = 0; n < kAccounts; ++n) accounts.push_back(accountIni(rnd, n, c.accountKeys));

    // Weighted as rule files are: mostly the user file, then the system file.
    std::vector<IniBuilder*> sources = {&user, &user, &user, &user, &user, &user, &system, &system, &system};
    for (auto& a : accounts) sources.push_back(&a);
    // The rule file has a random stream of its own, so --rules changes only the rules.
    Random ruleRnd{0xC0FFEEu};
    put("/phone/resource/configTranslate.xml", ruleFile(ruleRnd, c, sources));
    put("/phone/resource/encryptConfig.xml", protectedKeyList());

    put(user.logical, user.text);
    put(system.logical, system.text);
    for (auto& a : accounts) put(a.logical, a.text);
    put("/config/version.ini", "[SyncConfig]\nbEnableFromOld = 1\nstrVersion = 1.0.4\n");
    // As the first phase left it: the second phase installs it as account file 16.
    IniBuilder directIp = accountIni(rnd, kDirectIpAccount, c.accountKeys);
    put("/config/user/voip/directip.cfg", directIp.text);

    put("/phone/factory/user/user.ini", "[PhoneSetting]\nEnLock = 0\n\n[Sync]\nSyncCfgByVersion = 1\n");
    put("/phone/factory/user/voip/sipAccount16.cfg",
        "[account]\nEnable = ?1\nLabel = ?Direct IP\nUserName = ??direct\ndirectip = 1\npassword = ?\n"
        "SIPServerHost = a?b\n");
    // The record as an earlier mode-1 run left it; the current settings differ a little.
    put("/tmp/VersionInfo.cfg",
        "[Features]\nBLFLedOffIdle = 2\nBLfNotifyType = 0\nClosePowerLight = 1\nPowerLedIdle&Talk = 1\n"
        "PowerLedMail = 1\n\n[Syslog]\neLogType = 3\nstrServerName = syslog.example.net\n");

    for (int i = 0; i < c.certs; ++i) {
        std::string name = fmt("BenchCA%04d.pem", i);
        std::string pem = certificate(rnd, i);
        put("/phone/factory/certs/phoneca/" + name, pem);
        if (i % (c.certs / c.missingCerts) != 0) put("/config/certs/phoneca/" + name, pem);
    }
    const char* layouts[][2] = {{"linekey", "dsskey"}, {"programkey", "programkey"}, {"expkey0", "dsskey"},
                                {"expkey1", "dsskey"}, {"expkey2", "dsskey"},        {"expkey3", "dsskey"},
                                {"expkey4", "dsskey"}, {"expkey5", "dsskey"}};
    for (auto& l : layouts) put(fmt("/config/data/%s.xml", l[0]), keyLayout(rnd, l[1], c.layoutItems));
    put("/config/softkey/Talking.xml", talkingSoftkeys());
}

void demo(const fsys::path& out, const fsys::path& examples) {
    fsys::copy(examples / "phone-root", out, fsys::copy_options::recursive);
    fsys::create_directories(out / "tmp");
}

[[noreturn]] void usage() {
    std::fprintf(stderr, "usage: gen_image --size demo|typical|large [--rules N] [--examples DIR] OUTDIR\n");
    std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
    std::string size, examples = "examples", out;
    int rules = -1;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--size" && i + 1 < argc) size = argv[++i];
        else if (a == "--rules" && i + 1 < argc) rules = std::atoi(argv[++i]);
        else if (a == "--examples" && i + 1 < argc) examples = argv[++i];
        else if (!a.empty() && a[0] != '-' && out.empty()) out = a;
        else usage();
    }
    if (out.empty() || (size != "demo" && size != "typical" && size != "large")) usage();
    if (fsys::exists(out) && !fsys::is_empty(out)) {
        std::fprintf(stderr, "gen_image: %s is not empty\n", out.c_str());
        return 1;
    }
    fsys::create_directories(out);
    if (size == "demo") {
        demo(out, examples);
        return 0;
    }
    Counts c = size == "large" ? scaled(kTypical, 10) : kTypical;
    if (rules >= 0) {
        c.protectedRules = rules * kTypical.protectedRules / kTypical.rules;
        c.rules = rules;
    }
    synthetic(out, c);
    return 0;
}
