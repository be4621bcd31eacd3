#include "recording/formats/surf/surf_records.h"

#include <fmt/format.h>

#include <algorithm>

#include "files/byte_cursor.h"
#include "files/header_text.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr std::int64_t header_bytes = 2050, descriptor_bytes = 2208;
constexpr std::int64_t layout_bytes = 1728, block_header_bytes = 28, message_header_bytes = 28;
constexpr std::int64_t value_bytes = 24;
constexpr std::size_t pad_bytes = 6;  // behind the code of a record
constexpr std::size_t most_layouts = 256, most_displays = 1000, most_values = 4'000'000;
constexpr std::int32_t oldest_program = 2;

struct surf_walk {
  session_state& session;
  const input_file& file;
  surf_file& surf;
  std::int64_t at = 0;  // the next record
  bool displays_exceeded = false, values_exceeded = false;
};

enum class record_end { good, unknown, cut_off, refused };

// A length byte and up to 255 characters; what stands behind them is left over.
std::string take_counted_text(byte_cursor& in) {
  const std::size_t length = take_value<std::uint8_t>(in);
  constexpr std::size_t width = 255;
  // Texts have one length byte and a fixed field.
  return legible_text(take_text(in, width).substr(0, length));
}

// The bytes of a record at its place; fewer at the end of the file.
std::vector<char> record_bytes(const surf_walk& walk, std::int64_t count) {
  return read_block(walk.file, walk.at, count);
}

// Past the code and its padding.
byte_cursor fields_of(const std::vector<char>& bytes) {
  byte_cursor in{bytes.data(), bytes.size()};
  skip_bytes(in, 2 + pad_bytes);
  return in;
}

record_end take_layout(surf_walk& walk) {
  const std::vector<char> bytes = record_bytes(walk, layout_bytes);
  byte_cursor in = fields_of(bytes);
  if (static_cast<std::int64_t>(bytes.size()) < layout_bytes) return record_end::cut_off;
  const auto skip_to = [&in](std::size_t offset) { in.at = offset; };
  surf_layout layout;
  skip_to(16);
  layout.program_major = take_value<std::uint8_t>(in);
  skip_to(32);
  layout.kind = take_value<char>(in);
  skip_to(34);
  layout.n_channels = take_i16(in);
  skip_to(56);
  layout.sampling_frequency = take_i32(in);
  layout.external_gain = take_value<std::uint16_t>(in);
  skip_to(188);
  layout.internal_gain = take_i16(in);
  skip_to(318);
  layout.description = take_counted_text(in);
  layout.electrode = take_counted_text(in);
  if (layout.program_major < oldest_program) {
    log_message(walk.session, "Old version surf file");
    return record_end::refused;
  }
  // More layouts are read past: their probes have no place.
  if (walk.surf.layouts.size() < most_layouts) walk.surf.layouts.push_back(layout);
  walk.at += layout_bytes;
  return record_end::good;
}

record_end take_block(surf_walk& walk, std::vector<surf_block>& blocks) {
  const std::vector<char> bytes = record_bytes(walk, block_header_bytes);
  byte_cursor in = fields_of(bytes);
  surf_block block;
  block.timestamp = take_value<std::int64_t>(in);
  block.probe = take_i16(in);
  skip_bytes(in, 2 + 4);  // padding, check sum
  block.n_values = take_i32(in);
  block.at = walk.at + block_header_bytes;
  // The size is tested against the file before anything is made of it.
  const bool whole = !in.failed && block.n_values >= 0 &&
                     2 * std::int64_t{block.n_values} <= walk.file.size - block.at;
  if (!whole) return record_end::cut_off;
  blocks.push_back(block);
  walk.at = block.at + 2 * std::int64_t{block.n_values};
  return record_end::good;
}

record_end take_message(surf_walk& walk) {
  const std::vector<char> bytes = record_bytes(walk, message_header_bytes);
  byte_cursor in = fields_of(bytes);
  skip_bytes(in, 8 + 8);  // time stamp, date
  const std::int32_t length = take_i32(in);
  const std::int64_t text_at = walk.at + message_header_bytes;
  if (in.failed || length < 0 || length > walk.file.size - text_at) return record_end::cut_off;
  constexpr std::int32_t longest_line = 200;
  // Only as much as a line of the log takes.
  const std::vector<char> text = read_block(walk.file, text_at, std::min(length, longest_line));
  log_message(walk.session, legible_text({text.data(), text.size()}));
  walk.at = text_at + length;
  return record_end::good;
}

