// cfgupgrade-lint: checks a firmware's rule file and protected-key list at build time,
// with the phone tool's own readers, so that each finding says what the tool will do.
#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <string>

#include "lint/lint.h"
#include "store/files.h"

namespace {

const char kRuleFile[] = "/phone/resource/configTranslate.xml";
const char kListFile[] = "/phone/resource/encryptConfig.xml";

const char kUsage[] =
    "Usage: cfgupgrade-lint [OPTION]... ROOT\n"
    "       cfgupgrade-lint [OPTION]... --rules FILE [--keys FILE]\n"
    "Checks the rule file and the protected-key list of a firmware root (ROOT/phone/resource/)\n"
    "as cfgupgrade reads them.\n"
    "\n"
    "      --rules=FILE       the rule file to check, instead of ROOT's\n"
    "      --keys=FILE        the protected-key list to check with it\n"
    "      --image=DIR        also check the rules against the configuration of the phone root DIR\n"
    "      --format=FORMAT    text (the default: FILE:LINE:COLUMN: lines) or json (JSON Lines)\n"
    "  -d, --disable=CHECK    switch a check off (repeatable, or a comma-separated list)\n"
    "      --werror           a warning fails the run too\n"
    "      --color=WHEN       auto (the default), always or never\n"
    "      --list-checks      list the checks and exit\n"
    "  -h, --help             show this help and exit\n"
    "  -V, --version          show the version and exit\n"
    "\n"
    "Exit status: 0 no error, 1 an error was found (or a warning, with --werror), 2 trouble.\n";

struct Options {
    std::string root, rules, keys, image;
    std::set<std::string> disabled;
    lint::OutputStyle style;
    bool werror = false;
};

[[noreturn]] void usageError(const std::string& line) {
    std::fprintf(stderr, "cfgupgrade-lint: %s\n%s", line.c_str(), kUsage);
    std::exit(2);
}

void listChecks() {
    const char* names[] = {"error", "warning", "note"};
    for (size_t i = 0; i < lint::kCheckCount; ++i)
        std::printf("%-27s %-8s %s\n", lint::kChecks[i].name, names[static_cast<int>(lint::kChecks[i].severity)],
                    lint::kChecks[i].catches);
}

void addDisabled(const char* list, Options& o) {
    std::istringstream in(list);
    for (std::string name; std::getline(in, name, ',');) {
        if (!lint::isCheck(name)) usageError("no check is named '" + name + "' (see --list-checks)");
        o.disabled.insert(name);
    }
}

Options parseOptions(int argc, char** argv) {
    enum { kRules = 256, kKeys, kImage, kFormat, kWerror, kColor, kListChecks };
    const option longOptions[] = {{"rules", required_argument, nullptr, kRules},
                                  {"keys", required_argument, nullptr, kKeys},
                                  {"image", required_argument, nullptr, kImage},
                                  {"format", required_argument, nullptr, kFormat},
                                  {"disable", required_argument, nullptr, 'd'},
                                  {"werror", no_argument, nullptr, kWerror},
                                  {"color", required_argument, nullptr, kColor},
                                  {"list-checks", no_argument, nullptr, kListChecks},
                                  {"help", no_argument, nullptr, 'h'},
                                  {"version", no_argument, nullptr, 'V'},
                                  {nullptr, 0, nullptr, 0}};
    Options o;
    std::string colour = "auto";
    opterr = 0;  // our own one line, then the usage
    for (int c; (c = getopt_long(argc, argv, ":d:hV", longOptions, nullptr)) != -1;) {
        switch (c) {
            case kRules: o.rules = optarg; break;
            case kKeys: o.keys = optarg; break;
            case kImage: o.image = optarg; break;
            case kFormat:
                if (std::strcmp(optarg, "text") != 0 && std::strcmp(optarg, "json") != 0)
                    usageError(std::string("--format must be text or json, not '") + optarg + "'");
                o.style.json = std::strcmp(optarg, "json") == 0;
                break;
            case 'd': addDisabled(optarg, o); break;
            case kWerror: o.werror = true; break;
            case kColor:
                colour = optarg;
                if (colour != "auto" && colour != "always" && colour != "never")
                    usageError("--color must be auto, always or never, not '" + colour + "'");
                break;
            case kListChecks: listChecks(); std::exit(0);
            case 'h': std::fputs(kUsage, stdout); std::exit(0);
            case 'V': std::puts("cfgupgrade-lint " CFGUPGRADE_VERSION); std::exit(0);
            case ':': usageError(std::string("option '") + argv[optind - 1] + "' needs an argument");
            default: usageError(std::string("unknown option '") + argv[optind - 1] + "'");
        }
    }
    if (optind < argc) o.root = argv[optind++];
    if (optind < argc) usageError(std::string("one ROOT only: '") + argv[optind] + "' is one too many");
    if (o.root.empty() == o.rules.empty()) usageError("give either ROOT or --rules FILE");
    if (!o.keys.empty() && o.rules.empty()) usageError("--keys goes with --rules");
    // Colour only for a person at a terminal, and never against their NO_COLOR.
    const char* noColour = std::getenv("NO_COLOR");
    o.style.colour = !(noColour && *noColour) && !o.style.json &&
                     (colour == "always" || (colour == "auto" && isatty(STDOUT_FILENO)));
    return o;
}

int exitStatus(const std::vector<lint::Finding>& findings, bool werror) {
    for (const lint::Finding& f : findings)
        if (f.severity == lint::Severity::kError || (werror && f.severity == lint::Severity::kWarning)) return 1;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options o = parseOptions(argc, argv);
    lint::Findings findings(o.disabled);
    lint::XmlInput rules, keysInput;
    lint::KeyList keys;
    std::string root = o.root, keysRoot = o.root, rulesPath = kRuleFile, keysPath = kListFile;
    if (root.empty()) {
        rules.path = o.rules;
        keysInput.path = o.keys;
        lint::namedFile(o.rules, root, rulesPath);
        keysPath.clear();
        if (!o.keys.empty()) lint::namedFile(o.keys, keysRoot, keysPath);
    } else {
        std::string shown = root.back() == '/' ? root.substr(0, root.size() - 1) : root;
        rules.path = shown + kRuleFile;
        keysInput.path = shown + kListFile;
    }
    keysInput.order = 1;
    if (!lint::readInput(root, rulesPath, rules, findings)) return 2;
    bool haveKeys = !keysPath.empty();
    if (haveKeys && !lint::readInput(keysRoot, keysPath, keysInput, findings)) return 2;
    if (haveKeys && keysInput.loaded) {
        keys.read = keys.mapper.ReadEncryptConfig(keysInput.doc, keys.entries, &keys.nodes) != 0;
        if (keys.read) lint::checkKeyList(keysInput, keys, findings);
    }
    const lint::KeyList* keyList = haveKeys && keysInput.loaded ? &keys : nullptr;
    if (rules.loaded) {
        lint::checkRuleFile(rules, &keysInput, keyList, findings);
        if (!o.image.empty()) {
            lint::useRoot(o.image);
            if (!store::fs::pathExists("/config")) {
                std::fprintf(stderr, "cfgupgrade-lint: %s: holds no config directory\n", o.image.c_str());
                return 2;
            }
            lint::checkAgainstImage(rules, &keysInput, keyList, findings);
        }
    }
    lint::printFindings(findings.all(), o.style);
    return exitStatus(findings.all(), o.werror);
}
