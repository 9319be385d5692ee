#include "cloud/fault/fault_cloud.h"

#include <fstream>
#include <sstream>

#include "ox_logging.h"

namespace tarnd {
namespace {

using Clock = std::chrono::steady_clock;

bool changes_something(CloudCall kind) {
  return kind != CloudCall::STATUS && kind != CloudCall::LIST && kind != CloudCall::READ;
}

}  // namespace

/* ------------------------------------------------------------------ the script */

std::unique_ptr<FaultCloud> FaultCloud::open(std::unique_ptr<Cloud> below,
                                             const std::string& script, std::string* error) {
  const bool in_file = script.starts_with('@');
  const std::u8string path(script.begin() + (in_file ? 1 : 0), script.end());
  std::unique_ptr<FaultCloud> cloud(
      new FaultCloud(std::move(below), in_file ? std::filesystem::path(path) : ""));
  const bool fine =
      in_file ? cloud->load(error) : parse_fault_script(script, &cloud->script_, error);
  cloud->asked_.resize(cloud->script_.rules.size());
  cloud->random_.seed(cloud->script_.seed);
  return fine ? std::move(cloud) : nullptr;
}

bool FaultCloud::load(std::string* error) {
  std::error_code failed;
  file_time_ = std::filesystem::last_write_time(file_, failed);
  std::ifstream file(file_);
  std::ostringstream text;
  text << file.rdbuf();
  if (failed || !file.is_open()) {
    *error = "the fault script cannot be read from its file";
    return false;
  }
  FaultScript script;
  if (!parse_fault_script(text.str(), &script, error)) {
    return false;
  }
  script_ = std::move(script);
  asked_.assign(script_.rules.size(), 0);
  return true;
}

/* A script that is wrong, or half written, leaves the old one in force. */
void FaultCloud::load_again_locked(const Guard&) {
  std::error_code failed;
  if (file_.empty() || std::filesystem::last_write_time(file_, failed) == file_time_ || failed) {
    return;
  }
  if (std::string error; !load(&error)) {
    OX_LOG(OX_ERROR_LEVEL, 0, "Fault cloud: %s", error.c_str());
  }
}

/* ------------------------------------------------------------------ the fate of a call */

bool FaultCloud::strikes_locked(const Guard&, size_t rule, CloudCall kind) {
  const FaultRule& it = script_.rules[rule];
  if (!it.calls.contains(kind) || !it.holds_at(std::chrono::system_clock::now())) {
    return false;
  }
  const uint64_t asked = ++asked_[rule];
  return it.nth != 0 ? asked == it.nth : std::generate_canonical<double, 53>(random_) < it.chance;
}

std::chrono::milliseconds FaultCloud::time_locked(const Guard&, const FaultRule& rule) {
  return std::chrono::milliseconds(std::uniform_int_distribution<std::chrono::milliseconds::rep>(
      rule.least.count(), rule.most.count())(random_));
}

void FaultCloud::add_to_fate_locked(const Guard& guard, const FaultRule& rule, CloudCall kind,
                                    Fate* fate) {
  const std::chrono::milliseconds time = time_locked(guard, rule);
  switch (rule.fault) {
    case Fault::LATENCY:
      fate->latency += time;
      break;
    case Fault::BUSY:
      fate->refusal = CloudResult::busy(time);
      break;
    case Fault::ERROR_5XX:
      fate->loses_answer = changes_something(kind) && random_() % 2 == 0;
      if (!fate->loses_answer) {
        fate->refusal = CloudResult::of(changes_something(kind) ? CloudCode::UNKNOWN_OUTCOME
                                                                : CloudCode::OFFLINE);
      }
      break;
    case Fault::LOST:
      fate->loses_answer = true;
      break;
    case Fault::CHANGED:
      fate->refusal = CloudResult::of(CloudCode::CHANGED);
      break;
    case Fault::OFFLINE:
      online_from_ = Clock::now() + time;
      break;
    case Fault::SHORT: /* only contents have a length */
      break;
  }
}

FaultCloud::Fate FaultCloud::fate_locked(const Guard& guard, CloudCall kind) {
  Fate fate;
  for (size_t i = 0; i < script_.rules.size(); i++) {
    const FaultRule& rule = script_.rules[i];
    const bool of_pieces =
        kind == CloudCall::READ && (rule.fault == Fault::CHANGED || rule.fault == Fault::SHORT);
    if (!of_pieces && strikes_locked(guard, i, kind)) {
      add_to_fate_locked(guard, rule, kind, &fate);
    }
  }
  if (Clock::now() < online_from_) {
    fate.refusal = CloudResult::of(CloudCode::OFFLINE);
  }
  return fate;
}

CloudResult FaultCloud::run(const CloudContext& context, CloudCall kind, const Call& call) {
  Fate fate;
  {
    const Guard guard(lock_);
    load_again_locked(guard);
    fate = fate_locked(guard, kind);
  }
  const CloudResult waited = sleep_within(context, fate.latency);
  if (!waited.ok() || !fate.refusal.ok()) {
    return waited.ok() ? fate.refusal : waited;
  }
  const CloudResult result = call();
  return fate.loses_answer ? CloudResult::of(CloudCode::UNKNOWN_OUTCOME) : result;
}

/* ------------------------------------------------------------------ contents */

void FaultCloud::slow_down(const CloudContext& context, size_t size) {
  uint64_t rate = 0;
  {
    const Guard guard(lock_);
    rate = script_.rate;
  }
  if (rate != 0) {
    sleep_within(context, std::chrono::milliseconds(size * 1000 / rate));
  }
}

bool FaultCloud::piece_strikes_locked(const Guard& guard, Fault fault) {
  bool strikes = false;
  for (size_t i = 0; i < script_.rules.size(); i++) {
    strikes |= script_.rules[i].fault == fault && strikes_locked(guard, i, CloudCall::READ);
  }
  return strikes;
}

/* OK also for a piece that ends the body: then with a smaller `*size`. */
CloudResult FaultCloud::spoil_piece(const CloudContext& context, size_t* size) {
  slow_down(context, *size);
  const Guard guard(lock_);
  if (Clock::now() < online_from_) {
    return CloudResult::of(CloudCode::OFFLINE);
  }
  if (piece_strikes_locked(guard, Fault::CHANGED)) {
    return CloudResult::of(CloudCode::CHANGED);
  }
  if (piece_strikes_locked(guard, Fault::SHORT)) {
    *size = random_() % *size;
  }
  return {};
}

CloudResult FaultCloud::read(const CloudContext& context, const std::string& path,
                             const std::string& version, ByteRange range, const DataSink& sink) {
  CloudResult spoilt;
  bool cut = false;
  const auto take = [&](const char* data, size_t size) {
    const size_t whole = size;
    spoilt = spoil_piece(context, &size);
    if (!spoilt.ok()) {
      return spoilt.error;
    }
    const int err = size > 0 ? sink(data, size) : 0;
    cut = err == 0 && size < whole;
    return cut ? static_cast<int>(OX_EIO) : err; /* only to end the call below */
  };
  return run(context, CloudCall::READ, [&] {
    const CloudResult result = below_->read(context, path, version, range, take);
    return !spoilt.ok() ? spoilt : cut ? CloudResult{} : result;
  });
}

/* A content that is read as slowly as it goes up. */
class FaultCloud::SlowSnapshot : public Snapshot {
 public:
  SlowSnapshot(FaultCloud& cloud, const CloudContext& context, Snapshot& content)
      : cloud_(cloud), context_(context), content_(content) {}

