// Known data on channel 1, on which the analysis of amplitudes is tried.
//
// The same at every try and in every replay of the filter history, where they are listed as steps
// of the chain (filter_chain.h puts them there). Work for the worker.
#pragma once

#include <string>

#include "session/session_state.h"

namespace kestrelvane {

enum class test_data { second_gaussian, gaussian, exponential };

// What the user is asked beforehand.
std::string test_data_question(test_data which);

// Into the samples in memory; sums beyond two bytes are cut, and logged as "Possible overflow".
void make_test_data(session_state& session, test_data which);

}  // namespace kestrelvane
