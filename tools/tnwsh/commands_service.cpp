/* token, proxy and purge: the cache service and its cache. */
#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include "commands.h"

namespace tnwsh {
namespace {

/* A secret need not stand on a command line, which is kept and seen by others. */
std::string secret(const std::string& argument) {
  std::string secret = argument;
  if (argument == "-" && !read_secret(&secret)) {
    throw UsageError("Standard input has no line for \"-\"");
  }
  return secret;
}

/* The parser would show the words that it does not expect, and they may be of a secret. */
void refuse_extras(const CLI::App& command, const char* usage) {
  if (!command.remaining().empty()) {
    throw UsageError(usage);
  }
}

constexpr char SECRET_HELP[] = "; \"-\" reads it from the next line of standard input";

/* The start record is asked first: what it does not take would be lost with the service. */
void run_token(Shell& shell, const std::string& token) {
  Options next = shell.options();
  next.token = secret(token);
  start_record(next);
  shell.drive().update_token(next.token);
  shell.change(std::move(next));
}

struct Proxy {
  std::string server;
  std::string user;
  std::string password;
};

void set_proxy(Shell& shell, const Proxy& proxy) {
  Options next = shell.options();
  next.proxy = proxy.server;
  next.proxy_user = proxy.user;
  next.proxy_password = secret(proxy.password);
  start_record(next);
  shell.drive().set_proxy(next.proxy, next.proxy_user, next.proxy_password);
  shell.change(std::move(next));
}

void run_purge(Shell& shell, bool sure) {
  const std::string question = fmt::format(
      "Delete {} with all changes that are not in the cloud yet?", cache_folder(shell.options()));
  if (!sure && !confirm(question)) {
    throw Failure(cache_folder(shell.options()),
                  "not deleted: changes that are not in the cloud yet would be lost; --yes deletes "
                  "it nevertheless");
  }
  shell.stop_drive();
  fmt::print("{}\n", purge_cache(shell.options()));
}

}  // namespace

void declare_token(CLI::App* command, Action* action) {
  auto token = std::make_shared<std::string>();
  command->add_option("TOKEN", *token, std::string("The new token") + SECRET_HELP)->required();
  command->allow_extras();
  command->callback([=] {
    refuse_extras(*command, "The token must be one word");
    *action = [=](Shell& shell) { run_token(shell, *token); };
  });
}

void declare_proxy(CLI::App* command, Action* action) {
  auto proxy = std::make_shared<Proxy>();
  command->add_option("SERVER", proxy->server, "The proxy: host:port")->required();
  command->add_option("USER", proxy->user, "Its user");
  command->add_option("PASSWORD", proxy->password, std::string("Their password") + SECRET_HELP);
  command->allow_extras();
  command->callback([=] {
    refuse_extras(*command, "The proxy takes at most three words");
    *action = [=](Shell& shell) { set_proxy(shell, *proxy); };
  });
}

void declare_purge(CLI::App* command, Action* action) {
  auto sure = std::make_shared<bool>(false);
  command->add_flag("--yes", *sure, "Does not ask");
  command->callback([=] { *action = [=](Shell& shell) { run_purge(shell, *sure); }; });
}

}  // namespace tnwsh
