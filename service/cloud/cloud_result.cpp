#include "cloud/cloud_result.h"

#include <algorithm>
#include <array>
#include <thread>

namespace tarnd {
namespace {

struct CodeInfo {
  const char* name;
  int error;
};

/* By CloudCode. */
constexpr std::array<CodeInfo, 11> CODES = {{{"ok", 0},
                                             {"not found", OX_ENOENT},
                                             {"exists", OX_EEXIST},
                                             {"changed", OX_EIO},
                                             {"unauthorised", OX_EPERM},
                                             {"busy", OX_EBUSY},
                                             {"offline", OX_EIO},
                                             {"no space", OX_ENOSPC},
                                             {"refused", OX_EINVAL},
                                             {"unknown outcome", OX_EIO},
                                             {"cancelled", OX_EIO}}};

const CodeInfo& info_of(CloudCode code) { return CODES.at(static_cast<size_t>(code)); }

}  // namespace

const char* name_of(CloudCode code) { return info_of(code).name; }

CloudResult CloudResult::of(CloudCode code) { return {code, info_of(code).error}; }

void CancelFlag::raise() { raised_ = true; }

bool CancelFlag::raised() const { return raised_; }

bool CancelFlag::wait_until(std::chrono::steady_clock::time_point time) const {
  constexpr std::chrono::milliseconds STEP{10};
  while (!raised_ && std::chrono::steady_clock::now() < time) {
    std::this_thread::sleep_until(std::min(time, std::chrono::steady_clock::now() + STEP));
  }
  return raised_;
}

CloudResult check(const CloudContext& context) {
  if (context.cancel != nullptr && context.cancel->raised()) {
    return CloudResult::of(CloudCode::CANCELLED);
  }
  const bool late = std::chrono::steady_clock::now() >= context.deadline;
  return late ? CloudResult::of(CloudCode::OFFLINE) : CloudResult{};
}

CloudResult sleep_within(const CloudContext& context, std::chrono::milliseconds time) {
  const auto end = std::min(context.deadline, std::chrono::steady_clock::now() + time);
  if (context.cancel != nullptr) {
    context.cancel->wait_until(end);
  } else {
    std::this_thread::sleep_until(end);
  }
  return check(context);
}

}  // namespace tarnd
