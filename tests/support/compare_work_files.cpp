#include "support/compare_work_files.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <span>
#include <string_view>

#include "results/work_file_rows.h"
#include "support/small_session.h"

namespace kestrelvane::test {

namespace {

using field_bytes = std::span<const char>;

constexpr std::string_view label = "Kestrelvane work file V8";

// One file, walked row by row.
struct work_file_walk {
  const char* name;  // in words
  field_bytes rest;
  work_file_counts counts;
};

std::int32_t word_at(field_bytes bytes, std::size_t element) {
  std::int32_t word;
  std::memcpy(&word, bytes.data() + 4 * element, sizeof word);
  return word;
}

// Largest count of each rule, so that no product of counts can overflow.
constexpr std::int32_t count_limits[n_row_counts] = {
    1,          event_limit,    cluster_limit,       channel_limit, template_point_limit,
    pair_limit, log_line_limit, filter_history_limit};

// The bytes of the next row. Empty text, or why there is no such row in the file.
std::string take_row(work_file_walk& walk, const work_file_row& row, field_bytes& bytes) {
  const std::size_t left = walk.rest.size();
  const bool to_the_end = row.form == row_form::comments;
  const auto wanted = to_the_end ? left : static_cast<std::size_t>(row_bytes(row, walk.counts));
  if (wanted > left) return fmt::format("the {} file ends early, at {}", walk.name, row.name);
  bytes = walk.rest.first(wanted);
  walk.rest = walk.rest.subspan(wanted);
  if (row.form != row_form::counter) return {};
  const auto rule = static_cast<std::size_t>(row.rule);
  walk.counts.of[rule] = word_at(bytes, 0);
  if (walk.counts.of[rule] >= 0 && walk.counts.of[rule] <= count_limits[rule]) return {};
  return fmt::format("{} of the {} file is {}", row.name, walk.name, walk.counts.of[rule]);
}

// A word may be a whole number or a float: both are told.
std::string word_as_text(std::int32_t word) {
  float value;
  std::memcpy(&value, &word, sizeof value);
  return fmt::format("{} (or {})", word, value);
}

std::string describe_difference(const work_file_row& row, field_bytes a, field_bytes b) {
  if (a.size() != b.size()) {
    return fmt::format("{}: {} bytes and {} bytes", row.name, a.size(), b.size());
  }
  const auto at =
      static_cast<std::size_t>(std::mismatch(a.begin(), a.end(), b.begin()).first - a.begin());
  const bool in_words =
      row.form != row_form::label && row.form != row_form::text && row.form != row_form::comments;
  if (!in_words) return fmt::format("{}, byte {}", row.name, at + 1);
  return fmt::format("{}, element {} of {}: {} and {}", row.name, at / 4 + 1, a.size() / 4,
                     word_as_text(word_at(a, at / 4)), word_as_text(word_at(b, at / 4)));
}

bool is_work_file(const work_file_walk& walk, std::string& words) {
  const std::string_view start(walk.rest.data(), std::min(walk.rest.size(), label.size()));
  if (start == label) return true;
  words = fmt::format("the {} file is no work file of version 8", walk.name);
  return false;
}

}  // namespace

work_files compare_work_file_bytes(const std::vector<char>& a, const std::vector<char>& b,
                                   std::string& words) {
  words.clear();
  work_file_walk walks[2] = {{"first", a, {}}, {"second", b, {}}};
  for (work_file_walk& walk : walks) {
    walk.counts.of[per_file] = 1;
    if (!is_work_file(walk, words)) return work_files::unreadable;
  }
  for (const work_file_row& row : work_file_rows()) {
    if (!row_is_in(row, work_file_version)) continue;
    field_bytes bytes[2];
    for (int i = 0; i < 2; ++i) {
      words = take_row(walks[i], row, bytes[i]);
      if (!words.empty()) return work_files::unreadable;
    }
    if (row.rule == per_log_line) continue;
    if (std::ranges::equal(bytes[0], bytes[1])) continue;
    words = describe_difference(row, bytes[0], bytes[1]);
    return work_files::differ;
  }
  return work_files::alike;
}

work_files compare_work_files(const std::string& path_a, const std::string& path_b,
                              std::string& words) {
  for (const std::string& path : {path_a, path_b}) {
    if (std::filesystem::is_regular_file(path)) continue;
    words = path + " is no file";
    return work_files::unreadable;
  }
  return compare_work_file_bytes(read_bytes(path_a), read_bytes(path_b), words);
}

}  // namespace kestrelvane::test
