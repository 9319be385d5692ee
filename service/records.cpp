#include "records.h"

#include "uuid_text.h"

namespace tarnd {
namespace {

constexpr uint64_t kTicksPerSecond = 10'000'000; /* of a Windows file time */
constexpr int64_t kSecondsTo1970 = 11'644'473'600;
constexpr uint32_t kFolderAttribute = 0x10;

ox_timespec_t TimeOf(uint64_t filetime) {
  return {static_cast<ox_s64>(filetime / kTicksPerSecond) - kSecondsTo1970,
          static_cast<ox_s32>(filetime % kTicksPerSecond * 100), 0};
}

/* POSIX file types and permissions, as st_mode carries them. */
uint16_t ModeOf(const CloudEntry& entry) {
  const bool read_only = (entry.attributes & kReadOnlyAttribute) != 0;
  return entry.folder ? 0040755 : read_only ? 0100444 : 0100644;
}

}  // namespace

tnvfso FsoOf(const CloudEntry& entry, const CloudEntry* parent, uint64_t seqno) {
  tnvfso fso = {};
  fso.fso_handle = entry.id;
  fso.fso_version = entry.version;
  if (parent != nullptr) {
    fso.fso_phandle = parent->id;
    fso.fso_pversion = parent->version;
  }
  fso.fso_isdir = entry.folder ? 1 : 0;
  fso.fso_seqno = seqno;
  return fso;
}

ox_statx_t StatOf(const CloudEntry& entry) {
  ox_statx_t st = {};
  std::memcpy(&st.st_ino, &entry.id, sizeof st.st_ino);
  st.st_nlink = 1;
  st.st_mode = ModeOf(entry);
  st.st_size = entry.size;
  st.st_atim = TimeOf(entry.accessed);
  st.st_mtim = TimeOf(entry.modified);
  st.st_ctim = st.st_mtim;
  st.st_btim = TimeOf(entry.created);
  st.st_blksize = 4096;
  st.st_blocks = (entry.size + 511) / 512;
  return st;
}

bool InfoOf(const CloudEntry& entry, tnw_fileinfo* info) {
  *info = {};
  info->fi_attr = entry.attributes | (entry.folder ? kFolderAttribute : 0);
  info->fi_ctime = entry.created;
  info->fi_atime = entry.accessed;
  info->fi_mtime = entry.modified;
  info->fi_size = entry.size;
  CopyField(info->fi_id, TextOfId(entry.id));
  CopyField(info->fi_name, entry.name);
  return entry.name.size() <= sizeof info->fi_name;
}

}  // namespace tarnd
