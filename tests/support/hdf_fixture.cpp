#include "support/hdf_fixture.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>

namespace kestrelvane::test {

namespace {

// A file that cannot be made would make every test that uses it lie.
hid_t made(hid_t id) {
  if (id < 0) std::abort();
  return id;
}
void done(herr_t result) {
  if (result < 0) std::abort();
}

hid_t type_named(const std::string& name) {
  struct row {
    const char* name;
    hid_t type;
  };
  const row rows[] = {
      {"i8", H5T_STD_I8LE},     {"u8", H5T_STD_U8LE},     {"i16", H5T_STD_I16LE},
      {"u16", H5T_STD_U16LE},   {"i32", H5T_STD_I32LE},   {"u32", H5T_STD_U32LE},
      {"i64", H5T_STD_I64LE},   {"f32", H5T_IEEE_F32LE},  {"f64", H5T_IEEE_F64LE},
      {"i16be", H5T_STD_I16BE}, {"i32be", H5T_STD_I32BE}, {"f32be", H5T_IEEE_F32BE},
  };
  for (const row& r : rows) {
    if (name == r.name) return r.type;
  }
  std::abort();
}

// Groups on the way to a place are made, too.
hid_t link_list() {
  const hid_t list = made(H5Pcreate(H5P_LINK_CREATE));
  done(H5Pset_create_intermediate_group(list, 1));
  return list;
}

hid_t create_dataset(hid_t file, const std::string& place, hid_t type, hid_t space,
                     hid_t creation = H5P_DEFAULT) {
  const hid_t links = link_list();
  const hid_t dataset =
      made(H5Dcreate2(file, place.c_str(), type, space, links, creation, H5P_DEFAULT));
  H5Pclose(links);
  return dataset;
}

// An attribute of one or more elements, from memory of the type mem.
void add_attribute(hid_t file, const std::string& place, const char* name, hid_t type, hid_t mem,
                   const void* values, hsize_t n = 0) {
  const hid_t object = made(H5Oopen(file, place.c_str(), H5P_DEFAULT));
  const hid_t space = made(n == 0 ? H5Screate(H5S_SCALAR) : H5Screate_simple(1, &n, nullptr));
  const hid_t attribute = made(H5Acreate2(object, name, type, space, H5P_DEFAULT, H5P_DEFAULT));
  if (values != nullptr) done(H5Awrite(attribute, mem, values));
  H5Aclose(attribute);
  H5Sclose(space);
  H5Oclose(object);
}

hid_t storage_list(const hdf_numbers& what) {
  const hid_t list = made(H5Pcreate(H5P_DATASET_CREATE));
  if (what.storage == hdf_storage::compact) done(H5Pset_layout(list, H5D_COMPACT));
  if (what.storage == hdf_storage::chunked || what.storage == hdf_storage::gzip ||
      what.storage == hdf_storage::packed) {
    std::vector<hsize_t> chunk(what.chunk.begin(), what.chunk.end());
    if (chunk.empty()) {
      for (const std::uint64_t n : what.size) chunk.push_back(std::max<hsize_t>(n / 3, 1));
    }
    done(H5Pset_chunk(list, static_cast<int>(chunk.size()), chunk.data()));
  }
  if (what.storage == hdf_storage::gzip) done(H5Pset_deflate(list, 6));
  if (what.storage == hdf_storage::packed) {
    done(H5Pset_filter(list, packed_filter, H5Z_FLAG_MANDATORY, 0, nullptr));
  }
  return list;
}

}  // namespace

double hdf_fixture_value(std::uint64_t channel, std::uint64_t time) {
  return static_cast<double>((channel * 37 + time * 11 + time / 7) % 250) - 125;
}

hdf_maker::hdf_maker(const std::string& path)
    : file(made(H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT))) {}

hdf_maker::~hdf_maker() { H5Fclose(file); }

