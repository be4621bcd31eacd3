#include "files/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace kestrelvane {

void secure_standard_streams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) >= 0) continue;
    // The lowest number that is free is this one. For reading alone, so that a result that nobody
    // can get is still told from one that was written.
    const int opened = open("/dev/null", O_RDONLY);
    if (opened != stream && opened >= 0) close(opened);
  }
  std::signal(SIGPIPE, SIG_IGN);
}

bool put_text(std::FILE* stream, std::string_view text) {
  return std::fwrite(text.data(), 1, text.size(), stream) == text.size();
}

bool put_result(std::string_view text, std::string& problem) {
  errno = 0;
  // A full device may show only when the buffer is handed over.
  const bool written = put_text(stdout, text) && std::fflush(stdout) == 0;
  problem = written || errno == EPIPE ? "" : std::strerror(errno);
  return written;
}

}  // namespace kestrelvane
