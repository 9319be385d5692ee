#include "tree_copy.h"

#include <fmt/format.h>
#include <windows.h>

#include <algorithm>
#include <chrono>

#include "failure.h"
#include "local_file.h"
#include "text.h"

namespace tnwsh {
namespace {

std::string JoinLocal(const std::string& folder, const std::string& below) {
  std::string path = folder + '\\' + below;
  std::replace(path.begin() + static_cast<ptrdiff_t>(folder.size()), path.end(), '/', '\\');
  return path;
}

std::string JoinBelow(const std::string& below, const std::string& name) {
  return below.empty() ? name : below + '/' + name;
}

/* After these nothing else succeeds. */
bool EndsTheWork(uint32_t code) {
  return code == ERROR_CANCELLED || code == kConnectionBroken || code == kUnauthorised;
}

}  // namespace

void TreeCopy::Get(const std::string& remote, const std::string& local) {
  std::vector<std::string> above = {drive_.Get(remote).id};
  CollectRemote(remote, "", &above);
  MakeLocalFolder(local);
  CopyAll(remote, local, [&](const Item& item) {
    const std::string target = JoinLocal(local, item.path);
    if (item.folder) {
      MakeLocalFolder(target);
    } else {
      bytes_ += GetFile(drive_, JoinPath(remote, item.path), item.size, target, mode_).bytes;
    }
  });
}

void TreeCopy::Put(const std::string& local, const std::string& remote) {
  CollectLocal(local, "");
  drive_.EnsureFolder(remote);
  CopyAll(local, remote, [&](const Item& item) {
    const std::string target = JoinPath(remote, item.path);
    if (item.folder) {
      drive_.EnsureFolder(target);
    } else {
      bytes_ += PutFile(drive_, JoinLocal(local, item.path), target, mode_).bytes;
    }
  });
}

/* `above`: the folders that lead to this one, by their ids. */
void TreeCopy::CollectRemote(const std::string& folder, const std::string& below,
                             std::vector<std::string>* above) {
  const std::string path = below.empty() ? folder : JoinPath(folder, below);
  StopWhenInterrupted(path);
  for (const Entry& entry : drive_.List(path)) {
    const std::string next = JoinBelow(below, entry.name);
    Add({.path = next, .folder = entry.folder, .size = entry.size}, [&] {
      if (std::find(above->begin(), above->end(), entry.id) != above->end()) {
        throw Failure(JoinPath(path, entry.name), "is a link that leads back, and is left out");
      }
      above->push_back(entry.id);
      CollectRemote(folder, next, above);
      above->pop_back();
    });
  }
}

void TreeCopy::CollectLocal(const std::string& folder, const std::string& below) {
  const std::string path = below.empty() ? folder : JoinLocal(folder, below);
  StopWhenInterrupted(path);
  for (const LocalEntry& entry : ListLocal(path)) {
    const std::string next = JoinBelow(below, entry.name);
    Add({.path = next, .folder = entry.folder}, [&] {
      if (entry.link) {
        throw Failure(JoinLocal(path, entry.name), "is a link to a folder, and is left out");
      }
      CollectLocal(folder, next);
    });
  }
}

void TreeCopy::Add(Item item, const Step& collect) {
  const size_t index = items_.size();
  const bool folder = item.folder;
  items_.push_back(std::move(item));
  if (folder && !Try(collect)) {
    items_[index].failed = true;
  }
}

void TreeCopy::CopyAll(const std::string& from, const std::string& to,
                       const std::function<void(const Item& item)>& copy) {
  const auto start = std::chrono::steady_clock::now();
  std::string failed_folder; /* with its slash */
  try {
    for (const Item& item : items_) {
      if (!failed_folder.empty() && item.path.starts_with(failed_folder)) {
        left_out_++;
      } else if (!item.failed && Try([&] { copy(item); })) {
        (item.folder ? folders_ : files_)++;
      } else if (item.folder) {
        failed_folder = item.path + '/';
      }
    }
  } catch (const Failure&) {
    fmt::print(stderr, "tnwsh: {}: stopped after {} and {} of {} items\n", from,
               Counted(files_, "file"), Counted(folders_, "folder"), items_.size());
    if (!failures_.empty()) {
      fmt::print(stderr, "tnwsh: {}: {}\n", from, FailuresText());
    }
    throw;
  }
  Finish(from, to, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
}

bool TreeCopy::Try(const Step& step) {
  try {
    step();
    return true;
  } catch (const Failure& failure) {
    if (EndsTheWork(failure.Code())) {
      throw;
    }
    failures_.emplace_back(failure.what());
    fmt::print(stderr, "tnwsh: {}\n", failure.what());
    return false;
  }
}

void TreeCopy::Finish(const std::string& from, const std::string& to, double seconds) const {
  const std::string what =
      fmt::format("{} and {}, {}", Counted(files_, "file"), Counted(folders_, "folder"),
                  BytesText(static_cast<double>(bytes_)));
  PrintTransfer(from, to, what, {bytes_, seconds});
  if (!failures_.empty()) {
    throw Failure(from, FailuresText());
  }
}

std::string TreeCopy::FailuresText() const {
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