void hdf_maker::group(const std::string& place) {
  const hid_t links = link_list();
  H5Gclose(made(H5Gcreate2(file, place.c_str(), links, H5P_DEFAULT, H5P_DEFAULT)));
  H5Pclose(links);
}

void hdf_maker::numbers(const std::string& place, const hdf_numbers& what) {
  const std::vector<hsize_t> size(what.size.begin(), what.size.end());
  const hid_t space = made(H5Screate_simple(static_cast<int>(size.size()), size.data(), nullptr));
  const hid_t list = storage_list(what);
  const hid_t dataset = create_dataset(file, place, type_named(what.type), space, list);
  if (what.storage != hdf_storage::none) {
    const std::uint64_t rows = size[0], columns = size.size() > 1 ? size[1] : 1;
    std::vector<double> values;
    for (std::uint64_t r = 0; r < rows; ++r) {
      for (std::uint64_t c = 0; c < columns; ++c) {
        values.push_back(what.value ? what.value(r, c) : hdf_fixture_value(r, c));
      }
    }
    done(H5Dwrite(dataset, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data()));
  }
  H5Dclose(dataset);
  H5Pclose(list);
  H5Sclose(space);
}

void hdf_maker::scalar(const std::string& place, double value) {
  const hid_t space = made(H5Screate(H5S_SCALAR));
  const hid_t dataset = create_dataset(file, place, H5T_IEEE_F64LE, space);
  done(H5Dwrite(dataset, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, &value));
  H5Dclose(dataset);
  H5Sclose(space);
}

void hdf_maker::text(const std::string& place, const char* name, const std::string& value,
                     bool variable) {
  const hid_t type = made(H5Tcopy(H5T_C_S1));
  done(H5Tset_size(type, variable ? H5T_VARIABLE : std::max<std::size_t>(value.size(), 1)));
  if (variable) done(H5Tset_cset(type, H5T_CSET_UTF8));
  const char* pointer = value.c_str();
  add_attribute(file, place, name, type, type,
                variable ? static_cast<const void*>(&pointer) : pointer);
  H5Tclose(type);
}

void hdf_maker::number(const std::string& place, const char* name, double value) {
  add_attribute(file, place, name, H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE, &value);
}

void hdf_maker::integer(const std::string& place, const char* name, std::int32_t value) {
  add_attribute(file, place, name, H5T_STD_I32LE, H5T_NATIVE_INT32, &value);
}

void hdf_maker::many_attributes(const std::string& place) {
  const auto add = [&](const char* name, hid_t type, hid_t mem, const void* values, hsize_t n = 0) {
    add_attribute(file, place, name, type, mem, values, n);
  };
  const std::int8_t i8 = -5;
  add("a_i8", H5T_STD_I8BE, H5T_NATIVE_INT8, &i8);
  const std::uint64_t u64 = 18446744073709551615ull;
  add("b_u64", H5T_STD_U64LE, H5T_NATIVE_UINT64, &u64);
  const float f32[3] = {0.5f, -1.0f, 3.25f};
  add("c_f32", H5T_IEEE_F32BE, H5T_NATIVE_FLOAT, f32, 3);
  text(place, "d_fixed", "padded   \r\n");
  text(place, "e_variable", "µV", true);

  const hid_t odd_integer = made(H5Tcopy(H5T_STD_I32LE));
  done(H5Tset_precision(odd_integer, 20));
  done(H5Tset_size(odd_integer, 3));
  add("f_i24", odd_integer, H5T_NATIVE_INT32, &u64);
  add("g_f80", H5T_NATIVE_LDOUBLE, H5T_NATIVE_FLOAT, f32);
  const hid_t sequence = made(H5Tvlen_create(H5T_NATIVE_INT32));
  std::int32_t elements[2] = {1, 2};
  const hvl_t list{2, elements};
  add("h_vlen", sequence, sequence, &list);
  hobj_ref_t reference;
  done(H5Rcreate(&reference, file, "/", H5R_OBJECT, -1));
  add("i_reference", H5T_STD_REF_OBJ, H5T_STD_REF_OBJ, &reference);
  const hid_t pair = made(H5Tcreate(H5T_COMPOUND, 8));
  done(H5Tinsert(pair, "x", 0, H5T_NATIVE_INT32));
  done(H5Tinsert(pair, "y", 4, H5T_NATIVE_INT32));
  add("j_compound", pair, pair, elements);
  const hsize_t two = 2;
  const hid_t array = made(H5Tarray_create2(H5T_NATIVE_INT32, 1, &two));
  add("k_array", array, array, elements);
  const hid_t opaque = made(H5Tcreate(H5T_OPAQUE, 8));
  add("l_opaque", opaque, opaque, elements);
  add("m_bits", H5T_STD_B8LE, H5T_NATIVE_B8, &i8);
  add("n_time", H5T_UNIX_D32LE, H5T_UNIX_D32LE, nullptr);
  const hid_t truth = made(H5Tenum_create(H5T_NATIVE_INT8));
  const std::int8_t no = 0, yes = 1;
  done(H5Tenum_insert(truth, "FALSE", &no));
  done(H5Tenum_insert(truth, "TRUE", &yes));
  add("o_enum", truth, truth, &yes);
  for (const hid_t type : {odd_integer, sequence, pair, array, opaque, truth}) H5Tclose(type);
}

