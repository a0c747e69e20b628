#include "platform/chunked_vector.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

using Platform::ChunkedVector;
using Platform::u32;

// Random insertions, removals and reads against a plain vector, long enough
// that chunks fill, split and empty again.
TEST(ChunkedVector, BehavesAsAVector) {
  ChunkedVector<u32> chunked;
  std::vector<u32> model;
  std::mt19937 rng(3);
  for (u32 step = 0; step < 20000; ++step) {
    const u32 op = rng() % 8;
    if (op < 5 || model.empty()) {
      // Mostly in order at the end, sometimes anywhere, as keys are added.
      const size_t at = op == 0 ? model.size() : rng() % (model.size() + 1);
      chunked.insert(at, step);
      model.insert(model.begin() + at, step);
    } else if (op < 7) {
      const size_t at = rng() % model.size();
      chunked.erase(at);
      model.erase(model.begin() + at);
    } else {
      const size_t at = rng() % model.size();
      ASSERT_EQ(chunked[at], model[at]) << "step " << step;
      chunked[at] = step;
      model[at] = step;
    }
    ASSERT_EQ(chunked.size(), model.size());
  }
  std::vector<u32> walked;
  chunked.forEach([&](u32 v) { walked.push_back(v); });
  EXPECT_EQ(walked, model);
  walked.clear();
  chunked.forRange(17, 1000, [&](size_t position, u32 v) {
    EXPECT_EQ(v, model[position]);
    walked.push_back(v);
  });
  EXPECT_EQ(walked.size(), 1000u);

  chunked.assign(std::vector<u32>(model.begin(), model.end()));
  for (size_t i = 0; i < model.size(); ++i) ASSERT_EQ(chunked[i], model[i]);
  chunked.clear();
  EXPECT_TRUE(chunked.empty());
}

}  // namespace
