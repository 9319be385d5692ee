/*
 * A cloud file list, read from a file and walked. The walk ends the process at a list that
 * contradicts itself: here it throws instead. It must do so where cfflprint's check, which is
 * written without it, says that the list cannot be walked, and nowhere else.
 */
#include <cstdio>

#include "fuzz.h"
#include "ox_assert.h"
#include "ox_platform.h"
#include "tn_cffl.h"
#include "tn_util.h"
#include "tools/cfflprint/list_check.h"

namespace {

struct EndOfProcess {};

std::string_view file;
size_t position = 0;

/* Walks over the list: whether that led to its end. */
bool walk(const cfs_cffl* list) {
  try {
    const ox_u64 size = list->cfh_head.cf_size;
    for (const cfs_path* cfp = tn_get_first_cfp(list); cfp != nullptr;
         cfp = tn_get_next_cfp(list, cfp)) {
      const auto offset = static_cast<ox_u64>(reinterpret_cast<const char*>(cfp) -
                                              reinterpret_cast<const char*>(list));
      require(offset <= size && size - offset >= CFS_PATH_MIN_RECLEN);
      require(tn_cfp_name_len(list, cfp) <= size - offset - sizeof(cfs_path));
      tnw_fileinfo info;
      tn_cfp2fi(&info, cfp);
    }
    return true;
  } catch (const EndOfProcess&) {
    return false;
  }
}

void read_and_walk(const uint8_t* data, size_t size) {
  file = text_of(data, size);
  position = 0;
  cfs_cffl* list = tn_fread_cffl(0, size % 2 == 0 ? 512 : 0, true);
  require(list != nullptr);
  const bool walked = walk(list);
  require(walked == cfflprint::can_be_walked(cfflprint::check_list({data, size})));
  if (walked) {
    tn_print_cffl(list, 1);
  }
  tn_free_cffl(&list);
}

}  // namespace

extern "C" {
[[noreturn]] void __wrap_ox_assert_failed(const char*, const char*, int) { throw EndOfProcess(); }

ox_s64 ox_read(int, void* buf, size_t count) {
  const size_t given = file.copy(static_cast<char*>(buf), count, std::min(position, file.size()));
  position += given;
  return static_cast<ox_s64>(given);
}

ox_off ox_lseek(int, ox_off offset, int) {
  position = static_cast<size_t>(offset);
  return offset;
}
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool PRINTS_NOWHERE = freopen("/dev/null", "w", stdout) != nullptr;
  ox_u64 list_size = 0;
  memcpy(&list_size, data + std::min(size, offsetof(cfs_cffl_header_v3, cf_size)),
         size < sizeof(cfs_cffl) ? 0 : sizeof list_size);
  /* The reader would wait for the rest of a list that is longer than its file. */
  if (PRINTS_NOWHERE && size >= sizeof(cfs_cffl) && list_size <= size) {
    read_and_walk(data, size);
  }
  return 0;
}
