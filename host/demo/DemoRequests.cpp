#include "host/demo/DemoRequests.hpp"

#include <array>
#include <string_view>

namespace host {

namespace {

// What differs between two requests of one kind: their number among their kind.
using MakeRequest = DemoRequest (*)(std::size_t number);

// A request message; its id is filled in later.
std::string message(const std::string& http, const std::string& payload = "null",
                    const std::string& control = "") {
  return R"({"metadata":{"requestId":@ID@,)" + control + R"("http":{)" + http + R"(}},"payload":)" +
         payload + "}";
}

std::string http(const std::string& method, const std::string& path, const std::string& more = "") {
  return R"("method":")" + method + R"(","path":")" + path + "\"" + more;
}

DemoRequest get(std::size_t number) {
  const std::string n = std::to_string(number);
  return {"GET with a query", message(http("GET", "/echo", R"(,"queryString":{"n":")" + n + "\"}")),
          200, "GET /echo?n=" + n, true};
}

DemoRequest post(std::size_t number) {
  const std::string body = "gr\xC3\xBC\xC3\x9F dich, Nummer " + std::to_string(number);
  return {"POST with a text",
          message(http("POST", "/echo", R"(,"contentType":"text/plain")"), "\"" + body + "\""), 200,
          body, true};
}

DemoRequest put(std::size_t) {
  return {"PUT with bytes",
          message(http("PUT", "/echo"), R"({"$binary":{"base64":"Ynl0ZXM=","subType":"00"}})"), 200,
          "bytes", true};
}

DemoRequest remove(std::size_t number) {
  const std::string path = "/echo/" + std::to_string(number);
  return {"DELETE", message(http("DELETE", path)), 200, "DELETE " + path, true};
}

DemoRequest head(std::size_t) {
  return {"HEAD, without a body", message(http("HEAD", "/large")), 200, "", true};
}

DemoRequest header(std::size_t number) {
  const std::string n = std::to_string(number);
  return {"A header of its own",
          message(http("GET", "/header", R"(,"headers":{"X-Demo":")" + n + "\"}")), 200, n, true};
}

DemoRequest keyed(std::size_t number) {
  // Requests of one key run in their order, so the server's count is known.
  const std::string key = std::to_string(number % 5);
  return {"Keyed: in order for each key",
          message(http("GET", "/turn/" + key), "null",
                  R"("concurrencyControlKey":"customer )" + key + "\","),
          200, std::to_string(number / 5 + 1), true};
}

DemoRequest flushed(std::size_t) {
  return {"Flushed: behind everything before it",
          message(http("GET", "/echo?flushed"), "null", R"("concurrencyControlFlush":true,)"), 200,
          "GET /echo?flushed", true};
}

DemoRequest form(std::size_t number) {
  const std::string n = std::to_string(number);
  return {"A form, URL-encoded",
          message(http("POST", "/form", R"(,"form":{})"),
                  R"({"city":"Z\u00fcrich & Genf","n":")" + n + "\"}"),
          200, "city=Z\xC3\xBCrich & Genf&n=" + n, true};
}

DemoRequest upload(std::size_t) {
  return {"A form with a file",
          message(http("POST", "/form", R"(,"form":{"filename":"a.txt"})"),
                  R"({"file":{"$binary":{"base64":"Ynl0ZXM=","subType":"00"}},"name":"Ada"})"),
          200, "file=a.txt:5&name=Ada", true};
}

DemoRequest compressedRequest(std::size_t number) {
  const std::string body(1000 + number, 'z');
  return {"A compressed request",
          message(http("POST", "/echo", R"(,"headers":{"content-encoding":"gzip"})"),
                  "\"" + body + "\""),
          200, body, true};
}

DemoRequest compressedResponse(std::size_t number) {
  const std::string target = "/gzip?n=" + std::to_string(number);
  return {"A compressed response", message(http("GET", target)), 200, "GET " + target, true};
}

DemoRequest redirected(std::size_t) {
  return {"Redirected", message(http("GET", "/moved")), 200, "GET /echo?moved", true};
}

DemoRequest cookie(std::size_t number) {
  const std::string n = std::to_string(number);
  return {"A cookie of its own",
          message(http("GET", "/cookie", R"(,"cookies":{"demo":")" + n + "\"}")), 200, n, true};
}

DemoRequest notFound(std::size_t) {
  return {"Status 404", message(http("GET", "/status/404")), 404, "Not Found", true};
}

DemoRequest serverError(std::size_t) {
  return {"Status 500", message(http("POST", "/status/500"), "\"x\""), 500, "Internal Server Error",
          true};
}

DemoRequest tooLarge(std::size_t) {
  return {"Larger than the limit: refused",
          message(http("GET", "/large", R"(,"maxResponseKB":10)")), 413,
          "Response exceeded maxResponseKB, with maxResponsePolicy set to REJECT", true};
}

DemoRequest truncated(std::size_t) {
  return {
      "Larger than the limit: truncated",
      message(http("GET", "/large", R"(,"maxResponseKB":10,"maxResponsePolicy":"TRUNCATE_END")")),
      200, "[TRUNCATED]", false};
}

DemoRequest hangup(std::size_t) {
  return {"The server hangs up", message(http("GET", "/hangup")), 400, "", false};
}

DemoRequest refused(std::size_t) {
  return {"Refused: no method", message(R"("path":"/")"), 400, "No method", true};
}

// The last one runs behind everything else and succeeds, so that the transport ends well.
constexpr std::array<MakeRequest, 20> kinds{&get,
                                            &post,
                                            &put,
                                            &remove,
                                            &head,
                                            &header,
                                            &keyed,
                                            &form,
                                            &upload,
                                            &compressedRequest,
                                            &compressedResponse,
                                            &redirected,
                                            &cookie,
                                            &notFound,
                                            &serverError,
                                            &tooLarge,
                                            &truncated,
                                            &hangup,
                                            &refused,
                                            &flushed};

}  // namespace

std::vector<DemoRequest> makeDemoRequests(std::size_t howMany) {
  constexpr std::string_view idMark = "@ID@";
  std::vector<DemoRequest> requests;
  requests.reserve(howMany);
  for (std::size_t i = 0; i < howMany; ++i) {
    requests.push_back(kinds[i % kinds.size()](i / kinds.size()));
    std::string& line = requests.back().line;
    line.replace(line.find(idMark), idMark.size(), std::to_string(i));
  }
  return requests;
}

}  // namespace host
