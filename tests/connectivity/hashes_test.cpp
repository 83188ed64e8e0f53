#include <limits>
#include <stdexcept>

#include <gtest/gtest.h>

#include "connectivity/data_t.hpp"
#include "tests/connectivity/HostCalls.hpp"
#include "tests/connectivity/IteratorChecks.hpp"

// The known answers below were computed by an independent implementation of MurmurHash64A.

namespace connectivity {
namespace {

using connectivity_test::HostCalls;
using connectivity_test::IteratorChecksOff;
using connectivity_test::IteratorChecksOn;
using hashes::hash;
using hashes::hashSeed;

std::uint64_t hashWith(const data_t& value, std::uint64_t seed) {
  return value.apply_visitor(hashes::calculate_hash(seed));
}

data_t listOf(std::initializer_list<int> numbers) {
  list_t list;
  for (const int number : numbers) list.push_back(data_t(number));
  return data_t(std::move(list));
}

data_t buffer(std::string_view bytes) { return data_t(buffer_t::copyOf(bytes)); }

data_t customValue() {
  static int object = 0;
  static constexpr qor_custom_operations_t operations = {nullptr, [](void*) {}, nullptr};
  return data_t(custom_t(qor_allocate_custom(&object, &operations)));
}

TEST(Hash, OfAnEmptyValueIsTheSeed) {
  EXPECT_EQ(hashWith(data_t(), 99), 99U);
  EXPECT_EQ(hash(data_t()), 0x243FCAF1U);
}

// Not symmetric on purpose.
TEST(Hash, OfTrueIsTheSeedAndOfFalseItsComplement) {
  EXPECT_EQ(hashWith(data_t(true), 99), 99U);
  EXPECT_EQ(hashWith(data_t(false), 99), ~std::uint64_t{99});
}

TEST(Hash, OfIntegersHasTheKnownAnswers) {
  EXPECT_EQ(hash(data_t(0)), 0xD3A7101D1B4EBC20U);
  EXPECT_EQ(hash(data_t(1)), 0x47F9AF630B2E90D9U);
  EXPECT_EQ(hash(data_t(-1)), 0x099C106FDB5F42E2U);
  EXPECT_EQ(hash(data_t(42)), 0xA9053146CB5F81D3U);
  EXPECT_EQ(hash(data_t(std::numeric_limits<long long>::min())), 0x06CC54986EDB0700U);
  EXPECT_EQ(hash(data_t(std::numeric_limits<long long>::max())), 0x1202FA480D67EA60U);
}

TEST(Hash, OfNumbersDependsOnTheSeed) {
  EXPECT_EQ(hashWith(data_t(0), 7), 0x336C492FEBAA7F0DU);
  EXPECT_EQ(hashWith(data_t(1), 7), 0x8F44699B38E45DBBU);
  EXPECT_EQ(hashWith(data_t(42), 7), 0x1299F151844A5200U);
}

TEST(Hash, OfADecimalIsThatOfItsRawBits) {
  EXPECT_EQ(hash(data_t(decimal_t{42})), hash(data_t(42)));
}

TEST(Hash, OfDoublesHasTheKnownAnswers) {
  EXPECT_EQ(hash(data_t(1.5)), 0x3B850963FC2E9208U);
  EXPECT_EQ(hash(data_t(-1.5)), 0xA3E30962D0096C6CU);
  EXPECT_EQ(hash(data_t(1e300)), 0x1364D316D48C971AU);
}

TEST(Hash, OfZeroAndNegativeZeroIsOne) {
  EXPECT_EQ(hash(data_t(0.0)), hash(data_t(-0.0)));
  EXPECT_EQ(hash(data_t(0.0)), 0xD3A7101D1B4EBC20U);
}

TEST(Hash, OfAStringIsTheHostsAndIgnoresTheSeed) {
  EXPECT_EQ(hashWith(data_t("text"), 99), qor_hash_string("text"));
  EXPECT_EQ(hashWith(data_t::borrow("text"), 98), qor_hash_string("text"));
}

TEST(Hash, OfBuffersHasTheKnownAnswersForEveryTailLength) {
  EXPECT_EQ(hash(buffer("")), 0xE36925AE8296B197U);
  EXPECT_EQ(hash(buffer("a")), 0x60455235038D56CBU);
  EXPECT_EQ(hash(buffer("hello")), 0x31A36A030D929A32U);
  EXPECT_EQ(hash(buffer("1234567")), 0x67AD0B7AC7B47E3BU);
  EXPECT_EQ(hash(buffer("12345678")), 0x2847553AD2943424U);
  EXPECT_EQ(hash(buffer("123456789")), 0x6D6E5B1449AC5601U);
  EXPECT_EQ(hash(buffer("The quick brown fox jumps over the lazy dog")), 0xD707A1A901AC9F36U);
}

TEST(Hash, OfABufferIgnoresTheSeed) {
  EXPECT_EQ(hashWith(buffer("hello"), 99), 0x31A36A030D929A32U);
}

TEST(Hash, OfANullBufferIsThatOfLengthZero) {
  EXPECT_EQ(hash(data_t(buffer_t())), 0xE36925AE8296B197U);
}

TEST(Hash, OfAListChainsItsElementsFromTheSeedOfKeys) {
  EXPECT_EQ(hash(listOf({1})), 0x47F9AF630B2E90D9U);
  EXPECT_EQ(hash(listOf({1, 2, 3})), 0xC442F3800AFE7E18U);
  EXPECT_EQ(hashWith(listOf({1, 2, 3}), 99), 0xC442F3800AFE7E18U);
}

TEST(Hash, OfAnEmptyListIsTheSeedOfKeys) {
  EXPECT_EQ(hashWith(data_t(list_t()), 99), hashSeed);
  EXPECT_EQ(hashWith(data_t(list_t(qor_allocate_list(4))), 99), hashSeed);
}

TEST(Hash, OfAMapIsTheSumOverItsEntries) {
  map_t map;
  EXPECT_EQ(hash(map), hashSeed);
  map.insert(data_t(1), data_t(2));
  EXPECT_EQ(hash(map), 0x2C1EA147859039BCU);
  EXPECT_EQ(hashWith(data_t(std::move(map)), 99), 0x2C1EA147859039BCU);
}

TEST(Hash, OfAMapDoesNotDependOnItsHistory) {
  map_t grown;
  for (int key = 0; key < 40; ++key) grown.insert(data_t(key), data_t(key));
  for (int key = 5; key < 40; ++key) {
    const data_t sought(key);
    grown.erase(grown.find_for_insert(sought, hash(sought)).first);
  }
  map_t small;
  for (int key = 4; key >= 0; --key) small.insert(data_t(key), data_t(key));
  EXPECT_NE(grown.table()->capacity, small.table()->capacity);
  EXPECT_EQ(hash(grown), hash(small));
  EXPECT_TRUE(grown == small);
}

TEST(Hash, OfBothKindsOfStringIsOneThoughTheyAreNotEqual) {
  EXPECT_EQ(hash(data_t("text")), hash(data_t::borrow("text")));
  EXPECT_FALSE(data_t("text") == data_t::borrow("text"));
}

TEST(Hash, OfATagAboveTenIsTheSeed) {
  qor_data_t raw{};
  raw.tag = 11;
  EXPECT_EQ(hashWith(data_t(raw), 99), 99U);
}

void expectRefusedAsKey(const data_t& value) {
  try {
    hash(value);
    FAIL() << "no failure";
  } catch (const std::runtime_error& failure) {
    EXPECT_STREQ(failure.what(), "Cannot use custom values as a key");
  }
}

TEST(Hash, RefusesACustomValueDirectlyAndInsideListsAndMaps) {
  expectRefusedAsKey(customValue());
  list_t list;
  list.push_back(customValue());
  expectRefusedAsKey(data_t(std::move(list)));
  map_t map;
  map.insert(data_t("key"), customValue());
  expectRefusedAsKey(data_t(std::move(map)));
}

// --- A list or map that changes while it is hashed -----------------------------------------------

TEST(Hash, NoticesAListThatChangesMeanwhile) {
  const IteratorChecksOn on;
  list_t list;
  for (int count = 0; count < 3; ++count) list.push_back(data_t("text"));
  HostCalls calls;
  calls.onHash = [&list] { list.push_back(data_t(1)); };
  try {
    hashes::calculate_hash()(list);
    FAIL() << "no failure";
  } catch (const std::runtime_error& failure) {
    EXPECT_STREQ(failure.what(), "Iterator invalidated by modifying list");
  }
}

TEST(Hash, GoesOnOverAChangedListWhereTheChecksAreOff) {
  const IteratorChecksOff off;
  list_t list;
  list.push_back(data_t("text"));
  HostCalls calls;
  calls.onHash = [&list] { list.push_back(data_t(1)); };
  const std::uint64_t first = qor_hash_string("text");
  EXPECT_EQ(list.size(), 2U);
  calls.onHash = [&list] {
    if (list.size() < 3) list.push_back(data_t(1));
  };
  const std::uint64_t second = hashWith(data_t(1), first);
  EXPECT_EQ(hashes::calculate_hash()(list), hashWith(data_t(1), second));
}

TEST(Hash, NoticesAMapThatChangesMeanwhile) {
  const IteratorChecksOn on;
  map_t map;
  map.insert(data_t("a"), data_t(1));
  HostCalls calls;
  calls.onHash = [&map] { map.insert(data_t(1), data_t(1)); };
  try {
    hash(map);
    FAIL() << "no failure";
  } catch (const std::runtime_error& failure) {
    EXPECT_STREQ(failure.what(), "Iterator invalidated by modifying map");
  }
}

}  // namespace
}  // namespace connectivity
