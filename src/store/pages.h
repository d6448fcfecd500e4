// Fresh memory, asked for at once. A page of it costs a fault when it is first touched,
// and under a hypervisor a fault costs several microseconds; the configuration of a
// large phone is a thousand pages. Asking the kernel for a buffer's pages in one call
// costs a fraction of that.
#pragma once

#include <cstddef>

namespace store {

// Makes the whole pages inside [data, data + size) present and writable. Best effort:
// a kernel before 5.14 refuses, and the pages then come one by one when touched.
void prefaultPages(void* data, size_t size);

}  // namespace store
