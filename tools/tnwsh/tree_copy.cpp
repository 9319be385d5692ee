#include "tree_copy.h"

#include <fmt/format.h>
#include <windows.h>

#include <algorithm>
#include <chrono>

namespace tnwsh {
namespace {

std::string join_local(const std::string& folder, const std::string& below) {
  std::string path = folder + '\\' + below;
  std::replace(path.begin() + static_cast<ptrdiff_t>(folder.size()), path.end(), '/', '\\');
  return path;
}

std::string join_below(const std::string& below, const std::string& name) {
  return below.empty() ? name : below + '/' + name;
}

/* After one of these codes, no other item can succeed. */
bool ends_the_work(uint32_t code) {
  return code == ERROR_CANCELLED || code == TNW_ERROR_NO_SERVICE || code == ERROR_LOGON_FAILURE;
}

}  // namespace

void TreeCopy::get(const std::string& remote, const std::string& local) {
  std::vector<std::string> above = {drive_.get(remote).id};
  collect_remote(remote, "", &above);
  make_local_folder(local);
  copy_all(remote, local, [&](const Item& item) {
    const std::string target = join_local(local, item.path);
    if (item.folder) {
      make_local_folder(target);
    } else {
      bytes_ += get_file(drive_, join_path(remote, item.path), item.size, target, mode_).bytes;
    }
  });
}

void TreeCopy::put(const std::string& local, const std::string& remote) {
  collect_local(local, "");
  drive_.ensure_folder(remote);
  copy_all(local, remote, [&](const Item& item) {
    const std::string target = join_path(remote, item.path);
    if (item.folder) {
      drive_.ensure_folder(target);
    } else {
      bytes_ += put_file(drive_, join_local(local, item.path), target, mode_).bytes;
    }
  });
}

/* `above`: the folders that lead to this one, by their ids. */
void TreeCopy::collect_remote(const std::string& folder, const std::string& below,
                              std::vector<std::string>* above) {
  const std::string path = below.empty() ? folder : join_path(folder, below);
  stop_when_interrupted(path);
  for (const Entry& entry : drive_.list(path)) {
    const std::string next = join_below(below, entry.name);
    add({.path = next, .folder = entry.folder, .size = entry.size}, [&] {
      if (std::find(above->begin(), above->end(), entry.id) != above->end()) {
        throw Failure(join_path(path, entry.name), "is a link that leads back, and is left out");
      }
      above->push_back(entry.id);
      collect_remote(folder, next, above);
      above->pop_back();
    });
  }
}

void TreeCopy::collect_local(const std::string& folder, const std::string& below) {
  const std::string path = below.empty() ? folder : join_local(folder, below);
  stop_when_interrupted(path);
  for (const LocalEntry& entry : list_local(path)) {
    const std::string next = join_below(below, entry.name);
    add({.path = next, .folder = entry.folder}, [&] {
      if (entry.link) {
        throw Failure(join_local(path, entry.name), "is a link to a folder, and is left out");
      }
      collect_local(folder, next);
    });
  }
}

void TreeCopy::add(Item item, const Step& collect) {
  const size_t index = items_.size();
  const bool folder = item.folder;
  items_.push_back(std::move(item));
  if (folder && !attempt(collect)) {
    items_[index].failed = true;
  }
}

void TreeCopy::copy_all(const std::string& from, const std::string& to,
                        const std::function<void(const Item& item)>& copy) {
  const auto start = std::chrono::steady_clock::now();
  std::string failed_folder; /* with the slash at its end */
  try {
    for (const Item& item : items_) {
      if (!failed_folder.empty() && item.path.starts_with(failed_folder)) {
        left_out_++;
      } else if (!item.failed && attempt([&] { copy(item); })) {
        (item.folder ? folders_ : files_)++;
      } else if (item.folder) {
        failed_folder = item.path + '/';
      }
    }
  } catch (const Failure&) {
    fmt::print(stderr, "tnwsh: {}: stopped after {} and {} of {} items\n", from,
               counted(files_, "file"), counted(folders_, "folder"), items_.size());
    if (!failures_.empty()) {
      fmt::print(stderr, "tnwsh: {}: {}\n", from, failures_text());
    }
    throw;
  }
  finish(from, to, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
}

bool TreeCopy::attempt(const Step& step) {
  try {
    step();
    return true;
  } catch (const Failure& failure) {
    if (ends_the_work(failure.code())) {
      throw;
    }
    failures_.emplace_back(failure.what());
    fmt::print(stderr, "tnwsh: {}\n", failure.what());
    return false;
  }
}

void TreeCopy::finish(const std::string& from, const std::string& to, double seconds) const {
  const std::string what =
      fmt::format("{} and {}, {}", counted(files_, "file"), counted(folders_, "folder"),
                  bytes_text(static_cast<double>(bytes_)));
  print_transfer(from, to, what, {bytes_, seconds});
  if (!failures_.empty()) {
    throw Failure(from, failures_text());
  }
}

std::string TreeCopy::failures_text() const {
  std::string text = fmt::format("{} of {} failed:", failures_.size(), items_.size());
  for (const std::string& failure : failures_) {
    text += "\n  " + failure;
  }
  if (left_out_ > 0) {
    text += fmt::format("\nand {} below these left out", left_out_);
  }
  return text;
}

}  // namespace tnwsh
