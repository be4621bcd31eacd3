#include "support/work_file_fixture.h"

#include <cstdlib>
#include <cstring>

namespace kestrelvane::test {

namespace {

const std::map<std::string, double> scalar_values{
    {"file_type", 7},
    {"smooth_radius_um", 55},
    {"bw_f0_khz", 0.75},
    {"bw_f0_khz_previous", 0.25},
    {"recording_filtered", -1},
    {"do_temporal_smooth", -1},
    {"do_common_mean", -1},
    {"noise_window_secs", 11},
    {"noise_method", 1},
    {"noise_static", 0},
    {"pe_sigma_um", 81},
    {"pe_sigma_ms", 0.5},
    {"threshold_mode", -1},
    {"fixed_threshold_uv", -70},
    {"variable_multiplier", 4.5},
    {"lockout_radius_um", 160},
    {"detection_method", 3},
    {"template_window_start_ms", -0.08},
    {"template_window_end_ms", 0.08},
    {"window_samples", 7},
    {"use_lockout", -1},
    {"lockout_ms", 0.625},
    {"register_to_cog", 0},
    {"delete_large_events", 0},
    {"max_event_pp_uv", 900},
    {"realign_window_ms", 0.375},
    {"multiplicative_matching", 0},
    {"align_feature", 5},
    {"event_align_mode", 8},
    {"template_align_mode", 6},
    {"mask_noise_below_uv", 6},
    {"current_cluster", 2},
    {"current_channel", 3},
    {"pca_dimensions", 4},
    {"interp_depth", 8},
    {"interp_width", 5},
    {"gac_gain", 1.5},
    {"view_split_sigma", 6.5},
    {"gac_start_sigma", 7.5},
    {"gac_max_iterations", 501},
    {"gac_merge_radius", 1.25},
    {"gac_stop_step", 0.0625},
    {"gac_flag", -1},
    {"gac_option", 0},
    {"gac_stall_limit", 26},
    {"pc_point_selection", 2},
    {"pc_point_limit", 48},
    {"min_cluster_size", 52},
    {"gac_threshold", 9},
    {"gac_size_tolerance", 5.5},
    {"overlap_threshold", 0.1875},
    {"merge_safe_limit", 0.875},
    {"pair_parameter_1", 1.75},
    {"pair_parameter_2", 2.75},
    {"recluster_limit", 12},
    {"keep_largest_final_subcluster", 0},
    {"split_obvious", 0},
    {"clean_threshold", 2.25},
    {"channel_threshold_1", 0.3125},
    {"channel_threshold_2", 2.125},
    {"force_one_cluster_per_tetrode", -1},
    {"channel_radius", 260},
    {"match_method", 4},
    {"session_flag", -1},
    {"gac_subsample", 0},
    {"template_shift_on", -1},
    {"status_flag", -1},
    {"relocate_sd_factor", -1.5},
    {"status_parameter_1", 2.625},
    {"correlation_threshold", 0.4375},
    {"status_parameter_2", 0.34375},
    {"equal_numbers_for_overlap", 0},
    {"export_remove_duplicates", 0},
    {"export_save_work_file", 0},
};

struct fixture_writer {
  const work_file_content& content;
  work_file_bytes out;

