// The Gaussian core of a histogram of amplitudes, and its flanks.
//
// Fits go by Levenberg and Marquardt over the positions of the bins in bits; the figures that are
// shown are in µV. What could not be told is no number. Logarithms are natural.
#pragma once

#include <string>
#include <vector>

#include "analysis/amplitude_distribution.h"
#include "analysis/graph_data.h"
#include "numerics/curve_fit.h"

namespace kestrelvane {

struct gaussian_core {
  float a = 0, m = 0, s = 0;  // height, mean and sigma, bits
  float at(float x) const;
};

// One side, from the flank's end to the shoulder.
struct flank_fit {
  bool is_right = false;
  std::int32_t shoulder = 0;  // bin; 0: not found
  std::int32_t end = 0;       // bin
  // log of the count = intercept + slope x; of at least 10 bins.
  double slope, intercept, correlation, residual;  // per bit
  // log of the excess over the Gaussian = parabola_a + parabola_b x².
  double parabola_a, parabola_b;
  double sigma;  // of that Gaussian, bits
  // count = decay_height exp(-decay_rate * distance from the shoulder), bits.
  double decay_height, decay_rate;
  flank_fit();
};

struct amplitude_fits {
  bool has_core = false;
  gaussian_core core;
  curve_fit fit;            // of the core, as it ended
  bool has_second = false;  // "fit double Gaussian"
  gaussian_core first, second;
  flank_fit left, right;
};

// What the dialog shows; no number: cannot be told.
struct amplitude_figures {
  double sigma_uv, temperature_left, temperature_right;  // shoulders in units of sigma
  double left_uv, right_uv, between_uv;  // shoulders; s.d. of the values between them
  double left_count, right_count;        // at the shoulders
  double non_gaussian, goodness;         // %
  double slope_left, slope_right;        // of log counts per µV
  double flank_left_uv, flank_right_uv;  // sigmas of the parabolic fits
  double isi_r, q_variability;           // of the unit
  double levene_w, levene_p, anova_f, anova_p;
};

// "LM error" is logged and does no harm: the last values stand.
gaussian_core fit_gaussian_core(const session_state& session, const ea_histogram& histogram,
                                curve_fit& fit);
// The outermost bins at which the Gaussian still accounts for over 90 % of the count, and one more;
// from there the first bin of less than 11.
void find_shoulders(const session_state& session, const ea_histogram& histogram,
                    amplitude_fits& fits);
void fit_flanks(const session_state& session, const ea_histogram& histogram, amplitude_fits& fits);
// All of it.
amplitude_fits fit_amplitudes(const session_state& session, const ea_histogram& histogram,
                              bool double_gaussian);

// Figures of the unit where the row takes one: "ISI test (R)" is the correlation of the height of a
// spike with the interval before it, "Q variability" the coefficient of variation of heights.
// Levene's test and the analysis of variance compare the events' values between labels, for
// sub-events, or between the quarters of the recording.
amplitude_figures measure_amplitudes(const session_state& session, const amplitude_request& request,
                                     const amplitude_values& values, const amplitude_fits& fits);

// One analysis from beginning to end, as the dialog and the verb draw show it.
struct amplitude_analysis {
  amplitude_request request;
  amplitude_values values;
  amplitude_fits fits;
  amplitude_figures figures{};
};
bool analyse_amplitudes(const session_state& session, const amplitude_request& request,
                        amplitude_analysis& result);

constexpr const char* amplitude_graph_title = "Event amplitude distribution";
// Counts against µV with the Gaussian, its second one, flanks and events; or deviations against
// time, with a line that follows them. log_scaling: the logarithm of base 10 of counts.
graph_data make_amplitude_graph(const amplitude_analysis& analysis, bool log_scaling);

// "Export": text in columns with a heading line, by the radio buttons.
enum class amplitude_file { measures, flank_residuals, gaussian_residuals, channels_and_units };
struct amplitude_file_row {
  const char* label;
  const char* ending;  // after the name of the recording
  const char* meaning;
};
std::span<const amplitude_file_row> amplitude_files();
// Measures are of every channel, channels and units of every unit on its centre channel, each
// analysed as the request says; residuals are those of the analysis. False, after a box, when it
// could not be written or was interrupted.
bool write_amplitude_file(const session_state& session, const amplitude_analysis& analysis,
                          amplitude_file which, const std::string& path);

}  // namespace kestrelvane
