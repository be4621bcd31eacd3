#include "session/session_gate.h"

#include "session/session_state.h"

namespace kestrelvane {

namespace {

// The holder's depth is put by at a hand-over and taken up again afterwards.
void take_turn(session_gate& gate, std::unique_lock<std::mutex>& lock, std::int32_t depth) {
  // Tickets make the order fair: with a bare mutex the worker, which lets go and takes again at
  // once, would win each time and the recovery timer never come to its turn.
  const std::uint64_t ticket = gate.next_ticket++;
  gate.moved.wait(lock, [&] { return gate.now_serving == ticket; });
  gate.holder = std::this_thread::get_id();
  gate.depth = depth;
}

// Takes what the holder offers; the lender sleeps until it is back.
void borrow(session_gate& gate) {
  gate.offered = false;
  gate.lent = true;
  gate.lender = gate.holder;
  gate.lender_depth = gate.depth;
  gate.holder = std::this_thread::get_id();
  gate.depth = 1;
}

void give_back(session_gate& gate) {
  gate.lent = false;
  gate.holder = gate.lender;
  gate.depth = gate.lender_depth;
  gate.moved.notify_all();
}

// The tables are made fit to be seen, outside the mutex: it may take a while.
void prepare_sharing(const session_state& session) {
  if (session.before_sharing.run != nullptr) {
    session.before_sharing.run(session.before_sharing.context);
  }
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
  // A borrowed gate goes back to its lender and not to the next ticket: the worker holds still in
  // the middle of a step, and means to go on with it.
  if (gate.lent) {
    give_back(gate);
  } else {
    hand_over(gate);
  }
}

bool try_enter_session(const session_state& session) {
  session_gate& gate = session.gate;
  if (holds_session(session)) {
    ++gate.depth;
    return true;
  }
  std::unique_lock lock(gate.mutex);
  if (gate.offered) {
    borrow(gate);
    return true;
  }
  // Somebody holds it or waits for it; the interface thread would stand still until he is done.
  if (gate.next_ticket != gate.now_serving) return false;
  take_turn(gate, lock, 1);
  return true;
}

bool lend_session(const session_state& session, std::chrono::milliseconds bound) {
  session_gate& gate = session.gate;
  if (!holds_session(session)) return false;
  prepare_sharing(session);
  std::unique_lock lock(gate.mutex);
  gate.offered = true;
  const auto until = std::chrono::steady_clock::now() + bound;
  gate.moved.wait_until(lock, until, [&] { return !gate.offered && !gate.lent; });
  // Read before the offer is withdrawn: withdrawn or taken look the same afterwards.
  const bool taken = !gate.offered;
  gate.offered = false;
  // Who has it is drawing, which waits for nobody.
  gate.moved.wait(lock, [&] { return !gate.lent; });
  return taken;
}

void yield_session(const session_state& session) {
  session_gate& gate = session.gate;
  // Polls also run in routines that a test or a reader calls without a gate.
  if (!holds_session(session)) return;
  if (gate.lent) return;  // not the borrower's to pass on
  // Nobody has drawn a ticket behind the holder's; one drawn this moment can wait.
  if (gate.next_ticket.load(std::memory_order_relaxed) ==
      gate.now_serving.load(std::memory_order_relaxed) + 1) {
    return;
  }
  prepare_sharing(session);
  std::unique_lock lock(gate.mutex);
  take_turn(gate, lock, hand_over(gate));
}

session_pause::session_pause(const session_state& held) : session(held) {
  if (!holds_session(session) || session.gate.lent) return;
  prepare_sharing(session);
  std::lock_guard lock(session.gate.mutex);
  // All of the depth at once: a box may be asked for deep inside, and the others need the gate free
  // and not just one level less held.
  depth = hand_over(session.gate);
}

session_pause::~session_pause() {
  // Nothing was let go at the beginning, so nothing is to be waited for.
  if (depth == 0) return;
  std::unique_lock lock(session.gate.mutex);
  take_turn(session.gate, lock, depth);
}

}  // namespace kestrelvane
