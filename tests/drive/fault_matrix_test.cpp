/*
 * Every operation that the library sends, met with every fault at every point of its exchange: what
 * the caller gets, and the first line of the log that tells of it. The table that comes out is the
 * one in docs/faults.md. After each fault the descriptor table, the file's maps and the pool are as
 * they should be, and a call over a sound connection works.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <random>

#include "operation_player.h"
#include "tnw_dll/tnw_start.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID reserved);

namespace {

constexpr ox_u32 ANSWER_LIMIT_MS = 200;

/* ------------------------------------------------------------------- the table's sides */

/* An answer on its way. */
struct Answer {
  tnv_resphdr header;
  Bytes record, bulk;
  std::mt19937& random;
};

void stays(PeerConnection& /*conn*/) {}

/* Of the answer; without a function the request meets a connection that is gone. */
struct Fault {
  const char* point;
  const char* name;
  /* What is sent of it; nothing where this answer has no such point. */
  std::optional<Bytes> (*sent)(Answer& answer);
  void (*then)(PeerConnection& conn) = stays;
  bool bytewise = false;
};

Bytes first_half(const Bytes& bytes) {
  return Bytes(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(bytes.size() / 2));
}
Bytes whole(const Answer& answer) { return bytes_of(answer.header) + answer.record + answer.bulk; }
std::optional<Bytes> nothing(Answer& /*answer*/) { return Bytes(); }
std::optional<Bytes> to_mid_header(Answer& answer) { return first_half(bytes_of(answer.header)); }
std::optional<Bytes> to_mid_record(Answer& answer) {
  return answer.record.empty() ? std::nullopt
                               : std::optional(bytes_of(answer.header) + first_half(answer.record));
}
std::optional<Bytes> to_mid_bulk(Answer& answer) {
  return answer.bulk.empty()
             ? std::nullopt
             : std::optional(bytes_of(answer.header) + answer.record + first_half(answer.bulk));
}
std::optional<Bytes> refusal(Answer& answer, bool unauthorised, bool with_record) {
  if (with_record && answer.record.empty()) {
    return std::nullopt;
  }
  answer.header.rhdr_errno = 13;
  answer.header.rhdr_tn_unauthd = unauthorised ? 1 : 0;
  answer.header.rhdr_len = with_record ? answer.header.rhdr_len : 0;
  return bytes_of(answer.header) + (with_record ? answer.record : Bytes());
}
Bytes random_bytes(std::mt19937& random) {
  Bytes bytes(200);
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<ox_u8>(random()); });
  return bytes;
}

void hang_up(PeerConnection& conn) { conn.close(); }
void reset(PeerConnection& conn) { conn.reset(); }
void stall(PeerConnection& conn) { conn.stall(); }

const Fault FAULTS[] = {
    {"before the request", "hang-up", nullptr},
    {"after the request", "hang-up", nothing, hang_up},
    {"after the request", "reset", nothing, reset},
    {"after the request", "stall", nothing, stall},
    {"in the header", "hang-up", to_mid_header, hang_up},
    {"in the header", "reset", to_mid_header, reset},
    {"in the header", "stall", to_mid_header, stall},
    {"in the record", "hang-up", to_mid_record, hang_up},
    {"in the record", "reset", to_mid_record, reset},
    {"in the record", "stall", to_mid_record, stall},
    {"in maps or entries", "hang-up", to_mid_bulk, hang_up},
    {"in maps or entries", "reset", to_mid_bulk, reset},
    {"in maps or entries", "stall", to_mid_bulk, stall},
    {"header", "a length without the record's last byte, then a hang-up",
     [](Answer& answer) -> std::optional<Bytes> {
       if (answer.record.empty()) {
         return std::nullopt;
       }
       answer.header.rhdr_len--;
       answer.record.pop_back();
       return bytes_of(answer.header) + answer.record;
     },
     hang_up},
    {"header", "a length of one byte too many, then a stall",
     [](Answer& answer) -> std::optional<Bytes> {
       answer.header.rhdr_len++;
       return bytes_of(answer.header) + answer.record;
     },
     stall},
    {"header", "a length that cannot be",
     [](Answer& answer) -> std::optional<Bytes> {
       answer.header.rhdr_len = 0xffffffff;
       return whole(answer);
     }},
    {"header", "another opcode",
     [](Answer& answer) -> std::optional<Bytes> {
       answer.header.rhdr_opcode ^= 1;
       return whole(answer);
     }},
    {"header", "another id",
     [](Answer& answer) -> std::optional<Bytes> {
       answer.header.rhdr_id.id[0] ^= 1;
       return whole(answer);
     }},
    {"header", "error 13", [](Answer& answer) { return refusal(answer, false, false); }},
    {"header", "error 13 with a record",
     [](Answer& answer) { return refusal(answer, false, true); }},
    {"header", "error 13, unauthorised",
     [](Answer& answer) { return refusal(answer, true, false); }},
    {"all", "random bytes, then a hang-up",
     [](Answer& answer) -> std::optional<Bytes> { return random_bytes(answer.random); }, hang_up},
    {"all", "one byte at a time",
     [](Answer& answer) -> std::optional<Bytes> { return whole(answer); }, stays, true},
};

