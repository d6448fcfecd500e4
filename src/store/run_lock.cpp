#include "store/run_lock.h"

#include <sys/file.h>
#include <time.h>

#include <cerrno>

#include "store/paths.h"
#include "store/report.h"

namespace store {

namespace {

const char kLockedTree[] = "/config";

// A whole run takes well under a second even on the largest images measured, fsyncs
// included; ten seconds lets one started at the same moment finish on slow flash. A run
// that holds the lock longer is stuck, and a boot must not wait on it for good: the
// waiting run gives up, and the next boot does its work.
const int kWaitMilliseconds = 10000;
// How soon a waiting run notices the lock is free: a small part of a run.
const int kPollMilliseconds = 20;

long long nowMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

// The locked directory's descriptor: the kernel drops the lock when it is closed, or
// when the process ends, however it ends (a cut, a kill).
fs::Fd& heldLock() {
    static fs::Fd held;
    return held;
}

void sleepMilliseconds(int ms) {
    timespec left{ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // namespace

bool lockConfigTree() {
    int dir = -1;
    // flock on the directory itself: no lock file to create, nothing written, and the
    // kernel drops the lock when the process ends, however it ends (a cut, a kill).
    if (int err = fs::openDirectory(kLockedTree, dir)) {
        if (err != ENOENT && err != ENOTDIR) report("Cannot lock [%s]: %s", kLockedTree, fs::describe(err));
        return true;
    }
    // The descriptor stays open to the end of the run: closing it would drop the lock.
    // Measured on the clock, not by counting the naps: each oversleeps a little.
    heldLock().reset(dir);
    const long long deadline = nowMilliseconds() + kWaitMilliseconds;
    for (;;) {
        if (flock(dir, LOCK_EX | LOCK_NB) == 0) return true;
        if (errno != EWOULDBLOCK && errno != EINTR) {
            report("Cannot lock [%s]: %s", kLockedTree, fs::describe(errno));
            return true;
        }
        if (nowMilliseconds() >= deadline) break;
        sleepMilliseconds(kPollMilliseconds);
    }
    report("Cannot lock [%s]: another run has held it for %d s; this run changes nothing", kLockedTree,
           kWaitMilliseconds / 1000);
    heldLock().reset();
    return false;
}

void unlockConfigTree() { heldLock().reset(); }

}  // namespace store
