#include "hdf_ratios.h"

#include <cstring>
#include <string>
#include <vector>

#include "recording/formats/hdf/hdf_samples.h"
#include "recording/formats/hdf/hdf_walk.h"
#include "side_by_side.h"
#include "support/hdf_fixture.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct hdf_case {
  const char* name;
  const char* type;
  hdf_storage storage;
  std::uint64_t rows, columns;
  std::vector<std::uint64_t> chunk;
};

// The whole dataset into new memory, in one call.
void read_plainly(hid_t dataset, std::uint64_t n) {
  const std::size_t bytes = n * sizeof(std::int16_t);
  void* block = reserve_pages(bytes);
  H5Dread(dataset, H5T_NATIVE_INT16, H5S_ALL, H5S_ALL, H5P_DEFAULT, block);
  release_pages(block, bytes);
}

// The same into a recording.
bool read_here(session_state& session, hid_t dataset, const hdf_selection& selection) {
  recording_store& r = session.recording;
  hdf_layout layout;
  hdf_conversion plan;
  if (!describe_hdf_layout(dataset, layout) ||
      !plan_hdf_conversion(session, dataset, selection, layout, plan)) {
    return false;
  }
  r.n_channels = static_cast<std::int32_t>(layout.n_channels);
  r.n_samples = static_cast<std::int32_t>(layout.n_samples);
  r.file_type = file_type_nwb;
  return r.vd.allocate(layout.n_samples + 1000, r.n_channels) &&
         read_hdf_samples(session, dataset, layout, plan, 0).finished;
}

void benchmark_case(const hdf_case& c) {
  const temporary_directory folder;
  const std::string path = folder.file("ratio.nwb");
  {
    hdf_maker maker(path);
    // Small numbers, as noise has them: a compressed file is compressed.
    const auto noise = [](std::uint64_t row, std::uint64_t column) {
      return static_cast<double>((row * 2654435761u + column * 40503u) >> 7 & 31);
    };
    maker.numbers("/v", {c.type, {c.rows, c.columns}, c.storage, c.chunk, noise});
  }
  hdf_file in;
  open_hdf_file(in, path);
  const hdf_id dataset = open_hdf_dataset(in, "/v");
  hdf_selection selection;
  selection.scale = 1;
  small_session session;
  bool whole = true;
  read_plainly(dataset, c.rows * c.columns);  // into the page cache
  for (const int threads : {1, 2}) {
    use_threads(*session, threads);
    const best_times times = time_side_by_side(
        5, [&] { read_plainly(dataset, c.rows * c.columns); },
        [&] { whole &= read_here(*session, dataset, selection); });
    report("HDF5 library / here, " + std::string(c.name) + ", " + std::to_string(threads) +
               " thread(s)",
           times, whole);
  }
}

}  // namespace

void benchmark_hdf() {
  const hdf_case cases[] = {
      {"channels, i16", "i16", hdf_storage::contiguous, 64, 1500000, {}},
      {"channels, i32 gzip", "i32", hdf_storage::gzip, 64, 200000, {64, 2048}},
      {"384 channels side by side, i16", "i16", hdf_storage::contiguous, 250000, 384, {}},
      {"the same, chunks", "i16", hdf_storage::chunked, 250000, 384, {8192, 64}},
      {"the same, gzip", "i16", hdf_storage::gzip, 60000, 384, {8192, 64}},
      {"64 side by side, f32", "f32", hdf_storage::contiguous, 600000, 64, {}},
  };
  for (const hdf_case& c : cases) benchmark_case(c);
}

}  // namespace kestrelvane::test
