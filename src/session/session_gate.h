// The session gate: one thread at a time changes the session or saves it.
//
// Whoever runs an operation on the session holds the gate for as long as it runs, and
// yields it at its polls, at pause points and while a box waits for the user. There the
// tables are whole, so the timed recovery save, which runs on a thread of its own, takes
// its turn without ever meeting half-written tables. The interface thread never waits
// here: it hands operations to a worker. It may try, and gets the gate where nobody holds it,
// or where the holder lends it: the worker lends it at points where displays are refreshed,
// and holds still until it has it back.
//
// What an operation has put off, as long as nobody looks, it does before anybody else gets the gate
// (before_sharing in the session).
//
// Passing is in the order of arrival, so that a saver is not starved by a worker that
// yields and comes back at once.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace kestrelvane {

struct session_state;

struct session_gate {
  std::mutex mutex;  // guards all changes of what follows
  std::condition_variable moved;
  // The atomics are read without the mutex, by polls.
  std::atomic<std::uint64_t> next_ticket{0};  // drawn by arrivals
  std::atomic<std::uint64_t> now_serving{0};  // whose turn it is
  std::atomic<std::thread::id> holder{};      // default: nobody
  std::int32_t depth = 0;                     // nested entries; the holder's alone
  bool offered = false;                       // the holder would lend it
  bool lent = false;                          // and somebody has taken it
  std::int32_t lender_depth = 0;              // entries of the lender, put by meanwhile
  std::thread::id lender{};
};

// Waits for the gate and holds it. The holder may enter again.
void enter_session(const session_state& session);
void leave_session(const session_state& session);

// Holds the gate when that needs no waiting: nobody holds it or waits for it, its holder is
// the caller or lends it. To be left as after enter_session.
bool try_enter_session(const session_state& session);

// Offers the gate to whoever tries; no queue forms. Comes back when it has been taken and
// given back, or when nobody has taken it within the bound. True when somebody had it. Does
// nothing when the caller does not hold it. The tables must be fit to be read.
bool lend_session(const session_state& session, std::chrono::milliseconds bound);

// Lets those who wait go first; does nothing when nobody waits or when the caller does
// not hold the gate. Cheap enough for a poll. The tables must be fit to be saved.
void yield_session(const session_state& session);

// Whether the calling thread holds the gate.
bool holds_session(const session_state& session);

// Holds the gate for a scope.
struct session_hold {
  explicit session_hold(const session_state& held) : session(held) { enter_session(session); }
  ~session_hold() { leave_session(session); }
  session_hold(const session_hold&) = delete;
  session_hold& operator=(const session_hold&) = delete;
  const session_state& session;
};

// Gives the gate up for a scope, while the holder waits for the user; nothing happens
// when the caller does not hold it.
struct session_pause {
  explicit session_pause(const session_state& held);
  ~session_pause();
  session_pause(const session_pause&) = delete;
  session_pause& operator=(const session_pause&) = delete;
  const session_state& session;
  std::int32_t depth = 0;  // entries to take up again
};

}  // namespace kestrelvane
