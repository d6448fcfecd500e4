// cfgupgrade-plan [options] MODE IMAGE...: what the phone tool's run of MODE would change
// on each image, without changing it. See cfgupgrade-plan(1).
#include <getopt.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "plan/plan.h"
#include "plan/summary.h"

#ifndef CFGUPGRADE_VERSION
#define CFGUPGRADE_VERSION "unknown"
#endif

namespace {

const char kUsage[] =
    "usage: cfgupgrade-plan [options] MODE IMAGE...\n"
    "Shows what `cfgupgrade MODE` would change on each IMAGE (a directory standing for /),\n"
    "changing nothing.\n"
    "  -f, --format=FORMAT  diff (default): a unified diff per file; json: one JSON object\n"
    "                       per change; summary: counts over all images\n"
    "      --json           the same as --format=json\n"
    "      --summary        the same as --format=summary\n"
    "  -j, --jobs=N         images run at once (default: the number of processors)\n"
    "  -l, --log            each image's log on standard error, its lines prefixed with the image\n"
    "      --color=WHEN     colour the diff: auto (default; on a terminal), always, never\n"
    "  -h, --help           this text\n"
    "  -V, --version        the version\n"
    "Exit status: 0 nothing would change, 1 something would, 2 a run logged a failure\n"
    "or trouble (a bad option, an image that is not a directory).\n";

[[noreturn]] void usageError(const char* message, const char* argument) {
    std::fprintf(stderr, "cfgupgrade-plan: %s%s\n%s", message, argument ? argument : "", kUsage);
    std::exit(2);
}

struct Arguments {
    plan::Options options;
    std::vector<std::string> images;
};

bool chooseFormat(const char* name, plan::Format& format) {
    if (std::strcmp(name, "diff") == 0) format = plan::Format::kDiff;
    else if (std::strcmp(name, "json") == 0) format = plan::Format::kJson;
    else if (std::strcmp(name, "summary") == 0) format = plan::Format::kSummary;
    else return false;
    return true;
}

Arguments parseArguments(int argc, char** argv) {
    enum { kJson = 256, kSummary, kColor };
    static const option kOptions[] = {
        {"format", required_argument, nullptr, 'f'}, {"json", no_argument, nullptr, kJson},
        {"summary", no_argument, nullptr, kSummary}, {"jobs", required_argument, nullptr, 'j'},
        {"log", no_argument, nullptr, 'l'},          {"color", required_argument, nullptr, kColor},
        {"help", no_argument, nullptr, 'h'},         {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0}};
    Arguments a;
    a.options.jobs = std::max(1L, sysconf(_SC_NPROCESSORS_ONLN));
    const char* colour = "auto";
    opterr = 0;  // one line of our own, then the usage
    for (int c; (c = getopt_long(argc, argv, ":f:j:lhV", kOptions, nullptr)) != -1;) {
        switch (c) {
            case 'f':
                if (!chooseFormat(optarg, a.options.format)) usageError("unknown format: ", optarg);
                break;
            case kJson: a.options.format = plan::Format::kJson; break;
            case kSummary: a.options.format = plan::Format::kSummary; break;
            case 'j': {
                char* end = nullptr;
                a.options.jobs = std::strtol(optarg, &end, 10);
                if (*optarg == '\0' || *end != '\0' || a.options.jobs < 1 || a.options.jobs > 1024)
                    usageError("--jobs takes a number from 1 to 1024, not ", optarg);
                break;
            }
            case 'l': a.options.log = true; break;
            case kColor: colour = optarg; break;
            case 'h': std::fputs(kUsage, stdout); std::exit(0);
            case 'V': std::printf("cfgupgrade-plan %s\n", CFGUPGRADE_VERSION); std::exit(0);
            case ':': usageError("an option needs a value: ", argv[optind - 1]);
            default: usageError("unknown option: ", argv[optind - 1]);
        }
    }
    if (std::strcmp(colour, "always") == 0) a.options.colour = true;
    else if (std::strcmp(colour, "auto") == 0) a.options.colour = isatty(STDOUT_FILENO) && !std::getenv("NO_COLOR");
    else if (std::strcmp(colour, "never") != 0) usageError("--color takes auto, always or never, not ", colour);
    if (std::getenv("NO_COLOR")) a.options.colour = false;
    if (argc - optind < 2) usageError("a mode and at least one image are needed", nullptr);
    a.options.mode = argv[optind++];
    for (; optind < argc; ++optind) a.images.push_back(argv[optind]);
    return a;
}

// An image being run: its child, and what the child has sent so far.
struct Child {
    std::string image;
    pid_t pid = -1;
    int fd = -1;  // -1 once everything is read
    std::string messages;
    int status = 2;
};

// The runs see the tool's environment but for what would change the host or show secrets:
// no log file or record of the host's, and no trace below level 3 (level 2 carries values).
void prepareEnvironment() {
    unsetenv("CFGUPGRADE_LOG");
    unsetenv("CFGUPGRADE_CHANGES");
    setenv("CFGUPGRADE_TRACE_LEVEL", "3", 1);
}

bool start(Child& child, const plan::Options& options) {
    int ends[2];
    if (pipe(ends) != 0) return false;
    std::fflush(nullptr);  // nothing buffered here may be written twice
    child.pid = fork();
    if (child.pid == 0) {
        close(ends[0]);
        _exit(plan::runImage(child.image, options, ends[1]));
    }
    close(ends[1]);
    if (child.pid < 0) {
        close(ends[0]);
        return false;
    }
    child.fd = ends[0];
    return true;
}

// Reads what is there; at the end, reaps the child.
void readFrom(Child& child) {
    char buffer[65536];
    ssize_t n = read(child.fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) return;
    if (n > 0) {
        child.messages.append(buffer, static_cast<size_t>(n));
        return;
    }
    close(child.fd);
    child.fd = -1;
    int status = 0;
    while (waitpid(child.pid, &status, 0) < 0 && errno == EINTR) {
    }
    child.status = WIFEXITED(status) ? WEXITSTATUS(status) : 2;
    if (WIFSIGNALED(status))
        std::fprintf(stderr, "cfgupgrade-plan: %s: the run ended with signal %d\n", child.image.c_str(), WTERMSIG(status));
}

void waitForAny(std::deque<Child>& window) {
    std::vector<pollfd> watched;
    for (const Child& c : window)
        if (c.fd >= 0) watched.push_back({c.fd, POLLIN, 0});
    if (poll(watched.data(), watched.size(), -1) < 0) return;
    for (Child& c : window)
        for (const pollfd& p : watched)
            if (p.fd == c.fd && p.revents) readFrom(c);
}

// Prints (or counts) one finished image, as its turn comes.
void finish(const Child& child, const plan::Options& options, plan::Summary& summary) {
    if (options.format == plan::Format::kSummary) summary.addImage(child.image, child.messages, child.status, stdout);
    size_t at = 0;
    plan::Tag tag;
    std::string_view bytes;
    while (plan::nextMessage(child.messages, at, tag, bytes)) {
        if (tag != plan::Tag::kOutput) std::fflush(stdout);  // diagnostics in their place among the results
        if (tag == plan::Tag::kOutput) std::fwrite(bytes.data(), 1, bytes.size(), stdout);
        if (tag == plan::Tag::kError) std::fwrite(bytes.data(), 1, bytes.size(), stderr);
        if (tag == plan::Tag::kFailure && options.format != plan::Format::kSummary)
            std::fprintf(stderr, "cfgupgrade-plan: %s: %.*s\n", child.image.c_str(), static_cast<int>(bytes.size()), bytes.data());
    }
}

}  // namespace

int main(int argc, char** argv) {
    Arguments arguments = parseArguments(argc, argv);
    const plan::Options& options = arguments.options;
    prepareEnvironment();
    plan::Summary summary;
    std::deque<Child> window;  // in the order of the images; at most 2 * jobs of them
    size_t next = 0;
    long running = 0;
    int worst = 0;
    while (next < arguments.images.size() || !window.empty()) {
        while (next < arguments.images.size() && running < options.jobs &&
               window.size() < static_cast<size_t>(2 * options.jobs)) {
            window.emplace_back();
            window.back().image = arguments.images[next++];
            if (start(window.back(), options)) ++running;
            else std::fprintf(stderr, "cfgupgrade-plan: %s: cannot start its run: %s\n", window.back().image.c_str(), std::strerror(errno));
        }
        if (running > 0) waitForAny(window);
        running = 0;
        for (const Child& c : window) running += c.fd >= 0;
        while (!window.empty() && window.front().fd < 0) {
            finish(window.front(), options, summary);
            worst = std::max(worst, window.front().status);
            window.pop_front();
        }
    }
    if (options.format == plan::Format::kSummary) summary.print(stdout);
    return worst;
}
