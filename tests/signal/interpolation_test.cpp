// The interpolator and the kernel table against known numbers, and the fast run
// against single reads.
#include "signal/interpolation.h"
#include "session/interpolation_tables.h"

#include <gtest/gtest.h>

#include <cmath>
#include <utility>
#include <vector>

#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

TEST(interpolation, table_of_depth_10_width_6) {
  small_session session;
  const float* table = session->tables.interp_table;
  const std::pair<int, std::uint32_t> known[] = {
      {0, 0x3F800000},  {1, 0x3F7BA542},  {2, 0x3F6EDC75},  {5, 0x3F205558},
      {9, 0x3DD43B73},  {10, 0xB2DFD049}, {11, 0xBDA917A6}, {15, 0xBE3B1350},
      {20, 0x32B65C08}, {25, 0x3DA946FD}, {35, 0xBD17B028}, {45, 0x3C6A1BCD},
      {55, 0xBBAB6D4B}, {58, 0xBB2A8127}, {59, 0xBAAED0D5}, {60, 0x00000000}};
  for (const auto& [k, word] : known) EXPECT_EQ(table[k], bits(word)) << k;
}

TEST(interpolation, table_of_depth_1_has_rounded_zeros) {
  small_session session;
  session->strategy.interp_depth = 1;
  build_interp_table(*session);
  EXPECT_EQ(session->tables.interp_table[0], 1.0f);
  EXPECT_EQ(session->tables.interp_table[1], bits(0xB2DA096B));
  EXPECT_EQ(session->tables.interp_table[5], bits(0xB16C6D33));
}

TEST(interpolation, widest_settings_stay_inside_the_table) {
  small_session session;
  session->strategy.interp_depth = 50;
  session->strategy.interp_width = 50;
  build_interp_table(*session);
  EXPECT_LE(session->tables.depth * session->tables.width, 1000);
  make_recording(*session, 1, 400);
  put_samples(*session, 1, 200, {1000});
  for (int s = -50; s <= 50; ++s) EXPECT_TRUE(std::isfinite(interp_voltage(*session, 200, 1, s)));
}

TEST(interpolation, voltages_between_samples) {
  small_session session;
  make_recording(*session, 1, 40);
  put_samples(*session, 1, 1,
              {116,  -18, -159, 18,   -150, -43,  155,  -89,  166, -114, 186,  -100, 157, 10,
               148,  122, -50,  196,  103,  42,   52,   -179, 67,  185,  -184, -12,  161, 28,
               -192, 73,  139,  -122, 152,  -121, -120, -193, 104, 24,   200,  34});
  struct known {
    int t, s;
    std::uint32_t word;
  };
  for (const auto& [t, s, word] : {known{20, 0, 0x42280000},
                                   {20, 1, 0x425309EC},
                                   {20, 5, 0x42AFCBEB},
                                   {20, 9, 0x4288F34E},
                                   {20, 10, 0x42500001},
                                   {20, -3, 0x41ABF914},
                                   {3, 4, 0xC2A60C15},
                                   {38, -7, 0x42D45C0F}}) {
    EXPECT_EQ(interp_voltage(*session, t, 1, s), bits(word)) << t << " " << s;
  }
}

TEST(interpolation, runs_equal_single_reads_bit_for_bit) {
  small_session session;
  make_recording(*session, 2, 2000);
  vector_random random(5);
  for (int t = 1; t <= 2000; ++t) {
    session->recording.vd.channel(1)[t] =
        static_cast<std::int16_t>((random.next() >> 12) % 4001) - 2000;
  }
  std::vector<float> out(512);
  for (const int n : {1, 7, 16, 41, 151, 400}) {
    for (int s = -9; s <= 10; ++s) {
      interp_run(*session, session->recording.vd.channel(1) + 700, s, n, out.data());
      for (int i = 0; i < n; ++i) ASSERT_EQ(out[i], interp_voltage(*session, 700 + i, 1, s));
    }
  }
}

TEST(interpolation, kernel_table) {
  small_session session;
  const float* table = session->tables.gac_table;
  const std::pair<int, std::uint32_t> known[] = {
      {0, 0x3F800000},    {1, 0x3F7F7D0F},    {2, 0x3F7EFA61},
      {250, 0x3F1B4598},  {500, 0x3EBC5AB2},  {1000, 0x3E0A9555},
      {5000, 0x383E6BCE}, {9999, 0x310DECD2}, {10000, 0x310DA433}};
  for (const auto& [k, word] : known) EXPECT_EQ(table[k], bits(word)) << k;
}

}  // namespace
}  // namespace kestrelvane::test
