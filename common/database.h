/*
 * A SQLite database with one connection: prepared statements, transactions, and error numbers
 * instead of SQLite's codes. Not thread-safe: guarded by its owner.
 *
 * Write-ahead log, exclusive locking: no other process opens it. A commit survives the end of the
 * process; one that is made in full survives a loss of power, too, and all commits before it.
 */
#ifndef COMMON_DATABASE_H
#define COMMON_DATABASE_H

#include <cstdint>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace common {

enum class Durability {
  PROCESS, /* survives the end of the process */
  POWER,   /* a loss of power, too */
};

/* Results are 0 or an error number of ox_errno.h. */
class Database {
 public:
  Database() = default;
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;
  ~Database();

  /* `path` is UTF-8. Makes the database when it is not there. OX_EINVAL: it is damaged. */
  int open(const std::string& path);
  void close();
  /* Statements that answer nothing. */
  int run(const char* sql);
  int begin(Durability durability);
  /* Commits when `err` is 0, and rolls back otherwise or when that fails: 0 or what failed. */
  int end(int err);

  sqlite3* get() const { return db_; }

 private:
  sqlite3* db_ = nullptr;
  Durability durability_ = Durability::PROCESS; /* of the transactions, as the database has it */
};

/* A statement with its parameters, which are bound in their order. */
class Statement {
 public:
  Statement(Database& database, const char* sql);
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement();

  Statement& bind(int64_t number);
  Statement& bind(std::string_view text);

  /* Runs a statement that answers nothing, and makes it ready for the next time. */
  int run();
  /* The next row: false at the end, or with an error in `*err`. */
  bool next(int* err);
  int64_t number(int column) const;
  std::string text(int column) const;

 private:
  sqlite3* db_;
  sqlite3_stmt* statement_ = nullptr;
  int bound_ = 0;
};

}  // namespace common

#endif