  uint64_t size() const override { return content_.size(); }
  std::vector<ByteRange> held() const override { return content_.held(); }
  std::vector<ByteRange> changed() const override { return content_.changed(); }
  int read(uint64_t offset, void* buffer, size_t size) override {
    cloud_.slow_down(context_, size);
    return content_.read(offset, buffer, size);
  }

 private:
  FaultCloud& cloud_;
  const CloudContext& context_;
  Snapshot& content_;
};

CloudResult FaultCloud::put(const CloudContext& context, const std::string& path,
                            const PutCondition& condition, Snapshot& content, CloudEntry* made) {
  SlowSnapshot slow(*this, context, content);
  return run(context, CloudCall::PUT,
             [&] { return below_->put(context, path, condition, slow, made); });
}

CloudResult FaultCloud::patch(const CloudContext& context, const std::string& path,
                              const PutCondition& condition, Snapshot& content, CloudEntry* made) {
  SlowSnapshot slow(*this, context, content);
  return run(context, CloudCall::PATCH,
             [&] { return below_->patch(context, path, condition, slow, made); });
}

/* ------------------------------------------------------------------ the other calls */

CloudResult FaultCloud::status(const CloudContext& context, const std::string& path,
                               CloudEntry* entry) {
  return run(context, CloudCall::STATUS, [&] { return below_->status(context, path, entry); });
}

CloudResult FaultCloud::list(const CloudContext& context, const std::string& path,
                             const EntrySink& sink) {
  return run(context, CloudCall::LIST, [&] { return below_->list(context, path, sink); });
}

CloudResult FaultCloud::rename(const CloudContext& context, const std::string& from,
                               const std::string& to, const RenameConditions& conditions,
                               CloudEntry* made) {
  return run(context, CloudCall::RENAME,
             [&] { return below_->rename(context, from, to, conditions, made); });
}

CloudResult FaultCloud::remove(const CloudContext& context, const std::string& path,
                               const std::string& version) {
  return run(context, CloudCall::REMOVE, [&] { return below_->remove(context, path, version); });
}

CloudResult FaultCloud::make_folder(const CloudContext& context, const std::string& path,
                                    CloudEntry* made) {
  return run(context, CloudCall::MAKE_FOLDER,
             [&] { return below_->make_folder(context, path, made); });
}

}  // namespace tarnd
