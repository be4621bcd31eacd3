// How a sort agrees with planted truth.
//
// Sorted and planted units are matched one to one so that the sum of agreements
// is largest (the assignment problem: Kuhn 1955, Munkres 1957, in the form of
// Jonker and Volgenant 1987). The agreement of two trains is
//   matches / (n_planted + n_sorted - matches),
// a match being a pair of spikes at most 0.4 ms apart, each used once.
//
// What a sorter can be asked to find depends on how far a unit stands out: where the
// noise of the recording is known, units are also counted in bands of amplitude over
// noise.
//
// Sorted units that are nobody's partner are told apart by the best agreement they have with
// any planted unit, as comparisons of sorters do (Buccino et al. 2020, SpikeInterface).
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace kestrelvane {

struct session_state;

// Spikes of a sort or of the truth, by time.
struct spike_list {
  struct spike {
    double time;           // s
    std::int32_t unit;     // 0 or above
    std::int32_t channel;  // 0 when the file does not give it
  };
  std::vector<spike> spikes;
};

struct unit_score {
  std::int32_t unit = 0;          // planted
  std::int32_t channel = 0;       // of most of its spikes
  std::int32_t sorted_unit = -1;  // its partner; -1: none shares a spike with it
  std::int32_t n_planted = 0, n_sorted = 0, n_matches = 0;
  double amplitude_uv = 0;  // of the units file; 0: not known
  double snr = 0;           // of the units file; 0: not known
  double rate_hz = 0;
  double accuracy = 0;   // the agreement
  double precision = 0;  // matches / n_sorted
  double recall = 0;     // matches / n_planted
};

struct sort_score {
  std::vector<unit_score> units;  // by planted unit
  std::int32_t n_sorted_units = 0;
  std::int32_t n_extra_units = 0;  // sorted units without a partner
  std::int32_t n_planted_spikes = 0, n_sorted_spikes = 0, n_matches = 0;
  std::int32_t n_above_half = 0;         // planted units with accuracy >= 0.5
  std::int32_t n_above_four_fifths = 0;  // and >= 0.8
  bool has_amplitudes = false;
  double noise_uv = 0;  // of the recording, set by the caller; 0: not known
  // Of sorted units, by agreements of 0.2 or more:
  std::int32_t n_false_units = 0;       // with no planted unit, and of false_unit_spikes or more
  std::int32_t n_redundant_units = 0;   // with a unit that has a better partner
  std::int32_t n_overmerged_units = 0;  // with more than one unit
  // Planted units of min_snr or more; min_snr is set by the caller, 0: not asked.
  double min_snr = 0;
};

// How many planted units stand that far above the noise, and are found.
struct snr_count {
  std::int32_t n_units = 0;
  std::int32_t n_above_four_fifths = 0;
};

// The planted units whose amplitude is from .. to (exclusive) times the noise.
struct score_band {
  double from, to;
  std::int32_t n_units = 0;
  std::int32_t n_above_four_fifths = 0;  // of these, with accuracy >= 0.8
};

constexpr double match_window_s = 0.0004;
constexpr double shared_agreement = 0.2;        // two trains have to do with each other
constexpr std::int32_t false_unit_spikes = 10;  // fewer are no unit that anybody would keep

// Reads lines of time (s), unit and optionally channel, separated by commas;
// blanks round the numbers, empty lines and one line of titles are passed over.
// False with the words in problem: no such file, or the line that is wrong.
bool read_spike_list(const std::string& path, spike_list& list, std::string& problem);

// Matches two trains in ascending order.
std::int32_t count_matches(const std::vector<double>& a, const std::vector<double>& b,
                           double window_s);

// For each row of a matrix of gains >= 0 (n_rows x n_columns, row after row) its
// column from 0 in the assignment with the largest sum, or -1 for none.
std::vector<std::int32_t> best_assignment(const std::vector<double>& gains, std::int32_t n_rows,
                                          std::int32_t n_columns);

sort_score score_sort(const spike_list& sorted, const spike_list& truth);

// Scores a sort against a file, as score_files does.
bool score_with_truth(const spike_list& sorted, const std::string& truth_path, sort_score& score,
                      std::string& problem);

// Scores two files. Amplitudes, rates and SNRs come from NAME.units.csv beside a truth
// file NAME.truth.csv, if there is one that can be read.
bool score_files(const std::string& sorted_path, const std::string& truth_path, sort_score& score,
                 std::string& problem);

// Typical noise of the open recording in µV: the median over channels that are not
// masked, of an even number the mean of the middle two. 0 when all are masked.
double median_noise_uv(const session_state& session);

// Amplitude over noise of a unit; 0 when either is not known.
double amplitude_over_noise(const sort_score& score, const unit_score& unit);

// Units of known amplitude counted in bands: 10 times the noise and more, 7 to 10,
// below 7. Empty when amplitudes or noise are not known.
std::vector<score_band> count_in_bands(const sort_score& score);

// Of units of min_snr and more; none of a unit whose SNR is not known.
snr_count count_above_snr(const sort_score& score);

// Both show amplitude over noise, and the bands, when they are known.
std::string score_table(const sort_score& score);
nlohmann::json score_json(const sort_score& score);

}  // namespace kestrelvane
