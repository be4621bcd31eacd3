#include "recording/formats/hdf/hdf_walk.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <set>

#include "recording/formats/hdf/hdf_text.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr const char* bad_dimensions =
    "Check dimensions: this is probably not a valid data folder!";
constexpr const char* bad_rate = "Please enter a valid sampling rate (samples/sec)";
constexpr const char* bad_scale = "Please enter a valid voltage scaling value (uV/bit)";
constexpr std::uint64_t fewest_samples = 200;
constexpr std::size_t entry_limit = 20000;
constexpr int depth_limit = 64;

// Where a walk stands.
struct hdf_walk {
  session_state& session;
  hdf_file& in;
  std::string folder = "/";
  std::string rate, scale;  // the edits
  std::string filled_from;  // InfoChannel that was told of last
  bool gains_told = false;
};

// A number alone, blanks around it apart.
bool parse_number(const std::string& text, double& value) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return false;
  const std::size_t last = text.find_last_not_of(" \t");
  const char* end = text.data() + last + 1;
  const auto [stop, problem] = std::from_chars(text.data() + first, end, value);
  return problem == std::errc() && stop == end;
}

// Fills the edits from what the file says, and tells where it comes from.
void fill_edits(hdf_walk& walk) {
  const hdf_scaling scaling = find_hdf_scaling(walk.in, walk.folder);
  if (scaling.has_rate) walk.rate = hdf_rate_text(scaling);
  if (scaling.has_scale) walk.scale = hdf_scale_text(scaling);
  if (scaling.info_channel.empty() || scaling.info_channel == walk.filled_from) return;
  walk.filled_from = scaling.info_channel;
  log_message(walk.session,
              fmt::format("Setting vscale_HP={}; SampleFrequency={}", walk.scale, walk.rate));
  // Once is enough, however often the user passes the place.
  if (scaling.variable_gains && !walk.gains_told) {
    log_message(walk.session, "**** Variable gains for channels! *****");
    walk.gains_told = true;
  }
}

void report_refused_file(hdf_walk& walk) {
  if (walk.in.refused.empty()) return;
  log_message(walk.session, fmt::format("{} is outside the folder of the recording; not opened",
                                        walk.in.refused));
  walk.in.refused.clear();
}

// Goes to a place, when it can be shown; otherwise the walk stays where it is.
void move_to(hdf_walk& walk, const std::string& place, hdf_page& page) {
  hdf_page next;
  if (place.size() > longest_hdf_place) {
    log_message(walk.session, "error finding info: the path is longer than 256 characters");
    return;
  }
  if (!make_hdf_page(walk.in, place, next)) {
    const std::string problem = hdf_problem();
    log_message(walk.session,
                "error finding info" + (problem.empty() ? std::string() : ": " + problem));
    report_refused_file(walk);
    return;
  }
  // Only now: a place that cannot be shown leaves the walk where it was.
  walk.folder = place;
  page = std::move(next);
  fill_edits(walk);
}

// The words for the box, or "" when the dataset on show is taken.
std::string take_dataset(hdf_walk& walk, hdf_selection& selection) {
  hdf_dimensions dimensions;
  if (kind_of_hdf_object(walk.in, walk.folder) == hdf_kind::dataset) {
    const hdf_id dataset = open_hdf_dataset(walk.in, walk.folder);
    if (dataset.ok()) {
      dimensions = dimensions_of_hdf_dataset(dataset);
    } else {
      log_message(walk.session, fmt::format(" selected dopen_f returns {}", dataset.id));
      report_refused_file(walk);
    }
  }
  const std::string problem =
      check_hdf_choice(dimensions, walk.rate, walk.scale, selection.rate, selection.scale);
  if (!problem.empty()) return problem;
  selection.folder = walk.folder;
  // Found afresh for the dataset itself: the edits may be those of another place.
  selection.scaling = find_hdf_scaling(walk.in, walk.folder);
  return {};
}

// A place as it was typed, without slashes at its end and with one in front.
std::string tidy_place(std::string place) {
  while (place.size() > 1 && place.back() == '/') place.pop_back();
  return place.starts_with('/') ? place : "/" + place;
}

// --- the tree

struct tree_listing {
  hdf_file& in;
  hdf_tree_extent extent;
  std::vector<hdf_entry> entries;
  std::set<hdf_identity> seen;
};

bool holds_numbers(hid_t type) {
  const H5T_class_t kind = H5Tget_class(type);
  return kind == H5T_INTEGER || kind == H5T_FLOAT;
}

void describe_entry(hdf_file& in, hdf_entry& entry) {
  const hdf_id dataset = open_hdf_dataset(in, entry.place);
  if (!dataset.ok()) return;
  const hdf_id type(H5Dget_type(dataset));
  const hdf_id space(H5Dget_space(dataset));
  if (!type.ok() || !space.ok()) return;
  entry.type = name_hdf_type(type);
  entry.dimensions = describe_hdf_dimensions(space);
  const hdf_dimensions dimensions = dimensions_of_hdf_dataset(dataset);
  double rate = 0, scale = 0;
  const bool two = H5Sget_simple_extent_ndims(space) == 2;
  entry.may_be_data =
      // With a rate and a scale that pass, only the dimensions are asked about.
      two && holds_numbers(type) && check_hdf_choice(dimensions, "1000", "1", rate, scale).empty();
  if (!entry.may_be_data) return;
  const hdf_scaling scaling = find_hdf_scaling(in, entry.place);
  entry.rate = hdf_rate_text(scaling);
  entry.scale = hdf_scale_text(scaling);
  entry.ready =
      check_hdf_choice(dimensions, entry.rate, entry.scale, rate, scale).empty() && scale > 0;
}

