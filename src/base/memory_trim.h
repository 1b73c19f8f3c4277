#pragma once

#include <link.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

namespace ox {

namespace detail {

/// Drops the resident pages of a library's read-only segments. They are never written, so a later
/// use finds them unchanged in the page cache; those that relocations did write (PT_GNU_RELRO) are
/// part of writable segments and stay.
inline int drop_read_only_segments(dl_phdr_info* library, size_t /*size*/, void* /*data*/) {
    const auto page = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
    for (size_t i = 0; i < library->dlpi_phnum; ++i) {
        const auto& segment = library->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) continue;
        const uintptr_t begin = (library->dlpi_addr + segment.p_vaddr) & ~(page - 1);
        const uintptr_t end = library->dlpi_addr + segment.p_vaddr + segment.p_memsz;
        // The loader tells addresses as numbers.
        ::madvise(reinterpret_cast<void*>(begin), end - begin,  // NOLINT(performance-no-int-to-ptr)
                  MADV_DONTNEED);
    }
    return 0;
}

}  // namespace detail

/// Gives back what only the past needed: free heap, and the code and tables of the some hundred
/// libraries behind the media framework that nothing but their loading has touched. What is used
/// again comes back by page faults from the page cache, some hundred of about a microsecond.
inline void trim_memory() {
    ::malloc_trim(0);
    ::dl_iterate_phdr(detail::drop_read_only_segments, nullptr);
}

}  // namespace ox
