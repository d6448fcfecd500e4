#include "store/pages.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace store {

void prefaultPages(void* data, size_t size) {
#ifdef MADV_POPULATE_WRITE
    static const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + page - 1) & ~(page - 1);
    uintptr_t end = (reinterpret_cast<uintptr_t>(data) + size) & ~(page - 1);
    // The result is not looked at: without it the pages are faulted in as they are used.
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
#else
    (void)data;
    (void)size;
#endif
}

}  // namespace store