void hdf_maker::info_channel(const std::string& place, const std::vector<hdf_info_row>& rows,
                             bool optional_members) {
  struct stored {
    std::int32_t channel_id, row, group_id;
    char* label;
    std::int32_t exponent, ad_zero;
    std::int64_t tick, factor;
    std::int32_t electrode_group;
  };
  const hid_t label = made(H5Tcopy(H5T_C_S1));
  done(H5Tset_size(label, H5T_VARIABLE));
  const hid_t type = made(H5Tcreate(H5T_COMPOUND, sizeof(stored)));
  const auto member = [&](const char* name, std::size_t offset, hid_t of) {
    done(H5Tinsert(type, name, offset, of));
  };
  member("ChannelID", offsetof(stored, channel_id), H5T_NATIVE_INT32);
  member("RowIndex", offsetof(stored, row), H5T_NATIVE_INT32);
  member("GroupID", offsetof(stored, group_id), H5T_NATIVE_INT32);
  if (optional_members) {
    member("ElectrodeGroup", offsetof(stored, electrode_group), H5T_NATIVE_INT32);
  }
  if (optional_members) member("Label", offsetof(stored, label), label);
  member("Exponent", offsetof(stored, exponent), H5T_NATIVE_INT32);
  member("ADZero", offsetof(stored, ad_zero), H5T_NATIVE_INT32);
  member("Tick", offsetof(stored, tick), H5T_NATIVE_INT64);
  member("ConversionFactor", offsetof(stored, factor), H5T_NATIVE_INT64);
  std::vector<stored> all;
  char name[] = "E1";
  for (const hdf_info_row& row : rows) {
    all.push_back({row.row + 100, row.row, 0, name, row.exponent, row.ad_zero, row.tick,
                   static_cast<std::int64_t>(row.factor), 0});
  }
  const hsize_t n = all.size();
  const hid_t space = made(H5Screate_simple(1, &n, nullptr));
  const hid_t packed = made(H5Tcopy(type));
  done(H5Tpack(packed));
  const hid_t dataset = create_dataset(file, place, packed, space);
  done(H5Dwrite(dataset, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, all.data()));
  H5Dclose(dataset);
  H5Sclose(space);
  for (const hid_t used : {packed, type, label}) H5Tclose(used);
}

void hdf_maker::soft_link(const std::string& place, const std::string& target) {
  const hid_t links = link_list();
  done(H5Lcreate_soft(target.c_str(), file, place.c_str(), links, H5P_DEFAULT));
  H5Pclose(links);
}

