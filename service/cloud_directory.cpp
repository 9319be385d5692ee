#include "cloud_directory.h"

#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <utility>

#include "cloud_part.h"
#include "ox_errno.h"
#include "share_path.h"
#include "wide_text.h"
#include "windows_file.h"

namespace tarnd {
namespace {

/*
 * The algorithm provider that needs no opening (BCRYPT_SHA256_ALG_HANDLE, which MinGW's header has
 * not).
 */
const BCRYPT_ALG_HANDLE kSha256 = reinterpret_cast<BCRYPT_ALG_HANDLE>(0x41);

/* A UUID named by a text (version 8: an own scheme): the head of the text's SHA-256. */
cfs_id_t IdOf(const std::string& text) {
  std::array<UCHAR, 32> digest = {};
  std::string input = text;
  BCryptHash(kSha256, nullptr, 0, reinterpret_cast<PUCHAR>(input.data()),
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
void FillEntry(const Info& info, const std::string& path, CloudEntry* entry) {
  const auto time = [](const FILETIME& t) { return Join(t.dwHighDateTime, t.dwLowDateTime); };
  entry->path = path;
  entry->folder = (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  entry->size = entry->folder ? 0 : Join(info.nFileSizeHigh, info.nFileSizeLow);
  entry->attributes = info.dwFileAttributes;
  entry->created = time(info.ftCreationTime);
  entry->accessed = time(info.ftLastAccessTime);
  entry->modified = time(info.ftLastWriteTime);
  entry->id = IdOf(path);
  entry->version =
      IdOf(path + '\n' + std::to_string(entry->size) + '\n' + std::to_string(entry->modified));
}

std::string LastName(const std::string& path) { return path.substr(path.rfind('/') + 1); }
std::string JoinPath(const std::string& folder, const std::string& name) {
  return folder.empty() ? name : folder + '/' + name;
}

/* The longest path of Windows, which is also the longest that a FILE_NAME_INFO holds. */
constexpr DWORD kMaxPathUnits = 32767;

/* The path of an open file below its volume's root, or an empty text. */
std::wstring PathOnVolume(HANDLE file) {
  std::vector<char> buffer(sizeof(FILE_NAME_INFO) + kMaxPathUnits * sizeof(wchar_t));
  if (GetFileInformationByHandleEx(file, FileNameInfo, buffer.data(),
                                   static_cast<DWORD>(buffer.size())) == 0) {
    return {};
  }
  const auto* info = reinterpret_cast<const FILE_NAME_INFO*>(buffer.data());
  return {info->FileName, info->FileNameLength / sizeof(wchar_t)};
}

constexpr size_t kDriveUnits = 6; /* the lead of a verbatim path on a drive: \\?\Z: */

/* The real path of an open file, verbatim, or an empty text. */
std::wstring FinalPath(HANDLE file) {
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
bool IsBelow(const std::wstring& path, const std::wstring& folder) {
  const int length = static_cast<int>(folder.size());
  return path.size() > folder.size() && path[folder.size()] == L'\\' &&
         CompareStringOrdinal(path.c_str(), length, folder.c_str(), length, TRUE) == CSTR_EQUAL;
}

/* A path that names nothing a caller may reach: none of ours, and nothing hidden among ours. */
bool NamesPart(const std::string& path) {
  std::wstring name;
  return !WideFromUtf8(LastName(path), &name) || IsPart(name);
}

}  // namespace

/* An open file or folder of the cloud and where it really is. */
struct CloudDirectory::Item {
  FileHandle file;
  std::wstring place; /* verbatim */
  std::string path;   /* relative to the root, with the disk's own case */
  BY_HANDLE_FILE_INFORMATION info;

  bool IsFolder() const { return (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
};

std::unique_ptr<Cloud> CloudDirectory::Open(const std::string& folder, std::string* error) {
  std::wstring wide;
  if (!WideFromUtf8("\\\\?\\" + folder, &wide)) {
    *error = "The address's folder is not UTF-8";
    return nullptr;
  }
  std::replace(wide.begin(), wide.end(), L'/', L'\\');
  const auto both_slashes = [](wchar_t a, wchar_t b) { return a == L'\\' && b == L'\\'; };
  wide.erase(std::unique(wide.begin() + 2, wide.end(), both_slashes), wide.end());
  const FileHandle root(CreateFileW(wide.c_str(), FILE_LIST_DIRECTORY, kShareAll, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  if (!root.Valid()) {
    *error = folder + ": cannot be opened (Windows error " + std::to_string(GetLastError()) + ")";
    return nullptr;
  }
  BY_HANDLE_FILE_INFORMATION info;
  if ((GetFileInformationByHandle(root.Get(), &info) == 0) ||
      (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    *error = folder + ": is not a folder";
    return nullptr;
  }
  std::wstring place = FinalPath(root.Get());
  if (place.size() < kDriveUnits) {
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
int CloudDirectory::OpenItem(const std::string& path, uint32_t access, Item* item) const {
  std::wstring relative;
  if (!WideFromUtf8(path, &relative)) {
    return OX_EINVAL;
  }
  std::replace(relative.begin(), relative.end(), L'/', L'\\');
  if (NamesPart(path)) {
    return OX_ENOENT;
  }
  const std::wstring asked = root_ + L'\\' + relative;
  item->file = FileHandle(CreateFileW(asked.c_str(), access, kShareAll, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  if (!item->file.Valid() || (GetFileInformationByHandle(item->file.Get(), &item->info) == 0)) {
    return LastError();
  }
  item->place = FinalPath(item->file.Get());
  if (item->place.empty() && item->info.dwVolumeSerialNumber == volume_) {
    item->place = root_.substr(0, kDriveUnits) + PathOnVolume(item->file.Get());
  }
  if (item->place.size() > root_.size() && item->place.ends_with(L'\\')) {
    item->place.pop_back();
  }
  if (!item->place.starts_with(root_) ||
      (item->place.size() > root_.size() && item->place[root_.size()] != L'\\')) {
    return OX_EPERM;
  }
  const size_t lead = std::min(root_.size() + 1, item->place.size());
  if (!Utf8FromWide(std::wstring_view(item->place).substr(lead), &item->path)) {
    return OX_EINVAL;
  }
  std::replace(item->path.begin(), item->path.end(), '\\', '/');
  return 0;
}

/*
 * Where a new item of this path belongs, verbatim: its folder is there and lies in the directory.
 */
int CloudDirectory::PlaceFor(const std::string& path, std::wstring* place) const {
  const size_t slash = path.rfind('/');
  Item folder;
  std::wstring name;
  if (path.empty() || NamesPart(path) || !WideFromUtf8(LastName(path), &name)) {
    return OX_EINVAL;
  }
  if (const int err = OpenItem(slash == std::string::npos ? "" : path.substr(0, slash),
                               FILE_READ_ATTRIBUTES, &folder)) {
    return err;
  }
  *place = folder.place + L'\\' + name;
  return folder.IsFolder() ? 0 : OX_ENOTDIR;
}

int CloudDirectory::Status(const std::string& path, CloudEntry* entry) {
  Item item;
  if (const int err = OpenItem(path, FILE_READ_ATTRIBUTES, &item)) {
    return err;
  }
  FillEntry(item.info, item.path, entry);
  entry->name = LastName(item.path);
  return 0;
}

/* The entry of one find result, or an error when it is not to be shown. */
int CloudDirectory::ListedEntry(const Item& folder, const WIN32_FIND_DATAW& found,
                                CloudEntry* entry) {
  std::string name;
  if (IsPart(found.cFileName) || !Utf8FromWide(found.cFileName, &name) || CheckName(name) != 0) {
    return OX_EINVAL;
  }
  const std::string path = JoinPath(folder.path, name);
  int err = 0;
  if ((found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    err = Status(path, entry);
  } else {
    FillEntry(found, path, entry);
  }
  entry->name = name;
  return err;
}

int CloudDirectory::List(const std::string& path, std::vector<CloudEntry>* entries) {
  entries->clear();
  Item folder;
  if (const int err = OpenItem(path, FILE_LIST_DIRECTORY, &folder)) {
    return err;
  }
  if (!folder.IsFolder()) {
    return OX_ENOTDIR;
  }
  RemoveParts(folder.place, kPartMinAge);
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileExW((folder.place + L"\\*").c_str(), FindExInfoBasic, &found,
                                         FindExSearchNameMatch, nullptr, FIND_FIRST_EX_LARGE_FETCH);
  if (search == INVALID_HANDLE_VALUE) { /* a drive's root has not even "." */
    return GetLastError() == ERROR_FILE_NOT_FOUND ? 0 : LastError();
  }
  do {
    CloudEntry entry;
    if (ListedEntry(folder, found, &entry) == 0) {
      entries->push_back(std::move(entry));
    }
  } while (FindNextFileW(search, &found) != 0);
  const DWORD end = GetLastError();
  FindClose(search);
  return end == ERROR_NO_MORE_FILES ? 0 : ErrnoOfWindows(end);
}

int CloudDirectory::Read(const std::string& path, uint64_t offset, void* buffer, size_t size,
                         size_t* got) {
  *got = 0;
  const std::shared_lock reading(replacing_);
  Item item;
  if (const int err = OpenItem(path, GENERIC_READ, &item)) {
    return err;
  }
  if (item.IsFolder()) {
    return OX_EISDIR;
  }
  while (*got < size) {
    const uint64_t at = offset + *got;
    OVERLAPPED position = {};
    position.Offset = static_cast<DWORD>(at);
    position.OffsetHigh = static_cast<DWORD>(at >> 32);
    const DWORD want = static_cast<DWORD>(std::min<size_t>(size - *got, 1 << 30));
    DWORD count = 0;
    if ((ReadFile(item.file.Get(), static_cast<char*>(buffer) + *got, want, &count, &position) ==
         0) &&
        GetLastError() != ERROR_HANDLE_EOF) {
      return LastError();
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
int CloudDirectory::Move(const std::wstring& from, const std::wstring& to, uint32_t flags) {
  constexpr int kTries = 25;
  for (int tried = 1;; tried++) {
    DWORD code = ERROR_SUCCESS;
    {
      const std::unique_lock replacing(replacing_);
      if (MoveFileExW(from.c_str(), to.c_str(), flags | MOVEFILE_WRITE_THROUGH) == 0) {
        code = GetLastError();
      }
    }
    if (tried == kTries || (code != ERROR_ACCESS_DENIED && code != ERROR_SHARING_VIOLATION)) {
      return ErrnoOfWindows(code);
    }
    Sleep(20);
  }
}

int CloudDirectory::Write(const std::string& path, uint64_t size, const ContentReader& content) {
  std::wstring target;
  Item old;
  int err = OpenItem(path, FILE_READ_ATTRIBUTES, &old);
  if (err == 0) {
    target = old.place;
  } else if (err == OX_ENOENT) {
    err = PlaceFor(path, &target);
  }
  if (err != 0) {
    return err;
  }
  if (old.file.Valid() && old.IsFolder()) {
    return OX_EISDIR;
  }
  old.file.Close();
  const std::wstring part = NewPart(target);
  err = WritePart(part, target, size, content);
  if (err == 0) {
    err = Move(part, target, MOVEFILE_REPLACE_EXISTING);
  }
  if (err != 0) {
    DeleteFileW(part.c_str());
  }
  return err;
}

int CloudDirectory::Rename(const std::string& from, const std::string& to, bool replace) {
  std::wstring source;
  std::wstring target;
  if (int err = PlaceFor(from, &source); err != 0 || (err = PlaceFor(to, &target)) != 0) {
    return err;
  }
  if (IsBelow(target, source)) {
    return OX_EINVAL;
  }
  const int err = Move(source, target, 0);
  const auto is_file = [](const std::wstring& place) {
    const DWORD attributes = GetFileAttributesW(place.c_str());
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0; /* set in the value for "not there" */
  };
  if (err != OX_EEXIST || !replace || !is_file(source) || !is_file(target)) {
    return err;
  }
  return Move(source, target, MOVEFILE_REPLACE_EXISTING);
}

int CloudDirectory::Delete(const std::string& path) {
  std::wstring place;
  if (const int err = PlaceFor(path, &place)) {
    return err;
  }
  const DWORD attributes = GetFileAttributesW(place.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    return LastError();
  }
  const std::unique_lock replacing(replacing_);
  if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    return DeleteFileW(place.c_str()) != 0 ? 0 : LastError();
  }
  if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
    RemoveParts(place, 0);
  }
  return RemoveDirectoryW(place.c_str()) != 0 ? 0 : LastError();
}

int CloudDirectory::MakeFolder(const std::string& path) {
  std::wstring place;
  if (const int err = PlaceFor(path, &place)) {
    return path.empty() ? OX_EEXIST : err;
  }
  return CreateDirectoryW(place.c_str(), nullptr) != 0 ? 0 : LastError();
}

}  // namespace tarnd
