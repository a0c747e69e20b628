// The table of a key's live child objects against a plain map, over random
// puts, erases and objects let go: offsets from a small range collide and
// make long runs, which erase must keep searchable.
#include "hive/key/child_objects.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

using Libraries::Files::Hive::ChildObjects;
using Platform::Ref;
using Platform::u32;

struct Child : Platform::Object {};

TEST(ChildObjects, MatchesAMapOfLiveObjects) {
  std::mt19937 random(7);
  ChildObjects<Child> table;
  std::map<u32, Ref<Child>> held;  // what callers still hold, by offset
  for (int step = 0; step < 20000; ++step) {
    const u32 nk = 8 * (random() % 300);
    switch (random() % 4) {
      case 0:
      case 1: {
        Ref<Child> c = Platform::makeRef<Child>();
        table.put(nk, c);
        held[nk] = c;
        break;
      }
      case 2:
        table.erase(nk);
        held.erase(nk);
        break;
      case 3:
        held.erase(nk);  // the object goes while its entry stays
        break;
    }
    if (step % 97 == 0) {
      for (u32 probe = 0; probe < 8 * 300; probe += 8) {
        auto it = held.find(probe);
        ASSERT_EQ(table.find(probe).get(), it == held.end() ? nullptr : it->second.get()) << probe;
      }
    }
    if (step == 15000) {
      table.clear();
      held.clear();
    }
  }
}

}  // namespace
