#include "list_json.h"

#include <nlohmann/json.hpp>

#include "service/uuid_text.h"

namespace cfflprint {
namespace {

using Json = nlohmann::ordered_json;

template <size_t N>
std::string Text(const char (&field)[N]) {
  return {field, strnlen(field, N)};
}

Json Time(ox_timespec_t time) { return {{"seconds", time.tv_sec}, {"nanoseconds", time.tv_nsec}}; }

Json Checksum(const cfs_cksum& checksum) {
  char digits[129];
  return {{"version", checksum.ck_version},
          {"chunks", checksum.ck_nchunks},
          {"chunk_size", checksum.ck_csize},
          {"sha512", tn_sha512_tostr(checksum.ck_sha512, digits)}};
}

Json EntryJson(const cfs_cffl* list, const cfs_path* cfp) {
  const cfs_path entry = *cfp;
  return {{"name", std::string(cfs_path_name(cfp), tn_cfp_name_len(list, cfp))},
          {"type", (entry.mp_flags & CFS_PATH_FOLDER) != 0 ? "folder" : "file"},
          {"size", entry.mp_size},
          {"id", tarnd::text_of_id(entry.mp_id)},
          {"revision", tarnd::text_of_id(entry.mp_rev)},
          {"revisions", entry.mp_nrev},
          {"flags", entry.mp_flags},
          {"version", entry.mp_ver},
          {"permission", tn_print_permissions(entry.mp_perms)},
          {"created", Time(entry.mp_btime)},
          {"modified", Time(entry.mp_cmtime)},
          {"user_id", entry.mp_uid},
          {"user", Text(entry.mp_username)},
          {"last_user", Text(entry.mp_lastuser)},
          {"owner_email", Text(entry.mp_owner_email)},
          {"checksum", Checksum(entry.mp_checksum)}};
}

std::string Dump(const Json& json) {
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace

std::string ListJson(const cfs_cffl* list) {
  const cfs_cffl_header_v3& head = list->cfh_head;
  Json json = {{"name", Text(list->cfh_name)},
               {"version", head.cf_version},
               {"flags", head.cf_flags},
               {"size", head.cf_size},
               {"folders", head.cf_dcount},
               {"files", head.cf_fcount},
               {"id", tarnd::text_of_id(head.cf_fid)},
               {"revision", tarnd::text_of_id(head.cf_rev)},
               {"local", tn_cfs_id_is_local(&head.cf_fid)},
               {"etag", Text(head.cf_etag)},
               {"permission", tn_print_permissions(head.cf_perms)},
               {"created", Time(head.cf_btime)},
               {"refreshed", Time(head.cf_rtime)},
               {"modified", Time(head.cf_cmtime)},
               {"accessed", Time(head.cf_atime)},
               {"first_entry_offset", head.cf_cfpoff},
               {"hash_table_offset", head.cf_ihtoff},
               {"entries", Json::array()}};
  for (const auto* cfp = tn_get_first_cfp(list); cfp != nullptr; cfp = tn_get_next_cfp(list, cfp)) {
    json["entries"].push_back(EntryJson(list, cfp));
  }
  return Dump(json);
}

std::string FaultsJson(const std::string& path, const std::vector<Fault>& faults) {
  Json json = {{"file", path}, {"valid", faults.empty()}, {"faults", Json::array()}};
  for (const Fault& fault : faults) {
    json["faults"].push_back({{"offset", fault.offset},
                              {"where", fault.where},
                              {"what", fault.what},
                              {"fatal", fault.fatal}});
  }
  return Dump(json);
}

}  // namespace cfflprint
