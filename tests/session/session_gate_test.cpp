// The session gate: turns, nesting, and who goes first.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using namespace std::chrono_literals;

// Starts a thread that waits for the gate, and returns once it has drawn its ticket.
template <typename Work>
std::thread queue_up(session_state& session, Work work) {
  const std::uint64_t before = session.gate.next_ticket;
  std::thread thread([&session, work] {
    const session_hold hold(session);
    work();
  });
  while (session.gate.next_ticket == before) std::this_thread::yield();
  return thread;
}

TEST(session_gate, one_thread_at_a_time_changes_the_session) {
  small_session session;
  std::int32_t& counter = session->current_channel;
  const auto work = [&] {
    for (int i = 0; i < 2000; ++i) {
      const session_hold hold(*session);
      const std::int32_t seen = counter;
      yield_session(*session);  // whole here: nothing is kept over it
      const std::int32_t now = counter;
      if (i % 16 == 0) std::this_thread::yield();
      counter = now + 1;
      ASSERT_GE(now, seen);
    }
  };
  counter = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back(work);
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(counter, 8000);
  EXPECT_EQ(session->gate.now_serving, session->gate.next_ticket);
}

TEST(session_gate, a_yield_lets_every_waiter_pass_in_order_and_comes_back) {
  small_session session;
  std::vector<int> order;
  enter_session(*session);
  enter_session(*session);  // a yield gives up nested entries too
  std::thread first = queue_up(*session, [&] { order.push_back(1); });
  std::thread second = queue_up(*session, [&] { order.push_back(2); });
  EXPECT_TRUE(order.empty());
  yield_session(*session);
  EXPECT_TRUE(holds_session(*session));
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  leave_session(*session);
  EXPECT_TRUE(holds_session(*session)) << "the outer entry stands";
  leave_session(*session);
  EXPECT_FALSE(holds_session(*session));
  first.join();
  second.join();
}

TEST(session_gate, those_who_hold_nothing_pass_unaffected) {
  small_session session;
  yield_session(*session);
  leave_session(*session);
  { const session_pause pause(*session); }
  EXPECT_EQ(session->gate.next_ticket, 0u);
  // Another's gate is not given away by a poll of a worker thread.
  enter_session(*session);
  bool passed = false;
  std::thread saver = queue_up(*session, [&] { passed = true; });
  std::thread worker([&] {
    autosort_interrupted(*session);
    const session_pause pause(*session);
  });
  worker.join();
  EXPECT_FALSE(passed);
  leave_session(*session);
  saver.join();
  EXPECT_TRUE(passed);
}

// Where an operation waits, for the user or at a poll, a save gets its turn.
TEST(session_gate, polls_boxes_and_pauses_let_a_save_through) {
  struct place {
    const char* name;
    void (*wait)(session_state&);
  };
  std::string path;
  const place places[] = {
      {"tell", [](session_state& s) { tell(s, "text", "title"); }},
      {"ask", [](session_state& s) { ask(s, "text", "title"); }},
      {"open",
       [](session_state& s) {
         std::string chosen;
         choose_file_to_open(s, "title", "filter", chosen);
       }},
      {"save",
       [](session_state& s) {
         std::string chosen;
         choose_file_to_save(s, "title", "filter", chosen);
       }},
      {"pause",
       [](session_state& s) {
         s.operation.pause_requested = true;
         pause_point(s);
       }},
      {"autosort poll", [](session_state& s) { autosort_interrupted(s); }},
      {"detection poll", [](session_state& s) { detection_interrupted(s); }},
  };
  for (const place& at : places) {
    SCOPED_TRACE(at.name);
    small_session session;
    std::atomic<bool> saved = false;
    const session_hold hold(*session);
    std::thread saver = queue_up(*session, [&] { saved = true; });
    EXPECT_FALSE(saved);
    at.wait(*session);
    EXPECT_TRUE(saved);
    EXPECT_TRUE(holds_session(*session));
    saver.join();
  }
}

TEST(session_gate, who_tries_gets_a_free_gate_and_never_waits) {
  small_session session;
  EXPECT_TRUE(try_enter_session(*session));
  EXPECT_TRUE(try_enter_session(*session)) << "again, by its holder";
  bool tried = true;
  std::thread([&] { tried = try_enter_session(*session); }).join();
  EXPECT_FALSE(tried) << "held by another";
  std::thread saver = queue_up(*session, [] {});
  leave_session(*session);
  EXPECT_TRUE(holds_session(*session));
  leave_session(*session);
  saver.join();
  EXPECT_EQ(session->gate.now_serving, session->gate.next_ticket);
  EXPECT_TRUE(try_enter_session(*session)) << "all have gone";
  leave_session(*session);
}

TEST(session_gate, a_lent_gate_comes_back_to_its_holder) {
  small_session session;
  EXPECT_FALSE(lend_session(*session, 1ms)) << "not the caller's";
  enter_session(*session);
  enter_session(*session);
  EXPECT_FALSE(lend_session(*session, 1ms)) << "nobody wants it";
  bool tried = true;
  std::thread([&] { tried = try_enter_session(*session); }).join();
  EXPECT_FALSE(tried) << "the offer is over";
  // A save waits all the while: the loan passes it by.
  bool saved = false;
  std::thread saver = queue_up(*session, [&] { saved = true; });
  session->current_channel = 1;
  std::thread borrower([&] {
    while (!try_enter_session(*session)) std::this_thread::yield();
    EXPECT_TRUE(try_enter_session(*session));
    yield_session(*session);  // not its own to pass on
    const session_pause nor_to_leave(*session);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(session->current_channel, 1) << "the lender holds still, beyond its bound";
    leave_session(*session);
    EXPECT_TRUE(holds_session(*session));
    leave_session(*session);
  });
  while (!lend_session(*session, 5ms)) continue;
  session->current_channel = 2;
  EXPECT_FALSE(saved);
  EXPECT_TRUE(holds_session(*session));
  borrower.join();
  leave_session(*session);
  EXPECT_TRUE(holds_session(*session)) << "its entries are as before";
  leave_session(*session);
  saver.join();
  EXPECT_TRUE(saved);
}

// Lenders and borrowers in a hurry: nobody sees a change half made, and nobody is lost.
TEST(session_gate, loans_and_savers_meet_without_harm) {
  small_session session;
  std::int32_t a = 0, b = 0;
  std::atomic<bool> over = false;
  std::atomic<int> torn = 0, seen = 0;
  const auto look = [&] { torn += a != b; };
  std::thread drawer([&] {
    while (!over) {
      if (!try_enter_session(*session)) continue;
      look();
      ++seen;
      leave_session(*session);
    }
  });
  std::thread saver([&] {
    while (!over) {
      const session_hold hold(*session);
      look();
    }
  });
  {
    const session_hold hold(*session);
    for (int i = 0; i < 3000; ++i) {
      ++a;
      if (i % 3 == 0) std::this_thread::yield();
      ++b;
      if (i % 5 == 0) lend_session(*session, 1ms);
      yield_session(*session);
    }
  }
  over = true;
  drawer.join();
  saver.join();
  EXPECT_EQ(torn, 0);
  EXPECT_GT(seen, 0);
  EXPECT_EQ(session->gate.now_serving, session->gate.next_ticket);
}

}  // namespace
}  // namespace kestrelvane::test
