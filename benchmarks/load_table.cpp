// A sort as large as the program takes it: what each step costs on 5,000,000 events, 2,000 clusters
// and 384 channels, and whether the events are still all that it grows with.
//
// The session is made, not sorted: every cluster has the channel that its number says and 2,500
// spikes on seven sites of it, at random times of a short recording of noise. What is measured
// goes by events, clusters and channels; the samples are few, and so the memory that they take is
// told beside what each step takes at most. A table in Markdown is printed, the steps for half of
// the events beside those for all.
//
//   kestrelvane-load-table [FOLDER [EVENTS [CLUSTERS [CHANNELS [SECONDS [STEP]]]]]]
//
// FOLDER: where files are written, which are removed again; the current one unless told otherwise.
// STEP: part of the name of the steps to measure, once the templates have been made; all.
#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "clustering/templates.h"
#include "numerics/parallel.h"
#include "results/exports.h"
#include "results/work_file.h"
#include "sorting/realign_steps.h"
#include "sorting/status_lists.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

namespace fs = std::filesystem;
using steady = std::chrono::steady_clock;

struct load_size {
  std::int32_t n_events = 5'000'000, n_clusters = 2'000, n_channels = 384, seconds = 30;
  std::string step;
};

constexpr std::int32_t sampling_frequency = 20'000;
constexpr std::int32_t spike_points = 24;
constexpr std::int32_t sites_beside = 3;

double seconds_of_processors() {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
  };
  return seconds(used.ru_utime) + seconds(used.ru_stime);
}

// MB, since the last call of forget_peak.
double peak_megabytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::stod(line.substr(6)) / 1024;
  }
  return 0;
}

void forget_peak() {
  constexpr const char* peak_alone = "5";
  std::ofstream("/proc/self/clear_refs") << peak_alone;
}

// ---------------------------------------------------------------- the sort

void add_noise(session_state& session, std::int32_t channel) {
  vector_random random(static_cast<std::uint32_t>(channel));
  std::int16_t* v = session.recording.vd.channel(channel);
  for (std::int32_t t = 1; t <= session.recording.n_samples; ++t) {
    v[t] = static_cast<std::int16_t>(static_cast<std::int32_t>((random.next() >> 16) % 49) - 24);
  }
}

// A spike of its cluster's own height and width.
void add_spike(session_state& session, std::int32_t cluster, std::int32_t centre,
               std::int32_t time) {
  const recording_store& r = session.recording;
  const double height = 150 + cluster * 37 % 250;
  const double width = 3 + cluster * 13 % 5;
  for (std::int32_t c = std::max(centre - sites_beside, 1);
       c <= std::min(centre + sites_beside, r.n_channels); ++c) {
    std::int16_t* v = session.recording.vd.channel(c);
    const double gain = height / (1 + 1.5 * std::abs(c - centre));
    for (std::int32_t p = -spike_points / 2; p < spike_points / 2; ++p) {
      const double x = p / width;
      v[time + p] = static_cast<std::int16_t>(std::clamp(
          v[time + p] - gain * (1 - x * x) * std::exp(-0.5 * x * x), -32'000.0, 32'000.0));
    }
  }
}

void make_sort(session_state& session, const load_size& size) {
  make_recording(session, size.n_channels, size.seconds * sampling_frequency, sampling_frequency,
                 0.25f);
  session.recording.recording_path = "load.tsf";
  parallel_for(threads_now(session), 1, size.n_channels, [&](std::int64_t c, std::int32_t) {
    add_noise(session, static_cast<std::int32_t>(c));
  });
  vector_random random(7);
  event_table& events = session.events;
  events.n_events = size.n_events;
  const double step = (size.seconds * sampling_frequency - 400.0) / size.n_events;
  for (std::int32_t e = 1; e <= size.n_events; ++e) {
    const auto cluster = static_cast<std::int32_t>((random.next() >> 8) %
                                                   static_cast<std::uint32_t>(size.n_clusters)) +
                         1;
    const std::int32_t centre = (cluster - 1) % size.n_channels + 1;
    const auto time = 200 + static_cast<std::int32_t>(step * e);
    add_spike(session, cluster, centre, time);
    events.event_time[e] = events.event_detected_time[e] = time;
    events.event_shift[e] = 0;
    events.event_channel[e] = centre;
    events.event_cluster[e] = cluster;
  }
  session.clusters.n_clusters = size.n_clusters;
  session.clusters.current_cluster = 1;
}

// ---------------------------------------------------------------- steps

struct load_cost {
  double wall = 0, processors = 0, peak = 0;
  bool done = false;
};

struct load_step {
  std::string name;
  std::function<bool(session_state& session, const std::string& folder)> run;
};

