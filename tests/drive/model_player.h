/*
 * Applies steps to a drive and to plain memory, and compares after each one.
 */
#ifndef MODEL_PLAYER_H
#define MODEL_PLAYER_H

#include <windows.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>

#include "model_steps.h"
#include "plain_drive.h"
#include "real_drive.h"

/* Plays one sequence in a folder of its own. Nobody else uses the drive. */
class ModelPlayer {
 public:
  ModelPlayer(RealDrive& drive, const std::string& folder) : drive_(drive), folder_(folder) {
    std::filesystem::create_directory(drive_.in_cloud(folder_));
  }

  /* All steps, then the closes of what is open: how many steps a failure took, 0 without one. */
  size_t play(const Steps& steps) {
    size_t taken = 0;
    for (; taken < steps.size() && failure_.empty(); taken++) {
      apply(steps[taken]);
    }
    if (failure_.empty()) {
      close_all();
    }
    return failure_.empty() ? 0 : std::max<size_t>(taken, 1);
  }

  /* What differed first; empty without a failure. */
  const std::string& failure() const { return failure_; }

 private:
  /* In the order of Act. */
  void apply(const Step& step) {
    static constexpr void (ModelPlayer::*ACTS[])(const Step& step) = {
        &ModelPlayer::put,     &ModelPlayer::open,      &ModelPlayer::close,
        &ModelPlayer::cleanup, &ModelPlayer::read,      &ModelPlayer::read_all,
        &ModelPlayer::write,   &ModelPlayer::resize,    &ModelPlayer::rename,
        &ModelPlayer::remove,  &ModelPlayer::ask_remove};
    if (is_playable(step)) {
      (this->*ACTS[static_cast<size_t>(step.act)])(step);
    }
  }

  /* A file that was lost may only be closed any more. */
  bool is_playable(const Step& step) const {
    const auto file = plain_.opened(step.slot);
    const bool wants_open = step.act >= Act::CLOSE && step.act <= Act::RESIZE;
    const bool wants_bytes = wants_open && step.act != Act::CLOSE;
    return step.act == Act::OPEN ? !file : !wants_open || (file && !(wants_bytes && file->lost));
  }

  std::string path(size_t name) const { return folder_ + "/" + std::to_string(name); }

  /* ------------------------------------------------------------------ the steps */

  /* A size other than before: only so does the service see for sure that the file is another one.
   */
  void put(const Step& step) {
    const std::string name = path(step.name);
    if (plain_.is_open(name)) {
      return;
    }
    const auto before = plain_.named(name);
    const size_t size = step.len + (before && before->bytes.size() == step.len ? 1 : 0);
    const std::string bytes = noise(size, step.data);
    drive_.put(name, bytes);
    plain_.put(name, bytes);
  }

  std::unique_ptr<DriveFile> open_drive_file(const Step& step, const std::string& name) const {
    const auto file = plain_.named(name);
    for (size_t slot = 0; file && slot < MODEL_SLOTS; slot++) {
      if (plain_.opened(slot) == file) {
        return std::make_unique<DriveFile>(*files_[slot], step.how, name);
      }
    }
    return std::make_unique<DriveFile>(drive_, name, step.how);
  }

  void open(const Step& step) {
    const std::string name = path(step.name);
    auto file = open_drive_file(step, name);
    ox_u32 last_error = 0;
    const int code = plain_.open(step.slot, name, step.how, &last_error);
    expect_code("open", file->error(), code);
    if (code == 0) {
      expect_code("last error of an open", static_cast<int>(file->last_error()),
                  static_cast<int>(last_error));
    }
    if (code == 0) {
      files_[step.slot] = std::move(file);
    }
    compare_size(name);
  }

  void close(const Step& step) {
    const size_t slot = step.slot;
    const auto file = plain_.opened(slot);
    void* handle = files_[slot]->handle();
    expect_code("close", files_[slot]->close(), 0);
    plain_.close(slot);
    char byte;
    expect_code("read after the close", tnw_read(handle, &byte, 1, 0, nullptr, nullptr),
                ERROR_INVALID_HANDLE);
    expect_code("second close", tnw_close(handle, nullptr), ERROR_BAD_ARGUMENTS);
    files_[slot].reset();
    for (const auto& [name, named] : plain_.files()) {
      if (named == file && !plain_.is_open(name)) {
        compare_cloud(name);
      }
    }
  }

  void cleanup(const Step& step) {
    expect_code("cleanup", tnw_cleanup_file(files_[step.slot]->handle()), 0);
    plain_.cleanup(step.slot);
  }

  void read(const Step& step) { read(step.slot, step.off, step.len); }
  void read_all(const Step& step) {
    read(step.slot, 0, plain_.opened(step.slot)->bytes.size() + 1);
  }

  void write(const Step& step) {
    const std::string data = noise(step.len, step.data);
    expect_code("write", files_[step.slot]->write(step.off, data), 0);
    plain_.write(step.slot, step.off, data);
    look_around(step, step.off, step.len);
  }

