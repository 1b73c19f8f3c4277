#include "app/memory_trim.h"

#include <fcntl.h>
#include <link.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "base/unique_fd.h"

namespace ox {
namespace {

/// Numbers of pages, the last one not included.
struct PageRange {
    uintptr_t first;
    uintptr_t end;
};

uintptr_t page_bytes() {
    static const auto bytes = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
    return bytes;
}

/// The read-only segments of the linked libraries. What relocations write (PT_GNU_RELRO) is part of
/// writable ones.
std::vector<PageRange>& linked_segments() {
    static std::vector<PageRange> segments;
    return segments;
}

int record_read_only_segments(dl_phdr_info* library, size_t /*size*/, void* /*data*/) {
    for (const auto& segment : std::span(library->dlpi_phdr, library->dlpi_phnum)) {
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) continue;
        const uintptr_t begin = library->dlpi_addr + segment.p_vaddr;
        const uintptr_t end = begin + segment.p_memsz + page_bytes() - 1;
        linked_segments().push_back({begin / page_bytes(), end / page_bytes()});
    }
    return 0;
}

/// Whether a page is as in its file, by its entry in /proc/PID/pagemap
/// (Documentation/admin-guide/mm/pagemap.rst of the kernel).
bool is_unchanged(uint64_t entry) {
    constexpr uint64_t kOfAFile = 1ULL << 61;
    constexpr uint64_t kSwapped = 1ULL << 62;
    constexpr uint64_t kPresent = 1ULL << 63;
    return (entry & kSwapped) == 0 && ((entry & kPresent) == 0 || (entry & kOfAFile) != 0);
}

void drop(PageRange pages) {
    if (pages.first >= pages.end) return;
    // The loader gives addresses as numbers.
    ::madvise(reinterpret_cast<void*>(pages.first * page_bytes()),  // NOLINT
              (pages.end - pages.first) * page_bytes(), MADV_DONTNEED);
}

/// Drops the unchanged pages of `pages`; unknown ones stay.
void drop_unchanged(int pagemap, PageRange pages) {
    std::array<uint64_t, 512> entries;  // NOLINT: filled by pread
    while (pages.first < pages.end) {
        const size_t wanted = std::min<size_t>(entries.size(), pages.end - pages.first);
        const ssize_t bytes = ::pread(pagemap, entries.data(), wanted * sizeof entries[0],
                                      static_cast<off_t>(pages.first * sizeof entries[0]));
        const size_t count = bytes < 0 ? 0 : static_cast<size_t>(bytes) / sizeof entries[0];
        if (count == 0) return;
        PageRange run{pages.first, pages.first};
        for (const uint64_t entry : std::span(entries).first(count)) {
            if (!is_unchanged(entry)) {
                drop(run);
                run.first = run.end + 1;
            }
            ++run.end;
        }
        drop(run);
        pages.first += count;
    }
}

}  // namespace

void record_linked_libraries() {
    linked_segments().clear();
    ::dl_iterate_phdr(record_read_only_segments, nullptr);
}

void trim_memory() {
    ::malloc_trim(0);
    const UniqueFd pagemap(::open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC));
    if (!pagemap) return;
    for (const PageRange& segment : linked_segments())
        drop_unchanged(pagemap.get(), segment);
}

}  // namespace ox
