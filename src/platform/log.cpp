#include "platform/log.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const int kDefaultTraceLevel = 3;
const int kHighestLevel = 7;  // syslog's lowest priority

std::string vformat(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length < 0) return {};
    std::string text(static_cast<size_t>(length) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), format, args);
    text.pop_back();
    return text;
}

// A stream of output: standard output, standard error, or the log file. Once a stream
// has kept the run waiting for its whole grace period, it is not waited on again.
struct Stream {
    int fd;
    bool stalled;
};

// How long one stream may hold up the run, once: a console that drains slowly gets its
// lines, a pipe nobody reads costs the boot this and no more.
const int kGraceMilliseconds = 250;

// False when the stream has no room (or is broken) within the wait it is allowed.
bool waitForRoom(Stream& stream) {
    pollfd watch = {stream.fd, POLLOUT, 0};
    int ready;
    while ((ready = poll(&watch, 1, stream.stalled ? 0 : kGraceMilliseconds)) < 0 && errno == EINTR) {
    }
    if (ready == 1 && (watch.revents & (POLLERR | POLLHUP | POLLNVAL)) == 0) return true;
    stream.stalled = true;
    return false;
}

// Delivers what the stream takes and drops the rest: a closed, full or broken stream
// never stops or hangs the run. Writes of at most PIPE_BUF bytes fit in a pipe that
// poll called writable, so none of them blocks; a record up to that size is one write,
// so records never interleave mid-line.
void deliverTo(Stream& stream, const char* data, size_t size) {
    while (size > 0) {
        if (!waitForRoom(stream)) return;
        ssize_t n = write(stream.fd, data, std::min<size_t>(size, PIPE_BUF));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        data += n;
        size -= static_cast<size_t>(n);
    }
}

Stream standardOutput = {STDOUT_FILENO, false};
Stream standardError = {STDERR_FILENO, false};
Stream logFile = {-1, false};  // see openLogFile

// The log file, opened at its first record and kept, so that a run which has used up its
// descriptors still logs why. Another path (a test setting another log) opens that one.
struct LogFileState {
    std::string path;
    bool refused = false;
};

// Why the log file is not used, or null. The log may sit under /config, where anybody
// who can write there could plant a link: root then must not append through it, nor to
// a FIFO (which would hang the boot) or a device. Looked at before the open, so that
// nothing but a regular file is ever opened, and again after it.
const char* refusalOf(int fd) {
    struct stat st;
    if (fd < 0) return errno == ELOOP ? "a symbolic link" : errno == ENXIO ? "not a regular file" : nullptr;
    return fstat(fd, &st) == 0 && S_ISREG(st.st_mode) ? nullptr : "not a regular file";
}

int openLogFile(const char* path) {
    static LogFileState state;
    if (state.path != path) {
        if (logFile.fd >= 0) close(logFile.fd);
        logFile = {-1, false};
        state = {path, false};
    }
    if (logFile.fd >= 0 || state.refused) return logFile.fd;
    struct stat st;
    const char* why = lstat(path, &st) != 0 ? nullptr
                      : S_ISLNK(st.st_mode)  ? "a symbolic link"
                      : !S_ISREG(st.st_mode) ? "not a regular file"
                                             : nullptr;
    // Non-blocking: a FIFO put there after the look fails the open instead of hanging it.
    int fd = why ? -1 : open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW, 0644);
    if (!why) why = refusalOf(fd);
    if (why) {
        if (fd >= 0) close(fd);
        state.refused = true;  // one line for the run, on standard error: the log is not usable
        std::string line = "app_log[60/4] Cannot write [" + std::string(path) + "]: " + why + "\n";
        deliverTo(standardError, line.data(), line.size());
        return -1;
    }
    logFile.fd = fd;  // -1 when the open failed for want of a descriptor: tried again next record
    return fd;
}

void deliver(int priority, const std::string& prefix, const std::string& text) {
    std::string record = prefix + text;
    if (record.empty() || record.back() != '\n') record += '\n';

    const char* sink = std::getenv("CFGUPGRADE_LOG");
    if (!sink || !*sink || std::strcmp(sink, "-") == 0) {
        deliverTo(standardError, record.data(), record.size());
    } else if (std::strcmp(sink, "syslog") == 0) {
        openlog("cfgupgrade", LOG_PID, LOG_USER);
        syslog(priority, "%s", record.c_str());
    } else {
        if (openLogFile(sink) >= 0) deliverTo(logFile, record.data(), record.size());
    }
}

// The stdio stream that the steps' printf and puts write into: it claims every byte,
// so stdio never retries, and delivers what standard output takes.
ssize_t writeStandardOutput(void*, const char* data, size_t size) {
    deliverTo(standardOutput, data, size);
    return static_cast<ssize_t>(size);
}

// A standard descriptor that is not open would be handed to the next file the tool
// opens, and diagnostics would land in a configuration file.
void keepOpen(int fd) {
    if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) return;
    int null = open("/dev/null", O_RDWR);
    if (null >= 0 && null != fd) {
        dup2(null, fd);
        close(null);
    }
}

void ignoreSignal(int) {}

int syslogPriority(int level) { return level < 0 ? LOG_EMERG : level > 7 ? LOG_DEBUG : level; }

// Only a whole number from 0 to 7 counts; anything else (blanks, a word, a sign, an
// overflow) is the default, so a typo never opens the level-2 traces that carry
// password values.
int lowestTraceLevel() {
    const char* env = std::getenv("CFGUPGRADE_TRACE_LEVEL");
    if (!env || !*env) return kDefaultTraceLevel;
    int level = 0;
    for (; *env; ++env) {
        if (*env < '0' || *env > '9') return kDefaultTraceLevel;
        level = level * 10 + (*env - '0');
        if (level > kHighestLevel) return kDefaultTraceLevel;
    }
    return level;
}

}  // namespace

void app_log(int module, int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = vformat(format, args);
    va_end(args);
    deliver(syslogPriority(level), "app_log[" + std::to_string(module) + "/" + std::to_string(level) + "] ", text);
}

namespace ETL_TraceHelper {

void etlTrace(int level, const char* format, ...) {
    if (level < lowestTraceLevel()) return;
    va_list args;
    va_start(args, format);
    std::string text = vformat(format, args);
    va_end(args);
    deliver(syslogPriority(level), "etlTrace[" + std::to_string(level) + "] ", text);
}

}  // namespace ETL_TraceHelper

void prepareOutputStreams() {
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) keepOpen(fd);
    // A reader that went away must not kill the run: writes fail with EPIPE instead.
    // A handler rather than SIG_IGN, so that programs the tool might start get the
    // default back.
    struct sigaction action = {};
    action.sa_handler = ignoreSignal;
    action.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &action, nullptr);
    // Nor a file-size limit: a write past it fails with EFBIG, which every writer reports
    // as the failed write it is (a log line dropped, a file left as it was).
    sigaction(SIGXFSZ, &action, nullptr);
    cookie_io_functions_t functions = {nullptr, writeStandardOutput, nullptr, nullptr};
    if (FILE* out = fopencookie(nullptr, "w", functions)) {
        setvbuf(out, nullptr, isatty(STDOUT_FILENO) ? _IOLBF : _IOFBF, BUFSIZ);
        stdout = out;
    }
}
