// A browser for tests: the distribution's Chromium without a window, driven over the W3C WebDriver
// protocol through chromedriver. Browser, driver and everything that they write end with the
// object. Used by one thread.
//
// A test waits for what it wants to see with waitFor(), which looks again and again inside the
// browser; it is bounded, and the bound is generous.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <boost/json.hpp>

#include "tests/support/ChildProcess.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace test_support {

class WebDriver {
 public:
  // Whether browser and driver are installed.
  static bool available();

  // std::runtime_error with the driver's words where the browser does not start, as with every
  // other command that fails.
  WebDriver();
  ~WebDriver();
  WebDriver(const WebDriver&) = delete;
  WebDriver& operator=(const WebDriver&) = delete;

  // Opens a page and waits until it is loaded.
  void open(const std::string& url);
  // Runs the body of a function in the page: what it returns, or what its promise becomes. It finds
  // the arguments in `arguments`.
  boost::json::value run(const std::string& body, const boost::json::array& arguments = {});
  // The value of an expression, as text and as a number.
  std::string text(const std::string& expression);
  double number(const std::string& expression);
  // Waits until the expression is true in the page. TimedOut, with what the page shows.
  void waitFor(const std::string& expression);
  // Presses and releases keys one after the other: characters, or code points such as tabKey.
  void press(const std::vector<char32_t>& keys);

  // What the browser has logged since the last call with that level ("SEVERE", ...).
  std::vector<std::string> takeLog(std::string_view level);
  // A command of the DevTools protocol.
  boost::json::value devTools(const std::string& command, const boost::json::object& parameters);
  // The window as PNG.
  std::string screenshot();

  static constexpr char32_t tabKey = 0xE004;
  static constexpr char32_t leftKey = 0xE012;
  static constexpr char32_t rightKey = 0xE014;

 private:
  boost::json::value command(const std::string& method, const std::string& path,
                             const boost::json::value& body);
  boost::json::value sessionCommand(const std::string& path, const boost::json::value& body);

  const TemporaryDirectory _directory;  // the browser's home
  ChildProcess _driver;
  int _port = 0;
  std::string _session;  // the path of the session's commands; empty until there is one
};

}  // namespace test_support
