#include "cloud/directory/cloud_directory.h"

#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <utility>

#include "cloud/directory/cloud_part.h"
#include "files/windows_file.h"
#include "names/share_path.h"
#include "ox_errno.h"
#include "wide_text.h"

namespace tarnd {
namespace {

/*
 * The algorithm provider that needs no opening (BCRYPT_SHA256_ALG_HANDLE, which MinGW's header has
 * not).
 */
const BCRYPT_ALG_HANDLE SHA256 = reinterpret_cast<BCRYPT_ALG_HANDLE>(0x41);

/* A UUID named by a text (version 8: an own scheme): the head of the text's SHA-256. */
cfs_id_t id_of(const std::string& text) {
  std::array<UCHAR, 32> digest = {};
  std::string input = text;
  BCryptHash(SHA256, nullptr, 0, reinterpret_cast<PUCHAR>(input.data()),
             static_cast<ULONG>(input.size()), digest.data(), static_cast<ULONG>(digest.size()));
  cfs_id_t id;
  std::memcpy(id.id, digest.data(), sizeof id.id);
  id.id[7] = static_cast<ox_u8>((id.id[7] & 0x0f) | 0x80);
  id.id[8] = static_cast<ox_u8>((id.id[8] & 0x3f) | 0x80);
  return id;
}

/*
 * Fills all but the name from the fields that BY_HANDLE_FILE_INFORMATION and WIN32_FIND_DATAW
 * share.
 */
template <typename Info>
void fill_entry(const Info& info, const std::string& path, CloudEntry* entry) {
  const auto time = [](const FILETIME& t) { return join(t.dwHighDateTime, t.dwLowDateTime); };
  entry->path = path;
  entry->folder = (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  entry->size = entry->folder ? 0 : join(info.nFileSizeHigh, info.nFileSizeLow);
  entry->attributes = info.dwFileAttributes;
  entry->created = time(info.ftCreationTime);
  entry->accessed = time(info.ftLastAccessTime);
  entry->modified = time(info.ftLastWriteTime);
  entry->id = id_of(path);
  entry->version =
      id_of(path + '\n' + std::to_string(entry->size) + '\n' + std::to_string(entry->modified));
}

std::string last_name(const std::string& path) { return path.substr(path.rfind('/') + 1); }
std::string join_path(const std::string& folder, const std::string& name) {
  return folder.empty() ? name : folder + '/' + name;
}

/* The longest path of Windows, which is also the longest that a FILE_NAME_INFO holds. */
constexpr DWORD MAX_PATH_UNITS = 32767;

/* The path of an open file below its volume's root, or an empty text. */
std::wstring path_on_volume(HANDLE file) {
  std::vector<char> buffer(sizeof(FILE_NAME_INFO) + MAX_PATH_UNITS * sizeof(wchar_t));
  if (GetFileInformationByHandleEx(file, FileNameInfo, buffer.data(),
                                   static_cast<DWORD>(buffer.size())) == 0) {
    return {};
  }
  const auto* info = reinterpret_cast<const FILE_NAME_INFO*>(buffer.data());
  return {info->FileName, info->FileNameLength / sizeof(wchar_t)};
}

constexpr size_t DRIVE_UNITS = 6; /* the lead of a verbatim path on a drive: \\?\Z: */

/* The real path of an open file, verbatim, or an empty text. */
std::wstring final_path(HANDLE file) {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD size = static_cast<DWORD>(path.size());
    const DWORD length = GetFinalPathNameByHandleW(file, path.data(), size, VOLUME_NAME_DOS);
    path.resize(length);
    if (length < size) {
      return path;
    }
  }
}

/* Whatever case the folder was asked in. */
bool is_below(const std::wstring& path, const std::wstring& folder) {
  const int length = static_cast<int>(folder.size());
  return path.size() > folder.size() && path[folder.size()] == L'\\' &&
         CompareStringOrdinal(path.c_str(), length, folder.c_str(), length, TRUE) == CSTR_EQUAL;
}

/* A path that names nothing a caller may reach: none of ours, and nothing hidden among ours. */
bool names_part(const std::string& path) {
  std::wstring name;
  return !wide_from_utf8(last_name(path), &name) || is_part(name);
}

}  // namespace

/* An open file or folder of the cloud and where it really is. */
struct CloudDirectory::Item {
  FileHandle file;
  std::wstring place; /* verbatim */
  std::string path;   /* relative to the root, with the disk's own case */
  BY_HANDLE_FILE_INFORMATION info;

