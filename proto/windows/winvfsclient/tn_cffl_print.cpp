/*
 * Diagnostic listings of cloud file lists.
 */
#include <cstdio>
#include <cstring>

#include "ox_time.h"
#include "ox_uuid.h"
#include "tn_cffl.h"
#include "tn_text.h"

namespace {

using Signed = long long;
using Unsigned = unsigned long long;

/* A time in the local zone, or "-" for a time that the machine's calendar does not have. */
struct TimeText {
  explicit TimeText(ox_s64 seconds) {
    const time_t time = static_cast<time_t>(seconds);
    struct tm local = {};
#ifdef _WIN32
    const bool known = localtime_s(&local, &time) == 0;
#else
    const bool known = localtime_r(&time, &local) != nullptr;
#endif
    strcpy(text, "-");
    if (known) {
      ox_time_text(&local, text);
    }
  }
  char text[OX_TIME_TEXT_SIZE];
};

void print_time(const char* what, ox_s64 seconds, ox_s64 nanoseconds) {
  printf("%s: %lld.%lld (%s)\n", what, static_cast<Signed>(seconds),
         static_cast<Signed>(nanoseconds), TimeText(seconds).text);
}

void print_time(const char* what, const ox_timespec_t& time) {
  print_time(what, time.tv_sec, time.tv_nsec);
}

void print_current_time() {
  struct timespec now = {};
  (void)ox_clock_gettime(0, &now);
  print_time("Current time", now.tv_sec, now.tv_nsec);
}

void print_header(const cfs_cffl* cffl) {
  const cfs_cffl_header_v3& head = cffl->cfh_head;
  printf(
      "Version:%lld Header-Block-Size:%u Size:%llu Dirs:%d Files:%d Cfp-Offset: %llu "
      "Fht-Offset %llu\n",
      static_cast<Signed>(head.cf_version), head.cf_hbsize, static_cast<Unsigned>(head.cf_size),
      static_cast<int>(head.cf_dcount), static_cast<int>(head.cf_fcount),
      static_cast<Unsigned>(head.cf_cfpoff), static_cast<Unsigned>(head.cf_ihtoff));
  printf("Name:%.*s Fid: %-37.37s\tRev: %-37.37s\n", static_cast<int>(sizeof(cffl->cfh_name)),
         cffl->cfh_name, tn_id_text(head.cf_fid).text, tn_id_text(head.cf_rev).text);
  printf("Etag: %-64.64s \n", head.cf_etag);
  print_current_time();
  print_time("Last Refresh time", head.cf_rtime);
  print_time("CFS Create Time", head.cf_btime);
  print_time("CFS mtime", head.cf_cmtime);
  printf("State: %s\n", tn_cfs_id_is_local(&head.cf_fid) ? "local" : "cloud");
  printf("Permission: %s\n", tn_print_permissions(head.cf_perms));
}

const char* type_word(const cfs_path* cfp) {
  return (cfp->mp_flags & CFS_PATH_FOLDER) != 0 ? "DIR" : "FILE";
}

void print_checksum(const cfs_path* cfp, FILE* stream) {
  const cfs_cksum ck = cfp->mp_checksum;
  char digits[129];
  fprintf(stream, "Checksum:%u-%u-%llu-%s\n", ck.ck_version, ck.ck_nchunks,
          static_cast<Unsigned>(ck.ck_csize), tn_sha512_tostr(ck.ck_sha512, digits));
}

void print_entry(const cfs_cffl* cffl, const cfs_path* cfp) {
  printf("%-36.36s %-36.36s ", tn_id_text(cfp->mp_id).text, tn_id_text(cfp->mp_rev).text);
  printf("%-4.4s %8llu %4.4d %8.8d %16.16s %lld  %-.*s\n", type_word(cfp),
         static_cast<Unsigned>(cfp->mp_size), static_cast<int>(cfp->mp_nrev), cfp->mp_perms,
         cfp->mp_username, static_cast<Signed>(cfp->mp_cmtime.tv_sec),
         static_cast<int>(tn_cfp_name_len(cffl, cfp)), cfs_path_name(cfp));
  print_checksum(cfp, stdout);
}

/* The hash table reaches to the first entry. A table behind the first entry has no slots. */
ox_u64 hash_slots(const cfs_cffl* cffl) {
  const ox_u64 table = cffl->cfh_head.cf_ihtoff;
  const ox_u64 first = tn_first_cfp_offset(cffl);
  return table == 0 || table > first ? 0 : (first - table) / sizeof(cfs_cffl_hash);
}

void print_hash_table(const cfs_cffl* cffl) {
  printf("count  hashval   next prev cfp_offset\t sha256\n");
  const char* list = reinterpret_cast<const char*>(cffl);
  const ox_u64 table = cffl->cfh_head.cf_ihtoff; /* may lead anywhere, unless there are slots */
  const ox_u64 count = hash_slots(cffl);
  for (ox_u64 i = 0; i < count; i++) {
    cfs_cffl_hash slot;
    memcpy(&slot, list + table + i * sizeof(slot), sizeof(slot));
    printf("%d\t%d\t%d\t%d\t%d\t", static_cast<int>(i), slot.cfh_hashvalue,
           static_cast<int>(slot.cfh_next), static_cast<int>(slot.cfh_prev),
           static_cast<int>(slot.cfh_offset));
    print_sha256(slot.cfh_sha256);
  }
}

}  // namespace

void print_sha256(const ox_u8* sha256) {
  for (int i = 0; i < 8; i++) {
    printf("%x", sha256[i]);
  }
  printf("\n");
}

char* tn_sha512_tostr(const ox_u8* sha512, char* text) {
  for (size_t i = 0; i < 64; i++) {
    snprintf(text + 2 * i, 3, "%02x", sha512[i]);
  }
  return text;
}

void tn_print_cffl(const cfs_cffl* cffl, int flag) {
  print_header(cffl);
  printf("%36.36s %36.36s %4.4s %8.8s %4.4s %8.8s %16.16s %16.16s %s\n", "Entry ID", "FID/GID",
         "Type", "Size", "#VER", "Perms", "Last Mod Time", "Uploaded By", "Name");
  for (const cfs_path* cfp = tn_get_first_cfp(cffl); cfp != nullptr;
       cfp = tn_get_next_cfp(cffl, cfp)) {
    print_entry(cffl, cfp);
  }
  if (flag != 0) {
    print_hash_table(cffl);
  }
}

void tn_print_cffl_finfo(const cfs_cffl* cffl) { tn_print_cffl_ffinfo(cffl, stdout); }

void tn_print_cffl_ffinfo(const cfs_cffl* cffl, FILE* stream) {
  for (const cfs_path* cfp = tn_get_first_cfp(cffl); cfp != nullptr;
       cfp = tn_get_next_cfp(cffl, cfp)) {
    fprintf(stream, "%-5.5s %8llu %4.4d %16.16s %lld %-.*s\n", type_word(cfp),
            static_cast<Unsigned>(cfp->mp_size), static_cast<int>(cfp->mp_nrev), cfp->mp_username,
            static_cast<Signed>(cfp->mp_cmtime.tv_sec),
            static_cast<int>(tn_cfp_name_len(cffl, cfp)), cfs_path_name(cfp));
    fprintf(stream, "Cfp Version: 0x%x Cfp perms = 0x%x\n", cfp->mp_ver, cfp->mp_perms);
    print_checksum(cfp, stream);
  }
}
