// Writes against a plain model of the logical bytes, cut off after every single write to a disk, and on full disks.

#include <map>
#include <set>

#include "ddp/dedup_fixture.h"
#include "support/fault_shim.h"

namespace {

using kab_test::DedupImage;
using kab_test::Shape;
using testing::HasSubstr;
using Bytes = std::vector<uint8_t>;

constexpr uint64_t kBlk = 4096;

class DedupWriteTest : public kab_test::DedupTest {
 protected:
  void TearDown() override { KabFaultPlan(nullptr, nullptr); }

  Bytes Read(uint32_t disk, uint64_t offset, uint64_t length) {
    Bytes buf(length);
    EXPECT_EQ(DDPRead(disks_[disk], buf.data(), static_cast<uint32_t>(length), offset), KAB_OK) << log_.Text();
    return buf;
  }
  uint32_t Write(uint32_t disk, uint64_t offset, const Bytes& bytes) {
    return DDPWrite(disks_[disk], bytes.data(), static_cast<uint32_t>(bytes.size()), offset);
  }

  // A request's bytes: noise, text, zeros and copies of what is there, block by block.
  Bytes Contents(std::mt19937_64& random, uint64_t length) {
    Bytes bytes(length);
    uint64_t kind = 0;
    for (uint64_t i = 0; i < length; ++i) {
      if (i % kBlk == 0) kind = random() % 4;
      bytes[i] = static_cast<uint8_t>(kind == 0 ? 0 : kind == 1 ? "ab c"[random() % 4] : random());
    }
    return bytes;
  }

