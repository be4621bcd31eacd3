// Filters against what bounds them: the bare transforms, or a copy of the samples.
#pragma once

namespace kestrelvane::test {

void benchmark_filters();

}  // namespace kestrelvane::test
