#include "platform/object.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/mon.h"

namespace {

using Platform::makeRef;
using Platform::Object;
using Platform::Ref;
using Platform::WeakRef;

struct Tracked : Object {
  explicit Tracked(std::atomic<int>* alive) : alive(alive) { ++*alive; }
  ~Tracked() override { --*alive; }
  std::atomic<int>* alive;
};

TEST(ObjectTest, StrongAndWeakReferencesFollowTheLastOwner) {
  std::atomic<int> alive{0};
  WeakRef<Tracked> weak;
  {
    Ref<Tracked> a = makeRef<Tracked>(&alive);
    Ref<Tracked> b = a;
    weak = WeakRef<Tracked>(a);
    EXPECT_EQ(a->refCount(), 2u);
    EXPECT_EQ(weak.lock().get(), a.get());
    a = nullptr;
    EXPECT_TRUE(weak.lock());
    EXPECT_EQ(alive, 1);
  }
  EXPECT_EQ(alive, 0);
  EXPECT_FALSE(weak.lock());
  WeakRef<Tracked> copy = weak;  // copies of an expired reference stay expired
  EXPECT_FALSE(copy.lock());
}

// Many threads turn weak references into strong ones while the owner drops
// the last strong reference: none may see a destroyed object or revive one.
TEST(ObjectTest, WeakUpgradeRacesWithLastRelease) {
  for (int round = 0; round < 200; ++round) {
    std::atomic<int> alive{0};
    Ref<Tracked> owner = makeRef<Tracked>(&alive);
    WeakRef<Tracked> weak(owner);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
      threads.emplace_back([&] {
        while (!go) {
        }
        for (int i = 0; i < 100; ++i) {
          Ref<Tracked> r = weak.lock();
          if (r) {
            EXPECT_EQ(*r->alive, 1);
          }
        }
      });
    go = true;
    owner = nullptr;
    for (auto& t : threads) t.join();
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(weak.lock());
  }
}

TEST(ObjectTest, MonitorIsReentrant) {
  Ref<Platform::Mon> m = Platform::Mon::create();
  Platform::Mon::Lock a(m);
  Platform::Mon::Lock b(m);  // the same thread takes it again without blocking
  SUCCEED();
}

}  // namespace
