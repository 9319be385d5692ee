#include "protocol/records.h"

#include "names/share_path.h"
#include "uuid_text.h"

namespace tarnd {
namespace {

constexpr uint64_t TICKS_PER_SECOND = 10'000'000; /* of a Windows file time */
constexpr int64_t SECONDS_TO_1970 = 11'644'473'600;
constexpr uint32_t FOLDER_ATTRIBUTE = 0x10;

ox_timespec_t time_of(uint64_t filetime) {
  return {static_cast<ox_s64>(filetime / TICKS_PER_SECOND) - SECONDS_TO_1970,
          static_cast<ox_s32>(filetime % TICKS_PER_SECOND * 100), 0};
}

/* POSIX file types and permissions, as st_mode carries them. */
uint16_t mode_of(const CloudEntry& entry) {
  const bool read_only = (entry.attributes & READ_ONLY_ATTRIBUTE) != 0;
  return entry.folder ? 0040755 : read_only ? 0100444 : 0100644;
}

/* A folder has none in the cloud, but one for each time that it was changed. */
std::string version_of(const CloudEntry& entry) {
  return entry.folder ? entry.path + '\n' + std::to_string(entry.modified) : entry.version;
}

/* An id for a version's text: two 64-bit FNV-1a hashes of it, with different starts. */
cfs_id_t id_of_version(const std::string& version) {
  uint64_t halves[2] = {0xcbf29ce484222325, 0x84222325cbf29ce4};
  for (uint64_t& half : halves) {
    for (const char c : version) {
      half = (half ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    }
  }
  cfs_id_t id = {};
  if (!version.empty()) {
    std::memcpy(id.id, halves, sizeof id.id);
  }
  return id;
}

}  // namespace

tnvfso fso_of(const CloudEntry& entry, const CloudEntry* parent, uint64_t seqno) {
  tnvfso fso = {};
  fso.fso_handle = entry.id;
  fso.fso_version = id_of_version(version_of(entry));
  if (parent != nullptr) {
    fso.fso_phandle = parent->id;
    fso.fso_pversion = id_of_version(version_of(*parent));
  }
  fso.fso_isdir = entry.folder ? 1 : 0;
  fso.fso_seqno = seqno;
  return fso;
}

ox_statx_t stat_of(const CloudEntry& entry) {
  ox_statx_t st = {};
  std::memcpy(&st.st_ino, &entry.id, sizeof st.st_ino);
  st.st_nlink = 1;
  st.st_mode = mode_of(entry);
  st.st_size = entry.size;
  st.st_atim = time_of(entry.accessed);
  st.st_mtim = time_of(entry.modified);
  st.st_ctim = st.st_mtim;
  st.st_btim = time_of(entry.created);
  st.st_blksize = 4096;
  st.st_blocks = (entry.size + 511) / 512;
  return st;
}

void info_of(const CloudEntry& entry, tnw_fileinfo* info) {
  *info = {};
  info->fi_attr = entry.attributes | (entry.folder ? FOLDER_ATTRIBUTE : 0);
  info->fi_ctime = entry.created;
  info->fi_atime = entry.accessed;
  info->fi_mtime = entry.modified;
  info->fi_size = entry.size;
  copy_field(info->fi_id, text_of_id(entry.id));
  static_assert(sizeof info->fi_name > MAX_NAME_BYTES);
  copy_field(info->fi_name, entry.name);
}

}  // namespace tarnd
