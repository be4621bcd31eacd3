// Fields of a ".ptcs" file that writer and reader share.
#pragma once

#include <cstdint>
#include <string_view>

namespace kestrelvane {

constexpr std::int64_t ptcs_version = 3;
// With its NUL 48 bytes.
constexpr std::string_view ptcs_description = "QAB multi spike format implemented by RFD      ";
constexpr std::string_view ptcs_epoch_description =
    "Exported from combined multi-epoch .prf files  ";
constexpr std::int64_t ptcs_sample_bytes = 4;
constexpr std::int64_t ptcs_text_bytes = 16;
constexpr std::int64_t ptcs_date_bytes = 32;

}  // namespace kestrelvane
