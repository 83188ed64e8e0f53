// The HTTP server of the demo, on 127.0.0.1 and a port that the system picks.
//
//   /echo            what was sent: "<METHOD> <path and query>" without a body, else the body
//   /gzip            the same, compressed
//   /header          the value of the header x-demo
//   /cookie          the value of the cookie demo
//   /form            the fields and files of a form, in ascending order
//   /status/<code>   that status, its reason as text
//   /moved           302 to /echo?moved
//   /large           100,000 bytes
//   /turn/<key>      how often this has been asked for with this key: "1", "2", ...
//   /hangup          no answer: the connection is closed
#pragma once

#include <map>
#include <memory>
#include <string>

#include "orrery/Mutex.hpp"

namespace Poco::Net {
class HTTPServer;
}

namespace host {

// Serves from construction to destruction, on threads of its own.
class DemoServer {
 public:
  static constexpr std::size_t largeSize = 100000;

  DemoServer();
  ~DemoServer();
  DemoServer(const DemoServer&) = delete;
  DemoServer& operator=(const DemoServer&) = delete;

  int port() const;

 private:
  class Handler;
  class HandlerFactory;
  int nextTurn(const std::string& key) ORRERY_EXCLUDES(_mutex);

  orrery::Mutex _mutex{"DemoServer"};
  std::map<std::string, int> _turns ORRERY_GUARDED_BY(_mutex);
  std::unique_ptr<Poco::Net::HTTPServer> _server;  // last: its threads use the above
};

}  // namespace host
