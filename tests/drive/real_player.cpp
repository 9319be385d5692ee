#include "real_player.h"

#include <windows.h>

#include <algorithm>

RealPlayer::RealPlayer(const std::string& server) : drive_(server) {
  commands_["start"] = [this](auto& a) {
    set_field(drive_.record.tnw_authtoken, option(a, "authtoken", "token"));
    drive_.record.tnw_max_threads = static_cast<int>(a.option("max_threads", 4));
    drive_.start();
    handles_["d"] = drive_.drive;
    return std::to_string(drive_.error);
  };
  commands_["stop"] = [this](auto&) { return std::to_string(drive_.stop()); };
  commands_["stop_gently"] = [this](auto&) { return std::to_string(drive_.stop_gently()); };
  /* count NAME [most=NUMBER]: what the service that was stopped last has counted */
  commands_["count"] = [this](auto& a) {
    const ox_u64 count = drive_.count(a[0]);
    const bool fits = a.options.contains("most") && count <= a.option("most", 0);
    return fits ? "" : std::to_string(count);
  };
  /* The names in the order of their bytes, with their sizes; the code that ended the listing. */
  commands_["list"] = [this](auto& a) {
    int code = -1;
    std::string entries;
    for (const auto& [name, entry] : drive_.list(a[0], &code)) {
      const bool folder = (entry.fi_attr & FILE_ATTRIBUTE_DIRECTORY) != 0;
      entries += '\n' + as_word(name) + (folder ? " folder" : ' ' + std::to_string(entry.fi_size));
    }
    return std::to_string(code) + entries;
  };
  /* A program beside the test's, where there is one. */
  commands_["copy_program"] = [this](auto& a) {
    if (file_exists(beside_test(a[0]))) {
      const std::string to = text(a, 1);
      std::filesystem::copy_file(beside_test(a[0]), std::u8string(to.begin(), to.end()));
    }
    return "";
  };
  /* How many there are below the drive's own. */
  commands_["folders"] = [this](auto&) {
    using Entries = std::filesystem::recursive_directory_iterator;
    const Entries all(drive_.folder.path());
    return std::to_string(std::count_if(begin(all), end(all),
                                        [](const auto& entry) { return entry.is_directory(); }));
  };
}

std::string RealPlayer::expanded(const std::string& text) const {
  std::string whole = text;
  replace_all(whole, "CLOUD", drive_.cloud.string());
  replace_all(whole, "FOLDER_URL", drive_.folder.path().generic_string());
  replace_all(whole, "FOLDER", drive_.folder.path().string());
  return whole;
}
