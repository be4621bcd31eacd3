// A Neuroshare library over synthetic files, for tests of whoever loads one.
//
// A file is text: lines "key=value" say what the library answers (options below), up to an
// empty line. Entity 0 is a trigger, 1 to channels the streams, the last three a digital
// input, its events and spike snippets. A value in volts is the step times a whole number
// that the tests know; behind a pause the library returns nonsense.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct option {
  const char* key;
  double value;
};
// open, read: results of these calls. size: of ANALOGINFO. pause: item behind which there is
// one; contiguous: said instead. odd: the last channel has half the items; slow: a quarter
// of the rate. stream: 0 raw, 1 filtered, 2 analog inputs. nan: the item that is none.
option options[] = {{"channels", 2},    {"items", 1000},  {"rate", 25000}, {"step", 1e-7},
                    {"open", 0},        {"read", 0},      {"size", 264},   {"pause", 0},
                    {"contiguous", -1}, {"entities", -1}, {"odd", 0},      {"slow", 0},
                    {"stream", 0},      {"loudness", 1},  {"nan", -1}};
bool is_open = false;
constexpr std::uint32_t open_handle = 7;

double of(const char* key) {
  for (const option& o : options) {
    if (std::strcmp(o.key, key) == 0) return o.value;
  }
  std::abort();
}

std::uint32_t count_of(const char* key) { return static_cast<std::uint32_t>(of(key)); }

template <typename T>
void put(void* info, int offset, T value) {
  std::memcpy(static_cast<char*>(info) + offset, &value, sizeof value);
}

std::uint32_t items_of(std::uint32_t entity) {
  const bool is_odd = of("odd") != 0 && entity == count_of("channels");
  return is_odd ? count_of("items") / 2 : count_of("items");
}

bool is_stream(std::uint32_t entity) { return entity >= 1 && entity <= count_of("channels") + 1; }

}  // namespace

extern "C" {

std::int32_t ns_OpenFile(const char* path, std::uint32_t* handle) {
  std::FILE* file = std::fopen(path, "r");
  if (file == nullptr) return -3;
  char line[200];
  while (std::fgets(line, sizeof line, file) != nullptr && line[0] != '\n') {
    for (option& o : options) {
      const std::size_t n = std::strlen(o.key);
      if (std::strncmp(line, o.key, n) == 0 && line[n] == '=') {
        o.value = std::strtod(line + n + 1, nullptr);
      }
    }
  }
  std::fclose(file);
  is_open = of("open") == 0;
  *handle = open_handle;
  return static_cast<std::int32_t>(of("open"));
}

std::int32_t ns_CloseFile(std::uint32_t handle) {
  if (!is_open || handle != open_handle) return -4;
  is_open = false;
  return 0;
}

std::int32_t ns_GetFileInfo(std::uint32_t handle, void* info, std::uint32_t size) {
  if (!is_open || handle != open_handle) return -4;
  if (size != of("size") + 140 - (of("size") == 272 ? 4 : 0)) return -1;
  std::memset(info, 0, size);
  put(info, 32, of("entities") < 0 ? count_of("channels") + 4 : count_of("entities"));
  return 0;
}

std::int32_t ns_GetEntityInfo(std::uint32_t handle, std::uint32_t entity, void* info,
                              std::uint32_t size) {
  const std::uint32_t channels = count_of("channels");
  if (!is_open || handle != open_handle) return -4;
  if (entity >= channels + 4) return -5;
  if (size != 40) return -1;
  constexpr const char* streams[] = {"elec", "filt", "anlg"};
  const char* label = streams[count_of("stream")];
  std::uint32_t kind = 2;
  if (entity == 0) label = "trig", kind = 1;
  if (entity == channels + 1) label = "digi";
  if (entity == channels + 2) label = "digi", kind = 1;
  if (entity == channels + 3) label = "spks", kind = 3;
  char text[33];
  std::snprintf(text, sizeof text, "%s0001 %04u %04u       %02u", label, entity & 0xfff,
                entity & 0xfff, 20 + (entity & 0x3f));
  std::memset(info, 0, size);
  std::memcpy(info, text, std::strlen(text));
  put(info, 32, kind);
  put(info, 36, items_of(entity));
  return 0;
}

#ifndef WITHOUT_EVENT_INFO
std::int32_t ns_GetEventInfo(std::uint32_t, std::uint32_t, void*, std::uint32_t) { return 0; }
#endif

std::int32_t ns_GetAnalogInfo(std::uint32_t handle, std::uint32_t entity, void* info,
                              std::uint32_t size) {
  if (!is_open || handle != open_handle) return -4;
  if (!is_stream(entity)) return -5;
  if (size != of("size")) return -1;
  const bool is_slow = of("slow") != 0 && entity == count_of("channels");
  std::memset(info, 0, size);
  put(info, 0, is_slow ? of("rate") / 4 : of("rate"));
  put(info, 40, of("step"));
  return 0;
}

std::int32_t ns_GetAnalogData(std::uint32_t handle, std::uint32_t entity, std::uint32_t first,
                              std::uint32_t count, std::uint32_t* contiguous, double* values) {
  if (!is_open || handle != open_handle) return -4;
  if (!is_stream(entity)) return -5;
  if (first >= items_of(entity) || count > items_of(entity) - first) return -7;
  if (of("read") != 0) return static_cast<std::int32_t>(of("read"));
  const std::uint32_t pause = count_of("pause");
  *contiguous = first < pause && first + count > pause ? pause - first : count;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint32_t whole = (entity * 1000 + (first + i) * 7) % 4001;
    values[i] = i < *contiguous ? (whole - 2000.0) * of("loudness") * of("step") : 9;
    if (first + i == of("nan")) values[i] = std::strtod("nan", nullptr);
  }
  if (of("contiguous") >= 0) *contiguous = count_of("contiguous");
  return 0;
}

}  // extern "C"
