#include "console.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <shellapi.h>

#include <algorithm>
#include <atomic>
#include <iostream>

#include "service/wide_text.h"

namespace tnwsh {
namespace {

std::atomic<bool> interrupted = false;

BOOL WINAPI on_control(DWORD type) {
  return type == CTRL_C_EVENT && !interrupted.exchange(true) ? TRUE : FALSE;
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
        count == 0 || part[0] == L'\x1a') { /* Ctrl-Z */
      return false;
    }
    text.append(part, count);
  }
  return tarnd::utf8_from_wide(text, line);
}

}  // namespace

void set_up_console() {
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
}

std::vector<std::string> program_arguments() {
  int count = 0;
  wchar_t** words = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  for (int i = 1; i < count; i++) {
    tarnd::utf8_from_wide(words[i], &arguments.emplace_back());
  }
  LocalFree(words);
  return arguments;
}

std::string program_folder() {
  wchar_t path[4096];
  const DWORD length = GetModuleFileNameW(nullptr, path, static_cast<DWORD>(std::size(path)));
  std::string folder;
  tarnd::utf8_from_wide(std::wstring_view(path, length), &folder);
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

bool interrupted() { return interrupted; }
void forget_interrupt() { interrupted = false; }

}  // namespace tnwsh
