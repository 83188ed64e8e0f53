#include "plugins/http_client/wire/ResponseHeadReading.hpp"

#include <Poco/Net/NetException.h>

#include "plugins/http_client/wire/Framing.hpp"
#include "plugins/http_client/wire/HeadReader.hpp"

namespace connectivity::plugins {

namespace {

void readHead(InputBuffer& input, ResponseHead& head, const std::string& peer,
              HeadProgress& progress) {
  HeadReader reader(head);
  for (bool more = !input.empty() || input.fill(); more; more = input.fill()) {
    progress.begun = true;
    input.consume(reader.read(input.view()));
    if (reader.complete()) return;
  }
  if (progress.begun) {
    throw Poco::Net::MessageException(peer + " closed the connection within the response head");
  }
  throw Poco::Net::NoMessageException(peer + " closed the connection without an answer");
}

}  // namespace

void readResponseHead(InputBuffer& input, ResponseHead& head, const std::string& peer,
                      HeadProgress& progress) {
  for (int interim = 0; interim <= maxInterimResponses; ++interim) {
    readHead(input, head, peer, progress);
    if (!isInterim(head)) return;
    progress.ambiguous = progress.ambiguous || announcesForbiddenBody(head);
  }
  throw Poco::Net::MessageException(peer + " sent too many interim responses");
}

}  // namespace connectivity::plugins
