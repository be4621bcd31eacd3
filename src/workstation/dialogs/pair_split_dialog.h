// The dialog that asks how a pair is to be split: "What do you want to do?".
//
// It shows the subclusters of one bandwidth as up to four rows by size, in the colours of their
// labels, which the displays of the pair show too. Guided Merge and the comparison of pairs open
// it over a pair_split that the engine has prepared; nothing leaves a cluster before it closes.
#pragma once

#include <functional>
#include <memory>

#include "review/pair_split.h"

namespace kestrelvane {

struct workstation;

// split must outlive the dialog. answer runs once it is closed: ugm_split_as_shown, ugm_merge,
// or ugm_none when it was left.
void ask_for_split(workstation& w, pair_split& split, std::function<void(ugm_message)> answer);

}  // namespace kestrelvane