load_cost measure(const load_step& step, session_state& session, const std::string& folder) {
  forget_peak();
  load_cost cost;
  const double before = seconds_of_processors();
  const auto began = steady::now();
  cost.done = step.run(session, folder);
  cost.wall = std::chrono::duration<double>(steady::now() - began).count();
  cost.processors = seconds_of_processors() - before;
  cost.peak = peak_megabytes();
  return cost;
}

bool read_back(session_state& session, const std::string& folder) {
  bool wrong_file = false;
  return read_work_file(session, folder + "/load.wrk", wrong_file);
}

std::vector<load_step> all_steps(const session_state& session) {
  std::vector<load_step> steps{
      {"templates and centres of all clusters",
       [](session_state& s, const std::string&) { return recalculate_all_templates(s); }},
      {"status lists",
       [](session_state& s, const std::string&) {
         build_status_lists(s);
         return s.lists.n_kv_pairs > 0;
       }},
      {"realign all templates",
       [](session_state& s, const std::string&) {
         realign_every_template(s, s.strategy.template_align_mode);
         return true;
       }},
      {"realign all events",
       [](session_state& s, const std::string&) {
         realign_every_event(s, s.strategy.event_align_mode);
         return true;
       }},
      {"work file, written",
       [](session_state& s, const std::string& folder) {
         return write_work_file(s, folder + "/load.wrk");
       }},
      {"work file, read", read_back},
  };
  for (const export_format& format : export_formats()) {
    const bool possible =
        format.write != nullptr && (format.needed.format == file_type_unknown ||
                                    format.needed.format == session.recording.file_type);
    // What needs something that this recording lacks, as local field potentials, says so.
    if (!possible || (format.in_full_menu != nullptr && !format.in_full_menu(session))) continue;
    steps.push_back({fmt::format("export {}", format.name),
                     [&format](session_state& s, const std::string& folder) {
                       const std::string path = folder + "/load" + format.extension;
                       return format.write(s, path);
                     }});
  }
  return steps;
}

// A size on a session of its own, files gone after each step.
std::vector<std::pair<std::string, load_cost>> measure_size(const load_size& size,
                                                            const std::string& folder) {
  small_session s;
  s.user.default_answer = true;
  use_threads(*s, static_cast<std::int32_t>(std::thread::hardware_concurrency()));
  s->preferences.multi_threaded = true;
  make_sort(*s, size);
  std::vector<std::pair<std::string, load_cost>> costs;
  for (const load_step& step : all_steps(*s)) {
    const bool wanted = costs.empty() || step.name.find(size.step) != std::string::npos;
    if (!wanted) continue;
    costs.emplace_back(step.name, measure(step, *s, folder));
    s.user.lines.clear();
    std::fprintf(stderr, "%s: %.1f s\n", step.name.c_str(), costs.back().second.wall);
    if (step.name == "work file, written") continue;  // the next step reads it
    fs::remove_all(folder);
    fs::create_directories(folder);
  }
  const std::string problem = check_session(*s);
  if (!problem.empty()) std::fprintf(stderr, "%s\n", problem.c_str());
  return costs;
}

void print_table(const load_size& size, const std::string& folder) {
  load_size half = size;
  half.n_events /= 2;
  const auto of_half = measure_size(half, folder);
  const auto of_all = measure_size(size, folder);
  const double samples = 2e-6 / 1.048576 * size.n_channels * size.seconds * sampling_frequency;
  const double bound = samples + 400 + 100e-6 / 1.048576 * size.n_events;
  fmt::print("{} events, {} clusters, {} channels, {} s of samples ({:.0f} MB); {} threads\n\n",
             size.n_events, size.n_clusters, size.n_channels, size.seconds, samples,
             std::thread::hardware_concurrency());
  fmt::print("| Step | s, half of the events | s | CPU s | peak MB (of {:.0f}) |\n", bound);
  fmt::print("|---|---|---|---|---|\n");
  for (std::size_t i = 0; i < of_all.size(); ++i) {
    const auto& [name, cost] = of_all[i];
    fmt::print("| {} | {:.1f} | {:.1f} | {:.1f} | {:.0f}{} |\n", name, of_half[i].second.wall,
               cost.wall, cost.processors, cost.peak, cost.done ? "" : ", failed");
  }
}

}  // namespace
}  // namespace kestrelvane::test

int main(int argc, char** argv) {
  using namespace kestrelvane::test;
  const std::string folder = std::string(argc > 1 ? argv[1] : ".") + "/load-table";
  load_size size;
  const std::array<std::int32_t*, 4> numbers{&size.n_events, &size.n_clusters, &size.n_channels,
                                             &size.seconds};
  for (std::size_t i = 0; i < numbers.size() && static_cast<int>(i) + 2 < argc; ++i) {
    *numbers[i] = std::max(std::atoi(argv[i + 2]), 1);
  }
  if (argc > 6) size.step = argv[6];
  std::filesystem::create_directories(folder);
  print_table(size, folder);
  std::filesystem::remove_all(folder);
  return 0;
}
