#include "common/database.h"

#include <sqlite3.h>

#include "ox_errno.h"

namespace common {
namespace {

int errno_of_sqlite(int code) {
  switch (code & 0xff) {
    case SQLITE_OK:
    case SQLITE_DONE:
    case SQLITE_ROW:
      return 0;
    case SQLITE_FULL:
      return OX_ENOSPC;
    case SQLITE_NOMEM:
      return OX_ENOMEM;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return OX_EINVAL;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return OX_EBUSY;
    default:
      return OX_EIO;
  }
}

}  // namespace

Database::~Database() { close(); }

int Database::open(const std::string& path) {
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  int err = errno_of_sqlite(sqlite3_open_v2(path.c_str(), &db_, flags, nullptr));
  err = err != 0 ? err : run("PRAGMA locking_mode=EXCLUSIVE");
  err = err != 0 ? err : run("PRAGMA journal_mode=WAL");
  err = err != 0 ? err : run("PRAGMA synchronous=NORMAL");
  if (err != 0) {
    close();
  }
  return err;
}

void Database::close() {
  sqlite3_close(db_);
  db_ = nullptr;
}

int Database::run(const char* sql) {
  return errno_of_sqlite(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr));
}

int Database::begin(Durability durability) {
  if (durability != durability_) {
    const bool power = durability == Durability::POWER;
    if (const int err = run(power ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL")) {
      return err;
    }
    durability_ = durability;
  }
  return run("BEGIN IMMEDIATE");
}

int Database::end(int err) {
  err = err != 0 ? err : run("COMMIT");
  if (err != 0) {
    run("ROLLBACK");
  }
  return err;
}

Statement::Statement(Database& database, const char* sql) : db_(database.get()) {
  sqlite3_prepare_v2(db_, sql, -1, &statement_, nullptr);
}

Statement::~Statement() { sqlite3_finalize(statement_); }

Statement& Statement::bind(int64_t number) {
  sqlite3_bind_int64(statement_, ++bound_, number);
  return *this;
}

Statement& Statement::bind(std::string_view text) {
  sqlite3_bind_text(statement_, ++bound_, text.data(), static_cast<int>(text.size()),
                    SQLITE_TRANSIENT);
  return *this;
}

int Statement::run() {
  int err = 0;
  next(&err);
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
  bound_ = 0;
  return err;
}

bool Statement::next(int* err) {
  const int code = statement_ == nullptr ? sqlite3_errcode(db_) : sqlite3_step(statement_);
  *err = errno_of_sqlite(code);
  return code == SQLITE_ROW;
}

int64_t Statement::number(int column) const { return sqlite3_column_int64(statement_, column); }

std::string Statement::text(int column) const {
  const unsigned char* text = sqlite3_column_text(statement_, column);
  const int bytes = sqlite3_column_bytes(statement_, column);
  return {reinterpret_cast<const char*>(text), static_cast<size_t>(bytes)};
}

}  // namespace common
