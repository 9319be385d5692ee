#include "make_list.h"

#include <fmt/format.h>
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "list_writer.h"
#include "service/wide_text.h"
#include "sha512.h"
#include "tools/tnwsh/failure.h"
#include "tools/tnwsh/local_file.h"

namespace cfflprint {
namespace {

using tnwsh::Failure;

/* What a file information's name holds with its NUL; the folder's own field is longer. */
constexpr size_t kMaxName = 244;

ox_timespec_t TimeOf(const FILETIME& time) {
  constexpr int64_t kTicksTo1970 = 116444736000000000;
  const int64_t ticks =
      (static_cast<int64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime) - kTicksTo1970;
  const int64_t second = (ticks % 10000000 + 10000000) % 10000000;
  return {(ticks - second) / 10000000, static_cast<ox_s32>(second * 100), 0};
}

/* An identifier that is the same for the same text: a UUID of version 8, in the Windows layout. */
cfs_id_t IdOf(std::string_view text) {
  Sha512 hash;
  hash.Add(text);
  uint8_t digest[Sha512::kSize];
  hash.Finish(digest);
  cfs_id_t id;
  memcpy(id.id, digest, sizeof(id.id));
  id.id[7] = (id.id[7] & 0x0f) | 0x80;
  id.id[8] = (id.id[8] & 0x3f) | 0x80;
  return id;
}

std::string_view BytesOf(const cfs_id_t& id) {
  return {reinterpret_cast<const char*>(id.id), sizeof(id.id)};
}

/* Reads the whole file: its size and its checksum are those of the same bytes. */
void FillFromContent(const std::string& path, Item* item) {
  auto file = tnwsh::LocalFile::OpenToRead(path);
  std::vector<char> buffer(1 << 20);
  Sha512 hash;
  while (const size_t count = file.Read(buffer.data(), buffer.size())) {
    hash.Add({buffer.data(), count});
    item->size += count;
  }
  item->checksum.ck_version = 1;
  item->checksum.ck_csize = kChunkSize;
  item->checksum.ck_nchunks = static_cast<ox_u32>((item->size + kChunkSize - 1) / kChunkSize);
  hash.Finish(item->checksum.ck_sha512);
  const auto* digest = reinterpret_cast<const char*>(item->checksum.ck_sha512);
  item->revision = IdOf({digest, Sha512::kSize});
}

void CheckName(const std::string& path, const std::string& name) {
  if (name.size() > kMaxName) {
    throw Failure(path, fmt::format("its name takes {} bytes, and at most {} fit in a list",
                                    name.size(), kMaxName));
  }
}

Item ItemOf(const std::string& folder, const cfs_id_t& folder_id, const WIN32_FIND_DATAW& found) {
  Item item;
  if (!tarnd::utf8_from_wide(found.cFileName, &item.name)) {
    throw Failure(folder, "holds a name that is no Unicode text");
  }
  const std::string path = folder + '\\' + item.name;
  CheckName(path, item.name);
  item.folder = (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  item.id = IdOf(std::string(BytesOf(folder_id)) + item.name);
  item.created = TimeOf(found.ftCreationTime);
  item.modified = TimeOf(found.ftLastWriteTime);
  if (item.folder) {
    item.revision = IdOf(std::string(BytesOf(item.id)) + std::to_string(item.modified.tv_sec));
  } else {
    FillFromContent(path, &item);
  }
  return item;
}

/* The wide form of an absolute path, for calls that would otherwise end at 260 characters. */
std::wstring VerbatimPath(const std::string& absolute) {
  std::wstring wide;
  tarnd::wide_from_utf8(absolute, &wide);
  if (wide.starts_with(L"\\\\?\\")) {
    return wide;
  }
  return wide.starts_with(L"\\\\") ? L"\\\\?\\UNC" + wide.substr(1) : L"\\\\?\\" + wide;
}

/* `folder` is absolute and ends without a backslash. Sorted by name, byte by byte. */
std::vector<Item> ItemsOf(const std::string& folder, const cfs_id_t& folder_id) {
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileW((VerbatimPath(folder) + L"\\*").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) {
    throw Failure(folder, "cannot list", GetLastError());
  }
  std::vector<WIN32_FIND_DATAW> all;
  do {
    if (wcscmp(found.cFileName, L".") != 0 && wcscmp(found.cFileName, L"..") != 0) {
      all.push_back(found);
    }
  } while (FindNextFileW(search, &found) != 0);
  const DWORD end = GetLastError();
  FindClose(search);
  if (end != ERROR_NO_MORE_FILES) {
    throw Failure(folder, "cannot list", end);
  }
  std::vector<Item> items;
  for (const WIN32_FIND_DATAW& data : all) {
    items.push_back(ItemOf(folder, folder_id, data));
  }
  std::sort(items.begin(), items.end(),
            [](const Item& a, const Item& b) { return a.name < b.name; });
  return items;
}

Item FolderItem(const std::string& folder) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (GetFileAttributesExW((VerbatimPath(folder) + L'\\').c_str(), GetFileExInfoStandard, &data) ==
      0) {
    const DWORD error = GetLastError();
    if (GetFileAttributesW(VerbatimPath(folder).c_str()) != INVALID_FILE_ATTRIBUTES) {
      throw Failure(folder, "is a file, not a folder");
    }
    throw Failure(folder, "cannot be looked at", error);
  }
  Item item;
  item.name = folder.substr(folder.find_last_of('\\') + 1);
  CheckName(folder, item.name);
  item.folder = true;
  item.id = IdOf(folder);
  item.created = TimeOf(data.ftCreationTime);
  item.modified = TimeOf(data.ftLastWriteTime);
  item.accessed = TimeOf(data.ftLastAccessTime);
  return item;
}

}  // namespace

void MakeList(const std::string& folder, const std::string& file, const std::string& user) {
  std::string absolute = tnwsh::AbsolutePath(folder);
  absolute.erase(absolute.find_last_not_of('\\') + 1);
  Item item = FolderItem(absolute);
  const std::vector<Item> items = ItemsOf(absolute, item.id);
  std::string content;
  for (const Item& entry : items) {
    content += BytesOf(entry.id);
    content += BytesOf(entry.revision);
  }
  item.revision = IdOf(content);
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  const std::vector<uint8_t> bytes = WriteList(item, items, user, TimeOf(now));
  if (bytes.size() > INT32_MAX) {
    throw Failure(folder, "its list would take 2 GiB and more, which the library does not read");
  }
  auto out = tnwsh::LocalFile::OpenToReplace(file);
  out.Write(bytes.data(), bytes.size());
  out.Commit();
}

}  // namespace cfflprint
