#include "session/console_interface.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "files/standard_streams.h"
#include "session/hdf_page.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t bar_width = 40;

console_interface& self(void* context) { return *static_cast<console_interface*>(context); }

const char* meter_name(meter which) {
  switch (which) {
    case meter::reading:
      return "reading";
    case meter::detection:
      return "detecting";
    case meter::merge_and_sort:
      return "sorting";
    case meter::clusters:
      return "clusters";
    case meter::status_lists:
      return "status lists";
    case meter::saving:
      return "saving";
    case meter::filtering:
      return "filtering";
    case meter::template_pass:
      return "template pass";
  }
  return "";
}

void hide_bar(console_interface& console) {
  if (!console.bar_visible) return;
  // Back to the first column, and the rest of the line wiped: a longer bar before leaves no tail.
  put_text(console.out, "\r\033[K");
  console.bar_visible = false;
}

void show_bar(console_interface& console) {
  if (!console.terminal || console.quiet || console.bar_percent < 0) return;
  // A full bar goes by itself, so that the next stage does not start below a finished one.
  if (console.bar_percent >= 100) {
    hide_bar(console);
    console.bar_percent = -1;
    return;
  }
  const auto filled = static_cast<std::size_t>(bar_width * console.bar_percent / 100);
  put_text(console.out,
           fmt::format("\r\033[K{:>12} [{}{}] {:3}%", console.bar_name, std::string(filled, '#'),
                       std::string(bar_width - filled, ' '), console.bar_percent));
  std::fflush(console.out);
  console.bar_visible = true;
}

void print_line(console_interface& console, std::string_view text) {
  hide_bar(console);
  // The bar is taken away and put back below the line, or the two would run into each other.
  put_text(console.out, fmt::format("{}\n", text));
  show_bar(console);
}

void show_progress(console_interface& console, meter which, std::int32_t value,
                   std::int32_t range) {
  if (console.quiet || range <= 0) return;
  const std::string name = meter_name(which);
  const auto percent = static_cast<std::int32_t>(
      std::clamp<std::int64_t>(std::int64_t{value} * 100 / range, 0, 100));
  // Written when a digit changes and not at every post: a terminal is slower than the loops.
  if (name == console.bar_name && percent == console.bar_percent) return;
  // Another stage counts its quarters from the beginning.
  if (name != console.bar_name) console.bar_quarter = -1;
  console.bar_name = name;
  console.bar_percent = percent;
  if (console.terminal) {
    show_bar(console);
    return;
  }
  // Without a terminal, as in the log of a job: four lines, and not a file full of bars.
  const std::int32_t quarter = percent / 25;
  if (quarter > console.bar_quarter && quarter > 0) {
    put_text(console.out, fmt::format("{} {}%\n", name, quarter * 25));
  }
  console.bar_quarter = quarter;
}

void tell_console(console_interface& console, const std::string& text, const std::string& title,
                  box_icon icon) {
  if (icon == box_icon::error || icon == box_icon::warning) console.last_problem = text;
  print_line(console, title.empty() ? text : title + ": " + text);
}

bool ask_console(console_interface& console, const std::string& text, const std::string& title) {
  // Nobody is there to be asked; question and answer are told together, so that a log shows what
  // was decided.
  const bool yes = console.answer_yes;
  if (!console.quiet) {
    print_line(console, fmt::format("{}: {} {}", title, text, yes ? "Yes" : "No"));
  }
  return yes;
}

void write_log(console_interface& console, std::string_view line) {
  if (console.log == nullptr) return;
  if (!put_text(console.log, fmt::format("{}\n", line)) && console.log_problem.empty()) {
    console.log_problem = std::strerror(errno);
  }
}

// Straight to the dataset, and one try to read it: what it is refused for does not change.
void walk_for_console(console_interface& console, const hdf_page* page, hdf_choice& choice) {
  if (page == nullptr) {
    console.hdf_turns = 0;
    return;
  }
  choice.rate = console.hdf_rate.empty() ? page->rate : console.hdf_rate;
  choice.scale = console.hdf_scale.empty() ? page->scale : console.hdf_scale;
  choice.path = console.hdf_path;
  const int turn = console.hdf_turns++;
  if (console.hdf_path.empty() || turn > 1) return;
  if (turn == 0) choice.step = hdf_step::go_to;
  if (turn == 1 && page->folder != "/") choice.step = hdf_step::read;
}

}  // namespace

void attach_console(console_interface& console, session_state& session) {
  user_interface& ui = session.ui;
  ui = user_interface{};
  ui.context = &console;
  ui.tell = [](void* c, const std::string& text, const std::string& title, box_icon icon) {
    tell_console(self(c), text, title, icon);
  };
  ui.ask = [](void* c, const std::string& text, const std::string& title) {
    return ask_console(self(c), text, title);
  };
  ui.choose_open = [](void* c, const std::string&, const std::string&, std::string& path) {
    path = self(c).chosen_path;
    return !path.empty();
  };
  ui.choose_save = ui.choose_open;
  ui.progress = [](void* c, meter which, std::int32_t value, std::int32_t range) {
    show_progress(self(c), which, value, range);
  };
  ui.status = [](void* c, status_field field, const std::string& text) {
    if (field == status_field::message && !self(c).quiet) print_line(self(c), text);
  };
  ui.log_line = [](void* c, std::string_view line) {
    write_log(self(c), line);
    if (self(c).show_log && !self(c).quiet) print_line(self(c), line);
  };
  ui.stage = [](void* c, const std::string& name) {
    if (self(c).on_stage) self(c).on_stage(name);
  };
  ui.walk_hdf = [](void* c, const hdf_page* page, hdf_choice& choice) {
    walk_for_console(self(c), page, choice);
  };
  session.log.messages_dialog_open = true;  // the log wants every line
}

bool standard_error_is_terminal() { return isatty(fileno(stderr)) != 0; }

bool open_console_log(console_interface& console, const std::string& path) {
  console.log = std::fopen(path.c_str(), "w");
  // By the line: the log can be followed while a sort runs, and has its last words after a crash.
  if (console.log != nullptr) std::setvbuf(console.log, nullptr, _IOLBF, 1 << 12);
  return console.log != nullptr;
}

void finish_console(console_interface& console) {
  hide_bar(console);
  std::fflush(console.out);
  if (console.log != nullptr && std::fclose(console.log) != 0 && console.log_problem.empty()) {
    console.log_problem = std::strerror(errno);
  }
  console.log = nullptr;
}

}  // namespace kestrelvane
