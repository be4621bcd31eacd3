// Container files in the batch command: the tree, the choice of a dataset, its edits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/child_process.h"
#include "support/hdf_fixture.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using testing::HasSubstr;
using words = std::vector<std::string>;

process_result run(const words& arguments) { return run_process(KESTRELVANE_BATCH, arguments); }

struct hdf_batch_test : testing::Test {
  temporary_directory folder;
  const std::string nwb = folder.file("rec.nwb");
  const std::string tsf = folder.file("out.tsf");
  const std::string data = std::string(nwb_series) + "/data";
};

TEST_F(hdf_batch_test, info_lists_the_tree_until_a_dataset_is_named) {
  make_nwb_file(nwb);
  const process_result text = run({"info", nwb});
  EXPECT_EQ(text.status, 0);
  EXPECT_THAT(text.out, testing::ContainsRegex(data + " +i16 +300 x 4 +30000 +0.2\n"));
  EXPECT_THAT(text.out, HasSubstr(data + " is taken when nothing else is named"));
  const nlohmann::json told = nlohmann::json::parse(run({"info", nwb, "--json", "--quiet"}).out);
  EXPECT_EQ(told["tree"][2]["place"], data);
  EXPECT_EQ(told["tree"][2]["rate_hz"], 30000);
  EXPECT_EQ(told["tree"][2]["uv_per_bit"], 0.2);
  EXPECT_EQ(told["tree"][2]["ready"], true);
  EXPECT_FALSE(told["tree"][3].contains("ready"));

  const process_result named =
      run({"info", nwb, "--hdf-path", data, "--rate", "25000", "--scale", "0.5", "--json"});
  EXPECT_EQ(named.status, 0) << named.err;
  const nlohmann::json recording = nlohmann::json::parse(named.out);
  EXPECT_EQ(recording["sampling_frequency"], 25000);
  EXPECT_EQ(recording["uv_per_bit"], 0.5);
  EXPECT_EQ(recording["channels"], 4);
}

TEST_F(hdf_batch_test, the_only_dataset_is_taken_and_several_are_not) {
  nwb_fixture f;
  f.n_samples = 3000;
  make_nwb_file(nwb, f);
  const process_result alone = run({"convert", nwb, tsf});
  EXPECT_EQ(alone.status, 0) << alone.err;
  EXPECT_THAT(alone.err, HasSubstr("Taking the one dataset of voltages, " + data));
  EXPECT_THAT(run({"info", tsf, "--quiet"}).out, HasSubstr("sampling frequency   30000 Hz"));

  f.rate = 0;  // nothing to go by
  make_nwb_file(nwb, f);
  const process_result unknown = run({"convert", nwb, tsf});
  EXPECT_EQ(unknown.status, 1);
  EXPECT_THAT(unknown.err, HasSubstr("--hdf-path PLACE, and give --rate HZ"));
  EXPECT_EQ(run({"convert", nwb, tsf, "--hdf-path", data, "--rate", "20000"}).status, 0);

  const std::string mcs = folder.file("rec.h5");
  {
    hdf_maker maker(mcs);
    for (const char* group : {"/a", "/b"}) {
      maker.numbers(std::string(group) + "/v",
                    {"i16", {2, 3000}, hdf_storage::contiguous, {}, nullptr});
      maker.info_channel(std::string(group) + "/InfoChannel", {{}, {}});
    }
  }
  const process_result several = run({"convert", mcs, tsf, "--answer", "yes"});
  EXPECT_EQ(several.status, 1);
  EXPECT_THAT(several.err, HasSubstr("choose a dataset of voltages with --hdf-path PLACE"));
}

TEST_F(hdf_batch_test, refusals_end_with_1_and_words) {
  make_nwb_file(nwb);
  const std::pair<words, const char*> cases[] = {
      {{"--hdf-path", "/acquisition"}, "Check dimensions"},
      {{"--hdf-path", "/absent"}, "error finding info"},
      {{"--hdf-path", data, "--rate", "199"}, "Please enter a valid sampling rate"},
      {{"--hdf-path", data, "--scale", "much"}, "Please enter a valid voltage scaling value"}};
  for (const auto& [options, said] : cases) {
    words all = {"info", nwb};
    all.insert(all.end(), options.begin(), options.end());
    const process_result result = run(all);
    EXPECT_EQ(result.status, 1) << said;
    EXPECT_THAT(result.err, HasSubstr(said));
    EXPECT_THAT(result.err, HasSubstr("User cancelled operation"));
    EXPECT_EQ(result.out, "");
  }
  const std::string words_in_it = "no container";
  write_bytes(nwb, {words_in_it.begin(), words_in_it.end()});
  const process_result result = run({"info", nwb});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("cannot be opened"));
}

}  // namespace
}  // namespace kestrelvane::test
