// Every vector form of the key searches gives the plain form's answers.

#include "zoltcommon/ds/key_search.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

using kab::ds::KeySearch;
using kab::ds::Scan;

TEST(KeySearch, AllFormsAgree) {
  const auto forms = kab::ds::UsableKeySearches();
  std::mt19937_64 random(6);
  for (uint32_t count = 0; count <= 1024; count += count < 140 ? 1 : 97) {
    for (const uint64_t span : {uint64_t{4}, uint64_t{1000}, ~uint64_t{0}}) {
      std::vector<uint64_t> keys(count);
      for (auto& key : keys) key = random() % 16 == 0 ? ~uint64_t{0} - random() % 2 : random() % span;
      std::vector<uint64_t> ascending = keys;
      std::sort(ascending.begin(), ascending.end());
      for (int i = 0; i < 12; ++i) {
        const uint64_t wanted[] = {random() % span, 0, ~uint64_t{0}, count != 0 ? keys[random() % count] : 1};
        const uint64_t key = wanted[i % 4];
        const auto bound = std::lower_bound(ascending.begin(), ascending.end(), key) - ascending.begin();
        const Scan atLeast = forms[0]->atLeast(keys.data(), count, key);
        const Scan atMost = forms[0]->atMost(keys.data(), count, key);
        ASSERT_EQ(atLeast.counted, bound);
        if (atLeast.counted < count) {
          ASSERT_EQ(keys[atLeast.slot], ascending[static_cast<size_t>(bound)]);
        }
        if (atMost.counted > 0) {
          ASSERT_EQ(keys[atMost.slot], ascending[atMost.counted - 1]);
        }
        for (const KeySearch* form : forms) {
          ASSERT_EQ(form->lowerBound(ascending.data(), count, key), bound) << form->name;
          const Scan low = form->atLeast(keys.data(), count, key);
          ASSERT_EQ(low.counted, atLeast.counted) << form->name;
          ASSERT_EQ(low.slot, atLeast.slot) << form->name;
          const Scan high = form->atMost(keys.data(), count, key);
          ASSERT_EQ(high.counted, atMost.counted) << form->name;
          ASSERT_EQ(high.slot, atMost.slot) << form->name;
        }
      }
      std::vector<uint16_t> expected(count);
      for (uint32_t i = 0; i < count; ++i) expected[i] = static_cast<uint16_t>(i);
      std::stable_sort(expected.begin(), expected.end(), [&](uint16_t a, uint16_t b) { return keys[a] < keys[b]; });
      for (const KeySearch* form : forms) {
        std::vector<uint16_t> order(count);
        form->sort(keys.data(), count, order.data());
        ASSERT_EQ(order, expected) << form->name << " " << count;
      }
    }
  }
}

}  // namespace
