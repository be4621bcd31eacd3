#include "recording/formats/hdf/hdf_file.h"

#include <fmt/format.h>

#include <filesystem>
#include <system_error>

#include "files/input_file.h"
#include "recording/formats/hdf/hdf_probe.h"
#include "recording/formats/hdf/hdf_text.h"

namespace kestrelvane {

namespace {

// A folder of more members is shown in part.
constexpr std::size_t member_limit = 5000;

// Whether a file that the recording names lies in the recording's own folder or below it,
// with links of the file system followed.
bool lies_inside(const std::string& folder, const std::string& name) {
  std::error_code problem;
  const std::filesystem::path home =
      std::filesystem::weakly_canonical(folder.empty() ? "." : folder, problem);
  if (problem) return false;
  const std::filesystem::path target = std::filesystem::weakly_canonical(home / name, problem);
  if (problem) return false;
  const std::filesystem::path below = target.lexically_relative(home);
  return !below.empty() && *below.begin() != ".." && below != ".";
}

// The library asks here before it follows a link into another file.
herr_t permit_external_link(const char*, const char*, const char* file, const char*,
                            unsigned* flags, hid_t, void* context) {
  hdf_file& in = *static_cast<hdf_file*>(context);
  // Read only, whatever the link asks for.
  *flags = H5F_ACC_RDONLY;
  if (lies_inside(in.folder, file)) return 0;
  in.refused = file;
  return -1;
}

bool make_access_lists(hdf_file& in) {
  in.link_access = hdf_id(H5Pcreate(H5P_LINK_ACCESS));
  in.dataset_access = hdf_id(H5Pcreate(H5P_DATASET_ACCESS));
  if (!in.link_access.ok() || !in.dataset_access.ok()) return false;
  // Names without a folder are meant to stand beside the file, not where the program runs.
  const std::string home = in.folder.empty() ? "./" : in.folder;
  return H5Pset_elink_cb(in.link_access, permit_external_link, &in) >= 0 &&
         H5Pset_elink_cb(in.dataset_access, permit_external_link, &in) >= 0 &&
         H5Pset_efile_prefix(in.dataset_access, home.c_str()) >= 0 &&
         H5Pset_virtual_prefix(in.dataset_access, home.c_str()) >= 0;
}

// Raw data kept in other files, by list or by a virtual layout.
bool keeps_inside(hdf_file& in, const hdf_id& dataset) {
  const hdf_id creation(H5Dget_create_plist(dataset));
  if (!creation.ok()) return false;
  char name[4096];
  // Names come from the file: each is looked at before the library may open it.
  const int n_files = H5Pget_external_count(creation);
  for (int i = 0; i < n_files; ++i) {
    name[0] = '\0';
    if (H5Pget_external(creation, static_cast<unsigned>(i), sizeof name, name, nullptr, nullptr) <
        0) {
      return false;
    }
    name[sizeof name - 1] = '\0';
    if (lies_inside(in.folder, name)) continue;
    in.refused = name;
    return false;
  }
  if (H5Pget_layout(creation) != H5D_VIRTUAL) return true;
  std::size_t n_sources = 0;
  if (H5Pget_virtual_count(creation, &n_sources) < 0) return false;
  for (std::size_t i = 0; i < n_sources; ++i) {
    if (H5Pget_virtual_filename(creation, i, name, sizeof name) < 0) return false;
    name[sizeof name - 1] = '\0';
    // A dot is the file itself.
    if (std::string(name) == "." || lies_inside(in.folder, name)) continue;
    in.refused = name;
    return false;
  }
  return true;
}

bool get_object_info(hdf_file& in, const std::string& place, H5O_info_t& info) {
  return H5Oget_info_by_name2(in.file, place.c_str(), &info, H5O_INFO_BASIC, in.link_access) >= 0;
}

struct member_list {
  hdf_file& in;
  std::string place;
  std::vector<hdf_member> members;
};

const char* type_name(hdf_kind kind) {
  switch (kind) {
    case hdf_kind::group:
      return "group";
    case hdf_kind::dataset:
      return "dataset";
    case hdf_kind::named_type:
      return "named type";
    case hdf_kind::nothing:
      break;
  }
  return "unknown";
}

std::string link_target(hid_t group, const char* name, const H5L_info_t& info) {
  // A name longer than this is no name.
  if (info.u.val_size == 0 || info.u.val_size > 65536) return {};
  std::vector<char> value(info.u.val_size + 1);
  if (H5Lget_val(group, name, value.data(), info.u.val_size, H5P_DEFAULT) < 0) return {};
  if (info.type == H5L_TYPE_SOFT) return value.data();
  const char *file = nullptr, *object = nullptr;
  if (info.type != H5L_TYPE_EXTERNAL ||
      H5Lunpack_elink_val(value.data(), info.u.val_size, nullptr, &file, &object) < 0) {
    return {};
  }
  return std::string(file) + ":" + object;
}

herr_t add_member(hid_t group, const char* name, const H5L_info_t* info, void* context) {
  member_list& list = *static_cast<member_list*>(context);
  if (list.members.size() >= member_limit) return 1;
  // 1 ends the walk.
  hdf_member member{name, "link", {}};
  if (info->type == H5L_TYPE_HARD) {
    member.type = type_name(kind_of_hdf_object(list.in, hdf_place_below(list.place, name)));
  } else {
    member.leads_to = link_target(group, name, *info);
  }
  list.members.push_back(std::move(member));
  return 0;
}

herr_t take_first_problem(unsigned n, const H5E_error2_t* error, void* context) {
  // The first is the innermost, which says what is the matter.
  std::string& text = *static_cast<std::string*>(context);
  if (n == 0 && error->desc != nullptr) text = error->desc;
  return 0;
}

// An attribute of one number.
bool number_of(const hdf_id& attribute, double& value) {
  const hdf_id type(H5Aget_type(attribute));
  const hdf_id space(H5Aget_space(attribute));
  if (!type.ok() || !space.ok() || H5Sget_simple_extent_npoints(space) != 1) return false;
  const H5T_class_t kind = H5Tget_class(type);
  if (kind != H5T_INTEGER && kind != H5T_FLOAT) return false;
  return H5Aread(attribute, H5T_NATIVE_DOUBLE, &value) >= 0;
}

}  // namespace

std::string hdf_problem() {
  std::string text;
  H5Ewalk2(H5E_DEFAULT, H5E_WALK_UPWARD, take_first_problem, &text);
  return text;
}

namespace {

// Registered numbers of filters that recorders and archives use; most leave no name in the file.
constexpr struct {
  H5Z_filter_t number;
  const char* name;
} known_filters[] = {{307, "bzip2"},        {32000, "lzf"}, {32001, "blosc"}, {32004, "lz4"},
                     {32008, "bitshuffle"}, {32013, "zfp"}, {32015, "zstd"},  {32026, "blosc2"}};

std::string name_of_filter(H5Z_filter_t number, const char* in_file) {
  for (const auto& known : known_filters) {
    if (known.number == number) return known.name;
  }
  return in_file;
}

// The first filter of a dataset that is not there; empty where all are.
std::string missing_filter(hid_t dataset) {
  const hdf_id creation(H5Dget_create_plist(dataset));
  if (!creation.ok()) return {};
  const int n = H5Pget_nfilters(creation);
  for (int i = 0; i < n; ++i) {
    char name[64] = {};
    unsigned flags = 0;
    std::size_t n_values = 0;
    const H5Z_filter_t number = H5Pget_filter2(creation, static_cast<unsigned>(i), &flags,
                                               &n_values, nullptr, sizeof name - 1, name, nullptr);
    if (number <= 0 || H5Zfilter_avail(number) > 0) continue;
    return fmt::format("\"{}\" (number {})", name_of_filter(number, name), number);
  }
  return {};
}

}  // namespace

std::string hdf_read_problem(hid_t dataset) {
  const std::string problem = hdf_problem();
  const std::string filter = missing_filter(dataset);
  if (filter.empty()) return problem;
  return fmt::format(
      "the samples are packed by the filter {}, which is not installed; the library looks for it "
      "in the folders of HDF5_PLUGIN_PATH",
      filter);
}

hdf_error open_hdf_file(hdf_file& in, const std::string& path, const std::atomic<bool>* interrupt) {
  // A child process reads the file first: a damaged one may take the library down with it.
  const hdf_probe_outcome outcome = probe_hdf_file(path, interrupt);
  if (outcome == hdf_probe_outcome::died) {
    in.problem = "the file is damaged so that reading it is not safe";
    return hdf_error::damaged;
  }
  // The caller sees the flag and needs no words.
  if (outcome == hdf_probe_outcome::interrupted) return hdf_error::none;
  if (H5open() < 0) return hdf_error::library;
  // The library would print its complaints; ours go to the log.
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  in.path = path;
  in.folder = folder_of(path);
  if (!make_access_lists(in)) return hdf_error::library;
  const hdf_id access(H5Pcreate(H5P_FILE_ACCESS));
  // A lock where the file system has locks, since a file may be open in a recorder.
  H5Pset_file_locking(access, true, true);
  in.file = hdf_id(H5Fopen(path.c_str(), H5F_ACC_RDONLY, access));
  if (!in.file.ok()) {
    in.problem = hdf_problem();
    return hdf_error::file;
  }
  const hdf_id root(H5Gopen2(in.file, "/", H5P_DEFAULT));
  if (root.ok()) return hdf_error::none;
  in.problem = hdf_problem();
  return hdf_error::root;
}

hdf_kind kind_of_hdf_object(hdf_file& in, const std::string& place) {
  H5O_info_t info;
  if (!get_object_info(in, place, info)) return hdf_kind::nothing;
  if (info.type == H5O_TYPE_GROUP) return hdf_kind::group;
  if (info.type == H5O_TYPE_DATASET) return hdf_kind::dataset;
  return info.type == H5O_TYPE_NAMED_DATATYPE ? hdf_kind::named_type : hdf_kind::nothing;
}

hdf_identity identity_of_hdf_object(hdf_file& in, const std::string& place) {
  H5O_info_t info;
  if (!get_object_info(in, place, info)) return {};
  return {info.fileno, info.addr};
}

hdf_id open_hdf_object(hdf_file& in, const std::string& place) {
  if (kind_of_hdf_object(in, place) == hdf_kind::dataset) return open_hdf_dataset(in, place);
  return hdf_id(H5Oopen(in.file, place.c_str(), in.link_access));
}

hdf_id open_hdf_dataset(hdf_file& in, const std::string& place) {
  hdf_id dataset(H5Dopen2(in.file, place.c_str(), in.dataset_access));
  if (!dataset.ok()) in.problem = hdf_problem();
  // The object is closed before any of its data are read.
  if (dataset.ok() && !keeps_inside(in, dataset)) return {};
  return dataset;
}

std::vector<hdf_member> list_hdf_members(hdf_file& in, const std::string& place) {
  const hdf_id group(H5Gopen2(in.file, place.c_str(), in.link_access));
  member_list list{in, place, {}};
  if (!group.ok()) return {};
  hsize_t from = 0;
  H5Literate(group, H5_INDEX_NAME, H5_ITER_INC, &from, add_member, &list);
  return std::move(list.members);
}

std::string hdf_place_below(const std::string& place, const std::string& name) {
  return place.ends_with('/') ? place + name : place + "/" + name;
}

std::string hdf_place_above(const std::string& place) {
  const std::size_t slash = place.rfind('/');
  return slash == std::string::npos || slash == 0 ? "/" : place.substr(0, slash);
}

std::string hdf_place_name(const std::string& place) { return place.substr(place.rfind('/') + 1); }

bool read_hdf_number(hdf_file& in, const std::string& place, const char* attribute, double& value) {
  const hdf_id object = open_hdf_object(in, place);
  if (!object.ok() || H5Aexists(object, attribute) <= 0) return false;
  const hdf_id found(H5Aopen(object, attribute, H5P_DEFAULT));
  return found.ok() && number_of(found, value);
}

std::string read_hdf_text(hdf_file& in, const std::string& place, const char* attribute) {
  const hdf_id object = open_hdf_object(in, place);
  if (!object.ok() || H5Aexists(object, attribute) <= 0) return {};
  const hdf_id found(H5Aopen(object, attribute, H5P_DEFAULT));
  return found.ok() ? describe_hdf_attribute(found) : std::string();
}

}  // namespace kestrelvane
