// Typed options out of a map: what is taken, what is refused, and with which words.
#include "plugins/http_client/config/OptionReader.hpp"

#include <array>
#include <limits>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/Messages.hpp"

namespace connectivity::plugins {
namespace {

using test_support::Config;
using test_support::textValue;

OptionReader readerOf(const Config& config) { return {"Thing", config.map()}; }

template <typename Action>
std::string errorOf(Action&& action) {
  try {
    action();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "(no error)";
}

TEST(OptionReader, TakesATextAndWhatHasOne) {
  auto reader =
      readerOf(Config().set("a", "text").set("b", 42).set("c", true).set("d", data_t(1.5)));
  EXPECT_EQ(reader.text("a"), "text");
  EXPECT_EQ(reader.text("b"), "42");
  EXPECT_EQ(reader.text("c"), "true");
  EXPECT_EQ(reader.text("d"), "1.5");
  EXPECT_EQ(reader.text("absent", "default"), "default");
}

TEST(OptionReader, TakesABorrowedText) {
  auto reader = readerOf(Config().set("a", data_t::borrow("lent")));
  EXPECT_EQ(reader.text("a"), "lent");
}

TEST(OptionReader, FindsABorrowedKey) {
  map_t map;
  map.insert(data_t::borrow("a"), textValue("found"));
  OptionReader reader("Thing", map);
  EXPECT_EQ(reader.text("a"), "found");
  EXPECT_NO_THROW(reader.finish());
}

TEST(OptionReader, RefusesATextThatIsNone) {
  EXPECT_EQ(errorOf([] { readerOf(Config().set("a", data_t(map_t()))).text("a"); }),
            "Thing a must be a string but it's actually map");
  EXPECT_EQ(errorOf([] { readerOf(Config().set("a", data_t(decimal_t()))).text("a"); }),
            "Thing a must be a string but it's actually decimal");
  EXPECT_EQ(errorOf([] { readerOf(Config().set("a", data_t())).text("a"); }),
            "Thing a must be a string but it's actually null");
}

TEST(OptionReader, TakesAnIntegerAndATextThatIsOneFromEndToEnd) {
  auto reader = readerOf(Config().set("a", 7).set("b", "-12"));
  EXPECT_EQ(reader.integer("a", 0), 7);
  EXPECT_EQ(reader.integer("b", 0), -12);
  EXPECT_EQ(reader.integer("absent", 99), 99);
}

TEST(OptionReader, RefusesAnIntegerThatIsNone) {
  for (const char* text : {"", "x", "12x", " 12", "1.0", "9223372036854775808x", "+1"}) {
    EXPECT_EQ(errorOf([&] { readerOf(Config().set("a", text)).integer("a", 0); }),
              "Thing a must be an integer but it's actually string")
        << text;
  }
  EXPECT_EQ(errorOf([] { readerOf(Config().set("a", true)).integer("a", 0); }),
            "Thing a must be an integer but it's actually boolean");
  EXPECT_EQ(errorOf([] { readerOf(Config().set("a", data_t(1.0))).integer("a", 0); }),
            "Thing a must be an integer but it's actually double");
  EXPECT_EQ(errorOf([] { readerOf(Config().set("a", data_t())).integer("a", 0); }),
            "Thing a must be an integer but it's actually null");
}

TEST(OptionReader, SaysThatAnIntegerIsOutsideTheRangeOf64Bits) {
  for (const std::string text : {"9223372036854775808", "-9223372036854775809"}) {
    EXPECT_EQ(errorOf([&] {
                readerOf(Config().set("a", text)).integer("a", 0, {1, 5});
              }),
              "Thing a \"" + text + "\" is outside the range of 64 bits");
  }
  EXPECT_EQ(readerOf(Config().set("a", "-9223372036854775808")).integer("a", 0),
            std::numeric_limits<std::int64_t>::min());
}

TEST(OptionReader, TakesBothEndsOfARange) {
  auto reader = readerOf(Config().set("a", 1).set("b", "3"));
  EXPECT_EQ(reader.integer("a", 0, {1, 3}), 1);
  EXPECT_EQ(reader.integer("b", 0, {1, 3}), 3);
}

TEST(OptionReader, RefusesWhatIsOutsideARange) {
  EXPECT_EQ(errorOf([] {
              readerOf(Config().set("a", 4)).integer("a", 0, {1, 3});
            }),
            "Thing a \"4\" is not in the range between 1 and 3");
  EXPECT_EQ(errorOf([] { readerOf(Config().set("a", "0")).integer("a", 0, {.least = 1}); }),
            "Thing a \"0\" is not in the range at least 1");
}

TEST(OptionReader, TakesADefaultAsItStands) {
  EXPECT_EQ(readerOf(Config()).integer("a", -5, {1, 3}), -5);
}

TEST(OptionReader, TakesABooleanAndItsTwoTexts) {
  auto reader = readerOf(Config().set("a", true).set("b", "false").set("c", "true"));
  EXPECT_TRUE(reader.boolean("a", false));
  EXPECT_FALSE(reader.boolean("b", true));
  EXPECT_TRUE(reader.boolean("c", false));
  EXPECT_TRUE(reader.boolean("absent", true));
}

TEST(OptionReader, RefusesABooleanThatIsNone) {
  EXPECT_EQ(errorOf([] { readerOf(Config().set("a", "True")).boolean("a", false); }),
            "Thing a \"True\" is not a bool");
  EXPECT_EQ(errorOf([] { readerOf(Config().set("a", 1)).boolean("a", false); }),
            "Thing a must be a boolean but it's actually integer");
}

TEST(OptionReader, TakesAValueOfAnEnumerationAsItIsSpelt) {
  constexpr std::array<const char*, 2> values{"none", "ALL"};
  EXPECT_EQ(readerOf(Config().set("a", "ALL")).oneOf("a", values, "none"), "ALL");
  EXPECT_EQ(readerOf(Config()).oneOf("a", values, "none"), "none");
}

TEST(OptionReader, RefusesWhatIsOutsideAnEnumeration) {
  constexpr std::array<const char*, 2> two{"none", "ALL"};
  constexpr std::array<const char*, 3> three{"x", "y", "z"};
  EXPECT_EQ(errorOf([&] { readerOf(Config().set("a", "all")).oneOf("a", two, "none"); }),
            "Thing a \"all\" is not in the enumeration none or ALL");
  EXPECT_EQ(errorOf([&] { readerOf(Config().set("a", "w")).oneOf("a", three, "x"); }),
            "Thing a \"w\" is not in the enumeration x, y or z");
  EXPECT_EQ(errorOf([&] { readerOf(Config().set("a", 3)).oneOf("a", two, "none"); }),
            "Thing a must be a string but it's actually integer");
}

TEST(OptionReader, ReadsNestedMaps) {
  auto reader = readerOf(Config().set("outer/inner/key", "deep"));
  EXPECT_EQ(reader.text("outer/inner/key"), "deep");
  EXPECT_EQ(reader.text("outer/absent/key", "default"), "default");
  EXPECT_NO_THROW(reader.finish());
}

TEST(OptionReader, NamesTheWholePathInItsErrors) {
  EXPECT_EQ(errorOf([] { readerOf(Config().set("outer/key", true)).integer("outer/key", 0); }),
            "Thing outer/key must be an integer but it's actually boolean");
}

TEST(OptionReader, RefusesAPathThroughWhatIsNoMap) {
  EXPECT_EQ(errorOf([] { readerOf(Config().set("outer", 1)).text("outer/key"); }),
            "Thing outer is an incorrectly nested map");
  EXPECT_EQ(errorOf([] { readerOf(Config().set("a/b", "x")).text("a/b/c"); }),
            "Thing a/b is an incorrectly nested map");
}

// The braces are part of the text.
TEST(OptionReader, RefusesAnEmptyNameInAPath) {
  for (const char* path : {"", "a/", "/a", "a//b"}) {
    EXPECT_EQ(errorOf([&] { readerOf(Config().set("a/b", "x")).text(path); }),
              "Thing cannot specify an empty nested{} name")
        << path;
  }
}

TEST(OptionReader, TakesEitherSpelling) {
  const OptionReader::Name name("new", "old");
  EXPECT_EQ(readerOf(Config().set("new", "1")).text(name), "1");
  EXPECT_EQ(readerOf(Config().set("old", "2")).text(name), "2");
  EXPECT_EQ(readerOf(Config()).text(name, "3"), "3");
}

TEST(OptionReader, NamesTheSpellingThatWasUsedInItsErrors) {
  EXPECT_EQ(errorOf([] {
              readerOf(Config().set("old", "x")).boolean({"new", "old"}, false);
            }),
            "Thing old \"x\" is not a bool");
}

TEST(OptionReader, RefusesBothSpellings) {
  EXPECT_EQ(errorOf([] {
              readerOf(Config().set("new", "1").set("old", "1")).text({"new", "old"});
            }),
            "You cannot specify both new and old");
}

TEST(OptionReader, AcceptsAMapOfWhichEverythingWasRead) {
  auto reader = readerOf(Config().set("a", 1).set("outer/b", 2));
  reader.integer("a", 0);
  reader.integer("outer/b", 0);
  EXPECT_NO_THROW(reader.finish());
}

TEST(OptionReader, ReportsEverythingThatNobodyAskedForInOrder) {
  auto reader = readerOf(Config().set("known", 1).set("z", 1).set("outer/x", 2).set("outer/b", 3));
  reader.integer("known", 0);
  reader.integer("outer/b", 0);
  EXPECT_EQ(errorOf([&] { reader.finish(); }),
            "Unknown configuration element x in outer; Unknown configuration element z");
}

TEST(OptionReader, ReportsANestedMapThatNobodyLookedInto) {
  auto reader = readerOf(Config().set("outer/x", 1).set("other", data_t(map_t())));
  EXPECT_EQ(errorOf([&] { reader.finish(); }),
            "Unknown configuration element other; Unknown configuration element outer");
}

TEST(OptionReader, ReportsAKeyThatIsNoText) {
  map_t map;
  map.insert(data_t(7LL), data_t(true));
  const OptionReader reader("Thing", map);
  EXPECT_EQ(errorOf([&] { reader.finish(); }), "Unknown configuration element 7");
}

TEST(OptionReader, LeavesTheHostsMapAlone) {
  const map_t map = Config().set("a", "x").map();
  OptionReader reader("Thing", map);
  reader.text("a");
  EXPECT_EQ(map.size(), 1U);
}

}  // namespace
}  // namespace connectivity::plugins
