// HDF5 files through the library: owners of its handles, opening, and what a file may
// lead to.
//
// The library is used by one thread at a time, the one that runs the operation. Its own
// messages are silenced; the cause of the last failure is hdf_problem(). Links and raw
// data that lie in other files are followed only within the folder of the recording: a
// file from elsewhere must not make the program open what it names. Loops of links end at
// the library's limit and show as a failure.
#pragma once

#include <hdf5.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "session/hdf_page.h"

namespace kestrelvane {

// A handle of any kind, given back when it goes.
struct hdf_id {
  hid_t id = H5I_INVALID_HID;

  hdf_id() = default;
  explicit hdf_id(hid_t handle) : id(handle) {}
  hdf_id(hdf_id&& other) noexcept : id(std::exchange(other.id, H5I_INVALID_HID)) {}
  hdf_id& operator=(hdf_id&& other) noexcept {
    std::swap(id, other.id);
    return *this;
  }
  hdf_id(const hdf_id&) = delete;
  hdf_id& operator=(const hdf_id&) = delete;
  ~hdf_id() {
    if (id >= 0) H5Idec_ref(id);
  }

  bool ok() const { return id >= 0; }
  operator hid_t() const { return id; }
};

// The first thing that went wrong in the library's last call, in its words. Giving back a
// handle is a call, too.
std::string hdf_problem();
// The same after the samples of a dataset could not be read: names the filter that packed them,
// where the library does not have it.
std::string hdf_read_problem(hid_t dataset);

// What a read can die of; "Error #" and the code are told to the user.
enum class hdf_error : std::int32_t {
  none = 0,
  library = 1,   // the library cannot be started
  file = 2,      // the file cannot be opened, or is no HDF5 file
  root = 3,      // its root group cannot be opened
  dataset = 4,   // the dataset that was chosen cannot be opened or described
  contents = 5,  // its samples cannot be read
  memory = 6,    // there is no room for them
  damaged = 7,   // the library would not survive the file
};

// A file open for reading.
struct hdf_file {
  std::string path;
  std::string folder;   // that holds it, for what it links to
  std::string problem;  // why it did not open, or a dataset of it
  std::string refused;  // latest file beyond that folder that was not opened; empty: none
  hdf_id link_access, dataset_access;
  hdf_id file;  // last, so that it is closed first

  hdf_file() = default;
  hdf_file(const hdf_file&) = delete;
  hdf_file& operator=(const hdf_file&) = delete;
};

// Opens the file and its root group, after a probe has survived it (hdf_probe.h);
// problem says what went wrong. Raising the flag gives up: none, but not open.
hdf_error open_hdf_file(hdf_file& in, const std::string& path,
                        const std::atomic<bool>* interrupt = nullptr);

enum class hdf_kind { nothing, group, dataset, named_type };

// What stands at a place of the file; links on the way are followed.
hdf_kind kind_of_hdf_object(hdf_file& in, const std::string& place);
// Address that tells objects of a file apart, whatever links lead to them.
struct hdf_identity {
  unsigned long file = 0;
  haddr_t address = HADDR_UNDEF;
  auto operator<=>(const hdf_identity&) const = default;
};
hdf_identity identity_of_hdf_object(hdf_file& in, const std::string& place);

// Handles; not ok() when there is no such object, or when it leads beyond the folder.
hdf_id open_hdf_object(hdf_file& in, const std::string& place);
hdf_id open_hdf_dataset(hdf_file& in, const std::string& place);

// Members of a group in the order of their names; more than a few thousand are cut off.
std::vector<hdf_member> list_hdf_members(hdf_file& in, const std::string& place);

// Places: "/" and what follows, without a slash at the end.
std::string hdf_place_below(const std::string& place, const std::string& name);
std::string hdf_place_above(const std::string& place);
std::string hdf_place_name(const std::string& place);  // the last part

// A path of 256 characters is the longest that can be on show.
constexpr std::size_t longest_hdf_place = 256;

// --- small values; false when there is no such attribute or dataset, or no number in it
bool read_hdf_number(hdf_file& in, const std::string& place, const char* attribute, double& value);
std::string read_hdf_text(hdf_file& in, const std::string& place, const char* attribute);

}  // namespace kestrelvane
