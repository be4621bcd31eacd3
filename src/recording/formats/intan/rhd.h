// Intan .rhd, in its three forms: header and samples in one file, or the header alone, with the
// samples of all amplifier channels in "amplifier.dat" or of each in "amp-NAME.dat".
//
// In one file, after the header come blocks of 60 or 128 time points, channel after channel inside
// a block. The amplifier channels are read, the auxiliary, supply, temperature, analogue and
// digital ones passed over. All blocks have one size, so that the count of samples is known
// from the file's size and blocks are shared out over the threads.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "files/byte_cursor.h"
#include "files/input_file.h"
#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

// Kinds of a channel, as the header numbers them.
enum rhd_signal : std::int32_t {
  rhd_amplifier,
  rhd_auxiliary,
  rhd_supply,
  rhd_board_adc,
  rhd_digital_in,
  rhd_digital_out,
  rhd_n_signals,
};

struct rhd_header {
  std::int32_t version_tenths = 0;  // 10 x major + minor
  float sampling_frequency = 0;     // Hz
  std::array<std::string, 3> notes;
  std::int32_t n_temperature = 0;  // sensors
  std::int32_t n_groups = 0;
  std::array<std::int64_t, rhd_n_signals> n_enabled{};  // channels of each kind
  std::vector<std::string> amplifier_names;             // native names of the enabled ones
  std::int64_t samples_per_block = 0;
  std::int64_t n_digital_words = 0;  // stretches of digital words in a block
  std::int64_t first_block = 0;      // offset
  std::int64_t block_bytes = 0;
};

// The reader of the format; open_recording's contract. A block cut by the end of the file
// is left out.
bool read_rhd(session_state& session, const recording_request& request);

// The samples beside a header without any, signed, into vd. False after the words that say why
// not, or when the user stops it.
bool read_rhd_companions(session_state& session, const std::string& path, const rhd_header& header);

// One signal group: names, flags, and its channels if it is enabled; adds the enabled
// channels to the counts. The cursor fails at the end of its bytes.
void read_rhd_signal_group(byte_cursor& in, rhd_header& header);

// Samples of the amplifier channels of n neighbouring blocks, in memory, into vd at
// first_index and on. targets has the program channel of each amplifier channel, 0 for none.
void read_rhd_block(session_state& session, const rhd_header& header,
                    const std::vector<std::int32_t>& targets, const char* blocks, std::int64_t n,
                    std::int64_t first_index);

}  // namespace kestrelvane
