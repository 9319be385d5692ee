/* A server's answers: a line as each of the headers that are read, then a listing. */
#include <vector>

#include "cloud/webdav/http_rules.h"
#include "cloud/webdav/multistatus.h"
#include "cloud/webdav/web_address.h"
#include "fuzz.h"

using namespace tarnd;

namespace {

struct Listing {
  std::vector<std::string> items;
  bool broken = false;
  bool complete = false;
  bool operator==(const Listing&) const = default;
};

/* What is found in an answer that arrives in pieces of `step` bytes. */
Listing read_listing(std::string_view answer, size_t step) {
  Listing listing;
  MultistatusReader reader([&listing](const DavItem& item) {
    listing.items.push_back(item.href + '\n' + item.tag + '\n' + item.modified + '\n' +
                            std::to_string(item.size) + (item.folder ? "/" : ""));
    return true;
  });
  while (!answer.empty() && reader.feed(answer.data(), std::min(step, answer.size()))) {
    answer.remove_prefix(std::min(step, answer.size()));
  }
  listing.broken = reader.broken();
  listing.complete = !listing.broken && reader.complete();
  return listing;
}

/* A path that a server names leads back to itself. */
void follow(const std::string& href) {
  WebAddress address;
  address.root = "/dav/jane's files";
  std::string path;
  std::string again;
  if (cloud_path_of(address, href, &path)) {
    require(cloud_path_of(address, address.target(path), &again) && again == path);
  }
}

void read_header(const std::string& text) {
  constexpr uint64_t TICKS_OF_TEN_THOUSAND_YEARS = uint64_t{3'652'425} * 86'400 * 10'000'000;
  require(time_of_http_date(text) < TICKS_OF_TEN_THOUSAND_YEARS);
  const std::chrono::milliseconds pause = retry_after(text, "Sun, 06 Nov 1994 08:49:37 GMT");
  require(pause >= std::chrono::seconds(1) && pause <= std::chrono::hours(1));
  ContentRange range;
  require(!parse_content_range(text, &range) || range.range.end() <= range.size);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view answer = text_of(data, size);
  const std::string header = take_line(&answer).c_str(); /* no header has a NUL */
  read_header(header);
  follow(header);
  const Listing whole = read_listing(answer, std::max<size_t>(size, 1));
  require(whole == read_listing(answer, 1 + header.size() % 32));
  for (const std::string& item : whole.items) {
    follow(item.substr(0, item.find('\n')));
  }
  return 0;
}
