#include "cloud/cloud_retry.h"

#include <algorithm>
#include <cstring>

namespace tarnd {
namespace {

constexpr size_t COMPARED_AT_ONCE = size_t{1} << 20;

bool is_passing(const CloudResult& result) {
  return result.code == CloudCode::BUSY || result.code == CloudCode::OFFLINE;
}

/* Whether an earlier try that arrived after all could be why a change gets this answer. */
bool tells_of_state(const CloudResult& result) {
  return result.code == CloudCode::UNKNOWN_OUTCOME || result.code == CloudCode::EXISTS ||
         result.code == CloudCode::CHANGED || result.code == CloudCode::NOT_FOUND;
}

void tell_progress(const CloudContext& context, uint64_t bytes) {
  if (context.progress) {
    context.progress(bytes);
  }
}

/* The tries of one call, and the pauses between them. */
class Tries {
 public:
  Tries(const CloudContext& context, const RetryPolicy& policy)
      : context_(context), policy_(policy), pause_(policy.first_pause) {}

  void start_anew() {
    left_ = policy_.tries;
    pause_ = policy_.first_pause;
  }

  /* Waits before the next try. False when there is to be none. */
  bool wait_after(const CloudResult& result) {
    const std::chrono::milliseconds time = std::max(spread(pause_), result.pause);
    if (--left_ == 0 || time > policy_.longest_pause ||
        context_.deadline - std::chrono::steady_clock::now() <= time) {
      return false;
    }
    pause_ = std::min(2 * pause_, policy_.longest_pause);
    return sleep_within(context_, time).ok();
  }

 private:
  /* A little less by chance, so that many clients that failed together do not come back together.
   */
  static std::chrono::milliseconds spread(std::chrono::milliseconds time) {
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    return time - std::chrono::milliseconds(now % (time.count() / 4 + 1));
  }

  const CloudContext& context_;
  const RetryPolicy& policy_;
  std::chrono::milliseconds pause_;
  unsigned left_ = policy_.tries;
};

/* A snapshot that tells what is read from it. */
class CountedSnapshot : public Snapshot {
 public:
  CountedSnapshot(Snapshot& content, const CloudContext& context, CloudCounts& counts)
      : content_(content), context_(context), counts_(counts) {}

  uint64_t size() const override { return content_.size(); }
  std::vector<ByteRange> held() const override { return content_.held(); }
  std::vector<ByteRange> changed() const override { return content_.changed(); }
  int read(uint64_t offset, void* buffer, size_t size) override {
    const int err = content_.read(offset, buffer, size);
    if (err == 0) {
      counts_.bytes_up += size;
      tell_progress(context_, size);
    }
    return err;
  }

