// What is said of an event under the pointer, the same in every cluster display.
#pragma once

#include <QString>
#include <cstdint>

#include "session/session_state.h"

namespace kestrelvane {

// "event 1234, 5.6780 s, cluster 3, label 2", the time as exports have it; empty for what is no
// event.
QString event_words(const session_state& session, std::int32_t event);

}  // namespace kestrelvane