  void resize(const Step& step) {
    const size_t before = plain_.opened(step.slot)->bytes.size();
    expect_code(
        "resize",
        tnw_setfilesize(files_[step.slot]->handle(), static_cast<ox_u32>(step.len), 0, nullptr), 0);
    plain_.resize(step.slot, step.len);
    const size_t first = std::min(before, step.len);
    look_around(step, first, std::max(before, step.len) - first);
  }

  void rename(const Step& step) {
    const std::string from = path(step.name);
    const std::string to = path(step.target);
    expect_code("rename", tnw_rename(drive_.drive, from.c_str(), to.c_str(), "test"),
                plain_.rename(from, to));
    compare_size(from);
    compare_size(to);
  }

  void remove(const Step& step) {
    const std::string name = path(step.name);
    expect_code("delete", tnw_delete(drive_.drive, name.c_str(), "test"), plain_.remove(name));
    compare_size(name);
  }

  /* That it may not go is no failure. */
  void ask_remove(const Step& step) {
    const std::string name = path(step.name);
    const int want = plain_.may_remove(name);
    bool may = want != 0;
    expect_code("can-delete", tnw_canfilebedeleted(drive_.drive, name.c_str(), &may),
                want == ERROR_SHARING_VIOLATION ? 0 : want);
    expect_code("can-delete's answer", static_cast<int>(may),
                static_cast<int>(want != ERROR_SHARING_VIOLATION));
  }

  void close_all() {
    for (size_t slot = 0; slot < MODEL_SLOTS; slot++) {
      if (plain_.opened(slot)) {
        Step step;
        step.slot = slot;
        close(step);
      }
    }
    compare_folder();
  }

  /* ------------------------------------------------------------------ comparing */

  void read(size_t slot, size_t off, size_t len) {
    std::string want;
    const int want_code = plain_.read(slot, off, len, &want);
    int code = -1;
    const std::string got = files_[slot]->read(off, len, &code);
    expect_code("read", code, want_code);
    expect_bytes("read", got, want);
  }

  /* A range and what is around it, through one of the file's opens. Only a little around it: what
   * was read is cached, and tells nothing any more about the maps. */
  void look_around(const Step& step, size_t off, size_t len) {
    const auto file = plain_.opened(step.slot);
    size_t through = step.slot;
    if (step.data % 3 == 0) {
      for (size_t slot = 0; slot < MODEL_SLOTS; slot++) {
        if (plain_.opened(slot) == file) {
          through = slot;
        }
      }
    }
    const size_t before = std::min(off, step.data / 3 % 3 * MODEL_REGION);
    const size_t behind = step.data / 9 % 3 * MODEL_REGION;
    if ((before + len + behind) != 0) {
      read(through, off - before, before + len + behind);
    }
    for (const auto& [name, named] : plain_.files()) {
      if (named == file) {
        compare_size(name);
      }
    }
  }

  void compare_size(const std::string& name) {
    const auto file = plain_.named(name);
    tnw_fileinfo info = {};
    expect_code("status", tnw_getfileinfo(drive_.drive, name.c_str(), &info, "test"),
                file ? 0 : ERROR_FILE_NOT_FOUND);
    if (file && info.fi_size != file->bytes.size()) {
      fail(name + " has the size " + std::to_string(info.fi_size) + " instead of " +
           std::to_string(file->bytes.size()));
    }
  }

  void compare_cloud(const std::string& name) {
    expect_bytes(("the cloud's " + name).c_str(), drive_.get(name), plain_.named(name)->bytes);
  }

  /* The cloud's names and contents. */
  void compare_folder() {
    size_t names = 0;
    for (const auto& entry : std::filesystem::directory_iterator(drive_.in_cloud(folder_))) {
      names++;
      const std::string name = folder_ + "/" + entry.path().filename().string();
      plain_.named(name) ? compare_cloud(name) : fail(name + " is in the cloud");
    }
    if (names != plain_.files().size()) {
      fail("files are missing in the cloud");
    }
    if (drive_.list(folder_).size() != names) {
      fail("the listing differs from the cloud");
    }
  }

  void expect_code(const char* call, int got, int want) {
    if (got != want) {
      fail(std::string(call) + " gives " + std::to_string(got) + " instead of " +
           std::to_string(want));
    }
  }

  void expect_bytes(const char* where, const std::string& got, const std::string& want) {
    if (got == want) {
      return;
    }
    const auto differ = std::mismatch(got.begin(), got.end(), want.begin(), want.end()).first;
    fail(std::string(where) + ": " + std::to_string(got.size()) + " bytes instead of " +
         std::to_string(want.size()) + ", different from " + std::to_string(differ - got.begin()));
  }

  void fail(const std::string& text) {
    if (failure_.empty()) {
      failure_ = text;
    }
  }

  RealDrive& drive_;
  const std::string folder_;
  PlainDrive plain_;
  std::array<std::unique_ptr<DriveFile>, MODEL_SLOTS> files_;
  std::string failure_;
};

#endif
