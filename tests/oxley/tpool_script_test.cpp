/*
 * The thread pool from tpool.txt: one pool in each case, whose jobs have names. A job that has run
 * is noted by its name and opens the gate of that name, for which other jobs may wait.
 */
#include <future>

#include "line_mask.h"
#include "script.h"
#include "tpool_fixture.h"

namespace {

class TpoolScript : public testing::TestWithParam<ScriptCase> {
 protected:
  TpoolScript();
  ~TpoolScript() override {
    time_flies = false;
    pool_.reset(); /* whose workers read what follows */
    ox_debug = 1;
    ox_job_destroy_notify(notify_);
  }

  static ox_u32 flags(Args a) {
    static const std::map<std::string, ox_u32> FLAGS = {{"", 0},
                                                        {"stop", OX_TPOOL_FL_STOP},
                                                        {"drain", OX_TPOOL_FL_DRAIN},
                                                        {"abort", OX_TPOOL_FL_ABORT}};
    return FLAGS.at(a[0]);
  }
  Gate& gate(const std::string& job) {
    const std::lock_guard hold(lock_);
    return gates_[job];
  }
  int queue(Args a);
  void destroy(Args a);
  std::string ran(size_t count);
  std::string state(Args a);
  std::string log();

  const LogCapture log_;
  size_t shown_ = 0;             /* lines of the log */
  std::mutex lock_;              /* guards the next two */
  std::vector<std::string> ran_; /* names of jobs */
  std::map<std::string, Gate> gates_;
  Gate release_;
  ox_job_notify_t* const notify_ = ox_job_create_notify();
  std::unique_ptr<TestPool> pool_;
  std::map<std::string, ox_tpool_t*> listed_;
  std::vector<std::future<std::string>> threads_;
  Commands commands_;
};

/* queue JOB [waits=JOB] [queues=JOB] [notify] */
int TpoolScript::queue(Args a) {
  const auto run = [this, a](Blocks blocks) {
    if (a.options.contains("waits")) {
      gate(a.options.at("waits")).wait();
    }
    if (a.options.contains("queues")) {
      EXPECT_EQ(0, queue({{a.options.at("queues")}, {}})) << "the pool's own are not refused";
    }
    {
      const std::lock_guard hold(lock_);
      ran_.push_back(a[0] + (blocks.priv != nullptr ? "" : " without a block"));
    }
    gate(a[0]).post();
  };
  return pool_->queue(run, a.has("notify") ? notify_ : nullptr);
}

/* An aborted pool stays; any other one is gone then. */
void TpoolScript::destroy(Args a) {
  static auto& aborted = *new std::vector<ox_tpool_t*>; /* never freed, for leak checkers */
  const bool stays = a[0] == "abort" || pool_->read(&ox_tpool_t::tp_state) == OX_TPOOL_ABORTED;
  ox_destroy_tpool(pool_->tp, flags(a));
  stays ? aborted.push_back(pool_->tp) : (void)(pool_->tp = nullptr);
}

std::string TpoolScript::ran(size_t count) {
  EXPECT_TRUE(eventually([&] {
    const std::lock_guard hold(lock_);
    return ran_.size() >= count;
  }));
  const std::lock_guard hold(lock_);
  return testing::PrintToString(ran_);
}

/* Waits until the pool is so; else what it is. */
std::string TpoolScript::state(Args a) {
  const std::map<std::string, ox_u32 ox_tpool_t::*> fields = {
      {"workers", &ox_tpool_t::tp_cur_count},
      {"idle", &ox_tpool_t::tp_idle_count},
      {"queued", &ox_tpool_t::tp_qlen},
      {"waiters", &ox_tpool_t::tp_waiters},
      {"state", &ox_tpool_t::tp_state}};
  std::string differs;
  for (const auto& [name, value] : a.options) {
    const bool same = pool_->becomes(fields.at(name), std::stoul(value));
    differs += same ? "" : name + '=' + std::to_string(pool_->read(fields.at(name))) + ' ';
  }
  return differs;
}

/* The errors since the last call. */
std::string TpoolScript::log() {
  static const Masks MASKS = {{std::regex(R"(\d+( bytes for creating))"), "...$1"},
                              {std::regex(R"(for thread \S+$)"), "for thread ..."},
                              {std::regex(R"(pool \w+:)"), "pool ...:"}};
  const std::vector<std::string> lines = log_.brief_lines();
  std::string text;
  for (; shown_ < lines.size(); shown_++) {
    const std::string line = masked(lines[shown_], MASKS);
    text += line.starts_with("ERROR") ? (text.empty() ? "" : "\n") + line : "";
  }
  return text;
}

TpoolScript::TpoolScript() {
  /* pool NAME MIN MAX [size=BYTES]: of a worker's block */
  commands_.add("pool", [this](Args a) {
    const auto number = [&](size_t index) { return static_cast<ox_u32>(a.number(index)); };
    pool_ = std::make_unique<TestPool>(number(1), number(2), a[0].c_str(), 8,
                                       static_cast<ox_u32>(a.option("size", 8)));
  });
  commands_.add("update", [this](Args a) {
    ox_update_tpool_threads(pool_->tp, static_cast<ox_u32>(a.number(0)),
                            static_cast<ox_u32>(a.number(1)));
  });
  commands_.add("worker", [this](Args) { pool_->start_worker(); });
  commands_.add("block",
                [this](Args a) { return pool_->block_workers(std::stoi(a[0]), release_); });
  commands_.add("release", [this](Args a) { release_.post(std::stoi(a[0])); });
  commands_.add("open", [this](Args a) { gate(a[0]).post(); });
  commands_.add("queue", [this](Args a) { return error_name(queue(a)); });
  /* fault KIND NTH|always [ERROR]: see tpool_fixture.h. */
  commands_.add("fault", [](Args a) {
    const bool always = a[1] == "always";
    set_fault(a[0], always ? EVERY_CALL : std::stoi(a[1]),
              a[2].empty() ? OX_ENOMEM : std::stoi(a[2]));
  });
  commands_.add("hit",
                [](Args a) { return eventually([&] { return calls_to_fault(a[0]) == 0; }); });
  commands_.add("init", [](Args) { return error_name(ox_init_tpool()); });
  commands_.add("deinit", [](Args a) { ox_deinit_tpool(flags(a)); });
  commands_.add("notifier", [](Args) {
    ox_job_notify_t* notify = ox_job_create_notify();
    ox_job_destroy_notify(notify);
    return notify != nullptr;
  });
  /* listed_pool [NAME], queue_listed NAME JOB, destroy_listed NAME FLAG: pools of the facility */
  commands_.add("listed_pool", [this](Args a) {
    const std::string name = a[0].empty() ? "faulty" : a[0];
    return (listed_[name] = ox_tpool_create(name.c_str(), nullptr, nullptr, 8, 16, 0, 3)) !=
           nullptr;
  });
  commands_.add("queue_listed", [this](Args a) {
    std::swap(pool_->tp, listed_[a[0]]);
    const int err = queue({{a[1]}, {}});
    std::swap(pool_->tp, listed_[a[0]]);
    return error_name(err);
  });
  commands_.add("destroy_listed", [this](Args a) {
    static auto& kept = *new std::vector<ox_tpool_t*>; /* an aborted one, for leak checkers */
    kept.push_back(listed_.at(a[0]));
    ox_destroy_tpool(listed_.at(a[0]), flags({{a[1]}, {}}));
  });
  commands_.add("log", [this](Args) { return log(); });
  commands_.add("pause", [this](Args) { return error_name(ox_tpool_pause(pool_->tp)); });
  commands_.add("resume", [this](Args) { return error_name(ox_tpool_resume(pool_->tp)); });
  commands_.add("drain", [this](Args a) { ox_drain_tpool(pool_->tp, flags(a)); });
  commands_.add("drain_wait", [this](Args) { ox_tpool_drain_wait(pool_->tp); });
  commands_.add("destroy", [this](Args a) { destroy(a); });
  commands_.add("allow", [this](Args a) { pool_->tp->tp_flags &= ~flags(a); });
  /* thread [as=NAME] COMMAND ...; "join" waits for the last one and gives its answer. */
  commands_.add("thread", [this](Arguments a) {
    const auto run = [=, command = commands_.at(a[0])]() mutable {
      if (a.options.contains("as")) {
        pthread_setname_np(pthread_self(), a.options.at("as").c_str());
      }
      a.words.erase(a.words.begin());
      return command(a);
    };
    threads_.push_back(std::async(std::launch::async, run));
  });
  commands_.add("join", [this](Args) {
    const std::string answer = threads_.back().get();
    threads_.pop_back();
    return answer;
  });
  commands_.add("time", [](Args a) { time_flies = a.has("flies"); });
  commands_.add("state", [this](Args a) { return state(a); });
  commands_.add("paused", [this](Args) { return ox_tpool_is_paused(pool_->tp); });
  commands_.add("ran", [this](Args a) { return ran(a.number(0)); });
  commands_.add("notified", [this](Args) { return notify_->jn_done != 0; });
  commands_.add("longest_rest", [this](Args) { return longest_wait(&pool_->tp->tp_worker_cv); });
  commands_.add("longest_drain", [this](Args) { return longest_wait(&pool_->tp->tp_pool_cv); });
  commands_.add("debug", [](Args a) { ox_debug = std::stoi(a[0]); });
  commands_.add("logged", [this](Args a) { return count(log_, a[0]) > 0; });
  commands_.add("logs",
                [this](Args a) { return eventually([&] { return count(log_, a[0]) == 1; }); });
}

TEST_P(TpoolScript, Holds) { play(GetParam(), commands_); }

INSTANTIATE_TEST_SUITE_P(All, TpoolScript, testing::ValuesIn(script_cases("tpool")), case_name);

}  // namespace
