#include "results/quality_csv.h"

#include <fmt/format.h>

#include <cmath>

#include "analysis/unit_quality.h"
#include "files/safe_file.h"
#include "session/template_window.h"

namespace kestrelvane {

bool write_quality_csv(const session_state& session, const std::string& path) {
  constexpr const char* title = "Export data";
  // Waveforms of this window cannot be compared with templates of another.
  if (templates_are_outdated(session)) {
    tell(session, "Templates are those of another spike window: recalculate them first", title);
    return false;
  }
  const std::vector<unit_quality> units = measure_quality(session);
  if (units.empty() && session.clusters.n_clusters > 0) {
    log_message(session, "The quality of units was not saved: it was interrupted");
    return false;
  }
  safe_file out;
  if (open_safe_file(out, path)) {
    std::string line = "unit,label";
    for (const quality_figure& figure : quality_figures()) line += fmt::format(",{}", figure.name);
    write_text(out, line + '\n');
    for (const unit_quality& quality : units) {
      line = fmt::format("{},{}", quality.unit,
                         name_of(session.clusters.cluster_label[quality.unit]).name);
      for (const quality_figure& figure : quality_figures()) {
        const double value = quality.*figure.value;
        line += std::isfinite(value) ? fmt::format(",{:.9g}", value) : ",";
      }
      write_text(out, line + '\n');
    }
  }
  const bool written = finish_safe_file(out);
  if (written) {
    tell(session, "Quality of units saved", title, box_icon::information);
  } else {
    tell(session, "Error exporting the quality of units " + why_not_saved(path), title);
  }
  return written;
}

}  // namespace kestrelvane
