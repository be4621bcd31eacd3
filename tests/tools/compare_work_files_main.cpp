// compare-work-files A B: are two work files alike but for the run log?
//
// Prints the first field that differs. Exit status 0 alike, 1 they differ, 2 wrong
// usage or a file that cannot be read.
#include <cstdio>
#include <string>

#include "support/compare_work_files.h"

using namespace kestrelvane::test;

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: compare-work-files A B\n");
    return 2;
  }
  std::string words;
  switch (compare_work_files(argv[1], argv[2], words)) {
    case work_files::alike:
      return 0;
    case work_files::differ:
      std::printf("%s\n", words.c_str());
      return 1;
    case work_files::unreadable:
      break;
  }
  std::fprintf(stderr, "%s\n", words.c_str());
  return 2;
}
