#include "protocol/operations.h"

#include <array>

#include "names/share_path.h"
#include "ox_errno.h"

namespace tarnd {
namespace {

/* By operation code. */
constexpr std::array<Operation, TNV_OP_MAX> OPERATIONS = {{
    {serve_connect, sizeof(tnv_conn_resp), false, false},
    {serve_disconnect, 0, false, false},
    {serve_open, sizeof(tnv_wopen_resp), true, true},
    {serve_enumerate, sizeof(tnv_wdenum_resp), true, true},
    {serve_stat, sizeof(tnv_wstat_resp), true, true},
    {serve_close, 0, true, true},
    {serve_rename, 0, true, true},
    {serve_can_delete, sizeof(tnv_wcandel_resp), true, true},
    {serve_delete, 0, true, true},
    {serve_range_lock, 0, true, true},
    {serve_cleanup, 0, true, true},
    {serve_set_proxy, 0, false, false},
    {serve_cache_region, sizeof(tnv_cache_region_resp), true, true},
    {serve_dirty_region, sizeof(tnv_dirty_region_resp), true, true},
    {serve_truncate, 0, true, true},
    {serve_update_token, sizeof(tnv_updatetoken_resp), false, false},
    {serve_get_service_version, sizeof(tnv_get_version_resp), false, false},
    {serve_shutdown, 0, false, false},
}};

}  // namespace

const Operation* find_operation(uint32_t opcode) {
  return opcode < OPERATIONS.size() ? &OPERATIONS[opcode] : nullptr;
}

int request_path(const Session& session, const Request& request, int64_t length,
                 std::string* path) {
  std::string text;
  return request.text(length, &text) ? normalise_share_path(session.share, text, path) : OX_EINVAL;
}

}  // namespace tarnd
