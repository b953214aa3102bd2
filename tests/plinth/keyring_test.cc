// The default door: keys from the kernel's own keyring where the host has no key cache.

#include <gtest/gtest.h>
#include <keyutils.h>

#include <cstring>

#include "kab/core.h"
#include "kab/crypto.h"
#include "support/log_capture.h"

namespace {

class KeyringTest : public testing::Test {
 protected:
  void SetUp() override {
    serial_ = Add("arvo:kab-test-disk", 64);
    if (serial_ == -1) GTEST_SKIP() << "no kernel keyring here: " << std::strerror(errno);
  }
  void TearDown() override {
    for (const key_serial_t serial : {serial_, shortSerial_}) {
      if (serial != -1) keyctl_unlink(serial, KEY_SPEC_PROCESS_KEYRING);
    }
  }
  static key_serial_t Add(const char* description, size_t length) {
    char payload[64];
    for (size_t i = 0; i < length; ++i) payload[i] = static_cast<char>(i);
    return add_key("user", description, payload, length, KEY_SPEC_PROCESS_KEYRING);
  }

  kab_test::LogCapture log_;
  key_serial_t serial_ = -1;
  key_serial_t shortSerial_ = -1;
};

TEST_F(KeyringTest, FindsAKeyOfTheRightLengthByName) {
  KABDiskCtx disk{};
  std::strcpy(disk.uuidText, "kab-test-disk");
  uint8_t dek[64] = {};
  ASSERT_EQ(KABGetDekForDisk(&disk, dek, sizeof dek), KAB_OK) << log_.Text();
  for (int i = 0; i < 64; ++i) EXPECT_EQ(dek[i], i);

  std::strcpy(disk.uuidText, "kab-test-nobody");
  EXPECT_EQ(KABGetDekForDisk(&disk, dek, sizeof dek), KAB_NOT_FOUND);
  EXPECT_GT(errno, 0);  // a reason that strerror knows

  shortSerial_ = Add("arvo:kab-test-short", 63);
  std::strcpy(disk.uuidText, "kab-test-short");
  EXPECT_EQ(KABGetDekForDisk(&disk, dek, sizeof dek), KAB_NOT_FOUND);
}

}  // namespace