void list_below(tree_listing& tree, const std::string& place, int depth) {
  for (const hdf_member& member : list_hdf_members(tree.in, place)) {
    // A list that long is for no reader; the limit also ends endless files.
    if (tree.entries.size() >= entry_limit) return;
    hdf_entry entry;
    entry.place = hdf_place_below(place, member.name);
    entry.type = member.type;
    entry.leads_to = member.leads_to;
    const bool followed = member.type != "link";
    // An object that is linked to twice is listed at its first place.
    const bool is_new =
        followed && tree.seen.insert(identity_of_hdf_object(tree.in, entry.place)).second;
    if (is_new && member.type == "dataset") describe_entry(tree.in, entry);
    const bool is_group = is_new && member.type == "group";
    const std::string below = entry.place;
    if (is_new || !followed) tree.entries.push_back(std::move(entry));
    const bool wanted = tree.extent == hdf_tree_extent::all || below != "/specifications";
    // Depth is bounded, or links could exhaust the stack.
    if (is_group && wanted && depth < depth_limit) {
      list_below(tree, below, depth + 1);
    }
  }
}

}  // namespace

bool make_hdf_page(hdf_file& in, const std::string& place, hdf_page& page) {
  const hdf_kind kind = kind_of_hdf_object(in, place);
  if (kind == hdf_kind::nothing) return false;
  const hdf_id object = open_hdf_object(in, place);
  if (!object.ok()) return false;
  page = hdf_page{};
  page.file = in.path;
  page.folder = place;
  page.is_dataset = kind == hdf_kind::dataset;
  page.attributes = list_hdf_attributes(object);
  if (kind == hdf_kind::group) page.members = list_hdf_members(in, place);
  if (!page.is_dataset) return true;
  const hdf_id type(H5Dget_type(object));
  const hdf_id space(H5Dget_space(object));
  if (!type.ok() || !space.ok()) return false;
  page.data_type = name_hdf_type(type);
  page.dimensions = describe_hdf_dimensions(space);
  page.values = describe_hdf_values(object);
  return true;
}

hdf_dimensions dimensions_of_hdf_dataset(hid_t dataset) {
  const hdf_id space(H5Dget_space(dataset));
  hsize_t size[H5S_MAX_RANK] = {};
  const int rank = space.ok() ? H5Sget_simple_extent_dims(space, size, nullptr) : -1;
  if (rank == 1) return {size[0], 1};
  return rank == 2 ? hdf_dimensions{size[0], size[1]} : hdf_dimensions{};
}

std::string check_hdf_choice(const hdf_dimensions& dimensions, const std::string& rate_text,
                             const std::string& scale_text, double& rate, double& scale) {
  const auto [smaller, larger] = std::minmax(dimensions.first, dimensions.second);
  if (larger < fewest_samples || smaller < 1 || smaller > channel_limit) return bad_dimensions;
  // The limits of the dialog, narrower than those of a recording.
  if (!parse_number(rate_text, rate) || !(rate >= 200 && rate <= 100000)) return bad_rate;
  if (!parse_number(scale_text, scale) || !(scale >= 0 && scale <= 1000)) return bad_scale;
  return {};
}

hdf_walk_end choose_hdf_dataset(session_state& session, hdf_file& in, hdf_selection& selection) {
  hdf_walk walk{session, in, "/", {}, {}, {}, false};
  hdf_page page;
  move_to(walk, "/", page);
  if (page.folder.empty()) return hdf_walk_end::failed;
  for (;;) {
    page.rate = walk.rate;
    page.scale = walk.scale;
    hdf_choice choice;
    ask_for_hdf_step(session, page, choice);
    walk.rate = choice.rate;
    walk.scale = choice.scale;
    if (choice.step == hdf_step::cancel || reading_interrupted(session)) {
      log_message(session, "Cancelling read");
      end_hdf_walk(session);
      return hdf_walk_end::cancelled;
    }
    if (choice.step == hdf_step::up) move_to(walk, hdf_place_above(walk.folder), page);
    if (choice.step == hdf_step::go_to) move_to(walk, tidy_place(choice.path), page);
    if (choice.step == hdf_step::enter && choice.member < page.members.size()) {
      move_to(walk, hdf_place_below(walk.folder, page.members[choice.member].name), page);
    }
    if (choice.step != hdf_step::read) continue;
    const std::string problem = take_dataset(walk, selection);
    if (problem.empty()) break;
    tell(session, problem, "Error");
  }
  end_hdf_walk(session);
  return hdf_walk_end::chosen;
}

std::vector<hdf_entry> list_hdf_tree(hdf_file& in, hdf_tree_extent extent) {
  tree_listing tree{in, extent, {}, {identity_of_hdf_object(in, "/")}};
  list_below(tree, "/", 0);
  return std::move(tree.entries);
}

}  // namespace kestrelvane