  bool is_folder() const { return (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
};

std::unique_ptr<Cloud> CloudDirectory::open(const std::string& folder, std::string* error) {
  std::wstring wide;
  if (!wide_from_utf8("\\\\?\\" + folder, &wide)) {
    *error = "The address's folder is not UTF-8";
    return nullptr;
  }
  std::replace(wide.begin(), wide.end(), L'/', L'\\');
  const auto both_slashes = [](wchar_t a, wchar_t b) { return a == L'\\' && b == L'\\'; };
  wide.erase(std::unique(wide.begin() + 2, wide.end(), both_slashes), wide.end());
  const FileHandle root(CreateFileW(wide.c_str(), FILE_LIST_DIRECTORY, SHARE_ALL, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  if (!root.valid()) {
    *error = folder + ": cannot be opened (Windows error " + std::to_string(GetLastError()) + ")";
    return nullptr;
  }
  BY_HANDLE_FILE_INFORMATION info;
  if ((GetFileInformationByHandle(root.get(), &info) == 0) ||
      (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    *error = folder + ": is not a folder";
    return nullptr;
  }
  std::wstring place = final_path(root.get());
  if (place.size() < DRIVE_UNITS) {
    *error = folder + ": its disk does not tell the paths of open files";
    return nullptr;
  }
  while (place.ends_with(L'\\')) {  // a drive's root
    place.pop_back();
  }
  return std::unique_ptr<Cloud>(new CloudDirectory(std::move(place), info.dwVolumeSerialNumber));
}

/*
 * Opens what a path names and finds out where it is. Links are followed as long as they stay in the
 * directory: what lies behind others is reported as access denied. Some systems tell the whole path
 * of a file only when it is short, and always the one on its volume.
 */
int CloudDirectory::open_item(const std::string& path, uint32_t access, Item* item) const {
  std::wstring relative;
  if (!wide_from_utf8(path, &relative)) {
    return OX_EINVAL;
  }
  std::replace(relative.begin(), relative.end(), L'/', L'\\');
  if (names_part(path)) {
    return OX_ENOENT;
  }
  const std::wstring asked = root_ + L'\\' + relative;
  item->file = FileHandle(CreateFileW(asked.c_str(), access, SHARE_ALL, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  if (!item->file.valid() || (GetFileInformationByHandle(item->file.get(), &item->info) == 0)) {
    return last_error();
  }
  item->place = final_path(item->file.get());
  if (item->place.empty() && item->info.dwVolumeSerialNumber == volume_) {
    item->place = root_.substr(0, DRIVE_UNITS) + path_on_volume(item->file.get());
  }
  if (item->place.size() > root_.size() && item->place.ends_with(L'\\')) {
    item->place.pop_back();
  }
  if (!item->place.starts_with(root_) ||
      (item->place.size() > root_.size() && item->place[root_.size()] != L'\\')) {
    return OX_EPERM;
  }
  const size_t lead = std::min(root_.size() + 1, item->place.size());
  if (!utf8_from_wide(std::wstring_view(item->place).substr(lead), &item->path)) {
    return OX_EINVAL;
  }
  std::replace(item->path.begin(), item->path.end(), '\\', '/');
  return 0;
}

/*
 * Where a new item of this path belongs, verbatim: its folder is there and lies in the directory.
 */
int CloudDirectory::place_for(const std::string& path, std::wstring* place) const {
  const size_t slash = path.rfind('/');
  Item folder;
  std::wstring name;
  if (path.empty() || names_part(path) || !wide_from_utf8(last_name(path), &name)) {
    return OX_EINVAL;
  }
  if (const int err = open_item(slash == std::string::npos ? "" : path.substr(0, slash),
                                FILE_READ_ATTRIBUTES, &folder)) {
    return err;
  }
  *place = folder.place + L'\\' + name;
  return folder.is_folder() ? 0 : OX_ENOTDIR;
}

int CloudDirectory::status(const std::string& path, CloudEntry* entry) {
  Item item;
  if (const int err = open_item(path, FILE_READ_ATTRIBUTES, &item)) {
    return err;
  }
  fill_entry(item.info, item.path, entry);
  entry->name = last_name(item.path);
  return 0;
}

/* The entry of one find result, or an error when it is not to be shown. */
int CloudDirectory::listed_entry(const Item& folder, const WIN32_FIND_DATAW& found,
                                 CloudEntry* entry) {
  std::string name;
  if (is_part(found.cFileName) || !utf8_from_wide(found.cFileName, &name) ||
      check_name(name) != 0) {
    return OX_EINVAL;
  }
  const std::string path = join_path(folder.path, name);
  int err = 0;
  if ((found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    err = status(path, entry);
  } else {
    fill_entry(found, path, entry);
  }
  entry->name = name;
  return err;
}

int CloudDirectory::list(const std::string& path, std::vector<CloudEntry>* entries) {
  entries->clear();
  Item folder;
  if (const int err = open_item(path, FILE_LIST_DIRECTORY, &folder)) {
    return err;
  }
  if (!folder.is_folder()) {
    return OX_ENOTDIR;
  }
  remove_parts(folder.place, PART_MIN_AGE);
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileExW((folder.place + L"\\*").c_str(), FindExInfoBasic, &found,
                                         FindExSearchNameMatch, nullptr, FIND_FIRST_EX_LARGE_FETCH);
  if (search == INVALID_HANDLE_VALUE) { /* a drive's root has not even "." */
    return GetLastError() == ERROR_FILE_NOT_FOUND ? 0 : last_error();
  }
  do {
    CloudEntry entry;
    if (listed_entry(folder, found, &entry) == 0) {
      entries->push_back(std::move(entry));
    }
  } while (FindNextFileW(search, &found) != 0);
  const DWORD end = GetLastError();
  FindClose(search);
  return end == ERROR_NO_MORE_FILES ? 0 : errno_of_windows(end);
}

int CloudDirectory::read(const std::string& path, uint64_t offset, void* buffer, size_t size,
                         size_t* got) {
  *got = 0;
  const std::shared_lock reading(replacing_);
  Item item;
  if (const int err = open_item(path, GENERIC_READ, &item)) {
    return err;
  }
  if (item.is_folder()) {
    return OX_EISDIR;
  }
  while (*got < size) {
    const uint64_t at = offset + *got;
    OVERLAPPED position = {};
    position.Offset = static_cast<DWORD>(at);
    position.OffsetHigh = static_cast<DWORD>(at >> 32);
    const DWORD want = static_cast<DWORD>(std::min<size_t>(size - *got, 1 << 30));
    DWORD count = 0;
    if ((ReadFile(item.file.get(), static_cast<char*>(buffer) + *got, want, &count, &position) ==
         0) &&
        GetLastError() != ERROR_HANDLE_EOF) {
      return last_error();
    }
    if (count == 0) {
      break;
    }
    *got += count;
  }
  return 0;
}

/*
 * Another program's short look at a file (a virus scanner's, another service's read) makes a move
 * fail, so it is tried for half a second.
 */
int CloudDirectory::move(const std::wstring& from, const std::wstring& to, uint32_t flags) {
  constexpr int TRIES = 25;
  for (int tried = 1;; tried++) {
    DWORD code = ERROR_SUCCESS;
    {
      const std::unique_lock replacing(replacing_);
      if (MoveFileExW(from.c_str(), to.c_str(), flags | MOVEFILE_WRITE_THROUGH) == 0) {
        code = GetLastError();
      }
    }
    if (tried == TRIES || (code != ERROR_ACCESS_DENIED && code != ERROR_SHARING_VIOLATION)) {
      return errno_of_windows(code);
    }
    Sleep(20);
  }
}

int CloudDirectory::write(const std::string& path, uint64_t size, const ContentReader& content) {
  std::wstring target;
  Item old;
  int err = open_item(path, FILE_READ_ATTRIBUTES, &old);
  if (err == 0) {
    target = old.place;
  } else if (err == OX_ENOENT) {
    err = place_for(path, &target);
  }
  if (err != 0) {
    return err;
  }
  if (old.file.valid() && old.is_folder()) {
    return OX_EISDIR;
  }
  old.file.close();
  const std::wstring part = new_part(target);
  err = write_part(part, target, size, content);
  if (err == 0) {
    err = move(part, target, MOVEFILE_REPLACE_EXISTING);
  }
  if (err != 0) {
    DeleteFileW(part.c_str());
  }
  return err;
}

int CloudDirectory::rename(const std::string& from, const std::string& to, bool replace) {
  std::wstring source;
  std::wstring target;
  if (int err = place_for(from, &source); err != 0 || (err = place_for(to, &target)) != 0) {
    return err;
  }
  if (is_below(target, source)) {
    return OX_EINVAL;
  }
  const int err = move(source, target, 0);
  const auto is_file = [](const std::wstring& place) {
    const DWORD attributes = GetFileAttributesW(place.c_str());
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0; /* set in the value for "not there" */
  };
  if (err != OX_EEXIST || !replace || !is_file(source) || !is_file(target)) {
    return err;
  }
  return move(source, target, MOVEFILE_REPLACE_EXISTING);
}

int CloudDirectory::remove(const std::string& path) {
  std::wstring place;
  if (const int err = place_for(path, &place)) {
    return err;
  }
  const DWORD attributes = GetFileAttributesW(place.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    return last_error();
  }
  const std::unique_lock replacing(replacing_);
  if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    return DeleteFileW(place.c_str()) != 0 ? 0 : last_error();
  }
  if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
    remove_parts(place, 0);
  }
  return RemoveDirectoryW(place.c_str()) != 0 ? 0 : last_error();
}

int CloudDirectory::make_folder(const std::string& path) {
  std::wstring place;
  if (const int err = place_for(path, &place)) {
    return path.empty() ? OX_EEXIST : err;
  }
  return CreateDirectoryW(place.c_str(), nullptr) != 0 ? 0 : last_error();
}

}  // namespace tarnd
