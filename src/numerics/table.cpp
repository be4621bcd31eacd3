#include "numerics/table.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kestrelvane {

void* reserve_pages(std::size_t bytes) {
  void* pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                     // Addresses alone: memory is taken page by page as they are touched.
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return pages == MAP_FAILED ? nullptr : pages;
}

void release_pages(void* pages, std::size_t bytes) { munmap(pages, bytes); }

void zero_pages(void* first, std::size_t bytes) {
  static const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  char* begin = static_cast<char*>(first);
  char* end = begin + bytes;
  const auto address = reinterpret_cast<std::uintptr_t>(begin);
  char* inner_begin = begin + (page - address % page) % page;
  char* inner_end = end - reinterpret_cast<std::uintptr_t>(end) % page;
  // Short ranges are written; giving pages back pays only for many of them.
  if (inner_end <= inner_begin || static_cast<std::size_t>(inner_end - inner_begin) < 16 * page) {
    std::memset(begin, 0, bytes);
    return;
  }
  std::memset(begin, 0, static_cast<std::size_t>(inner_begin - begin));
  std::memset(inner_end, 0, static_cast<std::size_t>(end - inner_end));
  // Pages that cannot be given back are written like short ranges.
  if (madvise(inner_begin, static_cast<std::size_t>(inner_end - inner_begin), MADV_DONTNEED) != 0) {
    std::memset(inner_begin, 0, static_cast<std::size_t>(inner_end - inner_begin));
  }
}

bool memory_can_hold(std::int64_t bytes) {
  std::FILE* meminfo = std::fopen("/proc/meminfo", "r");
  // Where the system does not tell, nothing is refused.
  if (meminfo == nullptr) return true;
  std::int64_t available = -1;
  std::int64_t swap = 0;
  char line[128];
  while (std::fgets(line, sizeof line, meminfo) != nullptr) {
    long long kilobytes = 0;
    if (std::sscanf(line, "MemAvailable: %lld", &kilobytes) == 1) available = kilobytes;
    if (std::sscanf(line, "SwapFree: %lld", &kilobytes) == 1) swap = kilobytes;
  }
  std::fclose(meminfo);
  return available < 0 || bytes / 1024 <= available + swap;
}

void prefer_large_pages(void* first, std::size_t bytes) {
  // Advice only: without large pages everything works, a little slower.
  constexpr std::uintptr_t large = 2u << 20;
  const auto begin = (reinterpret_cast<std::uintptr_t>(first) + large - 1) / large * large;
  const auto end = (reinterpret_cast<std::uintptr_t>(first) + bytes) / large * large;
  if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

void stop_on_bad_index(std::int64_t index, std::int64_t capacity) {
  std::fprintf(stderr, "table index %lld outside 0..%lld\n", static_cast<long long>(index),
               static_cast<long long>(capacity));
  std::abort();
}

}  // namespace kestrelvane