  void field(const std::string& name) { out.fields.push_back({name, out.bytes.size()}); }
  void raw(const void* bytes, std::size_t n) {
    const char* first = static_cast<const char*>(bytes);
    out.bytes.insert(out.bytes.end(), first, first + n);
  }
  void put_i32(double value) {
    const std::int32_t word = static_cast<std::int32_t>(value);
    raw(&word, 4);
  }
  void put_f32(double value) {
    const float word = static_cast<float>(value);
    raw(&word, 4);
  }
  double scalar(const std::string& name, double usual) const {
    const auto planned = content.scalars.find(name);
    return planned == content.scalars.end() ? usual : planned->second;
  }
  void i(const std::string& name) {
    field(name);
    put_i32(scalar(name, fixture_scalar(name)));
  }
  void f(const std::string& name) {
    field(name);
    put_f32(scalar(name, fixture_scalar(name)));
  }
  void count(const std::string& name, std::size_t n) {
    field(name);
    put_i32(scalar(name, static_cast<double>(n)));
  }
  void text(const std::string& name, const std::string& value, std::size_t length) {
    field(name);
    std::string padded = value;
    padded.resize(length, ' ');
    raw(padded.data(), length);
  }
  template <typename T>
  void list(const std::string& name, const std::vector<T>& values) {
    field(name);
    raw(values.data(), 4 * values.size());
  }
  // n words per cluster, numbered from first on; zeros when first is 0.
  void per_cluster(const std::string& name, std::int32_t n, std::int32_t first, bool real) {
    field(name);
    for (std::int32_t k = 0; k < n * content.n_clusters; ++k) {
      real ? put_f32(first + k) : put_i32(first + k);
    }
  }
};

void write_front(fixture_writer& w) {
  const work_file_content& c = w.content;
  w.text("label", "Kestrelvane work file V" + std::to_string(c.version), 24);
  w.text("recording_path", c.recording_path, 256);
  w.text("xml_path", "/data/x.xml", 256);
  w.text("plx_path", "/data/p.plx", 256);
  w.text("srf_path", "/data/s.srf", 256);
  w.i("file_type");
  w.count("n_events", c.event_time.size());
  w.count("n_clusters", static_cast<std::size_t>(c.n_clusters));
  w.count("n_channels", static_cast<std::size_t>(c.n_channels));
  w.list("event_time", c.event_time);
  w.list("event_channel", c.event_channel);
  w.list("event_cluster", c.event_cluster);
  w.list("event_shift", c.event_shift);
  w.field("chan_mask");
  for (std::int32_t ch = 1; ch <= c.n_channels; ++ch) w.put_i32(0);
  w.field("chan_noise");
  for (std::int32_t ch = 1; ch <= c.n_channels; ++ch) w.put_f32(10.5 + ch);
}

void write_detection_settings(fixture_writer& w) {
  for (const char* name : {"smooth_radius_um", "bw_f0_khz", "bw_f0_khz_previous"}) w.f(name);
  w.i(w.content.version >= 7 ? "recording_filtered" : "do_temporal_smooth");
  for (const char* name : {"noise_window_secs", "noise_method", "noise_static"}) w.i(name);
  for (const char* name : {"pe_sigma_um", "pe_sigma_ms"}) w.f(name);
  w.i("threshold_mode");
  for (const char* name : {"fixed_threshold_uv", "variable_multiplier"}) w.f(name);
  for (const char* name : {"lockout_radius_um", "detection_method"}) w.i(name);
  for (const char* name : {"template_window_start_ms", "template_window_end_ms"}) w.f(name);
  for (const char* name : {"window_samples", "use_lockout"}) w.i(name);
  w.f("lockout_ms");
  for (const char* name : {"register_to_cog", "delete_large_events"}) w.i(name);
  for (const char* name : {"max_event_pp_uv", "realign_window_ms"}) w.f(name);
  for (const char* name :
       {"multiplicative_matching", "align_feature", "event_align_mode", "template_align_mode"}) {
    w.i(name);
  }
  w.f("mask_noise_below_uv");
  for (const char* name : {"current_cluster", "current_channel"}) w.i(name);
  w.field("pc_view_range");
  for (const double range : {1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 3.5}) w.put_f32(range);
}

void write_clustering_settings(fixture_writer& w) {
  const std::int32_t version = w.content.version;
  for (const char* name : {"pca_dimensions", "interp_depth", "interp_width"}) w.i(name);
  for (const char* name : {"gac_gain", "view_split_sigma", "gac_start_sigma"}) w.f(name);
  w.i("gac_max_iterations");
  for (const char* name : {"gac_merge_radius", "gac_stop_step"}) w.f(name);
  for (const char* name : {"gac_flag", "gac_option", "gac_stall_limit"}) w.i(name);
  if (version >= 8) w.i("pc_point_selection");
  w.i("pc_point_limit");
  w.field("template_align_mode, again");
  w.put_i32(w.scalar("template_align_mode", fixture_scalar("template_align_mode")));
  for (const char* name : {"min_cluster_size", "gac_threshold"}) w.i(name);
  for (const char* name : {"gac_size_tolerance", "overlap_threshold", "merge_safe_limit"}) {
    w.f(name);
  }
  if (version >= 5) {
    for (const char* name : {"pair_parameter_1", "pair_parameter_2"}) w.f(name);
  }
  for (const char* name : {"recluster_limit", "keep_largest_final_subcluster", "split_obvious"}) {
    w.i(name);
  }
  w.f("clean_threshold");
  if (version >= 8) {
    for (const char* name : {"channel_threshold_1", "channel_threshold_2"}) w.f(name);
    w.i("force_one_cluster_per_tetrode");
    w.f("channel_radius");
  }
  for (const char* name : {"match_method", "session_flag", "gac_subsample"}) w.i(name);
}

void write_templates(fixture_writer& w) {
  const work_file_content& c = w.content;
  w.count("template_points", static_cast<std::size_t>(c.template_points));
  for (const bool mean : {true, false}) {
    w.field(mean ? "template_mean" : "template_sd");
    for (std::int32_t p = 1; p <= c.template_points; ++p) {
      for (std::int32_t ch = 1; ch <= c.n_channels; ++ch) {
        for (std::int32_t k = 1; k <= c.n_clusters; ++k) {
          w.put_f32(mean ? fixture_mean(k, ch, p) : fixture_sd(k, ch, p));
        }
      }
    }
  }
  if (c.version == 4) w.per_cluster("template_channels, first row", 1, 70, false);
  w.field("template_channels");
  for (std::size_t slot = 0; slot < static_cast<std::size_t>(c.n_channels); ++slot) {
    for (std::size_t k = 0; k < static_cast<std::size_t>(c.n_clusters); ++k) {
      const auto& list = c.template_channels[k];
      w.put_i32(slot < list.size() ? list[slot] : 0);
    }
  }
  w.field("template_z");
  for (std::int32_t k = 1; k <= c.n_clusters; ++k) w.put_f32(50);
  w.field("template_x, template_y");
  for (std::int32_t k = 1; k <= c.n_clusters; ++k) {
    w.put_f32(20 + k);
    w.put_f32(30 + k);
  }
  if (c.version < 8) return;
  w.field("template_n_channels");
  for (std::size_t k = 0; k < static_cast<std::size_t>(c.n_clusters); ++k) {
    w.put_i32(static_cast<double>(c.template_channels[k].size()));
  }
}

void write_clusters(fixture_writer& w) {
  w.per_cluster("cluster_spare", 1, 11, false);
  w.per_cluster("cluster_reserved", 1, 21, true);
  if (w.content.version >= 6) w.per_cluster("cluster_sigma", 1, 31, true);
  write_templates(w);
  w.per_cluster("history_count", 1, 41, false);
  w.per_cluster("history_a", 150, 1000, false);
  w.per_cluster("history_b", 100, 2000, false);
  w.per_cluster("history_c", 50, 3000, true);
  w.per_cluster("history_d", 50, 4000, false);
}

void write_lists(fixture_writer& w) {
  const work_file_content& c = w.content;
  const std::int32_t n = c.with_lists ? c.n_clusters * (c.n_clusters - 1) / 2 : 0;
  const bool v8 = c.version >= 8;
  w.count("n_kv_pairs", static_cast<std::size_t>(n));
  const auto pairs = [&](const char* name, auto value) {
    w.field(name);
    for (std::int32_t k = 1; k <= n; ++k) value(k);
  };
  // The second pair is one whose templates do not overlap.
  pairs("kv_template_correlation", [&](std::int32_t k) { w.put_f32(0.125 * k); });
  pairs("kv_cluster_overlap", [&](std::int32_t k) { w.put_f32(k == 2 ? -1.0 : 0.0625 * k); });
  if (v8) {
    pairs("rms_template_shift", [&](std::int32_t k) { w.put_f32(k == 2 ? 0.0 : 0.5 * k); });
    w.field("kv_n_shift_template");
    for (std::int32_t a = 1; a < c.n_clusters && n > 0; ++a) {
      for (std::int32_t b = a + 1; b <= c.n_clusters; ++b) w.put_i32(b);
    }
  }
  pairs("kv_user_distinct", [&](std::int32_t k) { w.put_i32(k == 1 ? -1 : 0); });
  pairs("kv_user_ambiguous", [&](std::int32_t k) { w.put_i32(k == 3 ? -1 : 0); });
  if (v8) pairs("kv_templates_dont_overlap", [&](std::int32_t k) { w.put_i32(k == 2 ? -1 : 0); });
}

void write_back(fixture_writer& w) {
  const work_file_content& c = w.content;
  for (const char* name : {"template_shift_on", "status_flag"}) w.i(name);
  for (const char* name : {"relocate_sd_factor", "status_parameter_1"}) w.f(name);
  c.version >= 7 ? w.f("correlation_threshold") : w.i("do_common_mean");
  w.f("status_parameter_2");
  for (const char* name :
       {"equal_numbers_for_overlap", "export_remove_duplicates", "export_save_work_file"}) {
    w.i(name);
  }
  w.field("reserved");
  for (int k = 0; k < 100; ++k) w.put_i32(0);
  w.count("n_log_lines", c.log_lines.size());
  for (const std::string& line : c.log_lines) w.text("log_lines", line, 256);
  w.list("event_detected_time", c.event_detected_time);
  if (c.version >= 8) {
    const std::int32_t n = c.n_filters;
    w.count("filter_history count", static_cast<std::size_t>(n));
    w.field("filter_history code");
    for (std::int32_t k = 1; k <= n; ++k) w.put_i32(k == 1 ? 1 : -5);
    w.field("filter_history param1");
    for (std::int32_t k = 1; k <= n; ++k) w.put_f32(0.5 * k);
    w.field("filter_history param2");
    for (std::int32_t k = 1; k <= n; ++k) w.put_f32(4.0 * k);
  }
  if (c.version < 5) return;
  for (const auto& [cluster, text] : c.comments) {
    w.field("comment length");
    w.put_i32(static_cast<double>(text.size()));
    w.field("comment cluster");
    w.put_i32(cluster);
    w.field("comment text");
    w.raw(text.data(), text.size());
  }
}

}  // namespace

std::size_t work_file_bytes::at(const std::string& name) const {
  for (const work_file_field& field : fields) {
    if (field.name == name) return field.offset;
  }
  std::abort();
}

float fixture_mean(std::int32_t cluster, std::int32_t channel, std::int32_t point) {
  return static_cast<float>(100 * cluster + 10 * channel + (point % 2 == 0 ? point : -point));
}

float fixture_sd(std::int32_t cluster, std::int32_t channel, std::int32_t point) {
  return 0.25f * static_cast<float>(cluster + 5 * channel + 25 * point);
}

double fixture_scalar(const std::string& name) { return scalar_values.at(name); }

work_file_bytes make_work_file(const work_file_content& content) {
  fixture_writer writer{content, {}};
  write_front(writer);
  write_detection_settings(writer);
  write_clustering_settings(writer);
  write_clusters(writer);
  write_lists(writer);
  write_back(writer);
  return writer.out;
}

}  // namespace kestrelvane::test
