#include "cloud/directory/directory_cloud.h"

#include <algorithm>
#include <mutex>

#include "cloud/directory/file_rename.h"
#include "names/share_path.h"
#include "ox_logging.h"
#include "wide_text.h"

namespace tarnd {
namespace {

constexpr size_t LISTED_AT_ONCE = size_t{1} << 16;
/* Others may read, rename and delete, but not write. */
constexpr DWORD SHARE_UNCHANGED = FILE_SHARE_READ | FILE_SHARE_DELETE;

/* Whatever case the folder was asked in. */
bool is_below(const std::wstring& path, const std::wstring& folder) {
  const int length = static_cast<int>(folder.size());
  return path.size() > folder.size() && path[folder.size()] == L'\\' &&
         CompareStringOrdinal(path.c_str(), length, folder.c_str(), length, TRUE) == CSTR_EQUAL;
}

std::wstring_view name_of(const FILE_ID_BOTH_DIR_INFO& found) {
  return {found.FileName, found.FileNameLength / sizeof(wchar_t)};
}

/* Before a folder is opened for its deletion, which keeps others from searching it. */
void remove_parts_in(const std::wstring& place) {
  constexpr DWORD KINDS = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
  const DWORD attributes = GetFileAttributesW(place.c_str());
  if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & KINDS) == FILE_ATTRIBUTE_DIRECTORY) {
    remove_parts(place);
  }
}

}  // namespace

std::unique_ptr<Cloud> DirectoryCloud::open(const std::string& folder, std::string* error) {
  std::unique_ptr<DirectoryRoot> root = DirectoryRoot::open(folder, error);
  if (root == nullptr) {
    return nullptr;
  }
  if (root->clone_grain() == 0) {
    OX_LOG(OX_INFO_LEVEL, 0,
           "The disk of %s cannot clone files: a small change of a file costs a "
           "copy of all of it",
           folder.c_str());
  }
  return std::unique_ptr<Cloud>(new DirectoryCloud(std::move(root)));
}

CloudCapabilities DirectoryCloud::capabilities() const {
  return {.patch = true, .case_insensitive = true};
}

/* ------------------------------------------------------------------ looking */

CloudResult DirectoryCloud::status(const CloudContext& context, const std::string& path,
                                   CloudEntry* entry) {
  DirectoryItem item;
  CloudResult result = check(context);
  if (result.ok()) {
    result = root_->open_item(path, FILE_READ_ATTRIBUTES, SHARE_ALL, &item);
  }
  if (result.ok()) {
    *entry = item.entry();
  }
  if (result.ok() && context.with_folder) {
    add_folder(item, entry);
  }
  return result;
}

CloudResult DirectoryCloud::list(const CloudContext& context, const std::string& path,
                                 const EntrySink& sink) {
  DirectoryItem folder;
  CloudResult result = check(context);
  if (result.ok()) {
    result = root_->open_item(path, FILE_LIST_DIRECTORY, SHARE_ALL, &folder);
  }
  if (!result.ok() || !folder.is_folder()) {
    return result.ok() ? CloudResult::refused(OX_ENOTDIR) : result;
  }
  std::vector<std::wstring> leftovers;
  result = list_items(folder, context, sink, &leftovers);
  for (const std::wstring& name : leftovers) {
    DeleteFileW((folder.place + L'\\' + name).c_str());
  }
  return result;
}

/* Names of killed writes go to `leftovers`: a search for them alone would read the folder twice. */
CloudResult DirectoryCloud::list_items(const DirectoryItem& folder, const CloudContext& context,
                                       const EntrySink& sink,
                                       std::vector<std::wstring>* leftovers) {
  std::vector<uint64_t> buffer(LISTED_AT_ONCE / sizeof(uint64_t)); /* aligned as the records are */
  while (GetFileInformationByHandleEx(folder.file.get(), FileIdBothDirectoryInfo, buffer.data(),
                                      static_cast<DWORD>(LISTED_AT_ONCE)) != 0) {
    const char* found = reinterpret_cast<const char*>(buffer.data());
    const bool enough = !hand_out(folder, found, sink, leftovers);
    const CloudResult wanted = check(context);
    if (enough || !wanted.ok()) {
      return wanted;
    }
  }
  /* A drive's root has not even "." */
  const DWORD end = GetLastError();
  return end == ERROR_NO_MORE_FILES || end == ERROR_FILE_NOT_FOUND ? CloudResult{}
                                                                   : result_of_windows(end);
}

