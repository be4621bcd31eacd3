// A work file writer of its own for tests: every field written out by hand, in any
// version from 4 to 8, with its offset noted. It shares nothing with the product.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kestrelvane::test {

// What the file says. The defaults suit make_recording(session, 3, 10000).
struct work_file_content {
  std::int32_t version = 8;
  std::string recording_path = "small.tsf";
  std::int32_t n_channels = 3;
  std::int32_t template_points = 5;
  std::vector<std::int32_t> event_time{100, 200, 300, 400, 500, 600, 700};
  std::vector<std::int32_t> event_channel{1, 2, 3, 1, 2, 3, 1};
  std::vector<std::int32_t> event_cluster{1, 2, 3, 1, 0, 3, 2};
  std::vector<float> event_shift{0, 0.25f, -0.5f, 0.75f, 0, 0.125f, 1};
  std::vector<std::int32_t> event_detected_time{101, 0, 299, 401, 500, 600, 699};
  std::int32_t n_clusters = 3;
  // Per cluster: centre channel first; later slots are 0.
  std::vector<std::vector<std::int32_t>> template_channels{{2, 1, 3}, {1}, {3, 2}};
  bool with_lists = true;
  std::vector<std::string> log_lines{"first line", "", "third line"};
  std::int32_t n_filters = 2;
  std::map<std::int32_t, std::string> comments{{1, "a fine unit"}, {3, "b"}};
  // Scalars by name that shall differ from the default, hostile ones too.
  std::map<std::string, double> scalars;
};

struct work_file_field {
  std::string name;
  std::size_t offset;
};

struct work_file_bytes {
  std::vector<char> bytes;
  std::vector<work_file_field> fields;  // in file order
  // Offset of a field; stops the test if there is none of that name.
  std::size_t at(const std::string& name) const;
};

// Values of template_mean, template_sd and pair tables, all different.
float fixture_mean(std::int32_t cluster, std::int32_t channel, std::int32_t point);
float fixture_sd(std::int32_t cluster, std::int32_t channel, std::int32_t point);

// Default of a scalar, in range and unlike its neighbours.
double fixture_scalar(const std::string& name);

work_file_bytes make_work_file(const work_file_content& content);

}  // namespace kestrelvane::test
