// Allocation maps: packing, unpacking, checking, dumping.

#include <cstring>
#include <random>

#include "log_fixture.h"

using kab_test::LogTest;
using kab_test::OpenedGroup;
using sample::LogExtent;
using testing::HasSubstr;

namespace {

constexpr uint64_t kFirstReserved = 0xFFFFFEFFFF5FF;
constexpr uint64_t kSecondReserved = 0xFFFFFF07FF5FF;

class MapTest : public LogTest {
 protected:
  MapTest() {
    image_.Write(plog_);
    opened_ = OpenChosen(true);
  }

  std::vector<uint8_t> Entry(const std::vector<LogExtent>& extents) {
    return sample::WriteEntry(DiskUuid(0), 1, 0, 4096, extents);
  }
  static std::vector<uint8_t> Packed(const std::vector<uint8_t>& entry) { return {entry.begin() + 76, entry.end()}; }

  struct Element {
    uint64_t address;
    uint16_t length;
    bool operator==(const Element&) const = default;
  };
  static std::vector<Element> Elements(const void* map) {
    const auto* bytes = static_cast<const uint8_t*>(map);
    uint16_t count = 0;
    std::memcpy(&count, bytes, 2);
    std::vector<Element> elements(count);
    for (size_t i = 0; i < count; ++i) {
      std::memcpy(&elements[i].address, bytes + 2 + 10 * i, 8);
      std::memcpy(&elements[i].length, bytes + 10 + 10 * i, 2);
    }
    return elements;
  }

