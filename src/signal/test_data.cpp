#include "signal/test_data.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace kestrelvane {

namespace {

// The same data at every try. The library's distributions may differ from one to the next: numbers
// are made of the generator's bits here.
struct test_random {
  std::mt19937_64 bits{20'011};
  double uniform() { return (static_cast<double>(bits() >> 11) + 0.5) * 0x1p-53; }
  // Box and Muller, Ann. Math. Stat. 29, 1958.
  double gaussian() { return std::sqrt(-2 * std::log(uniform())) * std::cos(2 * M_PI * uniform()); }
};

constexpr double noise_uv = 10, event_uv = 20, exponential_uv = 30;
constexpr double event_share = 0.01;  // of samples

// False for a sum that two bytes do not hold; it is cut.
bool put(std::int16_t& sample, double value) {
  const double whole = std::round(value);
  sample = static_cast<std::int16_t>(std::clamp(whole, -32'768.0, 32'767.0));
  return std::fabs(whole - sample) < 1;
}

}  // namespace

std::string test_data_question(test_data which) {
  const std::string what = which == test_data::gaussian ? "replace channel 1 by Gaussian noise"
                           : which == test_data::exponential
                               ? "add exponential noise events to channel 1"
                               : "add Gaussian events to channel 1";
  return "This will " + what + " in memory, for good. Continue?";
}

void make_test_data(session_state& session, test_data which) {
  recording_store& r = session.recording;
  if (r.n_samples == 0) return;
  const double scale = r.vscale_HP;
  std::int16_t* v = r.vd.channel(1);
  test_random random;
  bool fits = true;
  for (std::int32_t t = 1; t <= r.n_samples; ++t) {
    if (which == test_data::gaussian) {
      fits &= put(v[t], random.gaussian() * noise_uv / scale);
      continue;
    }
    if (random.uniform() >= event_share) continue;
    // Either way up.
    const double sign = random.uniform() < 0.5 ? -1 : 1;
    const double uv = which == test_data::exponential
                          ? -sign * exponential_uv * std::log(random.uniform())
                          : random.gaussian() * event_uv;
    fits &= put(v[t], v[t] + uv / scale);
  }
  if (!fits) log_message(session, "Possible overflow");
  log_message(session, which == test_data::gaussian
                           ? "Gaussian noise with mean = 0 +- 10 uV put on channel 1"
                       : which == test_data::exponential
                           ? "Exponential noise events added to channel 1"
                           : "Gaussian events of 20 uV added to channel 1");
}

}  // namespace kestrelvane
