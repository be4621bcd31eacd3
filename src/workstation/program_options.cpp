#include "workstation/program_options.h"

#include <QSettings>
#include <QString>
#include <QVariant>
#include <iterator>

namespace kestrelvane {

namespace {

struct option_row {
  program_option option;
  const char* key;
  bool at_first;  // before the user has said anything
};
constexpr option_row rows[] = {
    {program_option::keep_peaks, "keep_peaks", false},
    {program_option::research_tools, "research_tools", false},
    {program_option::open_traces, "open_traces", true},
    {program_option::close_messages, "close_messages", false},
};
static_assert(std::size(rows) == static_cast<std::size_t>(program_option::count));

constexpr const char* preset_key = "preset";

// Rows stand in the order of the enumerators.
const option_row& row_of(program_option option) { return rows[static_cast<int>(option)]; }

}  // namespace

std::string last_preset() { return QSettings().value(preset_key).toString().toStdString(); }

void keep_last_preset(const std::string& name) {
  QSettings().setValue(preset_key, QString::fromStdString(name));
}

bool wants(program_option option) {
  const option_row& row = row_of(option);
  // Read each time: another workstation beside this one may have changed it.
  return QSettings().value(row.key, row.at_first).toBool();
}

void keep_wish(program_option option, bool wanted) {
  QSettings().setValue(row_of(option).key, wanted);
}

}  // namespace kestrelvane