/* ------------------------------------------------------------------- one operation */

class Player : public OperationPlayer {
 public:
  explicit Player(const Operation& operation) : OperationPlayer(operation), random_(opcode_) {}

  /* A row of the legend, with what is odd besides; empty where the operation has no such point. */
  std::string meet(const Fault& fault) {
    const Outcome outcome = run([&] { arm(fault); }, [&] { disarm(); });
    return applies_ ? outcome.code + " | " + outcome.line + " | " + outcome.next : "";
  }

 protected:
  void send_answer(PeerConnection& conn, const tnv_resphdr& header, const Bytes& record,
                   const Bytes& bulk) override {
    const Fault* const fault = conn.opcode() == opcode_ ? fault_.load() : nullptr;
    Answer answer = {header, record, bulk, random_};
    const auto sent =
        fault != nullptr && fault->sent != nullptr ? fault->sent(answer) : std::nullopt;
    applies_ = applies_ && (fault == nullptr || sent.has_value());
    const Bytes bytes = sent.value_or(whole(answer));
    const size_t step = fault != nullptr && fault->bytewise ? 1 : bytes.size();
    for (size_t at = 0; at < bytes.size(); at += step) {
      const auto first = bytes.begin() + static_cast<ptrdiff_t>(at);
      conn.send(Bytes(first, first + static_cast<ptrdiff_t>(step)));
    }
    if (sent.has_value()) {
      fault_ = nullptr;
      fault->then(conn);
    } else if (hangs_up_after_ == conn.opcode()) {
      conn.close();
    }
  }

 private:
  /* A limit for the others, too, would end sound exchanges on a busy machine. */
  void arm(const Fault& fault) {
    const ox_u32 limit = fault.then == stall ? ANSWER_LIMIT_MS : 0;
    if (starts_) {
      tnw_start_limit_ms = limit;
    } else {
      play("set_answer_limit d " + std::to_string(limit));
    }
    applies_ = true;
    if (fault.sent != nullptr) {
      fault_ = &fault;
    } else if (opcode_ == TNV_OP_WIN_CONNECT) {
      drive_.peer->on_accept(hang_up);
    } else if (starts_) {
      hangs_up_after_ = TNV_OP_WIN_CONNECT;
    } else {
      drive_.peer->hang_up();
      EXPECT_TRUE(drive_.peer->wait_for_ended(1));
    }
  }

  void disarm() {
    fault_ = nullptr;
    hangs_up_after_ = TNV_OP_MAX;
  }

  std::mt19937 random_;
  std::atomic<const Fault*> fault_ = nullptr; /* that the next answer of the operation meets */
  std::atomic<bool> applies_ = true;
  std::atomic<ox_u32> hangs_up_after_ = TNV_OP_MAX;
};

/* ------------------------------------------------------------------- the table */

/* What came out, by a number, in the order in which it came. */
class Legend {
 public:
  std::string number_of(const std::string& outcome) {
    const auto same = std::find(outcomes_.begin(), outcomes_.end(), outcome);
    const size_t at = static_cast<size_t>(same - outcomes_.begin());
    if (same == outcomes_.end()) {
      outcomes_.push_back(outcome);
    }
    return std::to_string(at + 1);
  }
  std::string text() const {
    std::string lines =
        "| no. | the call gives | first error in the log | the next open gives |\n"
        "|---|---|---|---|\n";
    for (size_t i = 0; i < outcomes_.size(); i++) {
      lines += "| " + std::to_string(i + 1) + " | " + outcomes_[i] + " |\n";
    }
    return lines;
  }

 private:
  std::vector<std::string> outcomes_;
};

/* A row for each fault, a column for each operation. */
std::string table_of(const std::vector<std::vector<std::string>>& columns, Legend* legend) {
  std::string table = "| at | fault |", rule = "|---|---|";
  for (const Operation& operation : all_operations()) {
    table += ' ' + std::string(operation.title) + " |";
    rule += "---|";
  }
  table += '\n' + rule + '\n';
  for (size_t i = 0; i < std::size(FAULTS); i++) {
    table += "| " + std::string(FAULTS[i].point) + " | " + FAULTS[i].name + " |";
    for (const std::vector<std::string>& column : columns) {
      table += ' ' + (column[i].empty() ? "" : legend->number_of(column[i])) + " |";
    }
    table += '\n';
  }
  return table + '\n' + legend->text();
}

}  // namespace

TEST(FaultMatrix, EveryOperationMeetsEveryFault) {
  DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr);
  std::vector<std::vector<std::string>> columns;
  for (const Operation& operation : all_operations()) {
    SCOPED_TRACE(operation.name);
    Player player(operation);
    columns.emplace_back();
    for (const Fault& fault : FAULTS) {
      SCOPED_TRACE(std::string(fault.point) + ", " + fault.name);
      columns.back().push_back(player.meet(fault));
    }
  }
  Legend legend;
  const std::string table = table_of(columns, &legend);
  printf("%s", table.c_str());
  if (read_file(beside_test("faults.md")).find(table) == std::string::npos) {
    write_file(beside_test("faults.new"), table);
    ADD_FAILURE() << "docs/faults.md has another table than the one in faults.new";
  }
}
