// Fixed hives the fuzz targets and the seed writer share, made through the
// public API so that they need nothing beyond the library.
#pragma once

#include <vector>

#include "hive/format/format.h"
#include "hive/hive_file.h"
#include "platform/memory_stripe.h"

namespace hivekit::fuzz {

// A hive of a few hbins (a db value spreads over several), flushed, then
// marked dirty: primary sequence 2, secondary 1. Built once per process.
inline const std::vector<Platform::u8>& dirtyHive() {
  namespace Hive = Libraries::Files::Hive;
  using Platform::Ref;
  using Platform::String;
  static const std::vector<Platform::u8> image = [] {
    Ref<Platform::MemoryStripe> stripe = Platform::MemoryStripe::create();
    {
      Ref<Hive::HiveFile> hive = Hive::HiveFile::create(stripe, 5, Hive::latin1, {});
      if (!hive) __builtin_trap();
      Ref<Hive::Key> root = hive->root();
      Ref<Hive::Key> a = root->createKey(String::create("alpha"));
      Ref<Hive::Key> b = root->createKey(String::create("beta"));
      Ref<Hive::Key> c = a ? a->createKey(String::create("gamma")) : nullptr;
      if (!a || !b || !c) __builtin_trap();
      if (Ref<Hive::Value> v = a->createValue(String::create("text"), 1))
        v->setString(String::create("hello"));
      if (Ref<Hive::Value> v = b->createValue(String::create("n"), 4)) v->setNumber(7);
      if (Ref<Hive::Value> v = c->createValue(String::create("big"), 3)) {
        Ref<Interfaces::Stripe> data = v->binary();
        std::vector<Platform::u8> bytes(16400, 0x5a);
        data->setElementCount(bytes.size());
        data->writeAt(0, bytes.data(), bytes.size());
      }
      if (!hive->flush()) __builtin_trap();
    }
    std::vector<Platform::u8> bytes = stripe->bytes();
    Platform::W32(bytes.data() + Hive::hive_header::OFS_PRIMARY_SEQ, 2);
    Platform::W32(bytes.data() + Hive::hive_header::OFS_SECONDARY_SEQ, 1);
    Platform::W32(bytes.data() + Hive::hive_header::OFS_CHECKSUM,
                  Hive::calculateHeaderChecksum(bytes.data()));
    return bytes;
  }();
  return image;
}

}  // namespace hivekit::fuzz
