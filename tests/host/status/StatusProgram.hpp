// orrery-host run with one chain, main.jobs, and a status server on a port that the system picks.
#pragma once

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>

#include "tests/host/HostProgram.hpp"
#include "tests/support/Event.hpp"

namespace host_tests {

class StatusProgram {
 public:
  // The chain's requests go to that port on 127.0.0.1.
  explicit StatusProgram(int serverPort)
      : _chain(_directory.write("chain.yaml",
                                "chains:\n"
                                "  - id: jobs\n"
                                "    name: main\n"
                                "    transport: HTTPClient\n"
                                "    config: {host: 127.0.0.1, numClients: 2, port: " +
                                    std::to_string(serverPort) +
                                    "}\n"
                                    "status: {port: 0}\n")),
        _program({"run", _chain}),
        _url(announcedUrl()) {}

  HostProgram& program() { return _program; }
  // Of its status server, without a slash at the end.
  const std::string& url() const { return _url; }

  // One request with a body of that size.
  void request(std::size_t bodyBytes) {
    _program.write(R"({"metadata":{"http":{"method":"POST","path":"/x"}},"payload":")" +
                   std::string(bodyBytes, 'x') + "\"}\n");
    _program.waitForOutput("\n", ++_requests);
  }

  std::string get(const std::string& path) const {
    const auto port = static_cast<Poco::UInt16>(std::stoi(_url.substr(_url.rfind(':') + 1)));
    Poco::Net::HTTPClientSession session("127.0.0.1", port);
    Poco::Net::HTTPRequest request("GET", path, "HTTP/1.1");
    session.sendRequest(request);
    Poco::Net::HTTPResponse response;
    std::string body;
    Poco::StreamCopier::copyToString(session.receiveResponse(response), body);
    return body;
  }

  // Asks until the answer has that text: items change a little behind the answers. TimedOut.
  std::string getWith(const std::string& path, const std::string& text) const {
    const auto limit = std::chrono::steady_clock::now() + test_support::patience;
    std::string body = get(path);
    while (body.find(text) == std::string::npos) {
      if (std::chrono::steady_clock::now() > limit)
        throw test_support::TimedOut(text + " in " + body);
      body = get(path);
    }
    return body;
  }

 private:
  std::string announcedUrl() const {
    const std::string mark = "The status server listens on ";
    _program.waitForErrors(mark);
    std::string log = _program.errors();
    // The line may have come in pieces.
    while (log.find('\n', log.find(mark)) == std::string::npos) {
      const auto lines = std::count(log.begin(), log.end(), '\n');
      _program.waitForErrors("\n", static_cast<std::size_t>(lines) + 1);
      log = _program.errors();
    }
    const auto begin = log.find(mark) + mark.size();
    return log.substr(begin, log.find('\n', begin) - begin);
  }

  const test_support::TemporaryDirectory _directory;
  const std::string _chain;
  HostProgram _program;
  const std::string _url;
  std::size_t _requests = 0;
};

}  // namespace host_tests
