#include "session/session_gate.h"

#include "session/session_state.h"

namespace kestrelvane {

namespace {

// The holder's depth is put by at a hand-over and taken up again afterwards.
void take_turn(session_gate& gate, std::unique_lock<std::mutex>& lock, std::int32_t depth) {
  const std::uint64_t ticket = gate.next_ticket++;
  gate.moved.wait(lock, [&] { return gate.now_serving == ticket; });
  gate.holder = std::this_thread::get_id();
  gate.depth = depth;
}

std::int32_t hand_over(session_gate& gate) {
  const std::int32_t depth = gate.depth;
  gate.depth = 0;
  gate.holder = std::thread::id{};
  ++gate.now_serving;
  gate.moved.notify_all();
  return depth;
}

}  // namespace

bool holds_session(const session_state& session) {
  // Only the thread itself ever stores its own number there.
  return session.gate.holder.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

void enter_session(const session_state& session) {
  session_gate& gate = session.gate;
  if (holds_session(session)) {
    ++gate.depth;
    return;
  }
  std::unique_lock lock(gate.mutex);
  take_turn(gate, lock, 1);
}

void leave_session(const session_state& session) {
  session_gate& gate = session.gate;
  if (!holds_session(session) || --gate.depth > 0) return;
  std::lock_guard lock(gate.mutex);
  hand_over(gate);
}

void yield_session(const session_state& session) {
  session_gate& gate = session.gate;
  if (!holds_session(session)) return;
  // Nobody has drawn a ticket behind the holder's; one drawn this moment can wait.
  if (gate.next_ticket.load(std::memory_order_relaxed) ==
      gate.now_serving.load(std::memory_order_relaxed) + 1) {
    return;
  }
  std::unique_lock lock(gate.mutex);
  take_turn(gate, lock, hand_over(gate));
}

session_pause::session_pause(const session_state& held) : session(held) {
  if (!holds_session(session)) return;
  std::lock_guard lock(session.gate.mutex);
  depth = hand_over(session.gate);
}

session_pause::~session_pause() {
  if (depth == 0) return;
  std::unique_lock lock(session.gate.mutex);
  take_turn(session.gate, lock, depth);
}

}  // namespace kestrelvane
