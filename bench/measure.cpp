// Runs one command and reports its wall time and peak resident set size.
//
//   measure [NAME=VALUE ...] -- PROGRAM [ARG ...]
//
// Prints "WALL_MICROSECONDS PEAK_RSS_KIB EXIT_STATUS" on standard output. The
// command's own output goes to /dev/null, so a terminal never slows it down. The
// clock starts just before fork and stops when wait4 returns, so the figure is the
// whole process: loading, start-up, work and exit. Peak RSS comes from the rusage
// that wait4 returns (the figure /usr/bin/time reports as its maximum resident set
// size; for a shell script, that of its largest process).
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

long long nowMicroseconds() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// The child: environment assignments, quiet output, then the program.
[[noreturn]] void runChild(char** assignments, int count, char** command) {
    for (int i = 0; i < count; ++i) putenv(assignments[i]);
    int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        close(null);
    }
    execvp(command[0], command);
    _exit(127);
}

}  // namespace

int main(int argc, char** argv) {
    int separator = 1;
    while (separator < argc && std::strcmp(argv[separator], "--") != 0) ++separator;
    if (separator + 1 >= argc) {
        std::fprintf(stderr, "usage: measure [NAME=VALUE ...] -- PROGRAM [ARG ...]\n");
        return 2;
    }
    long long start = nowMicroseconds();
    pid_t pid = fork();
    if (pid < 0) {
        std::perror("fork");
        return 1;
    }
    if (pid == 0) runChild(argv + 1, separator - 1, argv + separator + 1);
    int status = 0;
    rusage usage{};
    while (wait4(pid, &status, 0, &usage) < 0) {
        if (errno != EINTR) {
            std::perror("wait4");
            return 1;
        }
    }
    long long wall = nowMicroseconds() - start;
    int exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    std::printf("%lld %ld %d\n", wall, usage.ru_maxrss, exitStatus);
    return 0;
}
