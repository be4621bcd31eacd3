#include "batch/unit_list.h"

#include <fmt/format.h>

namespace kestrelvane {

namespace {

const char* status_text(cluster_status status) {
  switch (status) {
    case cluster_status::stable:
      return "stable";
    case cluster_status::unstable:
      return "not stable";
    case cluster_status::unknown:
      break;
  }
  // Without pair lists nobody knows, and a word would be taken for a finding.
  return "-";
}

}  // namespace

std::string print_unit_table(const std::vector<unit_row>& units) {
  std::string text =
      fmt::format("{:>7} {:>7} {:>7} {:>7} {:>8} {:>8} {:>8} {:>6}  {}\n", "cluster", "channel",
                  "x/µm", "y/µm", "events", "rate/Hz", "p-p/µV", "SNR", "status");
  for (const unit_row& u : units) {
    // Columns of fixed width, so that tables of two runs can be compared line by line.
    text += fmt::format("{:>7} {:>7} {:>7.1f} {:>7.1f} {:>8} {:>8.2f} {:>8.1f} {:>6.1f}  {}\n",
                        u.cluster, u.channel, u.x, u.y, u.n_events, u.rate, u.peak_to_peak, u.snr,
                        status_text(u.status));
  }
  return text;
}

}  // namespace kestrelvane
