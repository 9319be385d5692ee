#include "operations.h"

#include <array>

#include "ox_errno.h"
#include "share_path.h"

namespace tarnd {
namespace {

/* By operation code. */
constexpr std::array<Operation, TNV_OP_MAX> kOperations = {{
    {Connect, sizeof(tnv_conn_resp), false, false},
    {Disconnect, 0, false, false},
    {Open, sizeof(tnv_wopen_resp), true, true},
    {Enumerate, sizeof(tnv_wdenum_resp), true, true},
    {Stat, sizeof(tnv_wstat_resp), true, true},
    {Close, 0, true, true},
    {Rename, 0, true, true},
    {CanDelete, sizeof(tnv_wcandel_resp), true, true},
    {Delete, 0, true, true},
    {RangeLock, 0, true, true},
    {Cleanup, 0, true, true},
    {SetProxy, 0, false, false},
    {CacheRegion, sizeof(tnv_cache_region_resp), true, true},
    {DirtyRegion, sizeof(tnv_dirty_region_resp), true, true},
    {Truncate, 0, true, true},
    {UpdateToken, sizeof(tnv_updatetoken_resp), false, false},
    {GetServiceVersion, sizeof(tnv_get_version_resp), false, false},
    {Shutdown, 0, false, false},
}};

}  // namespace

const Operation* FindOperation(uint32_t opcode) {
  return opcode < kOperations.size() ? &kOperations[opcode] : nullptr;
}

int RequestPath(const Session& session, const Request& request, int64_t length, std::string* path) {
  std::string text;
  return request.Text(length, &text) ? NormaliseSharePath(session.share, text, path) : OX_EINVAL;
}

const CloudEntry* ParentOf(Cloud& cloud, const std::string& path, CloudEntry* parent) {
  if (path.empty()) {
    return nullptr;
  }
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash);
  return cloud.Status(folder, parent) == 0 ? parent : nullptr;
}

}  // namespace tarnd
