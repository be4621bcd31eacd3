// Templates of a run that makes every cluster many times over, on the channels that matter.
//
// A cluster that is cut again soon needs its centre, its assigned channels and the waveforms there.
// Most channels of a long probe lie far away; while a template_deferral lives, recalculate_cluster
// makes a template on the others alone and owes the rest. What is found is what the whole template
// would give, to the last bit: a channel is left out only where a bound says that it can neither be
// the centre nor tell in the alignment. Debts are settled at the end, and before the gate lets
// anybody else see the session, so nobody ever reads a template that is not whole.
//
// The bounds come from a summary of the recording, a 64th of its size.
#pragma once

#include <cstdint>
#include <vector>

#include "clustering/template_sums.h"
#include "session/session_state.h"

namespace kestrelvane {

// The largest |sample| of 64 at a time, by channel: [block * n_channels + channel - 1].
struct voltage_summary {
  static constexpr std::int32_t block_samples = 64;
  std::int32_t n_channels = 0;
  std::vector<std::uint16_t> largest;
  std::uint16_t peak = 0;  // of all
};
void summarise_voltage(const session_state& session, voltage_summary& summary);

struct deferred_templates {
  voltage_summary summary;
  // By cluster: what has been made; an empty list of events: nothing is owed.
  std::vector<partial_template> owed;
};

// Does nothing inside another one, or with fewer channels than make it worth while.
struct template_deferral {
  explicit template_deferral(session_state& session);
  template_deferral(const template_deferral&) = delete;
  template_deferral& operator=(const template_deferral&) = delete;
  ~template_deferral();

 private:
  session_state& session_;
  deferred_templates deferred_;
};

// Makes whole what is owed.
void settle_templates(session_state& session);
// The record of a cluster has been copied to another number.
void copy_template_debt(session_state& session, std::int32_t from, std::int32_t to);

}  // namespace kestrelvane
