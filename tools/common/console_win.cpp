/* The console of Windows. */
#include <fcntl.h>
#include <fmt/format.h>
#include <io.h>
#include <windows.h>

#include <shellapi.h>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <memory>

#include "tools/common/console.h"
#include "tools/common/program.h"
#include "tools/common/wide_text.h"

namespace tools {
namespace {

std::atomic<bool> was_interrupted = false;

BOOL WINAPI on_control(DWORD type) {
  return type == CTRL_C_EVENT && !was_interrupted.exchange(true) ? TRUE : FALSE;
}

UINT console_code_page = 0;

void restore_console() {
  fflush(stdout);
  SetConsoleOutputCP(console_code_page);
}

HANDLE handle_of(FILE* stream) { return reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream))); }

/* A console's input is read as UTF-16: its UTF-8 mode loses all but ASCII on some versions. */
bool read_console_line(std::string* line) {
  std::wstring text;
  while (!text.ends_with(L'\n')) {
    wchar_t part[512];
    DWORD count = 0;
    if ((ReadConsoleW(handle_of(stdin), part, static_cast<DWORD>(std::size(part)), &count,
                      nullptr) == 0) ||
        count == 0 || part[0] == L'\x1a') { /* Ctrl-Z ends the input */
      return false;
    }
    text.append(part, count);
  }
  *line = utf8_from_wide(text);
  return true;
}

}  // namespace

std::vector<std::string> set_up_console(int, char**) {
  for (FILE* stream : {stdin, stdout, stderr}) {
    _setmode(_fileno(stream), _O_BINARY);
  }
  setvbuf(stdout, nullptr, _IOFBF, 1 << 16);
  setvbuf(stderr, nullptr, _IONBF, 0);
  console_code_page = GetConsoleOutputCP();
  if (console_code_page != 0) {
    SetConsoleOutputCP(CP_UTF8);
    atexit(restore_console);
  }
  SetConsoleCtrlHandler(on_control, TRUE);
  return words_of(GetCommandLineW());
}

std::vector<std::string> words_of(const wchar_t* command_line) {
  int count = 0;
  const std::unique_ptr<wchar_t*, decltype(&LocalFree)> words(
      CommandLineToArgvW(command_line, &count), LocalFree);
  std::vector<std::string> texts;
  for (int i = 1; i < count; i++) {
    const std::wstring_view word = words.get()[i];
    texts.push_back(utf8_from_wide(word));
    if (texts.back().empty() && !word.empty()) {
      throw UsageError(fmt::format("Word {} of the command line is no Unicode text", i));
    }
  }
  return texts;
}

std::string program_folder() {
  wchar_t path[4096];
  const DWORD length = GetModuleFileNameW(nullptr, path, static_cast<DWORD>(std::size(path)));
  const std::string folder = utf8_from_wide(std::wstring_view(path, length));
  return folder.substr(0, folder.rfind('\\') + 1);
}

bool is_terminal(FILE* stream) {
  DWORD mode = 0;
  return GetConsoleMode(handle_of(stream), &mode) != 0;
}

int terminal_width() {
  CONSOLE_SCREEN_BUFFER_INFO info;
  if (GetConsoleScreenBufferInfo(handle_of(stderr), &info) == 0) {
    return 80;
  }
  return std::clamp(info.srWindow.Right - info.srWindow.Left + 1, 40, 200);
}

bool read_line(std::string* line) {
  if (is_terminal(stdin) ? !read_console_line(line) : !std::getline(std::cin, *line)) {
    return false;
  }
  line->erase(line->find_last_not_of("\r\n") + 1);
  return true;
}

bool read_secret(std::string* line) {
  const HANDLE input = handle_of(stdin);
  DWORD mode = 0;
  const bool terminal = GetConsoleMode(input, &mode) != 0;
  if (terminal) {
    fputs("(not shown) ", stderr);
    SetConsoleMode(input, mode & ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
  }
  const bool read = read_line(line);
  if (terminal) {
    SetConsoleMode(input, mode);
    fputc('\n', stderr);
  }
  return read;
}

bool confirm(const std::string& question) {
  if (!is_terminal(stdin)) {
    return false;
  }
  fprintf(stderr, "%s [y/N] ", question.c_str());
  std::string answer;
  return read_line(&answer) && (answer == "y" || answer == "Y" || answer == "yes");
}

bool interrupted() { return was_interrupted; }
void forget_interrupt() { was_interrupted = false; }

}  // namespace tools
