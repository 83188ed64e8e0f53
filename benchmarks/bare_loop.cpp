// The yardstick: the same GET, with the same headers, over and over on one kept connection of
// Poco's HTTPClientSession, its body read and thrown away. No queue, no messages, no host.
//
//   bare_loop PORT PATH COUNT
//
// Prints the requests per second. Exits with 1 where an answer is not 200.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>

namespace {

bool exchange(Poco::Net::HTTPClientSession& session, const std::string& path,
              std::vector<char>& buffer) {
  Poco::Net::HTTPRequest request("GET", path, "HTTP/1.1");
  request.set("accept", "*/*");
  request.set("accept-encoding", "identity, gzip, deflate");
  request.set("user-agent", "Orrery/10.15 (armv7-debian10)");
  request.set("accept-charset", "utf-8");
  session.sendRequest(request);
  Poco::Net::HTTPResponse response;
  std::istream& body = session.receiveResponse(response);
  while (body.read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) {
  }
  return response.getStatus() == Poco::Net::HTTPResponse::HTTP_OK;
}

int run(unsigned short port, const std::string& path, long count) {
  Poco::Net::HTTPClientSession session("127.0.0.1", port);
  session.setKeepAlive(true);
  std::vector<char> buffer(102400);
  const auto start = std::chrono::steady_clock::now();
  for (long done = 0; done < count; ++done) {
    if (!exchange(session, path, buffer)) return EXIT_FAILURE;
  }
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  std::cout << static_cast<long>(static_cast<double>(count) / elapsed.count()) << '\n';
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: bare_loop PORT PATH COUNT\n";
    return EXIT_FAILURE;
  }
  try {
    return run(static_cast<unsigned short>(std::stoi(argv[1])), argv[2], std::stol(argv[3]));
  } catch (const std::exception& failure) {
    std::cerr << "bare_loop: " << failure.what() << '\n';
    return EXIT_FAILURE;
  }
}
