#include "state/state_store.h"

#include <algorithm>
#include <sstream>

namespace tarnd {
namespace {

/*
 * `dirty_runs` grows with each region that is reported; the other sets are written whole, as
 * "first end first end". The numbers of the enumerations are those of file_machine.h.
 */
constexpr const char* SCHEMA = R"(
CREATE TABLE IF NOT EXISTS files (
  id INTEGER PRIMARY KEY, path TEXT, moving_to TEXT, local TEXT, content INTEGER, change INTEGER,
  is_new INTEGER, has_cut INTEGER, cut INTEGER, size INTEGER, base_path TEXT, base_version TEXT,
  base_size INTEGER, shift INTEGER, file_limit INTEGER, present TEXT, sealed_file TEXT,
  sealed_size INTEGER, sealed_limit INTEGER, sealed_present TEXT, sealed_changed TEXT,
  base_modified INTEGER);
CREATE TABLE IF NOT EXISTS dirty_runs (file INTEGER, first INTEGER, past INTEGER);
CREATE INDEX IF NOT EXISTS dirty_runs_of ON dirty_runs (file);
CREATE TABLE IF NOT EXISTS sent_contents (file INTEGER, size INTEGER, held TEXT, digest TEXT);
)";

std::string text_of(const RegionSet& set) {
  std::ostringstream text;
  for (const auto& [first, end] : set.runs()) {
    text << first << ' ' << end << ' ';
  }
  return text.str();
}

std::string text_of(const std::vector<ByteRange>& ranges) {
  std::ostringstream text;
  for (const ByteRange& range : ranges) {
    text << range.offset << ' ' << range.end() << ' ';
  }
  return text.str();
}

std::vector<Run> runs_of(const std::string& text) {
  std::vector<Run> runs;
  std::istringstream numbers(text);
  for (Run run; numbers >> run.first >> run.end;) {
    runs.push_back(run);
  }
  return runs;
}

RegionStore store_of(int shift, int64_t limit, const std::string& present,
                     const std::string& dirty) {
  RegionStore store(shift);
  store.fill(static_cast<uint64_t>(limit));
  for (const Run run : runs_of(present)) {
    store.mark_present(run);
  }
  for (const Run run : runs_of(dirty)) {
    store.mark_dirty(run);
  }
  return store;
}

int64_t signed_of(uint64_t number) { return static_cast<int64_t>(number); }

FileRecord record_of(const Statement& row) {
  const auto number = [&](int column) { return static_cast<uint64_t>(row.number(column)); };
  FileRecord record;
  record.id = row.number(0);
  record.path = row.text(1);
  record.moving_to = row.text(2);
  record.local = row.text(3);
  record.state = {static_cast<Content>(row.number(4)), static_cast<Change>(row.number(5))};
  record.is_new = row.number(6) != 0;
  record.has_cut = row.number(7) != 0;
  record.cut = number(8);
  record.size = number(9);
  record.base = {row.text(10), row.text(11), number(12), number(21)};
  const int shift = static_cast<int>(row.number(13));
  record.store = store_of(shift, row.number(14), row.text(15), "");
  record.sealed = {row.text(16), number(17),
                   store_of(shift, row.number(18), row.text(19), row.text(20))};
  return record;
}

SentContent sent_of(const Statement& row) {
  SentContent sent = {static_cast<uint64_t>(row.number(0)), {}, row.text(2)};
  for (const Run run : runs_of(row.text(1))) {
    sent.held.push_back({run.first, run.end - run.first});
  }
  return sent;
}

}  // namespace

int StateStore::open(const std::string& path, std::vector<FileRecord>* records) {
  const std::lock_guard guard(lock_);
  int err = database_.open(path);
  err = err != 0 ? err : database_.run(SCHEMA);
  err = err != 0 ? err : load(records);
  if (err != 0) {
    records->clear();
    database_.close();
  }
  return err;
}

