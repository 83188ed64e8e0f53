// docs/configuration.md, the transport's options: keys, defaults, types and ranges, each against
// the parser of the transport.
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "plugins/http_client/config/ConfiguredOptions.hpp"
#include "tests/docs/ConfigurationPage.hpp"
#include "tests/docs/Markdown.hpp"
#include "tests/docs/Values.hpp"
#include "tests/support/Messages.hpp"

namespace docs_tests {
namespace {

using connectivity::data_t;
using connectivity::map_t;
using connectivity::plugins::ConfiguredOptions;

// The error of a configuration, or none.
std::optional<std::string> errorOf(const map_t& configuration) {
  try {
    static_cast<void>(ConfiguredOptions::parse(configuration));
    return std::nullopt;
  } catch (const std::exception& error) {
    return error.what();
  }
}

map_t withHost(const std::string& path, data_t&& value) {
  map_t configuration = configOf("host: localhost");
  test_support::put(configuration, test_support::keysOf(path), std::move(value));
  return configuration;
}

// --- The set of keys -----------------------------------------------------------------------------

// Every text in the transport's sources that it takes as the key of an option.
std::set<std::string> acceptedKeys() {
  std::set<std::string> accepted;
  for (const std::string& key : keyLiteralsBelow({"plugins/http_client"})) {
    const auto error = errorOf(withHost(key, data_t("x")));
    const bool isUnknown = error && error->find("Unknown configuration element") == 0;
    const bool isMap = error && error->ends_with("is an incorrectly nested map");
    if (!isUnknown && !isMap) accepted.insert(key);
  }
  return accepted;
}

TEST(ConfigurationOptions, HasExactlyTheKeysThatTheTransportAccepts) {
  std::set<std::string> documented;
  for (const Row& row : optionRows()) EXPECT_TRUE(documented.insert(row.name).second) << row.place;
  for (const Row& row : olderSpellingRows()) {
    EXPECT_TRUE(documented.insert(row.name).second) << row.place;
  }
  const auto accepted = acceptedKeys();
  for (const auto& key : accepted) {
    EXPECT_TRUE(documented.contains(key))
        << configurationPageName << ": no row for the option " << key;
  }
  for (const auto& key : documented) {
    EXPECT_TRUE(accepted.contains(key)) << configurationPageName << ": there is no option " << key;
  }
}

// --- Types, defaults, ranges ---------------------------------------------------------------------

std::string quoted(const std::string& text) { return "`" + text + "`"; }
std::string shown(const std::string& text) { return text.empty() ? "empty" : quoted(text); }
std::string shown(bool value) { return value ? "`true`" : "`false`"; }
std::string shown(std::int64_t number) {
  return number == ConfiguredOptions::portUnset ? "unset" : quoted(std::to_string(number));
}

// What the transport takes where an option is not given, as the table has to say it.
std::map<std::string, std::string> realDefaults() {
  const auto plain = ConfiguredOptions::parse(configOf("host: x"));
  const auto tls = ConfiguredOptions::parse(configOf("{host: x, tls: true}"));
  return {
      {"host", errorOf({}) == "HTTPClient configuration host must be given" ? "required" : "?"},
      {"port", shown(tls.port) + " with `tls`, else " + shown(plain.port)},
      {"timeoutSecs", shown(plain.timeoutSecs)},
      {"tls", shown(plain.tls.enabled)},
      {"tlsCertificateAuthorityFile", shown(plain.tls.certificateAuthorityFile)},
      {"tlsAcceptUnrecognizedCertificates", shown(plain.tls.acceptUnrecognizedCertificates)},
      {"authentication/authenticationType", shown(plain.authentication.authenticationType)},
      {"authentication/username", shown(plain.authentication.username)},
      {"authentication/password", shown(plain.authentication.password)},
      {"basePath", shown(plain.basePath)},
      {"proxy/host", shown(plain.proxy.host)},
      {"proxy/port", shown(plain.proxy.port)},
      {"proxy/authentication/authenticationType",
       shown(plain.proxy.authentication.authenticationType)},
      {"proxy/authentication/username", shown(plain.proxy.authentication.username)},
      {"proxy/authentication/password", shown(plain.proxy.authentication.password)},
      {"followRedirects", shown(plain.followRedirects)},
      {"cookieJar", shown(plain.cookieJar)},
      {"numClients", shown(plain.numClients)},
      {"maxResponseKB", shown(plain.maxResponseKB)},
      {"maxResponsePolicy", shown(plain.maxResponsePolicy)},
      {"deadlineSecs", plain.deadlineSecs ? shown(*plain.deadlineSecs) : "none"},
      {"tlsClientCertificateFile", shown(plain.tls.clientCertificateFile)},
      {"tlsClientKeyFile", shown(plain.tls.clientKeyFile)},
      {"tlsClientKeyPassword", shown(plain.tls.clientKeyPassword)},
      {"additionalMethods", plain.additionalMethods.empty() ? "empty" : "?"},
      {"markFailures", shown(plain.markFailures)},
  };
}

TEST(ConfigurationOptions, TellsTheDefaultsOfTheTransport) {
  const auto defaults = realDefaults();
  for (const Row& row : optionRows()) {
    const auto real = defaults.find(row.name);
    ASSERT_NE(real, defaults.end()) << row.place << ": this test does not know the option";
    EXPECT_EQ(row.text("default"), real->second) << row.place;
  }
}

// A value of no option's type but its own.
data_t valueOfWrongKind(const std::string& type) {
  return type == "boolean" ? data_t(7LL) : data_t(connectivity::list_t());
}

TEST(ConfigurationOptions, TellsTheTypesOfTheTransport) {
  const std::map<std::string, std::string> phrases{{"string", "must be a string"},
                                                   {"integer", "must be an integer"},
                                                   {"boolean", "must be a boolean"}};
  for (const Row& row : optionRows()) {
    const std::string& type = row.text("type");
    if (const auto phrase = phrases.find(type); phrase != phrases.end()) {
      const auto error = errorOf(withHost(row.name, valueOfWrongKind(type)));
      EXPECT_NE(error.value_or("none").find(phrase->second), std::string::npos)
          << row.place << ": not of the type " << type << ": " << error.value_or("no error");
      continue;
    }
    const auto values = row.codes("type");
    ASSERT_GE(values.size(), 2U) << row.place << ": unknown type " << type;
    for (const std::string& value : values) {
      EXPECT_EQ(errorOf(withHost(row.name, data_t(value))), std::nullopt) << row.place;
    }
    const auto error = errorOf(withHost(row.name, data_t("other"))).value_or("");
    for (const std::string& value : values) {
      EXPECT_NE(error.find(value), std::string::npos) << row.place << ": " << error;
    }
  }
}

long long numberOf(std::string text) {
  std::erase(text, ',');
  return std::stoll(text);
}

// Whether a value of an integer option passes.
bool isInRange(const std::string& key, long long value) {
  map_t configuration = withHost(key, data_t(value));
  if (key.starts_with("proxy/")) test_support::put(configuration, {"proxy", "host"}, data_t("p"));
  return !errorOf(configuration);
}

TEST(ConfigurationOptions, TellsTheRangesOfTheTransport) {
  const std::regex range("(?:.*, )?(-?[0-9,]+) (?:to (-?[0-9,]+)|or more).*");
  for (const Row& row : optionRows()) {
    if (row.text("type") != "integer") continue;
    std::smatch match;
    const std::string text = row.text("unit, range");
    ASSERT_TRUE(std::regex_match(text, match, range)) << row.place << ": no range in " << text;
    const long long least = numberOf(match[1]);
    EXPECT_TRUE(isInRange(row.name, least)) << row.place;
    EXPECT_FALSE(isInRange(row.name, least - 1)) << row.place;
    const bool isOpen = !match[2].matched;
    const long long most = isOpen ? std::numeric_limits<long long>::max() : numberOf(match[2]);
    EXPECT_TRUE(isInRange(row.name, most)) << row.place;
    if (!isOpen) {
      EXPECT_FALSE(isInRange(row.name, most + 1)) << row.place;
    }
  }
}

}  // namespace
}  // namespace docs_tests
