/*
 * A cloud that fails on purpose: it stands before another one and does wrong what a script says.
 *
 * Chosen with an address that begins with "fault+", as in fault+file:///Z:/folder. The script (see
 * fault_script.h) is the value of the variable TARND_FAULTS; with "@FILE" it is that file, which is
 * read again whenever it changes, so that a running service can be taken offline and back.
 *
 * It stands below the wrapper of cloud_retry.h: what it does is seen by the retries, and what they
 * cannot mend by everyone above.
 */
#ifndef SERVICE_FAULT_CLOUD_H
#define SERVICE_FAULT_CLOUD_H

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>

#include "cloud/cloud.h"
#include "cloud/fault/fault_script.h"

namespace tarnd {

class FaultCloud : public Cloud {
 public:
  /* `script`: the text, or "@FILE". Null with a text in `*error` when it cannot be understood. */
  static std::unique_ptr<FaultCloud> open(std::unique_ptr<Cloud> below, const std::string& script,
                                          std::string* error);

  CloudCapabilities capabilities() const override { return below_->capabilities(); }
  CloudResult status(const CloudContext& context, const std::string& path,
                     CloudEntry* entry) override;
  CloudResult list(const CloudContext& context, const std::string& path,
                   const EntrySink& sink) override;
  CloudResult read(const CloudContext& context, const std::string& path, const std::string& version,
                   ByteRange range, const DataSink& sink) override;
  CloudResult put(const CloudContext& context, const std::string& path,
                  const PutCondition& condition, Snapshot& content, CloudEntry* made) override;
  CloudResult patch(const CloudContext& context, const std::string& path,
                    const PutCondition& condition, Snapshot& content, CloudEntry* made) override;
  CloudResult rename(const CloudContext& context, const std::string& from, const std::string& to,
                     const RenameConditions& conditions, CloudEntry* made) override;
  CloudResult remove(const CloudContext& context, const std::string& path,
                     const std::string& version) override;
  CloudResult make_folder(const CloudContext& context, const std::string& path,
                          CloudEntry* made) override;

 private:
  class SlowSnapshot;
  using Guard = std::lock_guard<std::mutex>;
  using Call = std::function<CloudResult()>;

  /* What befalls one call. */
  struct Fate {
    std::chrono::milliseconds latency{0};
    CloudResult refusal;       /* not OK: what it is answered, without being carried out */
    bool loses_answer = false; /* carried out, and answered UNKNOWN_OUTCOME */
  };

  FaultCloud(std::unique_ptr<Cloud> below, std::filesystem::path file)
      : below_(std::move(below)), file_(std::move(file)) {}

  CloudResult run(const CloudContext& context, CloudCall kind, const Call& call);
  CloudResult spoil_piece(const CloudContext& context, size_t* size);
  void slow_down(const CloudContext& context, size_t size);
  bool load(std::string* error);

  /* These want lock_ held, and take the guard that holds it as the proof. */
  void load_again_locked(const Guard&);
  Fate fate_locked(const Guard& guard, CloudCall kind);
  void add_to_fate_locked(const Guard& guard, const FaultRule& rule, CloudCall kind, Fate* fate);
  bool strikes_locked(const Guard&, size_t rule, CloudCall kind);
  bool piece_strikes_locked(const Guard& guard, Fault fault);
  std::chrono::milliseconds time_locked(const Guard&, const FaultRule& rule);

  const std::unique_ptr<Cloud> below_;
  const std::filesystem::path file_; /* of the script; empty: it never changes */

  mutable std::mutex lock_; /* guards all below */
  FaultScript script_;
  std::filesystem::file_time_type file_time_;
  std::vector<uint64_t> asked_; /* how often each rule was asked, by its place in the script */
  std::mt19937_64 random_;
  std::chrono::steady_clock::time_point online_from_; /* the cloud is offline until then */
};

}  // namespace tarnd

#endif
