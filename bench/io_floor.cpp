// The I/O floor: the least a run of one mode must do to the file system.
//
//   io_floor ROOT PLAN BLOB
//
// PLAN lists, one per line, what a run of cfgupgrade read and changed (the
// benchmark takes it from an observed run):
//   read PATH                 a file the run read
//   write OFFSET LENGTH PATH  a file the run changed or created; its new bytes are
//                             LENGTH bytes at OFFSET in BLOB
//   remove PATH               a file the run removed
// PATH is a logical path (as the phone sees it) under ROOT.
//
// The floor reads every listed file once, whole, then replaces every changed file
// the safe way (temporary file, write, fsync, rename, fsync of the directory) and
// removes every removed file durably. It computes nothing: the new bytes are read
// from BLOB with one read. Anything cfgupgrade does beyond this is its overhead.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

struct Entry {
    std::string op;
    std::string path;
    size_t offset = 0;
    size_t length = 0;
};

[[noreturn]] void fail(const std::string& what) {
    std::perror(what.c_str());
    std::exit(1);
}

// Reads a whole file into `bytes`, as any reader of a configuration file must.
void readWhole(const std::string& path, std::string& bytes) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) fail(path);
    struct stat st;
    if (fstat(fd, &st) != 0) fail(path);
    bytes.resize(static_cast<size_t>(st.st_size));
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = read(fd, &bytes[done], bytes.size() - done);
        if (n <= 0) fail(path);
        done += static_cast<size_t>(n);
    }
    close(fd);
}

void syncDirectoryOf(const std::string& path) {
    std::string dir = path.substr(0, path.rfind('/'));
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || fsync(fd) != 0) fail(dir);
    close(fd);
}

// Temporary file in the target's directory, data synced, renamed over the target,
// directory synced: the least that survives a cut of power at any moment.
void replaceWhole(const std::string& path, const char* data, size_t length) {
    std::string temp = path.substr(0, path.rfind('/') + 1) + ".floor-tmp";
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) fail(temp);
    size_t done = 0;
    while (done < length) {
        ssize_t n = write(fd, data + done, length - done);
        if (n <= 0) fail(temp);
        done += static_cast<size_t>(n);
    }
    if (fsync(fd) != 0 || close(fd) != 0) fail(temp);
    if (rename(temp.c_str(), path.c_str()) != 0) fail(path);
    syncDirectoryOf(path);
}

std::vector<Entry> readPlan(const char* planPath) {
    std::ifstream in(planPath);
    if (!in) fail(planPath);
    std::vector<Entry> plan;
    std::string line;
    while (std::getline(in, line)) {
        Entry e;
        size_t space = line.find(' ');
        if (space == std::string::npos) continue;
        e.op = line.substr(0, space);
        std::string rest = line.substr(space + 1);
        if (e.op == "write") {
            char* end = nullptr;
            e.offset = std::strtoull(rest.c_str(), &end, 10);
            e.length = std::strtoull(end, &end, 10);
            rest = end + 1;
        }
        e.path = rest;
        plan.push_back(e);
    }
    return plan;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: io_floor ROOT PLAN BLOB\n");
        return 2;
    }
    std::string root = argv[1];
    std::vector<Entry> plan = readPlan(argv[2]);
    std::string blob;
    readWhole(argv[3], blob);

    std::string bytes;
    for (const Entry& e : plan)
        if (e.op == "read") readWhole(root + e.path, bytes);
    for (const Entry& e : plan) {
        if (e.op == "write") {
            if (e.offset + e.length > blob.size()) fail("plan beyond blob");
            replaceWhole(root + e.path, blob.data() + e.offset, e.length);
        } else if (e.op == "remove") {
            if (unlink((root + e.path).c_str()) != 0) fail(e.path);
            syncDirectoryOf(root + e.path);
        }
    }
    return 0;
}
