#include "workstation/windows/window_table.h"

#include "displays/display_fonts.h"
#include "session/run_log.h"
#include "workstation/windows/analysis_windows.h"
#include "workstation/windows/channel_windows.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/windows/correlogram_window.h"
#include "workstation/windows/measure_windows.h"
#include "workstation/windows/voltage_window.h"

namespace kestrelvane {

namespace {

constexpr const char* small_courier = "t'Courier'h12w8f";
constexpr const char* large_arial = "t'Arial'h20w0";

using enum graph_kind;

// Titles that name clusters or channels are set by who opens the window:
// "PC1 vs time for cluster", "PC values for clusters", "P-P Height (", " waveforms", ...
const window_row window_rows[] = {
    {.kind = voltage_record,
     .object_name = "voltage_window",
     .title = "Event display",
     .font = nullptr,
     .size = {790, 600},
     .size_slot = slot_voltage_record,
     .origin_slot = slot_voltage_record,
     .fills_frame = true,
     .surface = voltage_routines,
     .forget = forget_voltage_display,
     .companion = voltage_dialog_of,
     .follow = update_voltage_dialog},
    {.kind = autocorrelation_vs_time,
     .object_name = "autocorrelation_window",
     .title = "Autocorrelation vs time plot",
     .font = small_courier,  // "t'Courier'h14w10f" for its headings
     .size = {640, 420},
     .surface = autocorrelation_time_routines},
    {.kind = intervals,
     .object_name = "isi_window",
     .title = "ISI plot",
     .font = small_courier,
     .size = {510, 350},
     .surface = interval_routines},
    {.kind = interval_heights,
     .object_name = "isi_heights_window",
     .title = "ISI dependence Unit",
     .font = small_courier,
     .size = {510, 350},
     .surface = interval_height_routines},
    {.kind = amplitude_vs_time,
     .object_name = "amplitude_window",
     .title = "PC1 vs time for cluster",
     .font = small_courier,
     .size = {640, 350},
     .origin_slot = slot_fifth,
     .placed_message = "Autopositioning SAT window",
     .surface = height_routines,
     .forget = forget_cluster_displays},
    {.kind = overlap,
     .object_name = "overlap_window",
     .title = "Overlap diagnostics for Clusters",
     .font = large_arial,
     .size = {620, 420},
     .surface = overlap_routines},
    {.kind = principal_components,
     .object_name = "components_window",
     .title = "Principal Components display",
     .font = large_arial,
     .size = {350, 350},
     .size_slot = slot_principal_components,
     .origin_slot = slot_principal_components,
     .surface = component_routines,
     .forget = forget_cluster_displays},
    {.kind = template_image,
     .object_name = "template_image_window",
     .title = "2D template image",
     .font = small_courier,
     .size = {510, 420},
     .surface = template_image_routines,
     .forget = forget_cluster_displays},
    {.kind = correlograms,
     .object_name = "correlograms_window",
     .title = "Auto- and cross-correlations",
     .font = small_courier,
     .size = {510, 250},
     .size_slot = slot_correlograms,
     .origin_slot = slot_correlograms,
     .surface = correlogram_routines},
    {.kind = spike_trains,
     .object_name = "spike_trains_window",
     .title = "Spike train cross correlograms",
     .font = small_courier,
     .size = {720, 440},
     .surface = train_routines},
    {.kind = channel_analysis,
     .object_name = "channel_analysis_window",
     .title = "Cross-channel analysis",
     .font = nullptr,
     .size = {640, 420},
     .surface = channel_distance_routines},
    {.kind = channel_deviations,
     .object_name = "channel_deviations_window",
     .title = "Graph Window",
     .font = nullptr,
     .size = {640, 420},
     .surface = channel_deviation_routines},
    {.kind = waveform_comparison,
     .object_name = "comparison_window",
     .title = "Spike waveforms comparison",
     .font = large_arial,
     .size = {400, 500},
     .size_slot = slot_waveform_comparison,
     .origin_slot = slot_waveform_comparison,
     .surface = pair_waveform_routines,
     .forget = forget_cluster_displays},
    {.kind = cluster_waveforms,
     .object_name = "waveforms_window",
     .title = "Cluster waveforms",
     .font = "t'Courier'h20w12b",
     .size = {400, 500},
     .size_slot = slot_cluster_waveforms,
     .origin_slot = slot_cluster_waveforms,
     .surface = cluster_waveform_routines,
     .forget = forget_cluster_displays},
    {.kind = spike_view,
     .object_name = "spike_view_window",
     .title = "Spatio-temporal spike view",
     .font = nullptr,
     .size = {900, 520},
     .surface = spike_view_routines,
     .forget = forget_cluster_displays},
    {.kind = hp_spectrum,
     .object_name = "spectrum_window",
     .title = "HP spectrum",
     .font = nullptr,
     .size = {760, 460},
     .surface = spectrum_routines},
    {.kind = amplitude_distribution,
     .object_name = "distribution_window",
     .title = "Event amplitude distribution",
     .font = nullptr,
     .size = {760, 460},
     .surface = amplitude_routines},
    // Lines of text, in a window of its own make (start_up.cpp).
    {.kind = run_log,
     .object_name = "run_log_window",
     .title = "Kestrelvane run log",
     .font = "t'Arial'h14w0u",
     .size = {},
     .place = place_run_log},
};
static_assert(std::size(window_rows) == window_count);

}  // namespace

// Rows stand in the order of the enumerators.
const window_row& window_row_of(graph_kind kind) { return window_rows[static_cast<int>(kind)]; }

std::int32_t* size_in(preferences_record& p, int size_slot) {
  // The preferences file has the voltage window's size apart from the five others'.
  return size_slot == slot_voltage_record ? p.voltage_window_size : p.window_size + 2 * size_slot;
}

std::int32_t* origin_in(preferences_record& p, int origin_slot) {
  return p.window_origin + 2 * origin_slot;
}

std::optional<QFont> read_window_font(session_state& session, graph_kind kind) {
  const char* name = window_row_of(kind).font;
  if (name == nullptr) return std::nullopt;
  font_description description;
  if (parse_font(name, description)) return make_font(description);
  log_message(session, "Problem loading Font string=" + std::string(name));
  return std::nullopt;
}

}  // namespace kestrelvane
