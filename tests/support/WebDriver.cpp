#include "tests/support/WebDriver.hpp"

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include <Poco/Base64Decoder.h>
#include <Poco/Exception.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>
#include <Poco/Timespan.h>
#include <Poco/UnicodeConverter.h>

#include "tests/support/Event.hpp"

namespace test_support {

namespace json = boost::json;

namespace {

const std::string browserPath = "/usr/bin/chromium";
const std::string driverPath = "/usr/bin/chromedriver";
// A browser that starts on a busy machine takes its time.
constexpr int patienceSeconds = 90;

ChildProcess::Options optionsIn(const TemporaryDirectory& home) {
  ChildProcess::Options options;
  const std::string path = home.path().string();
  options.environment = {
      "HOME=" + path,           "TMPDIR=" + path,         "TZ=UTC", "XDG_CONFIG_HOME=" + path,
      "XDG_CACHE_HOME=" + path, "XDG_RUNTIME_DIR=" + path};
  options.ownGroup = true;
  return options;
}

json::array browserArguments(const TemporaryDirectory& home) {
  return {"--headless=new",
          "--no-sandbox",
          "--no-first-run",
          "--no-proxy-server",
          "--remote-debugging-pipe",
          "--window-size=1280,900",
          "--disable-gpu",
          "--disable-quic",
          "--disable-background-networking",
          "--disable-component-update",
          "--disable-dev-shm-usage",
          "--disable-sync",
          "--user-data-dir=" + home.file("profile")};
}

json::object capabilities(const TemporaryDirectory& home) {
  const json::object browser{{"binary", browserPath}, {"args", browserArguments(home)}};
  const json::object wanted{{"goog:chromeOptions", browser},
                            {"goog:loggingPrefs", json::object{{"browser", "ALL"}}},
                            {"timeouts", json::object{{"script", patienceSeconds * 1000}}}};
  return {{"capabilities", json::object{{"alwaysMatch", wanted}}}};
}

// The port that the driver has picked, from "ChromeDriver was started successfully on port 1234.".
int portOf(const ChildProcess& driver) {
  const std::string mark = "started successfully on port ";
  driver.waitForOutput(mark);
  std::string output = driver.output();
  for (std::size_t lines = 1; output.find('.', output.find(mark)) == std::string::npos; ++lines) {
    driver.waitForOutput("\n", lines);
    output = driver.output();
  }
  return std::stoi(output.substr(output.find(mark) + mark.size()));
}

}  // namespace

bool WebDriver::available() {
  return std::filesystem::exists(browserPath) && std::filesystem::exists(driverPath);
}

// A test that is killed takes the driver along, and its end closes the browser's pipe.
WebDriver::WebDriver()
    : _driver({"/usr/bin/setpriv", "--pdeathsig", "KILL", driverPath, "--port=0"},
              optionsIn(_directory)) {
  _port = portOf(_driver);
  const json::value session = command("POST", "/session", capabilities(_directory));
  _session = "/session/" + std::string(session.at("sessionId").as_string());
}

WebDriver::~WebDriver() {
  try {
    command("DELETE", _session, nullptr);
  } catch (const std::exception&) {
    // The group's end ends the browser too.
  }
}

json::value WebDriver::command(const std::string& method, const std::string& path,
                               const json::value& body) {
  Poco::Net::HTTPClientSession session("127.0.0.1", static_cast<Poco::UInt16>(_port));
  session.setTimeout(Poco::Timespan(patienceSeconds + 30, 0));
  Poco::Net::HTTPRequest request(method, path, "HTTP/1.1");
  const std::string text = body.is_null() ? "" : json::serialize(body);
  request.setContentType("application/json; charset=utf-8");
  request.setContentLength64(static_cast<Poco::Int64>(text.size()));
  session.sendRequest(request) << text;
  Poco::Net::HTTPResponse response;
  std::string answer;
  Poco::StreamCopier::copyToString(session.receiveResponse(response), answer);
  const json::value value = json::parse(answer).at("value");
  if (response.getStatus() != Poco::Net::HTTPResponse::HTTP_OK) {
    throw std::runtime_error(method + " " + path + ": " + json::serialize(value));
  }
  return value;
}

json::value WebDriver::sessionCommand(const std::string& path, const json::value& body) {
  return command("POST", _session + path, body);
}

void WebDriver::open(const std::string& url) { sessionCommand("/url", json::object{{"url", url}}); }

json::value WebDriver::run(const std::string& body, const json::array& arguments) {
  return sessionCommand("/execute/sync", json::object{{"script", body}, {"args", arguments}});
}

std::string WebDriver::text(const std::string& expression) {
  return std::string(run("return String(" + expression + ")").as_string());
}

double WebDriver::number(const std::string& expression) {
  return run("return Number(" + expression + ")").to_number<double>();
}

void WebDriver::waitFor(const std::string& expression) {
  const std::string look = "const isThere = () => (" + expression +
                           ");"
                           "const limit = performance.now() + arguments[0];"
                           "return new Promise((resolve) => {"
                           "  const look = () => {"
                           "    if (isThere()) resolve(true);"
                           "    else if (performance.now() > limit) resolve(false);"
                           "    else setTimeout(look, 20);"
                           "  };"
                           "  look();"
                           "});";
  if (run(look, {(patienceSeconds - 10) * 1000}).as_bool()) return;
  throw TimedOut(expression + "; the page shows: " + text("document.body.innerText"));
}

void WebDriver::press(const std::vector<char32_t>& keys) {
  json::array actions;
  for (const char32_t key : keys) {
    std::string value;
    Poco::UnicodeConverter::convert(Poco::UTF32String(1, static_cast<Poco::UTF32Char>(key)), value);
    actions.push_back(json::object{{"type", "keyDown"}, {"value", value}});
    actions.push_back(json::object{{"type", "keyUp"}, {"value", value}});
  }
  const json::object keyboard{{"type", "key"}, {"id", "keyboard"}, {"actions", actions}};
  sessionCommand("/actions", json::object{{"actions", json::array{keyboard}}});
}

std::vector<std::string> WebDriver::takeLog(std::string_view level) {
  std::vector<std::string> messages;
  const json::value entries = sessionCommand("/se/log", json::object{{"type", "browser"}});
  for (const json::value& entry : entries.as_array()) {
    if (entry.at("level").as_string() == level) {
      messages.emplace_back(entry.at("message").as_string());
    }
  }
  return messages;
}

json::value WebDriver::devTools(const std::string& command, const json::object& parameters) {
  return sessionCommand("/goog/cdp/execute",
                        json::object{{"cmd", command}, {"params", parameters}});
}

std::string WebDriver::screenshot() {
  const json::value encoded = command("GET", _session + "/screenshot", nullptr);
  std::istringstream text(std::string(encoded.as_string()));
  Poco::Base64Decoder decoder(text);
  std::string bytes;
  Poco::StreamCopier::copyToString(decoder, bytes);
  return bytes;
}

}  // namespace test_support
