#include "list_json.h"

#include <nlohmann/json.hpp>

#include "tools/common/text.h"
#include "tools/common/uuid_text.h"

namespace cfflprint {
namespace {

using tools::field_text;
using tools::uuid_text;
using Json = nlohmann::ordered_json;

Json time_json(ox_timespec_t time) {
  return {{"seconds", time.tv_sec}, {"nanoseconds", time.tv_nsec}};
}

Json checksum_json(const cfs_cksum& checksum) {
  char digits[129];
  return {{"version", checksum.ck_version},
          {"chunks", checksum.ck_nchunks},
          {"chunk_size", checksum.ck_csize},
          {"sha512", tn_sha512_tostr(checksum.ck_sha512, digits)}};
}

Json entry_json(const cfs_cffl* list, const cfs_path* cfp) {
  const cfs_path entry = *cfp;
  return {{"name", std::string(cfs_path_name(cfp), tn_cfp_name_len(list, cfp))},
          {"type", (entry.mp_flags & CFS_PATH_FOLDER) != 0 ? "folder" : "file"},
          {"size", entry.mp_size},
          {"id", uuid_text(entry.mp_id.id)},
          {"revision", uuid_text(entry.mp_rev.id)},
          {"revisions", entry.mp_nrev},
          {"flags", entry.mp_flags},
          {"version", entry.mp_ver},
          {"permission", tn_print_permissions(entry.mp_perms)},
          {"created", time_json(entry.mp_btime)},
          {"modified", time_json(entry.mp_cmtime)},
          {"user_id", entry.mp_uid},
          {"user", field_text(entry.mp_username)},
          {"last_user", field_text(entry.mp_lastuser)},
          {"owner_email", field_text(entry.mp_owner_email)},
          {"checksum", checksum_json(entry.mp_checksum)}};
}

std::string dump(const Json& json) {
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace

std::string list_json(const cfs_cffl* list) {
  const cfs_cffl_header_v3& head = list->cfh_head;
  Json json = {{"name", field_text(list->cfh_name)},
               {"version", head.cf_version},
               {"flags", head.cf_flags},
               {"size", head.cf_size},
               {"folders", head.cf_dcount},
               {"files", head.cf_fcount},
               {"id", uuid_text(head.cf_fid.id)},
               {"revision", uuid_text(head.cf_rev.id)},
               {"local", tn_cfs_id_is_local(&head.cf_fid)},
               {"etag", field_text(head.cf_etag)},
               {"permission", tn_print_permissions(head.cf_perms)},
               {"created", time_json(head.cf_btime)},
               {"refreshed", time_json(head.cf_rtime)},
               {"modified", time_json(head.cf_cmtime)},
               {"accessed", time_json(head.cf_atime)},
               {"first_entry_offset", head.cf_cfpoff},
               {"hash_table_offset", head.cf_ihtoff},
               {"entries", Json::array()}};
  for (const auto* cfp = tn_get_first_cfp(list); cfp != nullptr; cfp = tn_get_next_cfp(list, cfp)) {
    json["entries"].push_back(entry_json(list, cfp));
  }
  return dump(json);
}

std::string faults_json(const std::string& path, const std::vector<Fault>& faults) {
  Json json = {{"file", path}, {"valid", faults.empty()}, {"faults", Json::array()}};
  for (const Fault& fault : faults) {
    json["faults"].push_back({{"offset", fault.offset},
                              {"where", fault.where},
                              {"what", fault.what},
                              {"fatal", fault.fatal}});
  }
  return dump(json);
}

}  // namespace cfflprint