  OpenedGroup opened_;
};

TEST_F(MapTest, PackedAndUnpackedAgree) {
  std::mt19937_64 random(3);
  std::vector<LogExtent> extents = {
      {0, 0}, {0x7FFFFFFFFFD, 8191}, {1ULL << 42, 1}, {0xFFFFFFFF, 256}, {1ULL << 32, 255}};
  for (int i = 0; i < 400; ++i) extents.push_back({random() & 0x7FFFFFFFFFF, static_cast<uint16_t>(random() & 8191)});
  const std::vector<uint8_t> entry = Entry(extents);
  void* map = nullptr;
  ASSERT_EQ(SSDLOG_UnpackAllocMapFromEntry(opened_.ssd.get(), entry.data(), &map), 0U);
  const std::vector<Element> elements = Elements(map);
  ASSERT_EQ(elements.size(), extents.size());
  for (size_t i = 0; i < extents.size(); ++i) {
    EXPECT_EQ(elements[i], (Element{extents[i].sector, extents[i].sectors})) << i;
  }
  std::vector<uint8_t> packed(2 + 7 * extents.size());
  std::memcpy(packed.data(), map, 2);
  EXPECT_EQ(KABPackAllocMap(opened_.ssd.get(), map, packed.data()), extents.size());
  EXPECT_EQ(packed, Packed(entry));
  KABFree(&map);
}

TEST_F(MapTest, ReservedAddressesUnpackAndTheFirstRangePacksBack) {
  void* map = nullptr;
  const std::vector<uint8_t> entry = Entry({{sample::kZeroSector, 8}, {sample::kRemovedSector, 16}});
  ASSERT_EQ(SSDLOG_UnpackAllocMapFromEntry(opened_.ssd.get(), entry.data(), &map), 0U);
  EXPECT_EQ(Elements(map),
            (std::vector<Element>{{(kStart + kFirstReserved) * 8, 8}, {(kStart + kSecondReserved) * 8, 16}}));
  EXPECT_EQ(KABSSDLOGCheckAllocMap(opened_.ssd.get(), entry.data()), 1U);

  // The test shifts by 12: it is byte-like addresses that it knows, not the sectors that were unpacked above.
  auto* bytes = static_cast<uint8_t*>(map);
  const uint64_t inFirst = (kStart + kFirstReserved) << 12U;
  const uint64_t below = inFirst - 4096;
  std::memcpy(bytes + 2, &inFirst, 8);
  std::memcpy(bytes + 12, &below, 8);
  std::vector<uint8_t> packed(2 + 14);
  EXPECT_EQ(KABPackAllocMap(opened_.ssd.get(), map, packed.data()), 2U);
  EXPECT_EQ(Elements(map)[0].address, sample::kZeroSector);  // in place
  EXPECT_EQ(Elements(map)[1].address, below);
  EXPECT_EQ(std::vector<uint8_t>(packed.begin() + 2, packed.begin() + 9),
            (std::vector<uint8_t>{0xE0, 8, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
  KABFree(&map);
}

TEST_F(MapTest, CountsAndPlacesAreBounded) {
  const std::vector<LogExtent> most(512, {1, 1});
  std::vector<uint8_t> entry = Entry(most);
  void* map = nullptr;
  EXPECT_EQ(SSDLOG_UnpackAllocMapFromEntry(opened_.ssd.get(), entry.data(), &map), 0U);
  EXPECT_NE(map, nullptr);
  KABFree(&map);

  entry[76] = 1;  // 513
  log_.Clear();
  EXPECT_EQ(SSDLOG_UnpackAllocMapFromEntry(opened_.ssd.get(), entry.data(), &map), 2U);
  EXPECT_EQ(map, nullptr);
  EXPECT_EQ(log_.Text(), std::string(opened_.ssd->uuidText) + ": MetaError: Invalid num elements(513) in alloc map\n");
  EXPECT_EQ(KABSSDLOGCheckAllocMap(opened_.ssd.get(), entry.data()), 0U);

  entry = Entry({{1, 1}});
  entry[76] = 2;  // one more than there is room for
  EXPECT_EQ(SSDLOG_UnpackAllocMapFromEntry(opened_.ssd.get(), entry.data(), &map), 9U);
  const uint32_t hugePayload = 0xFFFFFFF0;
  std::memcpy(entry.data() + 16, &hugePayload, 4);
  EXPECT_EQ(SSDLOG_UnpackAllocMapFromEntry(opened_.ssd.get(), entry.data(), &map), 9U);

  const std::vector<uint8_t> none = sample::BareEntry(DiskUuid(0), 1);
  EXPECT_EQ(SSDLOG_UnpackAllocMapFromEntry(opened_.ssd.get(), none.data(), &map), 0U);
  EXPECT_EQ(map, nullptr);
  EXPECT_EQ(KABSSDLOGCheckAllocMap(opened_.ssd.get(), none.data()), 1U);
}

TEST_F(MapTest, CheckKeepsTheWriteBuffer) {
  const uint64_t first = kStart * 8;
  const uint64_t end = (kStart + kLength) * 8;
  const struct {
    LogExtent extent;
    bool valid;
  } cases[] = {{{first, 1}, true},     {{first - 1, 1}, false},
               {{end - 1, 1}, true},   {{end, 1}, false},
               {{end - 8, 8}, true},   {{end - 8, 9}, false},
               {{first, 0}, false},  // it ends in front of the buffer
               {{first + 1, 0}, true}, {{sample::kZeroSector, 8191}, true}};
  for (const auto& c : cases) {
    const std::vector<uint8_t> entry = Entry({{first, 8}, c.extent});
    EXPECT_EQ(KABSSDLOGCheckAllocMap(opened_.ssd.get(), entry.data()), c.valid ? 1U : 0U)
        << c.extent.sector << "+" << c.extent.sectors;
  }
  EXPECT_EQ(KABSSDLOGCheckAllocMap(opened_.ssd.get(), Entry({}).data()), 0U);
}

TEST_F(MapTest, DumpAddsEveryExtentAndGoesOnAfterAFailure) {
  const uint64_t sector = kStart * 8;
  const std::string dumpPath = dir_.File("dump");
  KABDumpCtx* dump = KABInitDumpFile(dumpPath.c_str(), opened_.paths.ssd.c_str(), opened_.ssd->diskSize);
  ASSERT_NE(dump, nullptr) << log_.Text();
  const std::vector<uint8_t> entry = Entry({{sector, 8}, {1ULL << 40, 8}, {sample::kZeroSector, 8}, {sector + 24, 4}});
  log_.Clear();
  EXPECT_EQ(SSDLOGDumpPackedAllocMap(opened_.ssd.get(), dump, Packed(entry).data()), 0U);
  const std::string lines = log_.Text();
  const std::string line = "Error: Failed to dump allocMap entry, continuing.\n";
  EXPECT_THAT(lines, HasSubstr(line));
  EXPECT_NE(lines.find(line), lines.rfind(line));
  EXPECT_EQ(SSDLOGDumpPackedAllocMap(opened_.ssd.get(), dump, Packed(Entry({{1ULL << 40, 8}})).data()), 2U);
  EXPECT_EQ(SSDLOGDumpPackedAllocMap(opened_.ssd.get(), dump, Packed(Entry({})).data()), 0U);
  std::vector<uint8_t> tooMany = Packed(Entry({{sector, 8}}));
  tooMany[1] = 3;
  EXPECT_EQ(SSDLOGDumpPackedAllocMap(opened_.ssd.get(), dump, tooMany.data()), 2U);
  EXPECT_EQ(KABCloseDumpFile(dump), 0U);
  KABFree(&dump);

  // Two records in the dump: source offset and length lead each.
  const std::vector<uint8_t> file = kab_test::ReadFile(dumpPath);
  ASSERT_GT(file.size(), 4096U);
  KABCompressCtx* stream = KABDecompressInit(static_cast<uint32_t>(open(dumpPath.c_str(), O_RDONLY)), 4096);
  ASSERT_NE(stream, nullptr);
  for (const auto& [offset, length] :
       {std::pair{sample::kDataOffset + sector * 512, 4096U}, {sample::kDataOffset + (sector + 24) * 512, 2048U}}) {
    uint8_t head[12];
    uint64_t foundOffset = 0;
    uint32_t foundLength = 0;
    ASSERT_EQ(KABGetDecompressedData(stream, head, 12), 0U);
    std::memcpy(&foundOffset, head, 8);
    std::memcpy(&foundLength, head + 8, 4);
    EXPECT_EQ(foundOffset, offset);
    ASSERT_EQ(foundLength, length);
    std::vector<uint8_t> data(length);
    ASSERT_EQ(KABGetDecompressedData(stream, data.data(), length), 0U);
    EXPECT_EQ(data, Ssd().GetBytes(offset, length));
  }
  close(static_cast<int>(stream->fd));
  KABDecompressFinish(stream);
  KABFree(&stream->stream);
  KABFree(&stream);
}

}  // namespace
