// How many processors this process may use, which on a shared machine are fewer than it has.
//
// A batch system leaves a job some of them in two ways: by its affinity, a set of processors, or by
// a quota, so much processor time in each period. More threads than that wait for each other.
#pragma once

#include <cstdint>
#include <string>

namespace kestrelvane {

// By affinity and quota together, a part of a processor counting as one; at least 1.
std::int32_t usable_processors();

// By the quotas of control groups alone, of version 1 and 2, that of a group above holding for
// those in it. groups: the text of /proc/self/cgroup; mounted: the folder that they are mounted
// in. 0: there is none.
std::int32_t processors_of_quota(const std::string& groups, const std::string& mounted);

}  // namespace kestrelvane
