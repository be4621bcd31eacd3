// Reading of the acquisition formats against a plain read of the same files.
#pragma once

namespace kestrelvane::test {

void benchmark_formats();

}  // namespace kestrelvane::test