record_end take_display(surf_walk& walk) {
  constexpr std::int64_t short_bytes = 3072, long_bytes = 53120;
  constexpr std::size_t table_bytes = 2996, script_bytes = 50000;
  const std::vector<char> bytes = record_bytes(walk, long_bytes);
  byte_cursor in = fields_of(bytes);
  stimulus_header display;
  display.timestamp = take_value<std::int64_t>(in);
  skip_bytes(in, 8 + 2);  // date, "DS"
  const auto version = take_value<std::uint16_t>(in);
  if (in.failed) return record_end::cut_off;
  // Of another version the length is not known, so that the walk cannot go on.
  if (version != 100 && version != 110) return record_end::unknown;
  display.file_name = legible_text(take_text(in, version == 100 ? 16 : 64));
  skip_bytes(in, table_bytes);
  if (version == 110) {
    const std::string_view script = take_text(in, script_bytes);
    display.script = script.substr(0, script.find('\0'));
  }
  const std::int64_t whole = version == 100 ? short_bytes : long_bytes;
  if (in.failed || walk.at + whole > walk.file.size) return record_end::cut_off;
  walk.at += whole;
  std::vector<stimulus_header>& headers = walk.session.recording.stimulus.headers;
  // Beyond the limit records are counted past, and told of once.
  if (headers.size() < most_displays) {
    headers.push_back(std::move(display));
  } else if (!walk.displays_exceeded) {
    walk.displays_exceeded = true;
    log_message(walk.session, "Max # of display records exceeded in file");
  }
  return record_end::good;
}

record_end take_digital_value(surf_walk& walk) {
  const std::vector<char> bytes = record_bytes(walk, value_bytes);
  byte_cursor in = fields_of(bytes);
  digital_value value;
  value.timestamp = take_value<std::int64_t>(in);
  value.value = take_value<std::uint16_t>(in);
  if (static_cast<std::int64_t>(bytes.size()) < value_bytes) return record_end::cut_off;
  walk.at += value_bytes;
  std::vector<digital_value>& values = walk.session.recording.stimulus.digital_values;
  if (values.size() < most_values) {
    values.push_back(value);
  } else if (!walk.values_exceeded) {
    walk.values_exceeded = true;
    log_message(walk.session, "Error: max # of digital SVal records exceeded");
  }
  return record_end::good;
}

// One record. Of the codes of one letter the second byte does not count.
record_end take_record(surf_walk& walk, std::string_view code) {
  if (code[0] == 'L') return take_layout(walk);
  if (code == "PS") return take_block(walk, walk.surf.spike_blocks);
  if (code == "PC") return take_block(walk, walk.surf.lfp_blocks);
  if (code == "MS" || code == "MU") return take_message(walk);
  if (code == "VD") return take_digital_value(walk);
  if (code[0] == 'D') return take_display(walk);
  return record_end::unknown;
}

bool take_header(surf_walk& walk) {
  const std::vector<char> bytes = read_block(walk.file, 0, header_bytes);
  if (static_cast<std::int64_t>(bytes.size()) < header_bytes) {
    log_message(walk.session, "Mistake reading file header");
    return false;
  }
  byte_cursor in{bytes.data(), bytes.size()};
  const auto type = take_value<std::uint8_t>(in);
  skip_bytes(in, 1);
  const std::string_view name = take_text(in, 10);
  // The clock stands at a fixed offset of the header.
  in.at = 34;
  std::int32_t created[6];  // second, minute, hour, day, month, year
  for (std::int32_t& field : created) field = take_value<std::uint16_t>(in);
  in.at = header_bytes - 2;
  const auto end_type = take_value<std::uint8_t>(in), end_extension = take_value<std::uint8_t>(in);
  if (in.failed || type != 1 || name.substr(0, name.find('\0')) != "UFF" || end_type != 1 ||
      end_extension != 0) {
    log_message(walk.session, "Mistake reading file header");
    return false;
  }
  walk.surf.created = {created[5], created[4], created[3], created[2], created[1], created[0]};
  walk.at = header_bytes;
  return true;
}

// Descriptor blocks tell of record types and carry nothing to read.
void skip_descriptors(surf_walk& walk) {
  char first = 0;
  // The first byte alone tells a descriptor from a record.
  while (read_at(walk.file, walk.at, &first, 1) && first == 2) walk.at += descriptor_bytes;
}

}  // namespace

bool parse_surf_file(session_state& session, const input_file& file, surf_file& surf,
                     std::int32_t bar_to) {
  surf_walk walk{session, file, surf};
  if (!take_header(walk)) return false;
  skip_descriptors(walk);
  char code[2];
  // Fewer than two bytes at the end are no record.
  while (read_at(file, walk.at, code, sizeof code)) {
    set_progress(session, meter::reading, static_cast<std::int32_t>(bar_to * walk.at / file.size),
                 115);
    if (reading_interrupted(session)) return false;
    const std::string_view text(code, sizeof code);
    const record_end end = take_record(walk, text);
    if (end == record_end::good) continue;
    // A file of another program is refused as a whole; a cut one keeps what was read.
    if (end == record_end::refused) return false;
    if (end == record_end::cut_off) {
      log_message(session, "Early end to file");
    } else {
      log_message(session, "Error: Unparsed record ID=" + legible_text(text));
    }
    break;
  }
  return true;
}

}  // namespace kestrelvane