/* A buffer of records, each of which leads to the next. False when the sink wants no more. */
bool DirectoryCloud::hand_out(const DirectoryItem& folder, const char* records,
                              const EntrySink& sink, std::vector<std::wstring>* leftovers) {
  for (DWORD step = 1; step != 0; records += step) {
    const auto* found = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(records);
    step = found->NextEntryOffset;
    const std::wstring_view name = name_of(*found);
    if (is_part(name) && is_leftover(found->LastWriteTime)) {
      leftovers->emplace_back(name);
    }
    CloudEntry entry;
    if (listed(folder, *found, &entry) && !sink(std::move(entry))) {
      return false;
    }
  }
  return true;
}

/* Fills in the entry; false when it is not to be shown. */
bool DirectoryCloud::listed(const DirectoryItem& folder, const FILE_ID_BOTH_DIR_INFO& found,
                            CloudEntry* entry) {
  const std::wstring_view wide = name_of(found);
  std::string name;
  if (is_part(wide) || !utf8_from_wide(wide, &name) || !is_windows_name(name)) {
    return false;
  }
  *entry = listed_entry(folder.path, name, found);
  if ((found.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    const bool inside = status({}, entry->path, entry).ok();
    entry->name = name;
    return inside;
  }
  return true;
}

CloudResult DirectoryCloud::read(const CloudContext& context, const std::string& path,
                                 const std::string& version, ByteRange range,
                                 const DataSink& sink) {
  const PieceBuffers::Loan buffer(pieces_);
  while (!range.empty()) {
    const std::span<char> piece = buffer.first(range.length);
    CloudResult result = check(context);
    if (result.ok()) {
      result = read_piece(path, version, range.offset, piece);
    }
    if (!result.ok()) {
      return result;
    }
    if (const int err = sink(piece.data(), piece.size())) {
      return CloudResult::refused(err);
    }
    range = {range.offset + piece.size(), range.length - piece.size()};
  }
  return {};
}

CloudResult DirectoryCloud::read_piece(const std::string& path, const std::string& version,
                                       uint64_t offset, std::span<char> piece) {
  const FileGates::Gate gate = gates_.of(path);
  const std::shared_lock reading(*gate);
  DirectoryItem item;
  CloudResult result = root_->open_version(path, version, &item);
  if (!result.ok()) {
    return result;
  }
  OVERLAPPED position = {};
  position.Offset = static_cast<DWORD>(offset);
  position.OffsetHigh = static_cast<DWORD>(offset >> 32);
  DWORD got = 0;
  if (ReadFile(item.file.get(), piece.data(), static_cast<DWORD>(piece.size()), &got, &position) ==
          0 &&
      GetLastError() != ERROR_HANDLE_EOF) {
    return last_result();
  }
  if (const DWORD code = item.look(); code != ERROR_SUCCESS) {
    return result_of_windows(code);
  }
  result = check_version(item, version);
  return result.ok() && got != piece.size() ? CloudResult::refused(OX_EINVAL) : result;
}

/* ------------------------------------------------------------------ new contents */

/* Where the content goes, and a first look at the condition, before it is moved for nothing. */
CloudResult DirectoryCloud::locate(const std::string& path, const PutCondition& condition,
                                   Target* target, DirectoryItem* old) {
  *target = {path, {}, condition.version};
  if (condition.version.empty()) {
    DirectoryItem item;
    const bool there = root_->open_item(path, FILE_READ_ATTRIBUTES, SHARE_ALL, &item).ok();
    return there ? CloudResult::of(CloudCode::EXISTS) : root_->place_for(path, &target->place);
  }
  const CloudResult result = root_->open_item(path, GENERIC_READ, SHARE_ALL, old);
  if (!result.ok() || old->is_folder()) {
    return result.ok() ? CloudResult::refused(OX_EISDIR) : result;
  }
  target->place = old->place;
  return check_version(*old, condition.version);
}

CloudResult DirectoryCloud::put(const CloudContext& context, const std::string& path,
                                const PutCondition& condition, Snapshot& content,
                                CloudEntry* made) {
  Target target;
  DirectoryItem old;
  CloudResult result = check(context);
  if (result.ok()) {
    result = locate(path, condition, &target, &old);
  }
  if (!result.ok()) {
    return result;
  }
  old.file.close();
  PartFile part(target.place);
  result = part.create();
  if (result.ok()) {
    result = part.write(context, content, {{0, content.size()}});
  }
  if (result.ok() && !target.version.empty()) {
    part.keep_attributes(old.info);
  }
  return result.ok() ? publish(context, target, part, made) : result;
}

CloudResult DirectoryCloud::patch(const CloudContext& context, const std::string& path,
                                  const PutCondition& condition, Snapshot& content,
                                  CloudEntry* made) {
  Target target;
  DirectoryItem old;
  CloudResult result = check(context);
  if (result.ok()) {
    result = locate(path, condition, &target, &old);
  }
  if (!result.ok() || target.version.empty()) {
    return result.ok() ? CloudResult::refused(OX_EINVAL) : result;
  }
  PartFile part(target.place);
  result = part.create_copy(context, old.place, old.file.get(), old.size, root_->clone_grain());
  if (result.ok()) {
    const DWORD code = old.look(); /* it must not have changed while it was copied */
    result = code == ERROR_SUCCESS ? check_version(old, target.version) : result_of_windows(code);
  }
  old.file.close();
  if (result.ok()) {
    result = part.write(context, content, content.changed());
  }
  if (!result.ok()) {
    return result;
  }
  part.keep_attributes(old.info);
  return publish(context, target, part, made);
}

/* The second flush is for the new name: a content that was said to be there survives a power loss.
 */
CloudResult DirectoryCloud::publish(const CloudContext& context, const Target& target,
                                    PartFile& part, CloudEntry* made) {
  CloudResult result = part.flush();
  if (result.ok()) {
    part.be_newer_than(newest_gone_);
    result = move_checked(context, part.handle(), target);
  }
  if (!result.ok()) {
    return result;
  }
  part.keep();
  part.flush();
  return entry_of(part.file(), made);
}

/* ------------------------------------------------------------------ moving and deleting */

/*
 * Another program's short look at a file (a virus scanner's, another service's read) makes a move
 * fail, so it is tried for half a second.
 */
CloudResult DirectoryCloud::move_checked(const CloudContext& context, HANDLE file,
                                         const Target& target) {
  constexpr int TRIES = 25;
  for (int tried = 1;; tried++) {
    CloudResult result = move_once(file, target);
    if (result.code != CloudCode::BUSY || tried == TRIES) {
      return result;
    }
    result = sleep_within(context, std::chrono::milliseconds(20));
    if (!result.ok()) {
      return result;
    }
  }
}

/* BUSY when it may work in a moment. */
CloudResult DirectoryCloud::move_once(HANDLE file, const Target& target) {
  const FileGates::Gate gate = gates_.of(target.path);
  const std::unique_lock replacing(*gate);
  DWORD code = ERROR_SUCCESS;
  if (target.version.empty()) {
    code = rename_file(file, target.place);
  } else {
    DirectoryItem old;
    CloudResult result = root_->open_item(target.path, GENERIC_READ, SHARE_UNCHANGED, &old);
    if (result.ok()) {
      result =
          old.is_folder() ? CloudResult::refused(OX_EISDIR) : check_version(old, target.version);
    }
    if (!result.ok()) {
      return result;
    }
    note_gone(old.change_time());
    code = replace_file(file, target.place, &old.file);
  }
  return code == ERROR_ACCESS_DENIED ? CloudResult{CloudCode::BUSY, OX_EPERM}
                                     : result_of_windows(code);
}

/* Opens the item itself, not what a link leads to, for renaming or deleting it. */
CloudResult DirectoryCloud::open_movable(const std::wstring& place, const std::string& version,
                                         DirectoryItem* item) const {
  /* Only who reads can deny others to write. */
  const DWORD access = DELETE | FILE_READ_ATTRIBUTES | (version.empty() ? 0 : FILE_READ_DATA);
  const DWORD share = version.empty() ? SHARE_ALL : SHARE_UNCHANGED;
  item->file =
      FileHandle(CreateFileW(place.c_str(), access, share, nullptr, OPEN_EXISTING,
                             FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  if (!item->file.valid()) {
    return last_result();
  }
  const DWORD code = item->look();
  const bool link = (item->info.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
  return code != ERROR_SUCCESS ? result_of_windows(code)
         : link                ? CloudResult{}
                               : check_version(*item, version);
}

CloudResult DirectoryCloud::rename(const CloudContext& context, const std::string& from,
                                   const std::string& to, const RenameConditions& conditions,
                                   CloudEntry* made) {
  std::wstring source;
  Target target = {to, {}, conditions.target_version};
  DirectoryItem item;
  CloudResult result = check(context);
  if (result.ok()) {
    result = root_->place_for(from, &source);
  }
  if (result.ok()) {
    result = root_->place_for(to, &target.place);
  }
  if (result.ok()) {
    result = is_below(target.place, source)
                 ? CloudResult::refused(OX_EINVAL)
                 : open_movable(source, conditions.source_version, &item);
  }
  if (result.ok()) {
    result = move_checked(context, item.file.get(), target);
  }
  return result.ok() ? entry_of(&item.file, made) : result;
}

CloudResult DirectoryCloud::remove(const CloudContext& context, const std::string& path,
                                   const std::string& version) {
  std::wstring place;
  DirectoryItem item;
  CloudResult result = check(context);
  if (result.ok()) {
    result = root_->place_for(path, &place);
  }
  if (result.ok()) {
    remove_parts_in(place);
    result = open_movable(place, version, &item);
  }
  if (!result.ok()) {
    return result;
  }
  note_gone(item.change_time());
  const FileGates::Gate gate = gates_.of(path);
  const std::unique_lock replacing(*gate);
  result = result_of_windows(delete_file(item.file.get()));
  item.file.close();
  return result;
}

CloudResult DirectoryCloud::make_folder(const CloudContext& context, const std::string& path,
                                        CloudEntry* made) {
  std::wstring place;
  CloudResult result = check(context);
  if (result.ok() && path.empty()) {
    result = CloudResult::of(CloudCode::EXISTS);
  }
  if (result.ok()) {
    result = root_->place_for(path, &place);
  }
  if (result.ok() && CreateDirectoryW(place.c_str(), nullptr) == 0) {
    result = last_result();
  }
  return result.ok() ? status(context, path, made) : result;
}

/* The entry of what was just moved, by its own handle, whatever is at the path by now. */
CloudResult DirectoryCloud::entry_of(FileHandle* file, CloudEntry* entry) const {
  DirectoryItem item;
  item.file = std::move(*file);
  const CloudResult result = root_->identify(&item);
  if (result.ok()) {
    *entry = item.entry();
  }
  return result.ok() ? result : CloudResult::of(CloudCode::UNKNOWN_OUTCOME);
}

void DirectoryCloud::note_gone(uint64_t change_time) {
  uint64_t newest = newest_gone_;
  while (newest < change_time && !newest_gone_.compare_exchange_weak(newest, change_time)) {
  }
}

}  // namespace tarnd
