// cfgupgrade-plan [options] MODE IMAGE...: what the phone tool's run of MODE would change
// on each image, without changing it. See cfgupgrade-plan(1).
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
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

// An image in the window: what its worker has sent of it so far, and how it ended.
struct ImageRun {
    std::string image;
    std::string messages;
    int status = 2;
    bool done = false;
};

// A worker process: it runs the images it is sent, one at a time.
struct Worker {
    pid_t pid = -1;
    int requests = -1;  // image numbers, to the worker
    int results = -1;   // messages, from the worker
    std::string pending;          // read but not yet a whole message
    ImageRun* current = nullptr;  // the image it runs, null when idle
};

// The runs see the tool's environment but for what would change the host or show secrets:
// no log file or record of the host's, and no trace below level 3 (level 2 carries values).
void prepareEnvironment() {
    unsetenv("CFGUPGRADE_LOG");
    unsetenv("CFGUPGRADE_CHANGES");
    setenv("CFGUPGRADE_TRACE_LEVEL", "3", 1);
}

void closeEnds(Worker& w) {
    if (w.requests >= 0) close(w.requests);
    if (w.results >= 0) close(w.results);
    w.requests = w.results = -1;
}

// The worker's side: an image number in, that image's messages out, until the parent
// closes the requests.
[[noreturn]] void serve(int requests, int results, const std::vector<std::string>& images, const plan::Options& options) {
    plan::prepareWorker();
    uint32_t n;
    while (read(requests, &n, sizeof n) == static_cast<ssize_t>(sizeof n) && n < images.size())
        plan::runImage(images[n], options, results);
    _exit(0);
}

bool start(Worker& w, std::vector<Worker>& workers, const std::vector<std::string>& images, const plan::Options& options) {
    int toWorker[2], fromWorker[2];
    if (pipe(toWorker) != 0) return false;
    if (pipe(fromWorker) != 0) {
        close(toWorker[0]), close(toWorker[1]);
        return false;
    }
    std::fflush(nullptr);  // nothing buffered here may be written twice
    w.pid = fork();
    if (w.pid == 0) {
        for (Worker& other : workers) closeEnds(other);  // another's requests must end when the parent closes them
        close(toWorker[1]), close(fromWorker[0]);
        serve(toWorker[0], fromWorker[1], images, options);
    }
    close(toWorker[0]), close(fromWorker[1]);
    if (w.pid < 0) {
        close(toWorker[1]), close(fromWorker[0]);
        return false;
    }
    w.requests = toWorker[1];
    w.results = fromWorker[0];
    w.pending.clear();
    return true;
}

// A worker gone (it crashed, or was killed): the image it ran ends as failed, with a line.
void lose(Worker& w) {
    closeEnds(w);
    int status = 0;
    while (waitpid(w.pid, &status, 0) < 0 && errno == EINTR) {
    }
    w.pid = -1;
    if (!w.current) return;
    if (WIFSIGNALED(status))
        std::fprintf(stderr, "cfgupgrade-plan: %s: the run ended with signal %d\n", w.current->image.c_str(), WTERMSIG(status));
    else std::fprintf(stderr, "cfgupgrade-plan: %s: the run ended before its result\n", w.current->image.c_str());
    w.current->done = true;
    w.current = nullptr;
}

// Hands the worker an image; a worker that cannot take it is lost, and the image with it.
void send(Worker& w, ImageRun& run, uint32_t n) {
    w.current = &run;
    if (write(w.requests, &n, sizeof n) != static_cast<ssize_t>(sizeof n)) lose(w);
}

// Moves what the worker sent to its image; kDone ends the image.
void readFrom(Worker& w) {
    char buffer[65536];
    ssize_t n = read(w.results, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) return;
    if (n <= 0) return lose(w);
    w.pending.append(buffer, static_cast<size_t>(n));
    size_t at = 0;
    plan::Tag tag;
    std::string_view bytes;
    while (w.current && plan::nextMessage(w.pending, at, tag, bytes)) {
        if (tag != plan::Tag::kDone) {
            plan::appendMessage(w.current->messages, tag, bytes);
            continue;
        }
        w.current->status = bytes.empty() ? 2 : bytes[0] - '0';
        w.current->done = true;
        w.current = nullptr;
    }
    w.pending.erase(0, at);
}

void waitForAny(std::vector<Worker>& workers) {
    std::vector<pollfd> watched;
    for (const Worker& w : workers)
        if (w.current) watched.push_back({w.results, POLLIN, 0});
    if (watched.empty() || poll(watched.data(), watched.size(), -1) < 0) return;
    for (Worker& w : workers)
        for (const pollfd& p : watched)
            if (w.current && p.fd == w.results && p.revents) readFrom(w);
}

// Prints (or counts) one finished image, as its turn comes.
void finish(const ImageRun& run, const plan::Options& options, plan::Summary& summary) {
    if (options.format == plan::Format::kSummary) summary.addImage(run.image, run.messages, run.status, stdout);
    size_t at = 0;
    plan::Tag tag;
    std::string_view bytes;
    while (plan::nextMessage(run.messages, at, tag, bytes)) {
        if (tag != plan::Tag::kOutput) std::fflush(stdout);  // diagnostics in their place among the results
        if (tag == plan::Tag::kOutput) std::fwrite(bytes.data(), 1, bytes.size(), stdout);
        if (tag == plan::Tag::kError) std::fwrite(bytes.data(), 1, bytes.size(), stderr);
        if (tag == plan::Tag::kFailure && options.format != plan::Format::kSummary)
            std::fprintf(stderr, "cfgupgrade-plan: %s: %.*s\n", run.image.c_str(), static_cast<int>(bytes.size()), bytes.data());
    }
}

}  // namespace

int main(int argc, char** argv) {
    Arguments arguments = parseArguments(argc, argv);
    const plan::Options& options = arguments.options;
    const std::vector<std::string>& images = arguments.images;
    prepareEnvironment();
    std::signal(SIGPIPE, SIG_IGN);  // a worker that died is seen by its pipe's end, not by a signal here
    plan::Summary summary;
    std::vector<Worker> workers(static_cast<size_t>(std::min<long>(options.jobs, static_cast<long>(images.size()))));
    std::deque<ImageRun> window;  // in the order of the images; at most 2 * jobs of them
    size_t next = 0;
    int worst = 0;
    while (next < images.size() || !window.empty()) {
        for (Worker& w : workers) {
            if (w.current || next >= images.size() || window.size() >= 2 * workers.size()) continue;
            if (w.pid < 0 && !start(w, workers, images, options)) {
                std::fprintf(stderr, "cfgupgrade-plan: %s: cannot start its run: %s\n", images[next].c_str(), std::strerror(errno));
                window.push_back({images[next++], "", 2, true});
                continue;
            }
            window.push_back({images[next], "", 2, false});
            send(w, window.back(), static_cast<uint32_t>(next++));
        }
        waitForAny(workers);
        while (!window.empty() && window.front().done) {
            finish(window.front(), options, summary);
            worst = std::max(worst, window.front().status);
            window.pop_front();
        }
    }
    for (Worker& w : workers)
        if (w.pid >= 0) closeEnds(w), waitpid(w.pid, nullptr, 0);
    if (options.format == plan::Format::kSummary) summary.print(stdout);
    return worst;
}
