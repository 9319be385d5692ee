#include "tree_floor.h"

#include <windows.h>

#include "tnv_proto.h"

namespace {

constexpr uint32_t REQUEST = TNV_MSG_FIXED;
constexpr uint32_t ANSWER = sizeof(tnv_resphdr);
constexpr uint32_t OPEN_ANSWER = ANSWER + sizeof(tnv_wopen_resp) + 130; /* with two maps */

/* Opens a file, reads or writes it whole, and closes it. */
std::string content_of(const std::string& path, size_t size) {
  std::string content(size, '\0');
  DWORD count = 0;
  const HANDLE file =
      CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  must(ReadFile(file, content.data(), static_cast<DWORD>(size), &count, nullptr) != 0 &&
           count == size && CloseHandle(file) != 0,
       "a read of a bare file");
  return content;
}

void write_new(const std::string& path, const std::string& content, bool flushed) {
  DWORD count = 0;
  const HANDLE file = CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
  must(WriteFile(file, content.data(), static_cast<DWORD>(content.size()), &count, nullptr) != 0 &&
           (!flushed || FlushFileBuffers(file) != 0) && CloseHandle(file) != 0,
       "a write of a bare file");
}

}  // namespace

TreeFloor::TreeFloor(const std::string& folder)
    : folder_(folder), exchange_(folder + "\\floor.sock") {
  must(CreateDirectoryA((folder_ + "\\floor").c_str(), nullptr) != 0, "CreateDirectory");
}

/* Spread over folders: a new file in a full folder takes Wine long. */
void TreeFloor::cache(const std::string& content) {
  constexpr int FOLDERS = 256;
  const std::string folder = folder_ + "\\floor\\" + std::to_string(cached_ % FOLDERS);
  if (cached_ < FOLDERS) {
    must(CreateDirectoryA(folder.c_str(), nullptr) != 0, "CreateDirectory");
  }
  write_new(folder + '\\' + std::to_string(cached_), content, false);
  cached_++;
}

size_t TreeFloor::list(const std::string& path) {
  WIN32_FIND_DATAA data;
  const HANDLE find = FindFirstFileA((in_cloud(path) + "\\*").c_str(), &data);
  must(find != INVALID_HANDLE_VALUE, "FindFirstFile");
  size_t count = 1;
  while (FindNextFileA(find, &data) != 0) {
    count++;
  }
  FindClose(find);
  count -= 2; /* . and .. */
  exchange_.run_long(REQUEST, static_cast<uint32_t>(ANSWER + count * sizeof(tnw_fileinfo)));
  return count;
}

void TreeFloor::look_up(const std::string& path) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  must(GetFileAttributesExA(in_cloud(path).c_str(), GetFileExInfoStandard, &data) != 0,
       "GetFileAttributesEx");
  exchange_.run(REQUEST, ANSWER + sizeof(tnv_wstat_resp));
}

/* OPEN, CACHE_REGION and CLOSE: a local file with the content. */
void TreeFloor::read_small(const std::string& path, size_t size) {
  cache(content_of(in_cloud(path), size));
  exchange_.run(REQUEST, OPEN_ANSWER);
  exchange_.run(REQUEST, ANSWER);
  exchange_.run(REQUEST, ANSWER);
}

/* OPEN, DIRTY_REGION and CLOSE: a local file, and the cloud's file with the content, flushed. */
void TreeFloor::make(const std::string& path, const std::string& content) {
  cache(content);
  write_new(in_cloud(path), content, true);
  exchange_.run(REQUEST, OPEN_ANSWER);
  exchange_.run(REQUEST, ANSWER);
  exchange_.run(REQUEST, ANSWER);
}
