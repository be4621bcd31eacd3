// What the menu entries and tool buttons do. All are called on the interface thread.
#pragma once

#include <QString>

namespace kestrelvane {

struct workstation;

// --- File (file_commands.cpp)
void open_recording_command(workstation& w);
void open_recording_path(workstation& w, const QString& path);   // dropped on the frame
void open_recent_command(workstation& w, int entry);             // from 0
void open_kept_state_path(workstation& w, const QString& path);  // operations/kept_states.h
void open_work_file_command(workstation& w);
void close_recording_command(workstation& w);
void save_work_file_command(workstation& w);
void import_ptcs_command(workstation& w);
void report_command(workstation& w);
void event_noise_command(workstation& w);
void feature_matrices_command(workstation& w);
void lfp_export_command(workstation& w);
void exit_command(workstation& w);

// --- graph windows (graph_commands.cpp)
void save_bitmap_command(workstation& w);
void save_graph_command(workstation& w);  // of a window's own menu
void print_command(workstation& w);
void select_rectangle_command(workstation& w);
void copy_selection_command(workstation& w);
void cascade_command(workstation& w);
void auto_arrange_command(workstation& w);
void voltage_record_command(workstation& w);
void sorted_waveforms_command(workstation& w);
void template_image_command(workstation& w);
void spike_view_command(workstation& w);
void hp_spectrum_command(workstation& w);
void autocorrelation_time_command(workstation& w);
void interval_plot_command(workstation& w);
void train_correlograms_command(workstation& w);
void overlap_command(workstation& w);

// --- Sort, Review (process_commands.cpp)
void convert_channels_command(workstation& w);
void recalculate_templates_command(workstation& w);

// --- Help (help_commands.cpp)
void getting_started_command(workstation& w);
void about_command(workstation& w);

// --- dialogs/
void earlier_states_command(workstation& w);
void preferences_command(workstation& w);
void messages_command(workstation& w);
void acquisition_properties_command(workstation& w);
void sorting_summary_command(workstation& w);
void filter_command(workstation& w);
void channel_check_command(workstation& w);
void event_detection_command(workstation& w);
void autosort_command(workstation& w);
void status_lists_command(workstation& w);
void strategy_command(workstation& w);
void realign_command(workstation& w);
void guided_merge_command(workstation& w);
void view_clusters_command(workstation& w);
void history_command(workstation& w);
void manage_clusters_command(workstation& w);
void post_process_command(workstation& w);
void compare_pairs_command(workstation& w);
void correlation_command(workstation& w);
void test_decisions_command(workstation& w);
void amplitude_distribution_command(workstation& w);
void interval_heights_command(workstation& w);
void export_command(workstation& w);
void test_waveform_command(workstation& w);

}  // namespace kestrelvane
