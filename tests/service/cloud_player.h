/* Scripts of calls of a cloud. */
#ifndef CLOUD_PLAYER_H
#define CLOUD_PLAYER_H

#include <set>
#include <sstream>

#include "memory_cloud.h"
#include "script.h"

/*
 * put PATH CONTENT [if=VERSION] [as=VERSION]    names the version that was made
 * status PATH [as=VERSION]                      or is there
 * get PATH [of=VERSION] [at=OFFSET size=BYTES]  the content, by default all of what is there
 * list PATH, folder PATH
 * rename FROM TO [if=VERSION] [over=VERSION] [as=VERSION]
 * remove PATH [if=VERSION]
 * fails COMMAND ...                             whether it does, where clouds fail in different
 * ways
 *
 * A version is the one that the script named so. An item is answered as "file 3" with its size, or
 * "folder/"; a failure by the name of its code, or of its error where the call was refused.
 */
class CloudPlayer {
 public:
  explicit CloudPlayer(tarnd::Cloud& cloud) : cloud_(cloud) {}

  Commands commands() {
    Commands commands;
    commands["put"] = [this](const Arguments& a) { return put(a); };
    commands["get"] = [this](const Arguments& a) { return get(a); };
    commands["status"] = [this](const Arguments& a) { return made(status(a[0]), a); };
    commands["list"] = [this](const Arguments& a) { return list(a[0]); };
    commands["rename"] = [this](const Arguments& a) { return rename(a); };
    commands["remove"] = [this](const Arguments& a) { return remove(a); };
    commands["folder"] = [this](const Arguments& a) {
      return item(cloud_.make_folder(context, a[0], &entry_));
    };
    commands["fails"] = [this](Arguments a) {
      const std::string command = a[0];
      a.words.erase(a.words.begin());
      this->commands().at(command)(a);
      return failed_ ? "yes" : "no";
    };
    return commands;
  }
  tarnd::CloudContext context;                              /* of each call */
  const tarnd::CloudEntry& entry() const { return entry_; } /* of the last call that has one */

 private:
  std::string failure(const tarnd::CloudResult& result) {
    failed_ = !result.ok();
    const bool refused = result.code == tarnd::CloudCode::REFUSED;
    return result.ok() ? "" : refused ? error_name(result.error) : name_of(result.code);
  }
  static std::string text_of(const std::string& name, const tarnd::CloudEntry& entry) {
    return name + (entry.folder ? "/" : " " + std::to_string(entry.size));
  }
  std::string item(const tarnd::CloudResult& result) {
    const std::string code = failure(result);
    return result.ok() ? text_of(entry_.path, entry_) : code;
  }
  std::string version(const Arguments& arguments, const char* option) const {
    const auto name = arguments.options.find(option);
    return name == arguments.options.end() ? "" : versions_.at(name->second);
  }
  std::string made(const tarnd::CloudResult& result, const Arguments& arguments) {
    const auto name = arguments.options.find("as");
    if (result.ok() && name != arguments.options.end()) {
      versions_[name->second] = entry_.version;
    }
    return item(result);
  }

  tarnd::CloudResult status(const std::string& path) {
    entry_ = {};
    return cloud_.status(context, path, &entry_);
  }
  std::string put(const Arguments& arguments) {
    TextSnapshot content(arguments[1]);
    return made(cloud_.put(context, arguments[0], {version(arguments, "if")}, content, &entry_),
                arguments);
  }
  std::string get(const Arguments& arguments) {
    const bool names_version = arguments.options.contains("of");
    if (const auto found = names_version ? tarnd::CloudResult() : status(arguments[0]);
        !found.ok()) {
      return failure(found);
    }
    std::string content;
    const auto result = cloud_.read(
        context, arguments[0], names_version ? version(arguments, "of") : entry_.version,
        {arguments.option("at", 0), arguments.option("size", entry_.size)},
        [&](const char* data, size_t size) {
          content.append(data, size);
          return 0;
        });
    return result.ok() ? as_word(content) : failure(result);
  }
  std::string list(const std::string& path) {
    std::set<std::string> items;
    const auto result = cloud_.list(context, path, [&](const tarnd::CloudEntry& entry) {
      return items.insert(text_of(entry.name, entry)).second;
    });
    std::string text = failure(result);
    for (const std::string& item : items) {
      text += (text.empty() ? "" : ", ") + item;
    }
    return text;
  }
  std::string remove(const Arguments& arguments) {
    return failure(cloud_.remove(context, arguments[0], version(arguments, "if")));
  }
  std::string rename(const Arguments& arguments) {
    status(arguments[0]);
    const tarnd::RenameConditions conditions = {version(arguments, "if"),
                                                version(arguments, "over"), entry_.modified};
    return made(cloud_.rename(context, arguments[0], arguments[1], conditions, &entry_), arguments);
  }

  tarnd::Cloud& cloud_;
  std::map<std::string, std::string> versions_; /* by the names in the script */
  tarnd::CloudEntry entry_;
  bool failed_ = false; /* the last call */
};

#endif
