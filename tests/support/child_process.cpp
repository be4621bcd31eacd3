#include "support/child_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

extern char** environ;

namespace kestrelvane::test {

namespace {

std::string read_whole(std::FILE* file) {
  std::string text;
  std::rewind(file);
  char buffer[4096];
  while (const std::size_t n = std::fread(buffer, 1, sizeof buffer, file)) text.append(buffer, n);
  return text;
}

pid_t start(const std::string& command, const std::vector<std::string>& arguments, int out,
            int err) {
  std::vector<std::string> words{command};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
  pid_t process = -1;
  if (posix_spawn(&process, argv[0], &actions, nullptr, argv.data(), environ) != 0) process = -1;
  posix_spawn_file_actions_destroy(&actions);
  return process;
}

}  // namespace

process_result run_process(const std::string& command, const std::vector<std::string>& arguments,
                           const std::function<void(pid_t, const std::string&)>& on_line) {
  process_result result;
  std::FILE* out = std::tmpfile();
  int err[2];
  if (out == nullptr || pipe2(err, O_CLOEXEC) != 0) return result;
  const pid_t process = start(command, arguments, fileno(out), err[1]);
  close(err[1]);
  std::FILE* lines = fdopen(err[0], "r");
  char* line = nullptr;
  std::size_t capacity = 0;
  while (getline(&line, &capacity, lines) > 0) {
    result.err += line;
    if (on_line) on_line(process, line);
  }
  std::free(line);
  std::fclose(lines);
  int status = 0;
  if (process > 0 && waitpid(process, &status, 0) == process) {
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  result.out = read_whole(out);
  std::fclose(out);
  return result;
}

}  // namespace kestrelvane::test
