#include "make_list.h"

#include <fmt/format.h>
#include <algorithm>
#include <cstring>
#include <ctime>
#include <vector>

#include "list_writer.h"
#include "sha512.h"
#include "tools/common/failure.h"
#include "tools/common/local_file.h"

namespace cfflprint {
namespace {

using tools::Failure;
using tools::LocalEntry;

/* The longest name that fits into a tnw_fileinfo with its NUL. A folder's own field is longer. */
constexpr size_t MAX_NAME = 244;

/* Converts a Windows file time. */
ox_timespec_t time_of(uint64_t file_time) {
  constexpr int64_t TICKS = 10000000; /* in a second */
  const int64_t ticks = static_cast<int64_t>(file_time) - 11644473600 * TICKS;
  const int64_t part = (ticks % TICKS + TICKS) % TICKS;
  return {(ticks - part) / TICKS, static_cast<ox_s32>(part * 100), 0};
}

/* An identifier that is the same for the same text: a UUID of version 8, in the Windows layout. */
cfs_id_t id_of(std::string_view text) {
  Sha512 hash;
  hash.add(text);
  uint8_t digest[Sha512::SIZE];
  hash.finish(digest);
  cfs_id_t id;
  memcpy(id.id, digest, sizeof(id.id));
  id.id[7] = (id.id[7] & 0x0f) | 0x80;
  id.id[8] = (id.id[8] & 0x3f) | 0x80;
  return id;
}

std::string_view bytes_of(const cfs_id_t& id) {
  return {reinterpret_cast<const char*>(id.id), sizeof(id.id)};
}

/* Reads the whole file: its size and its checksum are those of the same bytes. */
void fill_from_content(const std::string& path, Item* item) {
  auto file = tools::LocalFile::open_to_read(path);
  std::vector<char> buffer(1 << 20);
  Sha512 hash;
  while (const size_t count = file.read(buffer.data(), buffer.size())) {
    hash.add({buffer.data(), count});
    item->size += count;
  }
  item->checksum.ck_version = 1;
  item->checksum.ck_csize = CHUNK_SIZE;
  item->checksum.ck_nchunks = static_cast<ox_u32>((item->size + CHUNK_SIZE - 1) / CHUNK_SIZE);
  hash.finish(item->checksum.ck_sha512);
  const auto* digest = reinterpret_cast<const char*>(item->checksum.ck_sha512);
  item->revision = id_of({digest, Sha512::SIZE});
}

/* The entry without the size and the checksum, which come from the content. */
Item item_of(const LocalEntry& entry) {
  if (entry.name.size() > MAX_NAME) {
    throw Failure(entry.name, fmt::format("its name takes {} bytes, and at most {} fit in a list",
                                          entry.name.size(), MAX_NAME));
  }
  Item item;
  item.name = entry.name;
  item.folder = entry.folder;
  item.created = time_of(entry.created);
  item.modified = time_of(entry.modified);
  item.accessed = time_of(entry.accessed);
  return item;
}

/* The names in the folder, sorted byte by byte. */
std::vector<Item> items_of(const std::string& folder, const cfs_id_t& folder_id) {
  std::vector<Item> items;
  for (const LocalEntry& entry : tools::list_local(folder)) {
    Item& item = items.emplace_back(item_of(entry));
    item.id = id_of(std::string(bytes_of(folder_id)) + item.name);
    if (item.folder) {
      item.revision = id_of(std::string(bytes_of(item.id)) + std::to_string(item.modified.tv_sec));
    } else {
      fill_from_content(folder + '\\' + item.name, &item);
    }
  }
  std::sort(items.begin(), items.end(),
            [](const Item& a, const Item& b) { return a.name < b.name; });
  return items;
}

}  // namespace

void make_list(const std::string& folder, const std::string& file, const std::string& user) {
  std::string absolute = tools::absolute_path(folder);
  absolute.erase(absolute.find_last_not_of('\\') + 1);
  LocalEntry entry = tools::local_entry(folder);
  if (!entry.folder) {
    throw Failure(folder, "is a file, not a folder");
  }
  entry.name = absolute.substr(absolute.find_last_of('\\') + 1);
  Item item = item_of(entry);
  item.id = id_of(absolute);
  const std::vector<Item> items = items_of(absolute, item.id);
  std::string content;
  for (const Item& child : items) {
    content += bytes_of(child.id);
    content += bytes_of(child.revision);
  }
  item.revision = id_of(content);
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const std::vector<uint8_t> bytes =
      write_list(item, items, user, {now.tv_sec, static_cast<ox_s32>(now.tv_nsec), 0});
  if (bytes.size() > INT32_MAX) {
    throw Failure(folder, "its list would take 2 GiB and more, which the library does not read");
  }
  auto out = tools::LocalFile::open_to_replace(file);
  out.write(bytes.data(), bytes.size());
  out.commit();
}

}  // namespace cfflprint