  // What the layer says of itself, read without the library's translation: every metadata block is whole in both
  // copies, and every unit that a map entry names is in use.
  void CheckMetadata(const DedupImage& image) {
    const DedupImage::Layout& at = image.Place();
    const uint64_t members = disks_.size();
    std::vector<Bytes> files;
    for (const std::string& path : paths_.disks) files.push_back(kab_test::ReadFile(path));
    for (uint32_t disk = 0; disk < members; ++disk) {
      const Bytes& file = files[disk];
      for (uint64_t index = 0; index < at.xmapFull; ++index) {
        const uint64_t place = image.XmapAt(index);
        if (Get(&file[place], 4) != 0xB000DAAA) continue;
        Bytes sealed(file.begin() + static_cast<ptrdiff_t>(place), file.begin() + static_cast<ptrdiff_t>(place + kBlk));
        SealBlk(sealed.data());
        ASSERT_EQ(Get(&file[place + 16], 4), Get(&sealed[16], 4)) << "xmap block " << index;
        for (uint64_t i = 0; i < 225; ++i) {
          const uint8_t* record = &file[place + 46 + 18 * i + 8];
          const uint64_t owner = image.shape().mode == 2 ? record[0] >> 4U : disk;
          const uint64_t first = Get(record + 1, 5) & 0xFFFFFFFFF;
          const uint64_t second = Get(record + 5, 5) >> 4;
          for (const uint64_t unit : {first, second}) {
            if (unit == 0xFFFFFFFFF || first == 0xFFFFFFFFF) continue;
            ASSERT_GE(unit, at.dataStart + 4 * image.shape().expansion);
            const uint64_t bit = unit - at.dataStart;
            const uint8_t byte = files[owner][DedupImage::At(at.bmapStart + bit / 32448) + 40 + bit % 32448 / 8];
            ASSERT_NE(byte >> (bit % 32448 % 8) & 1, 0) << "unit " << bit << " of disk " << owner;
          }
        }
      }
    }
  }
  void CheckSecondCopy(const DedupImage& image) {
    const DedupImage::Layout& at = image.Place();
    if (at.secondary == 0) return;
    for (const std::string& path : paths_.disks) {
      const Bytes file = kab_test::ReadFile(path);
      const auto same = [&](uint64_t a, uint64_t b, uint64_t blks) {
        return std::memcmp(&file[DedupImage::At(a)], &file[DedupImage::At(b)], blks * kBlk) == 0;
      };
      EXPECT_TRUE(same(at.bmapStart, at.secondary + at.bmapStart, at.xmapStart + at.xmapSize - at.bmapStart));
      const uint64_t expansion = image.shape().expansion;
      EXPECT_TRUE(expansion == 0 || same(at.dataStart, at.dataStart + expansion, expansion));
    }
  }
  uint64_t UnitsInUse(const DedupImage& image, uint32_t disk) {
    const Bytes file = kab_test::ReadFile(paths_.disks[disk]);
    uint64_t used = 0;
    for (uint64_t blk = 0; blk < image.Place().bmapSize; ++blk) {
      for (uint64_t i = 40; i < kBlk; ++i) {
        used += static_cast<uint64_t>(__builtin_popcount(file[DedupImage::At(image.Place().bmapStart + blk) + i]));
      }
    }
    return used;
  }
};

TEST_F(DedupWriteTest, RandomWritesMatchThePlainModel) {
  const Shape shapes[] = {{.mode = 1, .disks = 1, .mdr = false},
                          {.mode = 1, .disks = 2, .hashMap = false, .expansion = 59},
                          {.mode = 2, .disks = 3, .expansion = 59}};
  for (const Shape& shape : shapes) {
    DedupImage image(shape);
    image.StoreMixture(240, 3);  // more than one map block, and the next ones fresh
    Open(image);
    const uint64_t span = 500 * kBlk;
    const uint64_t late = (image.Place().xmapFull - 1) * 225 * kBlk;  // the last map block
    std::vector<Bytes> early;
    std::vector<Bytes> last(shape.disks, Bytes(20 * kBlk));
    for (uint32_t disk = 0; disk < shape.disks; ++disk) {
      early.push_back(image.Plain(disk));
      early.back().resize(span);
    }
    std::mt19937_64 random(11);
    for (int round = 0; round < 250; ++round) {
      const auto disk = static_cast<uint32_t>(random() % shape.disks);
      const bool atEnd = round % 6 == 0;
      Bytes& model = (atEnd ? last : early)[disk];
      const uint64_t base = atEnd ? late : 0;
      const uint64_t at = random() % model.size();
      const uint64_t length = std::min<uint64_t>(1 + random() % (round % 4 == 0 ? 40000 : 6000), model.size() - at);
      Bytes bytes = Contents(random, length);
      if (round % 9 == 0) {  // what another block holds already
        const uint64_t from = random() % (model.size() - length + 1);
        std::copy_n(model.begin() + static_cast<ptrdiff_t>(from), length, bytes.begin());
      }
      ASSERT_EQ(Write(disk, base + at, bytes), KAB_OK) << log_.Text();
      std::copy(bytes.begin(), bytes.end(), model.begin() + static_cast<ptrdiff_t>(at));
    }
    EXPECT_EQ(log_.Text(), "");
    CheckMetadata(image);
    CheckSecondCopy(image);
    OpenDisks();
    for (uint32_t disk = 0; disk < shape.disks; ++disk) {
      EXPECT_TRUE(Read(disk, 0, span) == early[disk]);
      EXPECT_TRUE(Read(disk, late, last[disk].size()) == last[disk]);
    }
  }
}

TEST_F(DedupWriteTest, CutOffAfterAnyWriteEveryBlockIsOldOrNew) {
  const Shape shapes[] = {{.mode = 1, .disks = 1, .diskSize = 8 << 20, .mdr = false},
                          {.mode = 2, .disks = 2, .diskSize = 8 << 20, .expansion = 22}};
  std::mt19937_64 random(17);
  for (const Shape& shape : shapes) {
    DedupImage image(shape);
    image.StoreMixture(240, 6);
    if (shape.mode == 2) image.FillUp(6);  // units must come from both members, and be given back on the way
    Open(image);
    std::vector<Bytes> whole;
    for (const std::string& path : paths_.disks) whole.push_back(kab_test::ReadFile(path));
    const auto restore = [&] {
      Close();
      for (size_t disk = 0; disk < whole.size(); ++disk) kab_test::WriteFile(paths_.disks[disk], whole[disk]);
      OpenDisks();
    };
    for (int round = 0; round < 4; ++round) {
      restore();
      // Across the border of two map blocks, beginning and ending within a block.
      const uint64_t at = (225 - 4) * kBlk + random() % kBlk;
      const Bytes bytes = Contents(random, 7 * kBlk + random() % kBlk);
      const uint64_t start = 215 * kBlk;
      const uint64_t span = 25 * kBlk;
      std::vector<Bytes> old;
      for (uint32_t disk = 0; disk < shape.disks; ++disk) old.push_back(Read(disk, start, span));
      Bytes next = old[0];
      std::copy(bytes.begin(), bytes.end(), next.begin() + static_cast<ptrdiff_t>(at - start));

      // From one write on nothing gets through; or that one does by half; or it alone does not.
      const bool torn = round == 2;
      const bool once = round == 3;
      uint32_t cuts = 0;
      for (uint32_t cut = 1;; ++cut) {
        restore();
        std::string plan = "pwrite@" + std::to_string(cut) + (torn ? "=short" : once ? "=EIO" : "+=EIO");
        if (torn) plan += ",pwrite@" + std::to_string(cut + 1) + "+=EIO";
        KabFaultPlan(plan.c_str(), nullptr);
        const uint32_t st = Write(0, at, bytes);
        const unsigned long calls = KabFaultCalls("pwrite");
        KabFaultPlan(nullptr, nullptr);
        OpenDisks();
        const Bytes got = Read(0, start, span);
        for (uint64_t blk = 0; blk < span; blk += kBlk) {
          const bool isOld = std::equal(&got[blk], &got[blk] + kBlk, &old[0][blk]);
          const bool isNew = std::equal(&got[blk], &got[blk] + kBlk, &next[blk]);
          ASSERT_TRUE(isOld || isNew) << "cut " << cut << ", block " << blk / kBlk;
        }
        for (uint32_t disk = 1; disk < shape.disks; ++disk) ASSERT_TRUE(Read(disk, start, span) == old[disk]) << cut;
        if (torn && calls >= cut) {
          EXPECT_NE(st, KAB_OK) << cut;
          ++cuts;
          continue;
        }
        CheckMetadata(image);
        if (calls < cut) {
          // Nothing was cut off: the request may have met a full group, but then it said so.
          EXPECT_TRUE(st == KAB_OK || st == KAB_GENERAL_FAILURE) << st;
          if (st == KAB_OK) {
            EXPECT_TRUE(got == next);
          }
          CheckSecondCopy(image);
          break;
        }
        ++cuts;
      }
      EXPECT_GT(cuts, 3U);
    }
  }
}

TEST_F(DedupWriteTest, AFullRegionKeepsTheOldContents) {
  DedupImage image({.mode = 1, .disks = 1});
  image.StoreMixture(100, 8);
  image.FillUp(3);
  Open(image);
  std::mt19937_64 random(1);
  Bytes model = image.Plain(0);
  model.resize(110 * kBlk);
  const auto noise = [&] {
    Bytes block(kBlk);
    for (uint8_t& byte : block) byte = static_cast<uint8_t>(random());
    return block;
  };
  // Three units: one incompressible block on a hole, one compressed block; then nothing more fits.
  Bytes bytes = noise();
  const Bytes second = noise();
  const Bytes text(kBlk, 't');
  bytes.insert(bytes.end(), second.begin(), second.end());
  EXPECT_EQ(Write(0, 100 * kBlk, bytes), KAB_GENERAL_FAILURE);
  EXPECT_EQ(log_.Text(), std::string(disks_[0]->uuidText) + ": Error: No free units left, block at offset " +
                             std::to_string(101 * kBlk) + " is not written\n");
  std::copy_n(bytes.begin(), kBlk, model.begin() + 100 * kBlk);
  EXPECT_TRUE(Read(0, 0, model.size()) == model);
  EXPECT_EQ(Write(0, 102 * kBlk, text), KAB_OK);  // the single unit that was left
  std::copy(text.begin(), text.end(), model.begin() + 102 * kBlk);
  EXPECT_EQ(Write(0, 103 * kBlk, text), KAB_GENERAL_FAILURE);
  EXPECT_EQ(Write(0, 100 * kBlk, noise()), KAB_GENERAL_FAILURE);
  EXPECT_TRUE(Read(0, 0, model.size()) == model);

  // Zeros need no unit and give two back; these take another block.
  EXPECT_EQ(Write(0, 100 * kBlk, Bytes(kBlk)), KAB_OK);
  std::fill_n(model.begin() + 100 * kBlk, kBlk, uint8_t{0});
  EXPECT_EQ(Write(0, 104 * kBlk, second), KAB_OK) << log_.Text();
  std::copy(second.begin(), second.end(), model.begin() + 104 * kBlk);
  EXPECT_TRUE(Read(0, 0, model.size()) == model);
  CheckMetadata(image);
}

TEST_F(DedupWriteTest, TheExpansionOfTheMapIsNeverHandedOut) {
  DedupImage image({.mode = 1, .disks = 1, .expansion = 20});
  for (uint64_t i = 40; i < kBlk; ++i) image.Disk(0).Put8(DedupImage::At(image.Place().bmapStart) + i, 0);
  Open(image);
  std::mt19937_64 random(2);
  const Bytes bytes = Contents(random, 60 * kBlk);
  EXPECT_EQ(Write(0, 0, bytes), KAB_OK);
  EXPECT_TRUE(Read(0, 0, bytes.size()) == bytes);
  CheckMetadata(image);
}

TEST_F(DedupWriteTest, UnitsAreGivenBackOnlyWhenNothingRefersToThem) {
  for (const uint32_t mode : {1U, 2U}) {
    DedupImage image({.mode = mode, .disks = 2});
    const Bytes text(kBlk, 'q');
    image.Store(0, 0, text, 1);
    image.Store(1, 9, text, 1);  // in mode 2 the same unit
    Open(image);
    const auto used = [&] { return UnitsInUse(image, 0) + UnitsInUse(image, 1); };
    const uint64_t before = used();
    const Bytes other(kBlk, 'w');
    EXPECT_EQ(Write(0, 0, other), KAB_OK);
    // In mode 2 another disk's map and the hash map still name the unit.
    EXPECT_EQ(used(), mode == 1 ? before : before + 1);
    EXPECT_EQ(Read(1, 9 * kBlk, kBlk), text);
    EXPECT_EQ(Write(0, 0, text), KAB_OK);
    EXPECT_EQ(used(), mode == 1 ? before : before + 1);
    EXPECT_EQ(Write(0, 0, Bytes(kBlk)), KAB_OK);
    EXPECT_EQ(used(), mode == 1 ? before - 1 : before);
    if (mode == 2) {  // with a member missing nobody can know
      EXPECT_EQ(Write(0, 0, text), KAB_OK);
      CloseDisk(1);
      EXPECT_EQ(Write(0, 0, Bytes(kBlk)), KAB_OK);
      EXPECT_EQ(used(), before + 1);
    }
    EXPECT_EQ(log_.Text(), "");
  }
}

TEST_F(DedupWriteTest, ADamagedMapMayHideAReference) {
  const Bytes text(kBlk, 'q');
  for (const uint32_t spoilt : {0U, 4U, 5U}) {  // none, hash map, translation map
    DedupImage image({.mode = 2, .disks = 2});
    image.Store(1, 225, Bytes(kBlk, 'w'), 1);
    image.Seal();
    const uint64_t hashMap = DedupImage::At(image.Place().hmapStart);
    if (spoilt != 0) image.Disk(1).Flip((spoilt == 4 ? hashMap : image.XmapAt(1)) + 4000, 1);
    Open(image, false);
    const auto used = [&] { return UnitsInUse(image, 0) + UnitsInUse(image, 1); };
    const uint64_t before = used();
    EXPECT_EQ(Write(0, 0, text), KAB_OK);
    EXPECT_EQ(used(), before + 1);
    EXPECT_EQ(Write(0, 0, Bytes(kBlk)), KAB_OK);
    EXPECT_EQ(used(), spoilt == 0 ? before : before + 1) << spoilt;
  }
}

TEST_F(DedupWriteTest, WhatALongWriteGaveBackIsFoundAgain) {
  // Nine map blocks of incompressible blocks, and as many units free as they take: the tenth needs those given back.
  constexpr uint64_t kBlks = 9 * 225;
  DedupImage image({.mode = 1, .disks = 1, .diskSize = 32ULL << 20});
  std::mt19937_64 random(3);
  const auto fill = [&](Bytes& bytes) {
    for (size_t at = 0; at < bytes.size(); at += 8) Put(&bytes[at], 8, random());
  };
  Bytes block(kBlk);
  for (uint64_t blk = 0; blk < kBlks; ++blk) {
    fill(block);
    image.Store(0, blk, block, 0);
  }
  image.FillUp(2 * kBlks);
  Open(image);
  Bytes bytes((kBlks + 1) * kBlk);
  fill(bytes);
  EXPECT_EQ(Write(0, 0, bytes), KAB_OK) << log_.Text();
  EXPECT_TRUE(Read(0, 0, bytes.size()) == bytes);
  CheckMetadata(image);
}

TEST_F(DedupWriteTest, DamageIsNotWrittenOver) {
  const Bytes text(kBlk, 'd');
  {
    DedupImage image({.mode = 1, .disks = 1});
    image.Store(0, 3, text, 0);
    image.Seal();
    image.Disk(0).Flip(image.EntryAt(200), 1);  // a mapping nobody asks for; the checksum tells
    Open(image, false);
    EXPECT_EQ(Write(0, 0, text), KAB_BLOCK_INVALID);
    EXPECT_THAT(log_.Text(), HasSubstr(": MetaError: XMap block 0 is damaged, it is not written to\n"));
  }
  {
    DedupImage image({.mode = 1, .disks = 1});
    image.Seal();
    image.Disk(0).Flip(DedupImage::At(image.Place().bmapStart) + 2000, 1);
    Open(image, false);
    EXPECT_EQ(Write(0, 0, text), KAB_GENERAL_FAILURE);
    EXPECT_THAT(log_.Text(), HasSubstr(": MetaError: Bitmap block 0 is damaged, its units are taken for in use\n"));
  }
  // Regions that overlap, or a superblock that is not whole.
  const std::pair<uint32_t, uint64_t> forged[] = {{132, 3},          {148, 16},    {116, ~0ULL},     {124, 1ULL << 40},
                                                  {164, 1ULL << 50}, {261, ~0ULL}, {156, 1ULL << 60}};
  for (const auto& [offset, value] : forged) {
    DedupImage image({.mode = 2, .disks = 1});
    image.Disk(0).Put64(DedupImage::At(0) + offset, value);
    Open(image);
    const Bytes before = kab_test::ReadFile(paths_.disks[0]);
    EXPECT_EQ(Write(0, 0, text), KAB_BLOCK_INVALID) << offset;
    EXPECT_THAT(log_.Text(), HasSubstr("are not laid out soundly")) << offset;
    EXPECT_TRUE(kab_test::ReadFile(paths_.disks[0]) == before);
  }
}

TEST_F(DedupWriteTest, Limits) {
  DedupImage image({.mode = 2, .disks = 2});
  Open(image);
  const Bytes text(2 * kBlk, 'd');
  const uint64_t end = image.Place().xmapFull * 225 * kBlk;
  EXPECT_EQ(Write(0, end - kBlk, text), KAB_INVALID_ARGUMENT);
  EXPECT_THAT(log_.Text(), HasSubstr("lies beyond the translation map\n"));
  EXPECT_EQ(Read(0, end - kBlk, kBlk), Bytes(kBlk, 'd'));  // the block before the end is there
  EXPECT_EQ(Write(0, ~0ULL - 5, text), KAB_INVALID_ARGUMENT);
  EXPECT_EQ(DDPWrite(disks_[0], nullptr, 0, 0), KAB_OK);
  KABDiskCtx* group = std::exchange(disks_[0]->group, nullptr);
  EXPECT_EQ(Write(0, 0, text), KAB_NOT_SUPPORTED);
  disks_[0]->group = group;
}

}  // namespace
