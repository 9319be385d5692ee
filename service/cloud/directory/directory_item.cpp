#include "cloud/directory/directory_item.h"

#include <winternl.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "cloud/directory/part_file.h"
#include "cloud/path_id.h"
#include "wide_text.h"

namespace tarnd {
namespace {

/* Of volumes: files can share their bytes. MinGW's headers do not have it. */
constexpr DWORD BLOCK_REFCOUNTING = 0x08000000;

constexpr DWORD MAX_PATH_UNITS = 32767; /* the longest path of Windows */
constexpr size_t DRIVE_UNITS = 6;       /* the lead of a verbatim path on a drive: \\?\Z: */

std::string version_text(uint64_t number, uint64_t change_time, uint64_t size) {
  std::array<char, 3 * 16 + 2> text;
  char* end = text.data();
  for (const uint64_t part : {number, change_time, size}) {
    if (end != text.data()) {
      *end++ = '-';
    }
    end = std::to_chars(end, text.data() + text.size(), part, 16).ptr;
  }
  return {text.data(), end};
}

std::string last_name(const std::string& path) { return path.substr(path.rfind('/') + 1); }

uint64_t unsigned_of(LARGE_INTEGER value) { return static_cast<uint64_t>(value.QuadPart); }

/* The number of an open file on its disk. */
bool number_of(HANDLE file, uint64_t* number) {
  FILE_INTERNAL_INFORMATION found;
  IO_STATUS_BLOCK status;
  const bool ok =
      NtQueryInformationFile(file, &status, &found, sizeof found, FileInternalInformation) >= 0;
  *number = ok ? unsigned_of(found.IndexNumber) : 0;
  return ok;
}

/* The serial number of an open file's volume; 0 when unknown. */
DWORD volume_of(HANDLE file) {
  BY_HANDLE_FILE_INFORMATION info;
  return GetFileInformationByHandle(file, &info) != 0 ? info.dwVolumeSerialNumber : 0;
}

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

/* A path that names nothing a caller may reach: none of ours, and nothing hidden among ours. */
bool names_part(const std::string& path) {
  std::wstring name;
  return !wide_from_utf8(last_name(path), &name) || is_part(name);
}

std::wstring with_backslashes(std::wstring path) {
  std::replace(path.begin(), path.end(), L'/', L'\\');
  return path;
}

FileHandle open_shared(const std::wstring& place, DWORD access, DWORD share) {
  return FileHandle(CreateFileW(place.c_str(), access, share, nullptr, OPEN_EXISTING,
                                FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

uint64_t clone_grain_of(HANDLE folder, const std::wstring& place) {
  DWORD flags = 0;
  DWORD sectors = 0;
  DWORD bytes = 0;
  DWORD free = 0;
  DWORD all = 0;
  const bool can = GetVolumeInformationByHandleW(folder, nullptr, 0, nullptr, nullptr, &flags,
                                                 nullptr, 0) != 0 &&
                   (flags & BLOCK_REFCOUNTING) != 0 &&
                   GetDiskFreeSpaceW((place + L'\\').c_str(), &sectors, &bytes, &free, &all) != 0;
  return can ? uint64_t{sectors} * bytes : 0;
}

}  // namespace

/* ------------------------------------------------------------------ results */

CloudResult result_of_errno(int error) {
  switch (error) {
    case 0:
      return {};
    case OX_ENOENT:
      return CloudResult::of(CloudCode::NOT_FOUND);
    case OX_EEXIST:
      return CloudResult::of(CloudCode::EXISTS);
    case OX_ENOSPC:
      return CloudResult::of(CloudCode::NO_SPACE);
    case OX_EACCES: /* another program has the file */
      return {CloudCode::BUSY, OX_EACCES};
    default:
      return CloudResult::refused(error);
  }
}

CloudResult result_of_windows(DWORD code) {
  switch (code) {
    case ERROR_BAD_NETPATH:
    case ERROR_BAD_NET_NAME:
    case ERROR_NETNAME_DELETED:
    case ERROR_NETWORK_UNREACHABLE:
    case ERROR_NOT_READY:
    case ERROR_SEM_TIMEOUT:
    case ERROR_UNEXP_NET_ERR:
      return CloudResult::of(CloudCode::OFFLINE);
    default:
      return result_of_errno(errno_of_windows(code));
  }
}

CloudResult last_result() { return result_of_windows(GetLastError()); }

CloudResult check_version(const DirectoryItem& item, const std::string& version) {
  const bool same = version.empty() || item.is_folder() || item.version() == version;
  return same ? CloudResult{} : CloudResult::of(CloudCode::CHANGED);
}

/* ------------------------------------------------------------------ items */

DWORD DirectoryItem::look() {
  FILE_STANDARD_INFO standard;
  if (GetFileInformationByHandleEx(file.get(), FileBasicInfo, &info, sizeof info) == 0 ||
      GetFileInformationByHandleEx(file.get(), FileStandardInfo, &standard, sizeof standard) == 0) {
    return GetLastError();
  }
  size = unsigned_of(standard.EndOfFile);
  return number_of(file.get(), &number) ? ERROR_SUCCESS : ERROR_GEN_FAILURE;
}

std::string DirectoryItem::version() const {
  return is_folder() ? std::string() : version_text(number, change_time(), size);
}

CloudEntry DirectoryItem::entry() const {
  return {.name = last_name(path),
          .path = path,
          .folder = is_folder(),
          .size = is_folder() ? 0 : size,
          .attributes = info.FileAttributes,
          .created = unsigned_of(info.CreationTime),
          .accessed = unsigned_of(info.LastAccessTime),
          .modified = unsigned_of(info.LastWriteTime),
          .id = id_of_path(path),
          .version = version()};
}

CloudEntry listed_entry(const std::string& folder, const std::string& name,
                        const FILE_ID_BOTH_DIR_INFO& found) {
  const std::string path = folder.empty() ? name : folder + '/' + name;
  const bool is_folder = (found.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  CloudEntry entry = {.name = name,
                      .path = path,
                      .folder = is_folder,
                      .size = is_folder ? 0 : unsigned_of(found.EndOfFile),
                      .attributes = found.FileAttributes,
                      .created = unsigned_of(found.CreationTime),
                      .accessed = unsigned_of(found.LastAccessTime),
                      .modified = unsigned_of(found.LastWriteTime),
                      .id = id_of_path(path)};
  if (!is_folder) {
    entry.version =
        version_text(unsigned_of(found.FileId), unsigned_of(found.ChangeTime), entry.size);
  }
  return entry;
}

void add_folder(const DirectoryItem& item, CloudEntry* entry) {
  WIN32_FILE_ATTRIBUTE_DATA found;
  const std::wstring folder = item.place.substr(0, item.place.rfind(L'\\'));
  if (!item.path.empty() &&
      GetFileAttributesExW(folder.c_str(), GetFileExInfoStandard, &found) != 0) {
    const size_t slash = item.path.rfind('/');
    entry->folder_id = id_of_path(slash == std::string::npos ? "" : item.path.substr(0, slash));
    entry->folder_modified =
        join(found.ftLastWriteTime.dwHighDateTime, found.ftLastWriteTime.dwLowDateTime);
  }
}

/* ------------------------------------------------------------------ the root */

std::unique_ptr<DirectoryRoot> DirectoryRoot::open(const std::string& folder, std::string* error) {
  std::wstring wide;
  if (!wide_from_utf8("\\\\?\\" + folder, &wide)) {
    *error = "The address's folder is not UTF-8";
    return nullptr;
  }
  wide = with_backslashes(wide);
  const auto both_slashes = [](wchar_t a, wchar_t b) { return a == L'\\' && b == L'\\'; };
  wide.erase(std::unique(wide.begin() + 2, wide.end(), both_slashes), wide.end());
  const FileHandle root = open_shared(wide, FILE_LIST_DIRECTORY, SHARE_ALL);
  if (!root.valid()) {
    *error = folder + ": cannot be opened (Windows error " + std::to_string(GetLastError()) + ")";
    return nullptr;
  }
  BY_HANDLE_FILE_INFORMATION info;
  if (GetFileInformationByHandle(root.get(), &info) == 0 ||
      (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    *error = folder + ": is not a folder";
    return nullptr;
  }
  std::wstring place = final_path(root.get());
  if (place.size() < DRIVE_UNITS) {
    *error = folder + ": its disk does not tell the paths of open files";
    return nullptr;
  }
  while (place.ends_with(L'\\')) { /* a drive's root */
    place.pop_back();
  }
  const uint64_t grain = clone_grain_of(root.get(), place);
  return std::unique_ptr<DirectoryRoot>(
      new DirectoryRoot(std::move(place), info.dwVolumeSerialNumber, grain));
}

CloudResult DirectoryRoot::open_path(const std::string& path, DWORD access, DWORD share,
                                     FileHandle* file) const {
  std::wstring relative;
  if (!wide_from_utf8(path, &relative)) {
    return CloudResult::refused(OX_EINVAL);
  }
  if (names_part(path)) {
    return CloudResult::of(CloudCode::NOT_FOUND);
  }
  *file = open_shared(place_ + L'\\' + with_backslashes(relative), access, share);
  return file->valid() ? CloudResult{} : last_result();
}

CloudResult DirectoryRoot::open_item(const std::string& path, DWORD access, DWORD share,
                                     DirectoryItem* item) const {
  const CloudResult opened = open_path(path, access, share, &item->file);
  return opened.ok() ? identify(item) : opened;
}

CloudResult DirectoryRoot::open_version(const std::string& path, const std::string& version,
                                        DirectoryItem* item) const {
  const CloudResult opened = open_path(path, GENERIC_READ, SHARE_ALL, &item->file);
  if (!opened.ok()) {
    return opened;
  }
  const DWORD code = item->look();
  const bool folder = code == ERROR_SUCCESS && item->is_folder();
  return folder                  ? CloudResult::refused(OX_EISDIR)
         : code == ERROR_SUCCESS ? check_version(*item, version)
                                 : result_of_windows(code);
}

/*
 * Some systems tell the whole path of a file only when it is short, and always the one on its
 * volume.
 */
CloudResult DirectoryRoot::identify(DirectoryItem* item) const {
  if (const DWORD code = item->look(); code != ERROR_SUCCESS) {
    return result_of_windows(code);
  }
  item->place = final_path(item->file.get());
  if (item->place.empty() && volume_of(item->file.get()) == volume_) {
    item->place = place_.substr(0, DRIVE_UNITS) + path_on_volume(item->file.get());
  }
  if (item->place.size() > place_.size() && item->place.ends_with(L'\\')) {
    item->place.pop_back();
  }
  if (!item->place.starts_with(place_) ||
      (item->place.size() > place_.size() && item->place[place_.size()] != L'\\')) {
    return CloudResult::refused(OX_EPERM);
  }
  const size_t lead = std::min(place_.size() + 1, item->place.size());
  if (!utf8_from_wide(std::wstring_view(item->place).substr(lead), &item->path)) {
    return CloudResult::refused(OX_EINVAL);
  }
  std::replace(item->path.begin(), item->path.end(), '\\', '/');
  return {};
}

CloudResult DirectoryRoot::place_for(const std::string& path, std::wstring* place) const {
  const size_t slash = path.rfind('/');
  const std::string above = slash == std::string::npos ? "" : path.substr(0, slash);
  DirectoryItem folder;
  std::wstring name;
  if (path.empty() || names_part(path) || !wide_from_utf8(last_name(path), &name)) {
    return CloudResult::refused(OX_EINVAL);
  }
  const CloudResult found = open_item(above, FILE_READ_ATTRIBUTES, SHARE_ALL, &folder);
  if (!found.ok()) {
    return found;
  }
  *place = folder.place + L'\\' + name;
  return folder.is_folder() ? CloudResult{} : CloudResult::refused(OX_ENOTDIR);
}

}  // namespace tarnd
