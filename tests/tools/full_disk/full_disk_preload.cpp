// Preloaded into a process (LD_PRELOAD), makes its writes to files whose
// path holds $KAVREL_FULL_DISK_MATCH fail with ENOSPC ("No space left on
// device") once $KAVREL_FULL_DISK_BYTES bytes have been written to such
// files: a small disk for one database, without a file system of its own.
#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

std::atomic<long long> written{0};

bool matches(int fd) {
  const char* match = std::getenv("KAVREL_FULL_DISK_MATCH");
  if (!match || !*match) return false;
  char link[64];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  char path[4096];
  const ssize_t n = ::readlink(link, path, sizeof path - 1);
  if (n <= 0) return false;
  path[n] = '\0';
  return std::strstr(path, match) != nullptr;
}

// True (errno set) when this write does not fit.
bool full(int fd, size_t n) {
  if (!matches(fd)) return false;
  const char* limit = std::getenv("KAVREL_FULL_DISK_BYTES");
  if (written + static_cast<long long>(n) > std::atoll(limit ? limit : "0")) {
    errno = ENOSPC;
    return true;
  }
  written += static_cast<long long>(n);
  return false;
}

template <class F>
F real(const char* name) {
  return reinterpret_cast<F>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" ssize_t write(int fd, const void* buf, size_t n) {
  static auto next = real<ssize_t (*)(int, const void*, size_t)>("write");
  return full(fd, n) ? -1 : next(fd, buf, n);
}

extern "C" ssize_t pwrite(int fd, const void* buf, size_t n, off_t offset) {
  static auto next = real<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite");
  return full(fd, n) ? -1 : next(fd, buf, n, offset);
}

extern "C" ssize_t pwrite64(int fd, const void* buf, size_t n, off64_t offset) {
  static auto next = real<ssize_t (*)(int, const void*, size_t, off64_t)>("pwrite64");
  return full(fd, n) ? -1 : next(fd, buf, n, offset);
}
