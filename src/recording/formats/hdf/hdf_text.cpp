#include "recording/formats/hdf/hdf_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>

namespace kestrelvane {

namespace {

constexpr std::size_t attribute_limit = 500;
constexpr hssize_t value_limit = 1 << 17;  // of an attribute that is decoded at all
constexpr std::size_t shown_values = 100;
constexpr std::size_t shown_characters = 2000;
constexpr std::size_t element_limit = 1 << 20;  // bytes of one value
constexpr hsize_t browse_limit = 64 << 20;      // bytes of a chunk that is unpacked for a look
constexpr hsize_t shown_columns = 10, shown_rows = 5;

// Where values come from: an attribute, or a few of a dataset.
struct value_source {
  hid_t attribute = H5I_INVALID_HID;
  hid_t dataset = H5I_INVALID_HID, memory_space = H5S_ALL, file_space = H5S_ALL;

  bool read(hid_t type, void* to) const {
    if (attribute >= 0) return H5Aread(attribute, type, to) >= 0;
    return H5Dread(dataset, type, memory_space, file_space, H5P_DEFAULT, to) >= 0;
  }
  // Space of what read() stores.
  hdf_id space() const {
    return hdf_id(attribute >= 0 ? H5Aget_space(attribute) : H5Scopy(memory_space));
  }
};

using texts = std::vector<std::string>;

// Without the padding of fixed fields: blanks, zeros and line ends behind the text.
std::string trimmed_text(std::string text) {
  const std::size_t zero = text.find('\0');
  if (zero != std::string::npos) text.resize(zero);
  const std::size_t last = text.find_last_not_of(" \t\r\n");
  text.resize(last == std::string::npos ? 0 : last + 1);
  // Cut after trimming, so that padding does not use up the room.
  if (text.size() > shown_characters) text = text.substr(0, shown_characters) + " ...";
  return text;
}

texts unreadable() { return {"error finding info"}; }

template <typename T>
texts numbers(const value_source& from, hid_t memory_type, std::size_t n) {
  std::vector<T> values(n);
  if (!from.read(memory_type, values.data())) return unreadable();
  values.resize(std::min(n, shown_values));
  texts shown;
  for (const T value : values) shown.push_back(fmt::format("{}", value));
  return shown;
}

texts integers(const value_source& from, hid_t type, std::size_t n, const char* unknown_size) {
  const std::size_t size = H5Tget_size(type);
  if (size != 1 && size != 2 && size != 4 && size != 8) return {unknown_size};
  if (H5Tget_sign(type) == H5T_SGN_NONE) {
    return numbers<std::uint64_t>(from, H5T_NATIVE_UINT64, n);
  }
  return numbers<std::int64_t>(from, H5T_NATIVE_INT64, n);
}

texts floats(const value_source& from, hid_t type, std::size_t n, const char* unknown_size) {
  const std::size_t size = H5Tget_size(type);
  if (size == 4 || size == 2) return numbers<float>(from, H5T_NATIVE_FLOAT, n);
  if (size == 8) return numbers<double>(from, H5T_NATIVE_DOUBLE, n);
  return {unknown_size};
}

// Names of an enumeration; a value without one is shown as it is.
texts enumerated(const value_source& from, hid_t type, std::size_t n) {
  // In the machine's own order, so that the bytes can be shown.
  const hdf_id native(H5Tget_native_type(type, H5T_DIR_ASCEND));
  const std::size_t size = native.ok() ? H5Tget_size(native) : 0;
  if (size == 0 || size > 8) return unreadable();
  std::vector<char> values(n * size);
  if (!from.read(native, values.data())) return unreadable();
  texts shown;
  for (std::size_t i = 0; i < std::min(n, shown_values); ++i) {
    char name[200] = "";
    if (H5Tenum_nameof(native, values.data() + i * size, name, sizeof name) < 0) {
      // Little-endian: the low bytes of the value are the first.
      std::uint64_t value = 0;
      std::copy_n(values.data() + i * size, size, reinterpret_cast<char*>(&value));
      shown.push_back(fmt::format("{}", value));
    } else {
      shown.emplace_back(name);
    }
  }
  return shown;
}

texts variable_texts(const value_source& from, hid_t type, std::size_t n) {
  const hdf_id memory(H5Tcopy(H5T_C_S1));
  H5Tset_size(memory, H5T_VARIABLE);
  H5Tset_cset(memory, H5Tget_cset(type));  // the library converts none into another
  std::vector<char*> values(n, nullptr);
  const bool read = from.read(memory, values.data());
  texts shown;
  for (std::size_t i = 0; read && i < std::min(n, shown_values); ++i) {
    shown.push_back(values[i] == nullptr ? std::string() : trimmed_text(values[i]));
  }
  const hdf_id space = from.space();
  // Texts of the library's own allocation go back to it, shown or not.
  if (read && space.ok()) H5Dvlen_reclaim(memory, space, H5P_DEFAULT, values.data());
  return read ? shown : unreadable();
}

texts strings(const value_source& from, hid_t type, std::size_t n) {
  const htri_t variable = H5Tis_variable_str(type);
  if (variable < 0) return {"unidentified attribute type"};
  if (variable > 0) return variable_texts(from, type, n);
  const std::size_t size = H5Tget_size(type);
  // The product is not formed before it is known to be small.
  if (size == 0 || size > element_limit || n > (std::size_t{4} << 20) / size) {
    return {"text too long to show"};
  }
  std::vector<char> values(n * size);
  if (!from.read(type, values.data())) return unreadable();
  texts shown;
  for (std::size_t i = 0; i < std::min(n, shown_values); ++i) {
    shown.push_back(trimmed_text(std::string(values.data() + i * size, size)));
  }
  return shown;
}

texts decode_attribute(const value_source& from, hid_t type, std::size_t n) {
  const H5T_class_t kind = H5Tget_class(type);
  switch (kind) {
    case H5T_INTEGER:
      return integers(from, type, n, "Unrecognised integer size for attribute");
    case H5T_FLOAT:
      return floats(from, type, n, "Unrecognised attribute float size");
    case H5T_STRING:
      return strings(from, type, n);
    case H5T_ENUM:
      return enumerated(from, type, n);
    case H5T_VLEN:
      return {"Unsupported VLEN data type"};
    case H5T_REFERENCE:
      return {"Reference data; unsupported"};
    case H5T_TIME:
      return {"unidentified attribute type"};
    case H5T_NO_CLASS:
      return {"unidentified class"};
    default:
      return {fmt::format("unidentified itype class ={}", static_cast<int>(kind))};
  }
}

std::string joined(const texts& values, std::size_t n) {
  std::string text = fmt::format("{}", fmt::join(values, ", "));
  if (n > values.size() && values.size() >= shown_values) text += ", ...";
  return text;
}

herr_t add_attribute(hid_t object, const char* name, const H5A_info_t*, void* context) {
  auto& list = *static_cast<std::vector<hdf_attribute>*>(context);
  if (list.size() >= attribute_limit) return 1;
  const hdf_id attribute(H5Aopen(object, name, H5P_DEFAULT));
  list.push_back({name, attribute.ok() ? describe_hdf_attribute(attribute) : "error finding info"});
  return 0;
}

// The first rows and columns of a dataset; rank 0 is one value.
struct corner {
  hdf_id file_space, memory_space;
  std::size_t n = 0, per_row = 1;
};

bool select_corner(hid_t dataset, corner& part) {
  part.file_space = hdf_id(H5Dget_space(dataset));
  if (!part.file_space.ok()) return false;
  const int rank = H5Sget_simple_extent_ndims(part.file_space);
  const hssize_t points = H5Sget_simple_extent_npoints(part.file_space);
  if (rank < 0 || rank > H5S_MAX_RANK || points <= 0) return false;
  hsize_t size[H5S_MAX_RANK] = {}, start[H5S_MAX_RANK] = {}, count[H5S_MAX_RANK] = {};
  H5Sget_simple_extent_dims(part.file_space, size, nullptr);
  // One of every index but the last two.
  std::fill_n(count, rank, 1);
  if (rank > 0) count[rank - 1] = std::min(size[rank - 1], shown_columns);
  if (rank > 1) count[rank - 2] = std::min(size[rank - 2], shown_rows);
  part.per_row = static_cast<std::size_t>(rank > 0 ? count[rank - 1] : 1);
  part.n = part.per_row * static_cast<std::size_t>(rank > 1 ? count[rank - 2] : 1);
  const hsize_t n = part.n;
  part.memory_space = hdf_id(H5Screate_simple(1, &n, nullptr));
  if (rank == 0) return part.memory_space.ok();
  return part.memory_space.ok() &&
         H5Sselect_hyperslab(part.file_space, H5S_SELECT_SET, start, nullptr, count, nullptr) >= 0;
}

texts decode_dataset(const value_source& from, hid_t type, std::size_t n) {
  switch (H5Tget_class(type)) {
    case H5T_INTEGER:
      return integers(from, type, n, "Unrecognised integer size");
    case H5T_FLOAT:
      return floats(from, type, n, "Unrecognised float size");
    case H5T_STRING:
      return strings(from, type, n);
    case H5T_ENUM:
      return enumerated(from, type, n);
    case H5T_ARRAY:
      return {"type=H5T_ARRAY_F"};
    case H5T_COMPOUND:
      return {"type=H5T_COMPOUND_F"};
    case H5T_REFERENCE:
      return {"type=H5T_REFERENCE_F"};
    case H5T_VLEN:
      return {"Unsupported VLEN data type"};
    default:
      return {"unidentified class"};
  }
}

}  // namespace

std::string describe_hdf_attribute(hid_t attribute) {
  const hdf_id type(H5Aget_type(attribute));
  const hdf_id space(H5Aget_space(attribute));
  if (!type.ok() || !space.ok()) return "unidentified class";
  const hssize_t n = H5Sget_simple_extent_npoints(space);
  if (n == 0) return {};
  if (n < 0 || n > value_limit || H5Tget_size(type) > element_limit) {
    return "attribute too long to show";
  }
  const value_source from{attribute, H5I_INVALID_HID, H5S_ALL, H5S_ALL};
  return joined(decode_attribute(from, type, static_cast<std::size_t>(n)),
                static_cast<std::size_t>(n));
}

std::vector<hdf_attribute> list_hdf_attributes(hid_t object) {
  std::vector<hdf_attribute> list;
  hsize_t from = 0;
  H5Aiterate2(object, H5_INDEX_NAME, H5_ITER_INC, &from, add_attribute, &list);
  return list;
}

std::string name_hdf_type(hid_t type) {
  const std::size_t bits = 8 * H5Tget_size(type);
  switch (H5Tget_class(type)) {
    case H5T_INTEGER:
      return fmt::format("{}{}", H5Tget_sign(type) == H5T_SGN_NONE ? 'u' : 'i', bits);
    case H5T_FLOAT:
      return fmt::format("f{}", bits);
    case H5T_STRING:
      return "text";
    case H5T_ENUM:
      return "enumeration";
    case H5T_COMPOUND:
      return "compound";
    case H5T_REFERENCE:
      return "reference";
    case H5T_ARRAY:
      return "array";
    case H5T_VLEN:
      return "variable length";
    case H5T_OPAQUE:
      return "opaque";
    case H5T_BITFIELD:
      return "bit field";
    case H5T_TIME:
      return "time";
    default:
      return "unidentified class";
  }
}

std::string describe_hdf_dimensions(hid_t space) {
  const H5S_class_t kind = H5Sget_simple_extent_type(space);
  if (kind == H5S_SCALAR) return "scalar";
  hsize_t size[H5S_MAX_RANK] = {};
  const int rank = kind == H5S_SIMPLE ? H5Sget_simple_extent_dims(space, size, nullptr) : -1;
  if (rank <= 0) return "empty";
  return fmt::format("{}", fmt::join(size, size + rank, " x "));
}

bool cheap_to_look_at(hid_t dataset) {
  const hdf_id type(H5Dget_type(dataset));
  const hdf_id creation(H5Dget_create_plist(dataset));
  if (!type.ok() || !creation.ok()) return false;
  if (H5Pget_layout(creation) != H5D_CHUNKED) return true;
  hsize_t chunk[H5S_MAX_RANK] = {};
  const int rank = H5Pget_chunk(creation, H5S_MAX_RANK, chunk);
  hsize_t bytes = H5Tget_size(type);
  for (int i = 0; i < rank; ++i) {
    // Each factor by itself first, so that the product cannot overflow.
    if (chunk[i] > browse_limit) return false;
    bytes *= chunk[i];
    if (bytes > browse_limit) return false;
  }
  return rank > 0;
}

std::string describe_hdf_values(hid_t dataset) {
  const hdf_id type(H5Dget_type(dataset));
  corner part;
  if (!type.ok()) return "unidentified class";
  if (!select_corner(dataset, part)) return {};
  const H5T_class_t kind = H5Tget_class(type);
  const bool has_values =
      kind == H5T_INTEGER || kind == H5T_FLOAT || kind == H5T_STRING || kind == H5T_ENUM;
  if (has_values && (H5Tget_size(type) > element_limit || !cheap_to_look_at(dataset))) {
    return "values too large to show here";
  }
  const value_source from{H5I_INVALID_HID, dataset, part.memory_space, part.file_space};
  const texts values = decode_dataset(from, type, part.n);
  std::string text;
  for (std::size_t i = 0; i < values.size(); ++i) {
    text += values[i];
    if (i + 1 == values.size()) break;
    text += (i + 1) % part.per_row == 0 ? "\n" : ", ";
  }
  return text;
}

}  // namespace kestrelvane
