// A device that takes no more bytes, for the time that the object lives: files of
// this process cannot grow beyond 500 bytes.
#pragma once

#include <sys/resource.h>

#include <csignal>

namespace kestrelvane::test {

struct full_device {
  rlimit before{};
  full_device() {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before);
    rlimit small = before;
    small.rlim_cur = 500;
    setrlimit(RLIMIT_FSIZE, &small);
  }
  ~full_device() { setrlimit(RLIMIT_FSIZE, &before); }
  full_device(const full_device&) = delete;
  full_device& operator=(const full_device&) = delete;
};

}  // namespace kestrelvane::test
