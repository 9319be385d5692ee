#include "dead_properties.h"

#include "exchange.h"
#include "tools/common/failure.h"

namespace tnwdav {
namespace {

constexpr char MAKE_TABLE[] =
    "CREATE TABLE IF NOT EXISTS properties (key TEXT NOT NULL, space TEXT NOT NULL, "
    "name TEXT NOT NULL, xml TEXT NOT NULL, PRIMARY KEY (key, space, name)) WITHOUT ROWID";

/* The beginning of the keys of all that lies below. */
std::string lead_of(const std::string& folder) { return folder.empty() ? "" : folder + '/'; }

[[noreturn]] void fail() {
  throw HttpError(Status::internal_server_error, "the properties cannot be read or kept");
}

DeadProperty property_of(const common::Statement& row, int first_column) {
  return {{row.text(first_column), row.text(first_column + 1)}, row.text(first_column + 2)};
}

}  // namespace

DeadProperties::DeadProperties(const std::string& path) {
  if (database_.open(path) != 0 || database_.run(MAKE_TABLE) != 0) {
    throw tools::Failure(path, "is no database of properties, or cannot be written");
  }
}

DeadProperties::List DeadProperties::of(const std::string& key) {
  List properties;
  const std::lock_guard guard(lock_);
  common::Statement statement(database_, "SELECT space, name, xml FROM properties WHERE key = ?");
  statement.bind(key);
  int err = 0;
  while (statement.next(&err)) {
    properties.push_back(property_of(statement, 0));
  }
  if (err != 0) {
    fail();
  }
  return properties;
}

std::map<std::string, DeadProperties::List> DeadProperties::of_members(const std::string& folder) {
  std::map<std::string, List> properties;
  const std::lock_guard guard(lock_);
  common::Statement statement(database_,
                              "SELECT key, space, name, xml FROM properties WHERE "
                              "substr(key, 1, length(?1)) = ?1 AND "
                              "instr(substr(key, length(?1) + 1), '/') = 0");
  statement.bind(lead_of(folder));
  int err = 0;
  while (statement.next(&err)) {
    properties[statement.text(0)].push_back(property_of(statement, 1));
  }
  if (err != 0) {
    fail();
  }
  return properties;
}

void DeadProperties::transact(const std::function<int()>& work) {
  const std::lock_guard guard(lock_);
  int err = database_.begin(common::Durability::PROCESS);
  err = database_.end(err != 0 ? err : work());
  if (err != 0) {
    fail();
  }
}

int DeadProperties::run(const char* sql, const std::vector<std::string>& values) {
  common::Statement statement(database_, sql);
  for (const std::string& value : values) {
    statement.bind(value);
  }
  return statement.run();
}

void DeadProperties::change(const std::string& key, const std::vector<PropertyChange>& changes) {
  transact([&] {
    int err = 0;
    for (const PropertyChange& change : changes) {
      const auto& [name, xml] = change.property;
      err = err != 0        ? err
            : change.remove ? run("DELETE FROM properties WHERE key = ? AND space = ? AND name = ?",
                                  {key, name.space, name.local})
                            : run("INSERT OR REPLACE INTO properties VALUES (?, ?, ?, ?)",
                                  {key, name.space, name.local, xml});
    }
    return err;
  });
}

void DeadProperties::removed(const std::string& key) {
  transact([&] {
    return run("DELETE FROM properties WHERE key = ?1 OR substr(key, 1, length(?2)) = ?2",
               {key, lead_of(key)});
  });
}

void DeadProperties::moved(const std::string& from, const std::string& to) {
  transact([&] {
    const int err = run("DELETE FROM properties WHERE key = ?1 OR substr(key, 1, length(?2)) = ?2",
                        {to, lead_of(to)});
    return err != 0 ? err
                    : run("UPDATE properties SET key = ?3 || substr(key, length(?1) + 1) WHERE "
                          "key = ?1 OR substr(key, 1, length(?2)) = ?2",
                          {from, lead_of(from), to});
  });
}

void DeadProperties::copied(const std::string& from, const std::string& to) {
  transact([&] {
    const int err = run("DELETE FROM properties WHERE key = ?", {to});
    return err != 0 ? err
                    : run("INSERT INTO properties SELECT ?2, space, name, xml FROM properties "
                          "WHERE key = ?1",
                          {from, to});
  });
}

}  // namespace tnwdav
