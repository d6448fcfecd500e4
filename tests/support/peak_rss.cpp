// Runs a command and writes its peak resident set size (KiB) to a file:
//
//   peak_rss FILE PROGRAM [ARG ...]
//
// The test process cannot take the figure from its own wait4: the tool is spawned
// sharing the test's memory until it executes, and the kernel counts that memory's
// peak as the tool's. Forked from this small process, the tool starts from nothing.
// Exits as the command did; 128 + N when signal N ended it.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: peak_rss FILE PROGRAM [ARG ...]\n");
        return 2;
    }
    pid_t pid = fork();
    if (pid < 0) return 127;
    if (pid == 0) {
        execvp(argv[2], argv + 2);
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    while (wait4(pid, &status, 0, &usage) < 0)
        if (errno != EINTR) return 127;
    if (FILE* out = std::fopen(argv[1], "w")) {
        std::fprintf(out, "%ld\n", usage.ru_maxrss);
        std::fclose(out);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
