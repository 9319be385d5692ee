/* GET, HEAD and PUT. */
#include <fmt/format.h>
#include <windows.h>

#include <algorithm>
#include <vector>

#include "byte_range.h"
#include "dav_path.h"
#include "dav_server.h"
#include "live_properties.h"
#include "spool.h"
#include "tools/common/local_file.h"
#include "tools/common/text.h"

namespace tnwdav {
namespace {

constexpr size_t PIECE = size_t{256} * 1024;

/* A page for a browser. */
void answer_with_listing(Request& request) {
  std::vector<Item> items;
  request.parts.share.list(request.path, [&](const Item& item) { items.push_back(item); });
  const std::string title = xml_text(request.path);
  std::string page = fmt::format(
      "<!DOCTYPE html><meta charset=\"utf-8\"><title>{}</title><h1>{}</h1><ul>\n", title, title);
  const std::string lead = request.path == "/" ? "/" : request.path + '/';
  for (const Item& item : items) {
    page += fmt::format("<li><a href=\"{}\">{}{}</a>{}</li>\n",
                        address_of_path(lead + item.name, item.folder), xml_text(item.name),
                        item.folder ? "/" : "",
                        item.folder ? "" : ", " + tools::counted(item.size, "byte"));
  }
  request.http.answer(Status::ok, page + "</ul>\n", "text/html; charset=utf-8");
}

void set_content_headers(Exchange& http, const Item& item) {
  http.set_header("ETag", tag_of(item));
  http.set_header("Last-Modified", http_date(item.modified));
  http.set_header("Accept-Ranges", "bytes");
}

/* What the drive gives less than it announced ends the connection, so that the client sees it. */
void send_range(Request& request, OpenFile& file, ByteRange range) {
  std::vector<char> piece(static_cast<size_t>(std::min<uint64_t>(PIECE, range.length)));
  while (range.length > 0) {
    const auto wanted = static_cast<size_t>(std::min<uint64_t>(piece.size(), range.length));
    const size_t count = file.read(range.offset, piece.data(), wanted);
    if (count == 0) {
      throw ConnectionEnd("the file has become shorter");
    }
    request.http.send({piece.data(), count});
    range.offset += count;
    range.length -= count;
  }
}

std::string_view range_header(const Request& request, const Item& item) {
  const std::string_view condition = request.http.header("If-Range");
  return condition.empty() || condition == tag_of(item) ? request.http.header("Range")
                                                        : std::string_view();
}

void answer_with_file(Request& request, const Item& item) {
  Exchange& http = request.http;
  ByteRange range;
  const RangeAnswer kind = judge_range(range_header(request, item), item.size, &range);
  if (kind == RangeAnswer::NOTHING) {
    http.set_header("Content-Range", fmt::format("bytes */{}", item.size));
    throw HttpError(Status::range_not_satisfiable, "the range begins behind the end");
  }
  set_content_headers(http, item);
  if (kind == RangeAnswer::PART) {
    http.set_header("Content-Range", fmt::format("bytes {}-{}/{}", range.offset,
                                                 range.offset + range.length - 1, item.size));
  }
  const Status status = kind == RangeAnswer::PART ? Status::partial_content : Status::ok;
  if (http.method() == "HEAD") {
    return http.begin_answer(status, range.length, "application/octet-stream");
  }
  OpenFile file(request.parts.share, request.path, OpenMode::READ);
  http.begin_answer(status, range.length, "application/octet-stream");
  send_range(request, file, range);
  http.end_answer();
}

/* Whether the client has this content already. */
bool has_content(const Request& request, const Item& item) {
  const std::string_view known = request.http.header("If-None-Match");
  return !known.empty() && (known == "*" || known.find(tag_of(item)) != std::string_view::npos);
}

void check_put(const Request& request, const std::optional<Item>& item) {
  request.require_parent(request.path);
  if (item && item->folder) {
    throw HttpError(Status::method_not_allowed, "there is a folder of this name");
  }
  request.require_conditions(item ? &*item : nullptr);
  request.require_tokens_for_change(request.path);
  if (!item) {
    request.require_tokens_for_member(request.path);
  }
}

/* An old content is emptied only where the new one fits. */
void require_space(const Request& request, uint64_t size) {
  ULARGE_INTEGER free = {};
  const std::wstring folder = tools::verbatim_path(request.parts.incoming_folder);
  if (GetDiskFreeSpaceExW(folder.c_str(), &free, nullptr, nullptr) != 0 && free.QuadPart < size) {
    throw DriveError(request.path, "does not fit into the cache", ERROR_DISK_FULL);
  }
}

void write_content(const Request& request, Spool& content) {
  require_space(request, content.size());
  OpenFile file(request.parts.share, request.path, OpenMode::REPLACE);
  content.read(
      [&](uint64_t offset, const char* data, size_t size) { file.write(offset, data, size); });
  file.close();
}

/* A new file of which only a part could be written is no file. */
void write_new_content(const Request& request, Spool& content) {
  try {
    write_content(request, content);
  } catch (const DriveError& error) {
    if (status_of_code(error.code()) != Status::locked) {
      try {
        request.parts.share.remove(request.path);
      } catch (const DriveError&) {
        /* It was not even made. */
      }
    }
    throw;
  }
}

}  // namespace

void answer_get(Request& request) {
  const Item item = request.item();
  if (item.folder) {
    return answer_with_listing(request);
  }
  if (has_content(request, item)) {
    set_content_headers(request.http, item);
    return request.http.answer(Status::not_modified);
  }
  request.require_conditions(&item);
  answer_with_file(request, item);
}

/* The conditions are looked at again after the transfer, which may have taken long. */
void answer_put(Request& request) {
  Exchange& http = request.http;
  if (!http.header("Content-Range").empty()) {
    throw HttpError(Status::bad_request, "a part of a content cannot be put");
  }
  check_put(request, request.parts.share.find(request.path));
  Spool content(request.parts.incoming_folder);
  http.read_body([&](const char* data, size_t size) { content.add(data, size); });
  const std::optional<Item> before = request.parts.share.find(request.path);
  check_put(request, before);
  if (before) {
    write_content(request, content);
  } else {
    write_new_content(request, content);
  }
  http.set_header("ETag", tag_of(request.item()));
  http.answer(before ? Status::no_content : Status::created);
}

}  // namespace tnwdav