void hdf_maker::hard_link(const std::string& place, const std::string& target) {
  const hid_t links = link_list();
  done(H5Lcreate_hard(file, target.c_str(), file, place.c_str(), links, H5P_DEFAULT));
  H5Pclose(links);
}

void hdf_maker::external_link(const std::string& place, const std::string& other,
                              const std::string& object) {
  const hid_t links = link_list();
  done(H5Lcreate_external(other.c_str(), object.c_str(), file, place.c_str(), links, H5P_DEFAULT));
  H5Pclose(links);
}

void hdf_maker::external_numbers(const std::string& place, std::uint64_t rows,
                                 std::uint64_t columns, const std::string& other) {
  const hsize_t size[2] = {rows, columns};
  const hid_t space = made(H5Screate_simple(2, size, nullptr));
  const hid_t list = made(H5Pcreate(H5P_DATASET_CREATE));
  done(H5Pset_external(list, other.c_str(), 0, 2 * rows * columns));
  H5Dclose(create_dataset(file, place, H5T_STD_I16LE, space, list));
  H5Pclose(list);
  H5Sclose(space);
}

void make_mcs_file(const std::string& path, const mcs_fixture& f) {
  hdf_maker maker(path);
  maker.group(mcs_stream);
  maker.text("/", "McsHdf5ProtocolType", "RawData");
  maker.integer("/", "McsHdf5ProtocolVersion", 1);
  maker.text("/Data", "Date", "Mittwoch, 9. Juli 2014");
  maker.text("/Data", "MeaName", "Linear8        \r\n");
  maker.text("/Data", "MeaLayout", "Linear8   ");
  maker.text("/Data", "MeaSN", "");
  const std::string stream = mcs_stream;
  maker.numbers(stream + "/ChannelData",
                {f.type, {f.n_channels, f.n_samples}, f.storage, {}, f.value});
  std::vector<hdf_info_row> rows = f.rows;
  for (std::uint64_t c = 0; f.rows.empty() && c < f.n_channels; ++c) {
    hdf_info_row row;
    row.row = static_cast<std::int32_t>(c);
    rows.push_back(row);
  }
  maker.info_channel(stream + "/InfoChannel", rows, f.optional_members);
}

void make_nwb_file(const std::string& path, const nwb_fixture& f) {
  hdf_maker maker(path);
  maker.group(nwb_series);
  maker.text("/", "neurodata_type", "NWBFile", true);
  maker.text("/", "nwb_version", "2.5.0", true);
  const std::string series = nwb_series;
  maker.text(series, "neurodata_type", "ElectricalSeries", true);
  hdf_numbers data{f.type, {f.n_samples, f.n_channels}, f.storage, {}, f.value};
  if (!data.value) {
    data.value = [](std::uint64_t t, std::uint64_t c) { return hdf_fixture_value(c, t); };
  }
  maker.numbers(series + "/data", data);
  if (f.conversion != 0) {
    maker.number(series + "/data", "conversion", f.conversion);
    maker.number(series + "/data", "offset", f.offset);
    maker.text(series + "/data", "unit", "volts", true);
  }
  if (!f.channel_conversion.empty()) {
    const std::vector<double> gains = f.channel_conversion;
    maker.numbers(series + "/channel_conversion",
                  {"f32",
                   {gains.size()},
                   hdf_storage::contiguous,
                   {},
                   [gains](std::uint64_t c, std::uint64_t) { return gains[c]; }});
  }
  if (f.timestamps) {
    maker.numbers(
        series + "/timestamps",
        {"f64", {f.n_samples}, hdf_storage::contiguous, {}, [&f](std::uint64_t t, std::uint64_t) {
           return 5 + static_cast<double>(t) / f.rate;
         }});
  } else if (f.rate != 0) {
    maker.scalar(series + "/starting_time", 0);
    maker.number(series + "/starting_time", "rate", f.rate);
  }
}

}  // namespace kestrelvane::test