 private:
  Snapshot& content_;
  const CloudContext& context_;
  CloudCounts& counts_;
};

}  // namespace

RetryingCloud::RetryingCloud(std::unique_ptr<Cloud> below, CloudCounts* counts, RetryPolicy policy)
    : below_(std::move(below)), counts_(*counts), policy_(policy) {}

/* ------------------------------------------------------------------ calls that only look */

CloudResult RetryingCloud::attempt(const CloudContext& context, CloudCall kind, const Call& call) {
  const CloudResult may = check(context);
  if (!may.ok()) {
    return may;
  }
  counts_.count(kind);
  return call();
}

/* For calls that change nothing: an unknown outcome is no more than a failure. */
CloudResult RetryingCloud::repeat(const CloudContext& context, CloudCall kind, const Call& call) {
  Tries tries(context, policy_);
  for (;;) {
    CloudResult result = attempt(context, kind, call);
    if (result.code == CloudCode::UNKNOWN_OUTCOME) {
      result = CloudResult::of(CloudCode::OFFLINE);
    }
    if (!is_passing(result) || !tries.wait_after(result)) {
      return result;
    }
  }
}

CloudResult RetryingCloud::status(const CloudContext& context, const std::string& path,
                                  CloudEntry* entry) {
  return repeat(context, CloudCall::STATUS, [&] { return below_->status(context, path, entry); });
}

CloudResult RetryingCloud::list(const CloudContext& context, const std::string& path,
                                const EntrySink& sink) {
  std::vector<std::string> given; /* sorted only for a second try, which is rare */
  return repeat(context, CloudCall::LIST, [&] {
    std::sort(given.begin(), given.end());
    const size_t before = given.size();
    const auto end = [&] { return given.begin() + static_cast<ptrdiff_t>(before); };
    return below_->list(context, path, [&](const CloudEntry& entry) {
      if (before != 0 && std::binary_search(given.begin(), end(), entry.name)) {
        return true;
      }
      given.push_back(entry.name);
      return sink(entry);
    });
  });
}

CloudResult RetryingCloud::read(const CloudContext& context, const std::string& path,
                                const std::string& version, ByteRange range, const DataSink& sink) {
  Tries tries(context, policy_);
  const auto take = [&](const char* data, size_t size) {
    const int err = size <= range.length ? sink(data, size) : OX_EIO;
    if (err == 0) {
      range = {range.offset + size, range.length - size};
      tries.start_anew();
      counts_.bytes_down += size;
      tell_progress(context, size);
    }
    return err;
  };
  const auto call = [&] { return below_->read(context, path, version, range, take); };
  for (;;) {
    CloudResult result = range.empty() ? CloudResult{} : attempt(context, CloudCall::READ, call);
    if (result.ok() && range.empty()) {
      return result;
    }
    /* OK with fewer bytes than there are: the body was cut short. */
    if (result.ok() || result.code == CloudCode::UNKNOWN_OUTCOME) {
      result = CloudResult::of(CloudCode::OFFLINE);
    }
    if (!is_passing(result) || !tries.wait_after(result)) {
      return result;
    }
  }
}

/* ------------------------------------------------------------------ calls that change */

/*
 * A try after an unknown outcome is safe, since each call names what must be there: what another
 * client did meanwhile is answered, not replaced.
 */
CloudResult RetryingCloud::settle(const CloudContext& context, CloudCall kind, bool unknown,
                                  const Call& call, const Look& look) {
  Tries tries(context, policy_);
  for (;;) {
    const CloudResult result = attempt(context, kind, call);
    unknown = unknown || result.code == CloudCode::UNKNOWN_OUTCOME;
    if (unknown && tells_of_state(result)) {
      Found found = Found::OTHER;
      if (!look(&found).ok()) {
        return CloudResult::of(CloudCode::UNKNOWN_OUTCOME);
      }
      if (found == Found::ARRIVED) {
        return {};
      }
      const bool definite = result.code != CloudCode::UNKNOWN_OUTCOME;
      if (definite && (found == Found::OTHER || result.code == CloudCode::NOT_FOUND)) {
        return result;
      }
    } else if (!is_passing(result)) {
      return unknown && result.code == CloudCode::CANCELLED
                 ? CloudResult::of(CloudCode::UNKNOWN_OUTCOME)
                 : result;
    }
    if (!tries.wait_after(result)) {
      return unknown ? CloudResult::of(CloudCode::UNKNOWN_OUTCOME) : result;
    }
  }
}

CloudResult RetryingCloud::put(const CloudContext& context, const std::string& path,
                               const PutCondition& condition, Snapshot& content, CloudEntry* made) {
  return upload(context, CloudCall::PUT, path, condition, content, made);
}

CloudResult RetryingCloud::patch(const CloudContext& context, const std::string& path,
                                 const PutCondition& condition, Snapshot& content,
                                 CloudEntry* made) {
  return upload(context, CloudCall::PATCH, path, condition, content, made);
}

CloudResult RetryingCloud::upload(const CloudContext& context, CloudCall kind,
                                  const std::string& path, const PutCondition& condition,
                                  Snapshot& content, CloudEntry* made) {
  CountedSnapshot counted(content, context, counts_);
  const auto call = [&] {
    return kind == CloudCall::PUT ? below_->put(context, path, condition, counted, made)
                                  : below_->patch(context, path, condition, counted, made);
  };
  const auto look = [&](Found* found) {
    return look_for_content(context, path, condition, content, made, found);
  };
  return settle(context, kind, condition.may_have_arrived, call, look);
}

CloudResult RetryingCloud::rename(const CloudContext& context, const std::string& from,
                                  const std::string& to, const RenameConditions& conditions,
                                  CloudEntry* made) {
  return settle(
      context, CloudCall::RENAME, false,
      [&] { return below_->rename(context, from, to, conditions, made); },
      [&](Found* found) { return look_for_rename(context, from, to, conditions, made, found); });
}

CloudResult RetryingCloud::remove(const CloudContext& context, const std::string& path,
                                  const std::string& version) {
  const auto look = [&](Found* found) {
    CloudEntry entry;
    const CloudResult result = status(context, path, &entry);
    const bool gone = result.code == CloudCode::NOT_FOUND;
    const bool same = version.empty() || entry.version == version;
    *found = gone ? Found::ARRIVED : same ? Found::AS_BEFORE : Found::OTHER;
    return gone ? CloudResult{} : result;
  };
  return settle(
      context, CloudCall::REMOVE, false, [&] { return below_->remove(context, path, version); },
      look);
}

CloudResult RetryingCloud::make_folder(const CloudContext& context, const std::string& path,
                                       CloudEntry* made) {
  const auto look = [&](Found* found) {
    const CloudResult result = status(context, path, made);
    const bool missing = result.code == CloudCode::NOT_FOUND;
    *found = missing ? Found::AS_BEFORE : made->folder ? Found::ARRIVED : Found::OTHER;
    return missing ? CloudResult{} : result;
  };
  return settle(
      context, CloudCall::MAKE_FOLDER, false,
      [&] { return below_->make_folder(context, path, made); }, look);
}

/* ------------------------------------------------------------------ looking */

CloudResult RetryingCloud::look_for_content(const CloudContext& context, const std::string& path,
                                            const PutCondition& condition, Snapshot& content,
                                            CloudEntry* made, Found* found) {
  *found = Found::OTHER;
  CloudEntry entry;
  CloudResult result = status(context, path, &entry);
  if (result.code == CloudCode::NOT_FOUND) {
    *found = condition.version.empty() ? Found::AS_BEFORE : Found::OTHER;
    return {};
  }
  if (!result.ok() || entry.folder) {
    return result;
  }
  if (entry.version == condition.version) {
    *found = Found::AS_BEFORE;
    return {};
  }
  bool same = false;
  result = same_content(context, entry, content, &same);
  if (result.ok() && same) {
    *found = Found::ARRIVED;
    *made = entry;
  }
  return result;
}

/*
 * The bytes that the snapshot does not hold are not compared: who takes this version on as ours
 * has them nowhere, and reads them from it.
 */
CloudResult RetryingCloud::same_content(const CloudContext& context, const CloudEntry& entry,
                                        Snapshot& content, bool* same) {
  *same = entry.size == content.size();
  std::vector<char> ours(COMPARED_AT_ONCE);
  for (const ByteRange& range : content.held()) {
    uint64_t offset = range.offset;
    const auto compare = [&](const char* data, size_t size) {
      for (size_t done = 0; done < size && *same;) {
        const size_t count = std::min(size - done, ours.size());
        if (const int err = content.read(offset, ours.data(), count)) {
          return err;
        }
        *same = std::memcmp(ours.data(), data + done, count) == 0;
        done += count;
        offset += count;
      }
      return *same ? 0 : static_cast<int>(OX_EEXIST); /* only to end the call */
    };
    if (!*same || range.empty()) {
      continue;
    }
    const CloudResult result = read(context, entry.path, entry.version, range, compare);
    if (*same && !result.ok()) {
      return result;
    }
  }
  return {};
}

CloudResult RetryingCloud::look_for_rename(const CloudContext& context, const std::string& from,
                                           const std::string& to,
                                           const RenameConditions& conditions, CloudEntry* made,
                                           Found* found) {
  CloudEntry source;
  CloudEntry target;
  const CloudResult at_source = status(context, from, &source);
  const CloudResult at_target = status(context, to, &target);
  const bool source_gone = at_source.code == CloudCode::NOT_FOUND;
  const bool target_gone = at_target.code == CloudCode::NOT_FOUND;
  if ((!at_source.ok() && !source_gone) || (!at_target.ok() && !target_gone)) {
    return at_source.ok() || source_gone ? at_target : at_source;
  }
  /* One item under both names: a rename that changes the case alone. */
  const bool one = !source_gone && !target_gone && source.path == target.path;
  const bool moved = source_gone && !target_gone && conditions.source_modified != 0 &&
                     target.modified == conditions.source_modified;
  const bool arrived = one ? target.path == to : moved;
  const bool target_as_before =
      one || (conditions.target_version.empty() ? target_gone
                                                : target.version == conditions.target_version);
  *found = arrived                            ? Found::ARRIVED
           : !source_gone && target_as_before ? Found::AS_BEFORE
                                              : Found::OTHER;
  if (arrived) {
    *made = target;
  }
  return {};
}

}  // namespace tarnd
