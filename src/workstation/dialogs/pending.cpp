#include "workstation/commands.h"
#include "workstation/workstation.h"
namespace kestrelvane {
void acquisition_properties_command(workstation&) {}
void sorting_summary_command(workstation&) {}
void realign_command(workstation&) {}
}  // namespace kestrelvane
