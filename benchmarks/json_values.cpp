// What the stand-alone host takes to read and to write JSON of many shapes, for each value in it.
//
//   json_values [ROUNDS]
//
// Each shape is measured with so many values and with ten times as many; the least time of the
// rounds counts. Every value counts, lists, objects and $map keys among them; an object's names do
// not. Set ORRERY_HASH_SEED=0 to see what the secret of the hash is for.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>
#include <xxhash.h>

#include "host/messages/JsonReader.hpp"
#include "host/messages/JsonWriter.hpp"

namespace {

struct Text {
  std::string json;
  long values = 0;
};

// A list of so many values, put together from parts.
Text listOf(long values, const std::function<Text(long part)>& make) {
  Text all{"[", 1};
  for (long part = 0; all.values < values; ++part) {
    const Text text = make(part);
    all.json += (part == 0 ? "" : ",") + text.json;
    all.values += text.values;
  }
  all.json += ']';
  return all;
}

// A value inside `levels` others.
Text nested(int levels, const std::string& front, const std::string& back, int valuesOfLevel) {
  Text text{"", 1};
  for (int i = 0; i < levels; ++i) text.json += front;
  text.json += "0";
  for (int i = 0; i < levels; ++i) text.json += back;
  text.values += static_cast<long>(levels) * valuesOfLevel;
  return text;
}

Text flat(long values, const std::function<std::string(long)>& name) {
  Text text{"{", values + 1};
  for (long i = 0; i < values; ++i) {
    text.json += (i == 0 ? "\"" : ",\"") + name(i) + "\":" + std::to_string(i);
  }
  text.json += '}';
  return text;
}

std::string numbered(long i) { return "key" + std::to_string(i); }

// Names that without a secret fall on one fiftieth of the table.
Text colliding(long values) {
  const auto slots = static_cast<std::uint64_t>(values) * 2 + 2;
  long next = 0;
  return flat(values, [&](long) {
    for (;;) {
      const std::string name = numbered(next++);
      if (XXH3_64bits(name.data(), name.size()) % slots < slots / 50) return name;
    }
  });
}

Text pairsOfNumbers(long first, long count) {
  Text text{R"({"$map":[)", 2 + 3 * count};
  for (long i = first; i < first + count; ++i) {
    text.json += (i == first ? "[" : ",[") + std::to_string(i) + ",0]";
  }
  text.json += "]}";
  return text;
}

// --- Measuring -----------------------------------------------------------------------------------

double nanosecondsOf(const std::function<void()>& action, int rounds) {
  double least = 1e18;
  for (int round = 0; round < rounds; ++round) {
    const auto start = std::chrono::steady_clock::now();
    action();
    const std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - start;
    least = std::min(least, taken.count());
  }
  return least;
}

struct Cost {
  double read;  // nanoseconds for each value
  double write;
};

Cost measured(const Text& text, int rounds) {
  host::JsonReader reader(host::JsonReader::Forms::Extended);
  const auto values = static_cast<double>(text.values);
  const double read = nanosecondsOf([&] { reader.read(text.json); }, rounds);
  const auto value = reader.read(text.json);
  const double write = nanosecondsOf([&] { host::toJson(value); }, rounds);
  return {read / values, write / values};
}

}  // namespace

int main(int count, char** arguments) {
  const int rounds = count > 1 ? std::max(std::atoi(arguments[1]), 1) : 5;
  struct Shape {
    const char* name;
    std::function<Text(long values)> make;
  };
  const std::string keyFront = R"({"$map":[[)";
  const std::vector<Shape> shapes{
      {"a flat object", [](long n) { return flat(n, numbered); }},
      {"names that collide without a secret", colliding},
      {"a flat list", [](long n) { return listOf(n, [](long) {
                                     return Text{"0", 1};
                                   }); }},
      {"lists, 990 levels",
       [](long n) { return listOf(n, [](long) { return nested(990, "[", "]", 1); }); }},
      {"objects, 990 levels",
       [](long n) { return listOf(n, [](long) { return nested(990, R"({"k":)", "}", 1); }); }},
      {"keys in keys, 330 levels",
       [&](long n) { return listOf(n, [&](long) { return nested(330, keyFront, ",0]]}", 4); }); }},
      {"the same, three keys a level",
       [&](long n) {
         return listOf(n, [&](long) { return nested(330, keyFront, ",0],[[1],0],[[2],0]]}", 12); });
       }},
      {"$map of 10,000 numbers",
       [](long n) {
         return listOf(
             n, [n](long part) { return pairsOfNumbers(part * 10'000, std::min(n / 3, 10'000L)); });
       }},
  };
  constexpr long few = 10'000;
  std::printf("%-38s %10s %8s %8s %8s %8s\n", "shape", "values", "read ns", "ratio", "write ns",
              "ratio");
  for (const long values : {few, 10 * few}) {
    Cost yardstick{};
    for (const Shape& shape : shapes) {
      const Text text = shape.make(values);
      const Cost cost = measured(text, rounds);
      if (&shape == shapes.data()) yardstick = cost;
      std::printf("%-38s %10ld %8.1f %8.2f %8.1f %8.2f\n", shape.name, text.values, cost.read,
                  cost.read / yardstick.read, cost.write, cost.write / yardstick.write);
    }
  }
}