int StateStore::load(std::vector<FileRecord>* records) {
  int err = 0;
  Statement files(database_, "SELECT * FROM files ORDER BY id");
  while (files.next(&err)) {
    records->push_back(record_of(files));
    next_id_ = std::max<int64_t>(next_id_, records->back().id + 1);
  }
  for (FileRecord& record : *records) {
    Statement runs(database_, "SELECT first, past FROM dirty_runs WHERE file = ?");
    runs.bind(record.id);
    while (err == 0 && runs.next(&err)) {
      record.store.mark_dirty(
          {static_cast<uint64_t>(runs.number(0)), static_cast<uint64_t>(runs.number(1))});
    }
    Statement sent(database_, "SELECT size, held, digest FROM sent_contents WHERE file = ?");
    sent.bind(record.id);
    while (err == 0 && sent.next(&err)) {
      record.sealed.sent.push_back(sent_of(sent));
    }
  }
  return err;
}

int StateStore::save(const std::vector<const FileRecord*>& records,
                     const std::vector<int64_t>& gone, Durability durability) {
  const std::lock_guard guard(lock_);
  int err = database_.begin(durability);
  for (const int64_t id : gone) {
    err = err != 0 ? err : erase(id);
  }
  for (const FileRecord* record : records) {
    err = err != 0 ? err : write(*record);
  }
  return database_.end(err);
}

int StateStore::add_dirty(int64_t id, Run regions, uint64_t size) {
  const std::lock_guard guard(lock_);
  int err = database_.begin(Durability::PROCESS);
  if (err == 0) {
    err = Statement(database_, "INSERT INTO dirty_runs VALUES (?, ?, ?)")
              .bind(id)
              .bind(signed_of(regions.first))
              .bind(signed_of(regions.end))
              .run();
  }
  if (err == 0) {
    err = Statement(database_, "UPDATE files SET size = ?, has_cut = 0 WHERE id = ?")
              .bind(signed_of(size))
              .bind(id)
              .run();
  }
  return database_.end(err);
}

int StateStore::erase(int64_t id) {
  int err = 0;
  for (const char* remove :
       {"DELETE FROM dirty_runs WHERE file = ?", "DELETE FROM sent_contents WHERE file = ?",
        "DELETE FROM files WHERE id = ?"}) {
    err = err != 0 ? err : Statement(database_, remove).bind(id).run();
  }
  return err;
}

int StateStore::write(const FileRecord& record) {
  const SealedChange& sealed = record.sealed;
  int err = erase(record.id);
  if (err == 0) {
    err = Statement(database_,
                    "INSERT INTO files VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)")
              .bind(record.id)
              .bind(record.path)
              .bind(record.moving_to)
              .bind(record.local)
              .bind(static_cast<int64_t>(record.state.content))
              .bind(static_cast<int64_t>(record.state.change))
              .bind(int64_t{record.is_new ? 1 : 0})
              .bind(int64_t{record.has_cut ? 1 : 0})
              .bind(signed_of(record.cut))
              .bind(signed_of(record.size))
              .bind(record.base.path)
              .bind(record.base.version)
              .bind(signed_of(record.base.size))
              .bind(int64_t{record.store.shift()})
              .bind(signed_of(record.store.limit()))
              .bind(text_of(record.store.present()))
              .bind(sealed.file)
              .bind(signed_of(sealed.size))
              .bind(signed_of(sealed.store.limit()))
              .bind(text_of(sealed.store.present()))
              .bind(text_of(sealed.store.dirty()))
              .bind(signed_of(record.base.modified))
              .run();
  }
  for (const auto& [first, end] : record.store.dirty().runs()) {
    err = err != 0 ? err
                   : Statement(database_, "INSERT INTO dirty_runs VALUES (?, ?, ?)")
                         .bind(record.id)
                         .bind(signed_of(first))
                         .bind(signed_of(end))
                         .run();
  }
  for (const SentContent& sent : sealed.sent) {
    err = err != 0 ? err
                   : Statement(database_, "INSERT INTO sent_contents VALUES (?, ?, ?, ?)")
                         .bind(record.id)
                         .bind(signed_of(sent.size))
                         .bind(text_of(sent.held))
                         .bind(sent.digest)
                         .run();
  }
  return err;
}

}  // namespace tarnd
